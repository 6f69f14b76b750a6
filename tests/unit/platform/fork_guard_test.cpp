// What a request process does and does not share with the bus.

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/bus_service.h"
#include "platform/host/fork_guard.h"
#include "platform/host/worker.h"
#include "platform/include/hxservice.h"
#include "support/environment.h"

namespace dirwell::test {
namespace {

// The sockets ("socket") and kernel objects ("anon_inode:[eventpoll]") that this process holds, but for `except`.
std::vector<std::string> open_things(int except) {
  std::vector<std::string> things;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    const std::string link = std::filesystem::read_symlink(entry.path(), error).string();
    if (entry.path().filename() == std::to_string(except)) {
      continue;
    }
    if (link.starts_with("socket:")) {
      things.emplace_back("socket");
    } else if (link.starts_with("anon_inode:")) {
      things.push_back(link);
    }
  }
  return things;
}

std::string joined(const std::vector<std::string> &texts) {
  std::string all;
  for (const std::string &text : texts) {
    all += text + ";";
  }
  return all;
}

void say(hx_io *io, int descriptor, const std::string &text) {
  write_text(descriptor, "Content-Type: text/plain\r\n\r\n" + text);
  hx_io_realloc(io, 0);
  hx_reply(io);
}

void list_descriptors(hx_request *, hx_io *io, int descriptor) {
  // What the service itself holds shows that the list is able to find it.
  const std::string before = joined(open_things(descriptor));
  in_request_process(io, descriptor, [&] { say(io, descriptor, before + "|" + joined(open_things(descriptor))); });
}

TEST(ForkGuard, HasNothingToDoForADescriptorThatThereIsNot) {
  host::fork_guard::guard(-1);
  const host::fork_guard::Guarded none(-1);
  const std::string before = joined(open_things(-1));
  EXPECT_EQ(in_child([&] { ::_exit(joined(open_things(-1)) == before ? 0 : 1); }), 0);
}

TEST(ForkGuard, LeavesARequestProcessNoSocketAndNoWakeUpDescriptorOfTheBus) {
  const ServiceProcess service(list_descriptors);
  std::vector<Client> others;
  others.reserve(5);
  for (int count = 0; count < 5; ++count) {
    others.emplace_back(service);
  }
  Client client(service);
  const std::string text = client.ask(post("/x")).body;
  const std::string of_service = text.substr(0, text.find('|'));
  EXPECT_THAT(of_service, testing::HasSubstr("socket;"));
  EXPECT_THAT(of_service, testing::HasSubstr("[eventpoll]"));
  EXPECT_THAT(of_service, testing::HasSubstr("[eventfd]"));
  EXPECT_EQ(text.substr(text.find('|') + 1), "");
}

void list_of_grandchild(hx_request *, hx_io *io, int descriptor) {
  in_request_process(io, descriptor, [&] {
    const bool open = ::fcntl(descriptor, F_GETFD) >= 0;
    say(io, descriptor, (open ? "open " : "closed ") + joined(open_things(descriptor)));
  });
}

TEST(ForkGuard, KeepsTheDescriptorOfTheRequestThroughBothForks) {
  const ServiceProcess service(list_of_grandchild);
  Client client(service);
  EXPECT_EQ(client.ask(post("/x")).body, "open ");
}

// A thread of the daemon forks while the worker serves: as safe, and the child has nothing of the bus at all.

TEST(ForkGuard, ServesAForkFromAnotherThread) {
  const ServiceProcess service([](hx_request *, hx_io *io, int descriptor) {
    std::thread([io, descriptor] {
      const int status =
          in_child([&] { ::_exit(::fcntl(descriptor, F_GETFD) < 0 && open_things(-1).empty() ? 0 : 1); });
      say(io, descriptor, status == 0 ? "nothing" : "something");
      ::close(descriptor);
      hx_io_free(io);
    }).detach();
  });
  Client other(service);
  Client client(service);
  for (int count = 0; count < 100; ++count) {
    const Client passing(service);  // comes and goes while the thread forks
    ASSERT_EQ(client.ask(post("/x")).body, "nothing") << count;
  }
}

TEST(ForkGuard, ForksOfManyThreadsAndTheWorkerDoNotMeet) {
  const ServiceProcess service([](hx_request *, hx_io *io, int descriptor) {
    static std::atomic<bool> started = false;
    if (!started.exchange(true)) {
      for (int count = 0; count < 3; ++count) {
        std::thread([] {
          while (true) {
            in_child([] {});
          }
        }).detach();
      }
    }
    in_request_process(io, descriptor, [&] { say(io, descriptor, "ok"); });
  });
  Client client(service);
  for (int count = 0; count < 200; ++count) {
    ASSERT_EQ(client.ask(post("/x")).body, "ok") << count;
  }
}

TEST(ForkGuard, ClosesOnlyWhatIsStillTheSame) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  host::fork_guard::install();
  {
    const host::fork_guard::Guarded guarded(ends[0]);
    EXPECT_EQ(in_child([&] { ::_exit(::fcntl(ends[0], F_GETFD) < 0 && ::fcntl(ends[1], F_GETFD) >= 0 ? 0 : 1); }), 0);
    ASSERT_EQ(::dup2(ends[1], ends[0]), ends[0]);  // the number now belongs to somebody else
    EXPECT_EQ(in_child([&] { ::_exit(::fcntl(ends[0], F_GETFD) >= 0 ? 0 : 1); }), 0);
  }
  EXPECT_EQ(in_child([&] { ::_exit(::fcntl(ends[1], F_GETFD) >= 0 ? 0 : 1); }), 0);
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(ForkGuard, GuardsADescriptorUntilItsOwnerClosesIt) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  host::fork_guard::install();
  host::fork_guard::guard(ends[0]);
  const auto open_in_child = [&] { return in_child([&] { ::_exit(::fcntl(ends[0], F_GETFD) >= 0 ? 7 : 8); }) >> 8; };
  EXPECT_EQ(open_in_child(), 8);
  EXPECT_EQ(open_in_child(), 8);
  ASSERT_EQ(::dup2(ends[1], ends[0]), ends[0]);
  EXPECT_EQ(open_in_child(), 7);
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(ForkGuard, KeepsTheRequestBeingDispatchedOnTheWorkerOnly) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  host::fork_guard::install();
  const host::fork_guard::Guarded guarded(ends[0]);
  const host::fork_guard::Dispatching dispatching(ends[0]);
  const auto open_in_child = [&] { return in_child([&] { ::_exit(::fcntl(ends[0], F_GETFD) >= 0 ? 7 : 8); }) >> 8; };
  EXPECT_EQ(open_in_child(), 8);
  {
    const host::WorkerScope worker;
    EXPECT_EQ(open_in_child(), 7);
    EXPECT_EQ(in_child([] { ::_exit(host::on_worker() ? 1 : 0); }), 0);
  }
  ::close(ends[0]);
  ::close(ends[1]);
}

// --- Signals ---

// Whoever takes in orphans may be slow to reap them: one that has ended does not run.
bool runs(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text);
  return file && text.find(") Z ") == std::string::npos;
}

void report_pid_and_wait(hx_request *, hx_io *io, int descriptor) {
  in_request_process(io, descriptor, [&] {
    say(io, descriptor, std::to_string(::getpid()));
    std::this_thread::sleep_for(10s);
  });
}

TEST(ForkGuard, ASignalToARequestProcessActsOnItAlone) {
  const ServiceProcess service(report_pid_and_wait);
  Client client(service);
  for (const int number : {SIGTERM, SIGKILL}) {
    const pid_t process = std::stoi(client.ask(post("/x")).body);
    ASSERT_EQ(::kill(process, number), 0);
    EXPECT_TRUE(eventually([&] { return !runs(process); }, 2s)) << "signal " << number << " did not end it";
  }
  EXPECT_EQ(client.ask(post("/x")).status, 200) << "the service has stopped";
}

TEST(ForkGuard, ARequestProcessCannotStopTheService) {
  static hx_service *own = nullptr;
  own = hx_create("forked-stop", 2, 1, report_pid_and_wait);
  EXPECT_EQ(in_child([] { hx_stop(own); }), 0);
  // Were the event shared, the loop would end at once; so it is made to end by a signal from outside, later.
  std::atomic<bool> stopped_by_us = false;
  std::thread stopper([&] {
    std::this_thread::sleep_for(150ms);
    stopped_by_us = true;
    hx_stop(own);
  });
  EXPECT_EQ(hx_start(own), 0);
  EXPECT_TRUE(stopped_by_us);
  stopper.join();
  hx_free(own);
}

volatile sig_atomic_t handled = 0;

TEST(Signals, AreHandledInTheProcessThatInstalledTheHandler) {
  handled = 0;
  hx_signal(SIGUSR1, [](int number) { handled = number; });
  ::raise(SIGUSR1);
  std::this_thread::sleep_for(1ms);  // the thread sanitizer handles a signal at the next call that may wait
  EXPECT_EQ(handled, SIGUSR1);
  ::signal(SIGUSR1, SIG_DFL);
}

TEST(Signals, FallBackToTheDefaultInAForkedProcessButForFaults) {
  EXPECT_EQ(in_child([] {
              host::fork_guard::install();
              hx_signal(SIGUSR2, [](int) {});
              hx_signal(SIGSEGV, [](int) { ::_exit(1); });
              const int status = in_child([] {
                struct sigaction ordinary = {};
                struct sigaction fault = {};
                ::sigaction(SIGUSR2, nullptr, &ordinary);
                ::sigaction(SIGSEGV, nullptr, &fault);
                ::_exit(ordinary.sa_handler == SIG_DFL && fault.sa_handler != SIG_DFL ? 0 : 1);
              });
              ::_exit(status == 0 ? 0 : 2);
            }),
            0);
}

TEST(Signals, AreBlockedNowhereAfterAFork) {
  host::fork_guard::install();
  const auto blocked = [] {
    sigset_t mask = {};
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    int count = 0;
    for (int number = 1; number < 65; ++number) {
      count += ::sigismember(&mask, number) == 1 ? 1 : 0;
    }
    return count;
  };
  EXPECT_EQ(in_child([&] { ::_exit(blocked()); }), 0);
  EXPECT_EQ(blocked(), 0);
}

TEST(Signals, AWriteToAClientThatHasGoneIsAnErrorInTheServiceAndItsRequestProcesses) {
  EXPECT_EQ(in_child([] {
              ::signal(SIGPIPE, SIG_DFL);
              hx_free(hx_create("pipes", 2, 1, report_pid_and_wait));
              struct sigaction action = {};
              ::sigaction(SIGPIPE, nullptr, &action);
              const int in_fork = in_child([] {
                struct sigaction inherited = {};
                ::sigaction(SIGPIPE, nullptr, &inherited);
                ::_exit(inherited.sa_handler == SIG_IGN ? 0 : 1);
              });
              ::_exit(action.sa_handler == SIG_IGN && in_fork == 0 ? 0 : 1);
            }),
            0);
}

// The listener's last copy is the service's: nobody connects to a service that has gone.
TEST(ForkGuard, NobodyListensWhenOnlyRequestProcessesAreLeft) {
  ServiceProcess service(report_pid_and_wait);
  const std::string path = service.path();
  Client client(service);
  const pid_t left = std::stoi(client.ask(post("/x")).body);
  ::kill(service.pid(), SIGKILL);
  EXPECT_EQ(service.wait(), -1);
  EXPECT_TRUE(runs(left));
  const Client late(path);
  EXPECT_EQ(late.socket(), -1);
  EXPECT_TRUE(client.ended()) << "a request process holds the connection";
  ::kill(left, SIGKILL);
  ::unlink(path.c_str());
}

}  // namespace
}  // namespace dirwell::test
