// The gate between the daemon's threads and its forks.
//
// The bus worker forks while other threads run. A lock that one of them holds at that moment (of SQLite, ICU, the name
// service, the time zone, a session, our own) would stay locked for ever in the request process. So every thread other
// than the bus worker does such work inside a Section, and a fork waits until no section is open and lets none open
// meanwhile. Waiting forks go first: threads in a tight loop cannot keep them out.
#pragma once

#include <sys/types.h>

namespace dirwell::fork_gate {

// Work that a fork must not cut in half. Sections of one thread nest. Keep one short: every request waits for it.
// Opening blocks while a fork is waiting or under way. Any thread; never held across a call of fork().
class Section {
 public:
  Section();
  ~Section();
  Section(const Section &) = delete;
  Section &operator=(const Section &) = delete;
};

// ::fork() with every section closed. Same results; in the child the gate is new and open. The calling thread must hold
// no section.
pid_t fork();

}  // namespace dirwell::fork_gate
