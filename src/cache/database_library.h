// SQLite as a whole, before the first of its databases is opened.
#pragma once

namespace dirwell {

// Frees SQLite of the locks and counters that nobody here needs: a connection is used by one thread at a time, and no
// one asks how much memory SQLite holds. Process-wide; where SQLite is in use already it stays as it is, which is only
// slower. Before threads share SQLite; fails never.
void prepare_database_library();

}  // namespace dirwell
