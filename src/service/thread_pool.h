// Jobs of the daemon itself: requests that run on threads, first in, first out.
#pragma once

#include <jansson.h>

#include <condition_variable>
#include <list>
#include <mutex>
#include <vector>

#include "platform/include/hxrest.h"

namespace dirwell {

class ThreadPool {
 public:
  // Makes the request object of a job that is to run now, a new reference, of its io and of the object that the job
  // brought along. Or throws, and the job is released.
  using Prepare = json_t *(*)(hx_io *io, json_t *brought_along);

  // Starts `count` threads. Throws std::system_error when not even one can be started. Without `prepare` a handler gets
  // the job's own object.
  explicit ThreadPool(std::size_t count, Prepare prepare = nullptr);
  // Joins the threads (stop() must have been called, or this waits for ever), then releases the jobs that never ran.
  ~ThreadPool();
  ThreadPool(const ThreadPool &) = delete;
  ThreadPool &operator=(const ThreadPool &) = delete;

  // More jobs than this do not wait: a caller that asks faster than the pool works must not fill the daemon's memory
  // and descriptors.
  static constexpr std::size_t most_waiting = 256;
  // Of request texts, together; one alone may have any size.
  static constexpr std::size_t most_waiting_bytes = std::size_t{4} << 20;

  // Appends a job and takes over `io`, one reference of `request_object` and `descriptor`: whether the job runs or not,
  // they are released. A job beyond what may wait is released at once. Throws std::bad_alloc, with nothing taken over,
  // when there is no memory for the job. Any thread.
  void submit(hx_rest_handler handler, hx_request *request, hx_io *io, json_t *request_object, int descriptor);

  // Puts a stop job before all waiting jobs: every thread ends after the job it is running. Any thread.
  void stop();

 private:
  struct Job {
    hx_rest_handler handler = nullptr;  // none: the stop job
    hx_request *request = nullptr;
    hx_io *io = nullptr;
    json_t *request_object = nullptr;
    int descriptor = -1;
  };

  static void *run(void *self);
  static void release(Job &job);

  std::mutex mutex_;
  std::condition_variable changed_;
  const Prepare prepare_;
  std::list<Job> ring_;
  std::size_t waiting_bytes_ = 0;
  std::list<Job> stop_job_;  // made beforehand, so that nothing can keep the pool from stopping; then in the ring
  std::vector<pthread_t> threads_;
};

}  // namespace dirwell
