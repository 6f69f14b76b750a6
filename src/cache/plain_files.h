// Keeps SQLite to plain files. The cache folder is open to everyone, so anything may lie under the name of a database
// or of the journal beside it: a pipe, a device, a file with a lease. Opening one of these could wait for ever.
#pragma once

namespace dirwell {

// From here on SQLite opens regular files and folders only, and waits for none of them; all else cannot be opened.
// Process-wide and lasting; further calls do nothing. As with all of SQLite, inside a fork gate section where threads
// and forks meet.
void open_plain_files_only();

}  // namespace dirwell
