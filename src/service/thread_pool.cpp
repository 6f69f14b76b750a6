#include "service/thread_pool.h"

#include <exception>
#include <system_error>
#include <utility>

#include "service/thread.h"
#include "service/unique_fd.h"

namespace dirwell {

ThreadPool::ThreadPool(std::size_t count, Prepare prepare) : prepare_(prepare), stop_job_(1) {
  threads_.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    pthread_t thread{};
    if (const int failure = start_thread(thread, &ThreadPool::run, this); failure != 0) {
      if (threads_.empty()) {
        throw std::system_error(failure, std::generic_category(), "thread pool");
      }
      break;
    }
    threads_.push_back(thread);
  }
}

ThreadPool::~ThreadPool() {
  for (const pthread_t thread : threads_) {
    ::pthread_join(thread, nullptr);
  }
  for (Job &job : ring_) {
    release(job);
  }
}

void ThreadPool::submit(hx_rest_handler handler, hx_request *request, hx_io *io, json_t *request_object,
                        int descriptor) {
  Job job{handler, request, io, request_object, descriptor};
  const std::size_t bytes = hx_io_size(io);
  {
    const std::lock_guard lock(mutex_);
    if (ring_.size() < most_waiting && (ring_.empty() || waiting_bytes_ + bytes <= most_waiting_bytes)) {
      ring_.push_back(job);  // or throws, and then all is the caller's still
      job = {};
      waiting_bytes_ += bytes;
    }
  }
  release(job);  // what was not taken
  changed_.notify_one();
}

void ThreadPool::stop() {
  {
    const std::lock_guard lock(mutex_);
    ring_.splice(ring_.begin(), stop_job_);
  }
  changed_.notify_one();
}

void *ThreadPool::run(void *self) {
  auto &pool = *static_cast<ThreadPool *>(self);
  for (;;) {
    std::unique_lock lock(pool.mutex_);
    pool.changed_.wait(lock, [&pool] { return !pool.ring_.empty(); });
    if (pool.ring_.front().handler == nullptr) {
      // The stop job stays for the next thread to see.
      lock.unlock();
      pool.changed_.notify_one();
      return nullptr;
    }
    Job job = pool.ring_.front();
    pool.ring_.pop_front();
    pool.waiting_bytes_ -= hx_io_size(job.io);
    lock.unlock();
    try {
      if (pool.prepare_ != nullptr) {
        json_t *brought_along = std::exchange(job.request_object, pool.prepare_(job.io, job.request_object));
        json_decref(brought_along);
      }
      job.handler(job.request, job.io, job.request_object, job.descriptor);
    } catch (const std::exception &) {
      // The job's client gets no reply; the pool and the daemon go on.
    }
    release(job);
  }
}

void ThreadPool::release(Job &job) {
  json_decref(job.request_object);
  hx_io_free(job.io);
  close_if_valid(job.descriptor);
}

}  // namespace dirwell
