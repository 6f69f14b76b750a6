/* Sockets, pipes, timers and all that is waited for. */
#include <poll.h>
#include <stdarg.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "plan.h"

EXPORT int inotify_init1(int flags) {
  REAL(int (*)(int), "inotify_init1");
  return fault_strikes(call_inotify_init1, NULL) ? -1 : real(flags);
}

EXPORT int inotify_add_watch(int descriptor, const char *path, uint32_t mask) {
  REAL(int (*)(int, const char *, uint32_t), "inotify_add_watch");
  return fault_strikes(call_inotify_add_watch, path) ? -1 : real(descriptor, path, mask);
}

EXPORT int eventfd(unsigned value, int flags) {
  REAL(int (*)(unsigned, int), "eventfd");
  return fault_strikes(call_eventfd, NULL) ? -1 : real(value, flags);
}

EXPORT int timerfd_create(clockid_t clock, int flags) {
  REAL(int (*)(clockid_t, int), "timerfd_create");
  return fault_strikes(call_timerfd_create, NULL) ? -1 : real(clock, flags);
}

/* Timers of whole seconds begin at a time of day and go on by their period. */
EXPORT int timerfd_settime(int descriptor, int flags, const struct itimerspec *time, struct itimerspec *before) {
  REAL(int (*)(int, int, const struct itimerspec *, struct itimerspec *), "timerfd_settime");
  if (fault_strikes(call_timerfd_settime, NULL)) {
    return -1;
  }
  const uint64_t seconds = (uint64_t)time->it_interval.tv_sec;
  const uint64_t period = fault_period(seconds);
  if (period == seconds * 1000) {
    return real(descriptor, flags, time, before);
  }
  const struct timespec often = {(time_t)(period / 1000), (long)(period % 1000 * 1000000)};
  const struct itimerspec hastened = {often, often};
  return real(descriptor, 0, &hastened, before);
}

EXPORT int socket(int domain, int type, int protocol) {
  REAL(int (*)(int, int, int), "socket");
  return fault_strikes(call_socket, NULL) ? -1 : real(domain, type, protocol);
}

EXPORT int socketpair(int domain, int type, int protocol, int ends[2]) {
  REAL(int (*)(int, int, int, int *), "socketpair");
  return fault_strikes(call_socketpair, NULL) ? -1 : real(domain, type, protocol, ends);
}

EXPORT int connect(int descriptor, const struct sockaddr *address, socklen_t size) {
  REAL(int (*)(int, const struct sockaddr *, socklen_t), "connect");
  return fault_strikes_blocking(call_connect, NULL) ? -1 : real(descriptor, address, size);
}

EXPORT int accept4(int descriptor, struct sockaddr *address, socklen_t *size, int flags) {
  REAL(int (*)(int, struct sockaddr *, socklen_t *, int), "accept4");
  return fault_strikes_blocking(call_accept, NULL) ? -1 : real(descriptor, address, size, flags);
}

EXPORT ssize_t send(int descriptor, const void *bytes, size_t size, int flags) {
  REAL(ssize_t(*)(int, const void *, size_t, int), "send");
  return fault_strikes_blocking(call_send, NULL) ? -1 : real(descriptor, bytes, fault_size(size), flags);
}

EXPORT ssize_t sendmsg(int descriptor, const struct msghdr *message, int flags) {
  REAL(ssize_t(*)(int, const struct msghdr *, int), "sendmsg");
  if (fault_strikes_blocking(call_sendmsg, NULL)) {
    return -1;
  }
  if (message->msg_iovlen > 0 && fault_size(message->msg_iov[0].iov_len) < message->msg_iov[0].iov_len) {
    struct iovec piece = {message->msg_iov[0].iov_base, 1};
    struct msghdr small = *message;
    small.msg_iov = &piece;
    small.msg_iovlen = 1;
    return real(descriptor, &small, flags);
  }
  return real(descriptor, message, flags);
}

EXPORT ssize_t recv(int descriptor, void *bytes, size_t size, int flags) {
  REAL(ssize_t(*)(int, void *, size_t, int), "recv");
  return fault_strikes_blocking(call_recv, NULL) ? -1 : real(descriptor, bytes, fault_size(size), flags);
}

EXPORT int getsockopt(int descriptor, int level, int option, void *value, socklen_t *size) {
  REAL(int (*)(int, int, int, void *, socklen_t *), "getsockopt");
  return fault_strikes(call_getsockopt, NULL) ? -1 : real(descriptor, level, option, value, size);
}

EXPORT int setsockopt(int descriptor, int level, int option, const void *value, socklen_t size) {
  REAL(int (*)(int, int, int, const void *, socklen_t), "setsockopt");
  return fault_strikes(call_setsockopt, NULL) ? -1 : real(descriptor, level, option, value, size);
}

EXPORT int poll(struct pollfd *watched, nfds_t count, int timeout) {
  REAL(int (*)(struct pollfd *, nfds_t, int), "poll");
  return fault_strikes_blocking(call_poll, NULL) ? -1 : real(watched, count, timeout);
}

EXPORT int epoll_wait(int descriptor, struct epoll_event *events, int count, int timeout) {
  REAL(int (*)(int, struct epoll_event *, int, int), "epoll_wait");
  return fault_strikes_blocking(call_epoll_wait, NULL) ? -1 : real(descriptor, events, count, timeout);
}

EXPORT int epoll_ctl(int descriptor, int operation, int watched, struct epoll_event *event) {
  REAL(int (*)(int, int, int, struct epoll_event *), "epoll_ctl");
  return fault_strikes(call_epoll_ctl, NULL) ? -1 : real(descriptor, operation, watched, event);
}

#ifndef SANITIZED /* A sanitizer tries by pipes of its own whether memory can be read. */
EXPORT int pipe(int ends[2]) {
  REAL(int (*)(int *), "pipe");
  return fault_strikes(call_pipe, NULL) ? -1 : real(ends);
}
#endif

EXPORT int pipe2(int ends[2], int flags) {
  REAL(int (*)(int *, int), "pipe2");
  return fault_strikes(call_pipe, NULL) ? -1 : real(ends, flags);
}
