#include "platform/host/reply_mark.h"

#include <sys/mman.h>

#include <memory>
#include <new>

namespace dirwell::host {

namespace {

// A place holds 0 while it is free, else the number of its request, shifted, and whether its reply is complete.
constexpr std::uint64_t complete = 1;
constexpr std::size_t page_size = ReplyMarks::capacity * sizeof(std::atomic<std::uint64_t>);

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "a lock inside would not work between processes");

}  // namespace

void ReplyMark::set() const {
  if (place_ != nullptr) {
    std::uint64_t expected = open_;
    place_->compare_exchange_strong(expected, open_ | complete);
  }
}

ReplyMarks::ReplyMarks() {
  void *page = ::mmap(nullptr, page_size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) {
    throw std::bad_alloc();
  }
  places_ = static_cast<std::atomic<std::uint64_t> *>(page);
  std::uninitialized_value_construct_n(places_, capacity);
}

ReplyMarks::~ReplyMarks() {
  ::munmap(places_, page_size);
}

ReplyMark ReplyMarks::open() {
  for (std::size_t index = 0; index < capacity; ++index) {
    if (places_[index].load() == 0) {
      const std::uint64_t number = next_++ << 1;
      places_[index].store(number);
      return {&places_[index], number};
    }
  }
  return {};
}

bool ReplyMarks::is_set(const ReplyMark &mark) {
  return mark.place_ != nullptr && mark.place_->load() == (mark.open_ | complete);
}

void ReplyMarks::close(const ReplyMark &mark) {
  if (mark.place_ != nullptr) {
    mark.place_->store(0);
  }
}

}  // namespace dirwell::host
