// dirwell: lists folders for the web file manager, one instance a login session.
//
// The map of the program, in the order things happen:
//   run()                      daemon/run.cpp              start-up steps, bus loop, shutdown
//     read_options()           daemon/options.cpp          level, session id, clean-up
//     Session                  service/session.cpp         is the session alive, whose is it
//     create_pid_file()        daemon/pid_file.cpp         one instance a session
//     register_endpoints()     daemon/endpoints.cpp        the five endpoints and their usage texts
//     hx_start()               platform/                   the bus: accepts, reads requests, sends replies
// and for each request that the bus hands over:
//   fork_prehandler()          daemon/request_process.cpp  a process of its own, under the user's identity
//     fetch_resource_handler() daemon/handlers.cpp         the steps below
//       parseResourceQuery()   listing/resource_query.cpp  what to list (service/parameters.cpp for what all share)
//       walkDirectory()        listing/walk.cpp            read, filter (listing/filters.cpp), group
//                                                          (ordering/clusters.cpp), order (ordering/sorters.cpp)
//       CacheStore::set()      cache/cache_operations.cpp  keep the listing, count its groups
//       CacheStore::fetch()    cache/cache_operations.cpp  read one page back
//       LegacyFormatter        describe/formatter.cpp      describe each entry
//       write_reply()          service/reply.cpp           one JSON object to the client
#include "daemon/run.h"

int main(int argc, char *argv[]) {
  return dirwell::run(argc, argv);
}
