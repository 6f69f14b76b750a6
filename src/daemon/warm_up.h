// What every request needs, made once in the daemon so that each forked request process finds it ready.
#pragma once

namespace dirwell {

// Loads collation data of every language, the case and accent rules, the database library, the name service, the time
// zone and the share list. A part that fails is loaded again where it is needed. Worker start, before the first
// request.
void warm_up();

}  // namespace dirwell
