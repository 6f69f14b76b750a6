// System calls that a client could make last.
#pragma once

#include <sys/types.h>
#include <time.h>

namespace dirwell::host {

// The timer of the thread that makes it, for the scopes below; each worker has one (WorkerScope). It is no thread-local
// object with a destructor, since noting that takes memory without which the C library ends the process. A forked
// process inherits none.
class Interruptions {
 public:
  Interruptions();
  ~Interruptions();
  Interruptions(const Interruptions &) = delete;
  Interruptions &operator=(const Interruptions &) = delete;

  // Interrupts the thread again and again; 0 ends it. Leaves errno alone.
  void every(long nanoseconds) const;

 private:
  pid_t owner_;
  timer_t timer_ = {};
  bool there_ = false;
};

// A client may send open files along with its bytes. Nobody here asks for them, so the kernel closes them in our name
// when the message is read or dropped, and the close of some (a connection whose data nobody takes) waits for as long
// as their owner likes. For the length of this scope a timer interrupts such a wait within milliseconds, and with it
// any other call of the thread. One scope at a time; worker only. Without a timer to be had, it does nothing.
class BriefCalls {
 public:
  BriefCalls();
  ~BriefCalls();
  BriefCalls(const BriefCalls &) = delete;
  BriefCalls &operator=(const BriefCalls &) = delete;
};

// Lets the kernel refuse such messages at their sender, on kernels that can (6.16 and later). Connections that the
// listener accepts inherit it.
void refuse_files(int listener);

}  // namespace dirwell::host
