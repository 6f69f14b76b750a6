// Handlers that go on after their reply.
#pragma once

#include <cstddef>
#include <list>
#include <memory>

#include "platform/host/stream.h"

namespace dirwell::host {

// As long as the bus's end of a handler's socket is open, the handler's client counts as being there; so it is kept
// while the client's connection lives and the handler runs. Of each connection, and of all together, only so many are
// kept: a handler beyond that, the oldest first, learns that its client has gone although it has not. Worker only.
class KeptHandlers {
 public:
  explicit KeptHandlers(std::size_t most) : most_(most) {}
  ~KeptHandlers() { clear(); }
  KeptHandlers(const KeptHandlers &) = delete;
  KeptHandlers &operator=(const KeptHandlers &) = delete;

  // Keeps the bus's end of a handler of the connection `owner`.
  void keep(const void *owner, std::shared_ptr<Stream> handler);
  // The connection has ended: its handlers are hung up.
  void hang_up(const void *owner);
  // Before the loop is gone.
  void clear();

 private:
  struct Kept {
    const void *owner;
    std::shared_ptr<Stream> handler;
  };
  void forget(std::list<Kept>::iterator kept);

  std::size_t most_;
  std::list<Kept> kept_;  // the oldest first
};

}  // namespace dirwell::host
