#include "service/thread_pool.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <thread>

#include "service/json.h"
#include "support/environment.h"

namespace dirwell {
namespace {

using namespace std::chrono_literals;

// What the handlers of these tests see; handlers are plain functions.
std::mutex seen_mutex;
std::vector<json_int_t> seen;
std::atomic<bool> hold{false};
std::atomic<int> running{0};

void record_handler(hx_request * /*request*/, hx_io *io, json_t *object, int descriptor) {
  ++running;
  while (hold) {
    std::this_thread::sleep_for(1ms);
  }
  const std::lock_guard lock(seen_mutex);
  seen.push_back(json_integer_value(json_object_get(object, "n")));
  if (descriptor >= 0) {
    [[maybe_unused]] const ssize_t written = ::write(descriptor, hx_io_read(io, 0), hx_io_size(io));
  }
}

void throwing_handler(hx_request * /*request*/, hx_io * /*io*/, json_t * /*object*/, int /*descriptor*/) {
  throw std::runtime_error("handler");
}

json_t *numbered(int n) {
  return json_pack("{s:i}", "n", n);
}

bool is_open(int descriptor) {
  return ::fcntl(descriptor, F_GETFD) != -1;
}

class ThreadPoolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    seen.clear();
    hold = false;
    running = 0;
  }
};

TEST_F(ThreadPoolTest, RunsJobsInArrivalOrder) {
  {
    ThreadPool pool(1);
    hold = true;
    for (int n = 0; n < 50; ++n) {
      pool.submit(record_handler, nullptr, hx_io_create(), numbered(n), -1);
    }
    hold = false;
    while (running < 50) {
      std::this_thread::sleep_for(1ms);
    }
    pool.stop();
  }
  ASSERT_EQ(seen.size(), 50U);
  for (int n = 0; n < 50; ++n) {
    EXPECT_EQ(seen[static_cast<std::size_t>(n)], n);
  }
}

TEST_F(ThreadPoolTest, HandsTheJobItsIoAndDescriptorAndReleasesThemAfterwards) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  JsonRef object(numbered(7));
  {
    ThreadPool pool(1);
    hx_io *io = hx_io_create();
    hx_io_write(io, "text", 4);
    pool.submit(record_handler, nullptr, io, json_incref(object.get()), ends[1]);
    char text[8] = {};
    EXPECT_EQ(::read(ends[0], text, sizeof text), 4);
    EXPECT_STREQ(text, "text");
    EXPECT_EQ(::read(ends[0], text, sizeof text), 0) << "the descriptor is closed after the job";
    pool.stop();
  }
  EXPECT_EQ(object->refcount, 1U);
  EXPECT_FALSE(is_open(ends[1]));
  ::close(ends[0]);
}

TEST_F(ThreadPoolTest, NeverRunsJobsBehindAStopJobButReleasesThem) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  JsonRef object(numbered(2));
  {
    ThreadPool pool(1);
    hold = true;
    pool.submit(record_handler, nullptr, hx_io_create(), numbered(1), -1);
    while (running == 0) {
      std::this_thread::sleep_for(1ms);
    }
    pool.submit(record_handler, nullptr, hx_io_create(), json_incref(object.get()), ends[1]);
    pool.stop();  // goes before the waiting job
    pool.submit(record_handler, nullptr, hx_io_create(), numbered(3), -1);
    hold = false;
  }
  EXPECT_EQ(seen, std::vector<json_int_t>{1});
  EXPECT_EQ(object->refcount, 1U);
  EXPECT_FALSE(is_open(ends[1]));
  ::close(ends[0]);
}

TEST_F(ThreadPoolTest, ReleasesJobsBeyondTheMostThatMayWait) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  {
    ThreadPool pool(1);
    hold = true;
    pool.submit(record_handler, nullptr, hx_io_create(), numbered(0), -1);
    while (running == 0) {
      std::this_thread::sleep_for(1ms);
    }
    for (int n = 0; n < 256; ++n) {
      pool.submit(record_handler, nullptr, hx_io_create(), numbered(1), -1);
    }
    pool.submit(record_handler, nullptr, hx_io_create(), numbered(2), ends[1]);
    EXPECT_FALSE(is_open(ends[1])) << "its caller learns at once";
    hold = false;
    while (running < 257) {
      std::this_thread::sleep_for(1ms);
    }
    pool.stop();
  }
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), 256);
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 2), 0);
  ::close(ends[0]);
}

TEST_F(ThreadPoolTest, ReleasesJobsWhoseTextsAreMoreThanMayWait) {
  const std::string mebibyte(1 << 20, 'x');
  const auto with_text = [&](int number) {
    hx_io *io = hx_io_create();
    hx_io_write(io, mebibyte.data(), mebibyte.size());
    return std::pair(io, numbered(number));
  };
  {
    ThreadPool pool(1);
    hold = true;
    pool.submit(record_handler, nullptr, hx_io_create(), numbered(0), -1);
    while (running == 0) {
      std::this_thread::sleep_for(1ms);
    }
    for (int n = 1; n <= 6; ++n) {
      const auto [io, object] = with_text(n);
      pool.submit(record_handler, nullptr, io, object, -1);
    }
    pool.submit(record_handler, nullptr, hx_io_create(), numbered(7), -1);
    hold = false;
    while (running < 6) {
      std::this_thread::sleep_for(1ms);
    }
    // What has run does not count any more.
    const auto [io, object] = with_text(8);
    pool.submit(record_handler, nullptr, io, object, -1);
    while (running < 7) {
      std::this_thread::sleep_for(1ms);
    }
    pool.stop();
  }
  EXPECT_EQ(seen, (std::vector<json_int_t>{0, 1, 2, 3, 4, 7, 8}));
}

TEST_F(ThreadPoolTest, PreparesAJobOnTheThreadThatRunsIt) {
  {
    ThreadPool pool(1, [](hx_io *io, json_t *brought_along) {
      if (hx_io_size(io) == 0) {
        throw std::runtime_error("nothing there");
      }
      return numbered(static_cast<int>(10 * json_integer_value(json_object_get(brought_along, "n"))));
    });
    // Two references from the start: the library counts one up without regard to a thread that counts down.
    const JsonRef object(numbered(5));
    json_t *const first = json_incref(object.get());
    json_t *const second = json_incref(object.get());
    pool.submit(record_handler, nullptr, hx_io_create(), first, -1);
    hx_io *io = hx_io_create();
    hx_io_write(io, "x", 1);
    pool.submit(record_handler, nullptr, io, second, -1);
    while (running < 1) {
      std::this_thread::sleep_for(1ms);
    }
    pool.stop();
  }
  EXPECT_EQ(seen, std::vector<json_int_t>{50}) << "the first could not be prepared, and did not run";
}

// An account of this process alone, which may have only so many threads. Back to root's at the end of the scope.
class FewThreads {
 public:
  explicit FewThreads(rlim_t most) {
    ::getrlimit(RLIMIT_NPROC, &before_);
    const rlimit limit{most, before_.rlim_max};
    const uid_t own = 1'000'000 + static_cast<uid_t>(::getpid());
    if (::setrlimit(RLIMIT_NPROC, &limit) != 0 || ::setresuid(own, own, 0) != 0) {
      ::_exit(2);
    }
  }
  ~FewThreads() {
    if (::setresuid(0, 0, 0) != 0 || ::setrlimit(RLIMIT_NPROC, &before_) != 0) {
      ::_exit(2);
    }
  }
  FewThreads(const FewThreads &) = delete;
  FewThreads &operator=(const FewThreads &) = delete;

 private:
  rlimit before_{};
};

// Fewer threads than asked for still do all jobs; without any there is no pool.
TEST_F(ThreadPoolTest, MakesDoWithTheThreadsThatTheMachineHas) {
  EXPECT_EQ(test::in_child([] {
              const FewThreads few(4);
              ThreadPool pool(20);
              const auto threads = std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
              if (threads < 2 || threads > 4) {
                ::_exit(3);
              }
              for (int n = 0; n < 8; ++n) {
                pool.submit(record_handler, nullptr, hx_io_create(), numbered(n), -1);
              }
              while (running < 8) {
                std::this_thread::sleep_for(1ms);
              }
              pool.stop();
            }),
            0);
  EXPECT_EQ(test::in_child([] {
              const FewThreads few(1);
              try {
                const ThreadPool pool(2);
              } catch (const std::system_error &error) {
                if (error.code() == std::errc::resource_unavailable_try_again) {
                  return;
                }
              }
              ::_exit(1);
            }),
            0);
}

TEST_F(ThreadPoolTest, StopEndsEveryThread) {
  ThreadPool pool(4);
  pool.stop();
  // The destructor joins all four, or this test hangs.
}

TEST_F(ThreadPoolTest, GoesOnAfterAJobThatThrows) {
  {
    ThreadPool pool(1);
    pool.submit(throwing_handler, nullptr, hx_io_create(), numbered(1), -1);
    pool.submit(record_handler, nullptr, hx_io_create(), numbered(2), -1);
    while (running < 1) {
      std::this_thread::sleep_for(1ms);
    }
    pool.stop();
  }
  EXPECT_EQ(seen, std::vector<json_int_t>{2});
}

}  // namespace
}  // namespace dirwell
