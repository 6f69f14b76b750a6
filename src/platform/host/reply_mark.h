// Marks of complete replies, seen across a fork.
//
// A request process says "my reply is complete" with hx_reply. The bus must tell that from a process that was killed in
// the middle of its reply: both look like the end of the stream. So each request in flight has a mark in memory that
// the bus shares with every process it forks.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace dirwell::host {

// The handler's side of one mark; copied into request processes. A default one belongs to no request and takes nothing.
class ReplyMark {
 public:
  ReplyMark() = default;
  // Declares the reply complete. Without effect once the bus has ended the request, even if the place serves a later
  // one.
  void set() const;

 private:
  friend class ReplyMarks;
  ReplyMark(std::atomic<std::uint64_t> *place, std::uint64_t open) : place_(place), open_(open) {}

  std::atomic<std::uint64_t> *place_ = nullptr;
  std::uint64_t open_ = 0;
};

// The bus's side: one page of places. Used by the worker alone.
class ReplyMarks {
 public:
  static constexpr std::size_t capacity = 512;

  // Throws std::bad_alloc when there is no memory to share.
  ReplyMarks();
  ~ReplyMarks();
  ReplyMarks(const ReplyMarks &) = delete;
  ReplyMarks &operator=(const ReplyMarks &) = delete;

  // A mark for a new request, or one that takes nothing when every place is in use.
  ReplyMark open();
  [[nodiscard]] static bool is_set(const ReplyMark &mark);
  // The request is over: what is set from now on is ignored.
  void close(const ReplyMark &mark);

 private:
  std::atomic<std::uint64_t> *places_;
  std::uint64_t next_ = 1;
};

}  // namespace dirwell::host
