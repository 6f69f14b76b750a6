// What every request needs, made once in the daemon so that each forked request process finds it ready.
#pragma once

namespace dirwell {

// Prepares the database library, loads collation data of every language, the case and accent rules, every source of the
// name service, the time zone and the share list, describes the root folder for nobody (as root, and without starting a
// program), and gives back the library pages that only this has read. A part that fails is loaded again where it is
// needed. Worker start, before the first request.
void warm_up();

}  // namespace dirwell
