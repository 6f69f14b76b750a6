// The life of a service: where it listens, its hooks, how it ends.

#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <ios>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/bus_service.h"
#include "platform/host/limits.h"
#include "platform/include/hxservice.h"
#include "platform/shortage.h"
#include "support/environment.h"
#include "support/private_root.h"

namespace dirwell::test {
namespace {

TEST(Service, MakesItsFolderAndLeavesNoFile) {
  std::filesystem::remove_all(private_root() + "/var/run");
  ServiceProcess service(echo);
  struct stat status = {};
  ASSERT_EQ(::stat(service.path().c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777U, 0666U);
  service.ask_to_stop();
  EXPECT_EQ(service.wait(), 0);
  EXPECT_FALSE(std::filesystem::exists(private_root() + "/var/run/bus-under-test.sock"));
}

TEST(Service, ReplacesAStaleSocketFile) {
  std::string path;
  {
    ServiceProcess killed(echo);
    path = killed.path();
    ::kill(killed.pid(), SIGKILL);
    EXPECT_EQ(killed.wait(), -1);
    ASSERT_TRUE(std::filesystem::exists(path));
    const ServiceProcess service(echo);
    Client client(service);
    EXPECT_EQ(client.ask(post("/x")).status, 200);
  }
}

int start_here(const std::string &name) {
  hx_service *service = hx_create(name.c_str(), 2, 1, echo);
  if (service == nullptr) {
    return -errno;
  }
  hx_stop(service);
  const int result = hx_start(service) == 0 ? 0 : -errno;
  hx_free(service);
  return result;
}

TEST(Service, LeavesALiveServiceItsSocket) {
  const ServiceProcess service(echo);
  EXPECT_EQ(start_here("bus-under-test"), -EADDRINUSE);
  Client client(service);
  EXPECT_EQ(client.ask(post("/x")).status, 200);
}

TEST(Service, LeavesAFileThatIsNoSocket) {
  const std::string path = write_below_root("var/run/occupied.sock", "precious");
  EXPECT_EQ(start_here("occupied"), -EADDRINUSE);
  EXPECT_EQ(std::filesystem::file_size(path), 8U);
  std::filesystem::remove(path);
}

TEST(Service, StopsThoughAskedBeforeItsStart) {
  EXPECT_EQ(start_here("stopped-early"), 0);
}

TEST(Service, CannotListenAtAPathThatTheKernelCannotHold) {
  EXPECT_EQ(start_here(std::string(108, 'x')), -ENAMETOOLONG);
}

TEST(Service, TakesTheLongestPath) {
  const std::size_t around = private_root().size() + std::string("/var/run/.sock").size();
  EXPECT_EQ(start_here(std::string(107 - around, 'x')), 0);
  EXPECT_EQ(start_here(std::string(108 - around, 'x')), -ENAMETOOLONG);
}

TEST(Service, RefusesANameThatLeavesTheFolder) {
  EXPECT_EQ(start_here("../x"), -EINVAL);
  EXPECT_EQ(start_here(""), -EINVAL);
}

std::string hook_log;

TEST(Service, RunsItsHooksOnTheWorkerAroundTheLoop) {
  hook_log.clear();
  hx_service *service = hx_create("hooked", 2, 1, echo);
  ASSERT_NE(service, nullptr);
  int argument = 0;
  hx_worker_init(
      service,
      [](void *given) {
        hook_log += std::filesystem::exists(private_root() + "/var/run/hooked.sock") ? "init " : "not listening ";
        *static_cast<int *>(given) = 7;
      },
      &argument);
  hx_worker_fini(
      service, [](void *given) { hook_log += *static_cast<int *>(given) == 7 ? "fini" : "?"; }, &argument);
  hx_stop(service);
  EXPECT_EQ(hx_start(service), 0);
  EXPECT_EQ(hook_log, "init fini");
  hx_free(service);
}

TEST(Service, RunsNoHookWhenItCannotListen) {
  const ServiceProcess live(echo);
  hook_log.clear();
  hx_service *service = hx_create("bus-under-test", 2, 1, echo);
  hx_worker_init(
      service, [](void *) { hook_log += "init"; }, nullptr);
  hx_worker_fini(
      service, [](void *) { hook_log += "fini"; }, nullptr);
  EXPECT_EQ(hx_start(service), -1);
  EXPECT_EQ(hook_log, "");
  hx_free(service);
}

TEST(Service, TellsWhyItsWorkerCouldNotBegin) {
  const std::vector<std::pair<hx_worker_hook, int>> failures = {
      {[](void *) { throw std::bad_alloc(); }, ENOMEM},
      {[](void *) { throw std::system_error(EPERM, std::generic_category()); }, EPERM},
      {[](void *) { throw std::system_error(1, std::iostream_category()); }, EIO},
      {[](void *) { throw std::runtime_error("whatever"); }, EIO}};
  for (const auto &[hook, error] : failures) {
    hook_log.clear();
    hx_service *service = hx_create("failing", 2, 1, echo);
    ASSERT_NE(service, nullptr);
    hx_worker_init(service, hook, nullptr);
    hx_worker_fini(
        service, [](void *) { hook_log += "fini"; }, nullptr);
    EXPECT_EQ(hx_start(service), -1);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(hook_log, "fini");
    EXPECT_FALSE(std::filesystem::exists(private_root() + "/var/run/failing.sock"));
    hx_free(service);
  }
}

std::size_t open_descriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

TEST(Service, IsNotMadeWithoutMemory) {
  const std::size_t descriptors = open_descriptors();
  std::size_t step = 0;
  for (bool failed = true; failed; ++step) {
    hx_service *service = nullptr;
    int reason = 0;
    {
      const FailingAllocation allocation(step);
      service = hx_create("starved-before-it-is-made", 2, 1, echo);
      reason = errno;
      failed = FailingAllocation::has_failed();
    }
    EXPECT_EQ(service == nullptr, failed) << step;
    EXPECT_TRUE(!failed || reason == ENOMEM) << step;
    hx_free(service);
  }
  EXPECT_GT(step, 2U);
  EXPECT_EQ(open_descriptors(), descriptors);
}

// It says so, or goes on and stops as it was told to. Some code of libraries knows no other way out than the end of the
// process, which the next start does not mind.
TEST(Service, LeavesNothingWhereMemoryIsShortAtAnyStepOfItsStart) {
  enum Outcome { never_short, survived, wrong };
  std::size_t survivals = 0;
  std::size_t aborts = 0;
  for (int outcome = survived; outcome != never_short;) {
    const int status = in_child([&] {
      const rlimit no_core = {0, 0};
      ::setrlimit(RLIMIT_CORE, &no_core);
      host::limits().pause = 1ms;
      hx_service *service = hx_create("starved", 2, 1, echo);
      hx_stop(service);
      const std::size_t descriptors = open_descriptors();
      int result = 0;
      int reason = 0;
      bool failed = false;
      {
        const FailingAllocation allocation(survivals + aborts);
        result = hx_start(service);
        reason = errno;
        failed = FailingAllocation::has_failed();
      }
      const bool right = result == 0 || (result == -1 && failed && reason == ENOMEM);
      const bool left = std::filesystem::exists(private_root() + "/var/run/starved.sock");
      if (!right || left || open_descriptors() != descriptors) {
        std::fprintf(stderr, "%d, errno %d, %s, %zu descriptors instead of %zu\n", result, reason,
                     left ? "a socket is left" : "no socket is left", open_descriptors(), descriptors);
        ::_exit(wrong);
      }
      ::_exit(failed ? survived : never_short);
    });
    const bool aborted = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
    ASSERT_TRUE(aborted || WIFEXITED(status)) << survivals + aborts << ": " << status;
    outcome = aborted ? survived : WEXITSTATUS(status);
    ASSERT_TRUE(outcome == survived || outcome == never_short) << survivals + aborts << ": " << status;
    (aborted ? aborts : survivals) += 1;
  }
  EXPECT_GT(survivals, aborts);
}

TEST(Service, StopsFromAnotherThread) {
  hx_service *service = hx_create("threaded", 2, 1, echo);
  std::thread stopper([&] {
    Client client(private_root() + "/var/run/threaded.sock");
    while (client.socket() < 0) {
      std::this_thread::sleep_for(5ms);
      client = Client(private_root() + "/var/run/threaded.sock");
    }
    EXPECT_EQ(client.ask(post("/x")).status, 200);
    hx_stop(service);
  });
  EXPECT_EQ(hx_start(service), 0);
  stopper.join();
  hx_free(service);
}

TEST(Service, LetsRequestsInFlightFinishWhenItStops) {
  ServiceProcess service(answer_late);
  const std::string path = service.path();
  Client busy(service);
  Client idle(service);
  busy.send(post("/x"));
  EXPECT_FALSE(busy.readable(100ms));
  service.ask_to_stop();
  EXPECT_TRUE(idle.ended(150ms)) << "an idle connection ends at once";
  EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(path); }, 100ms)) << "nobody can connect any more";
  const Response response = busy.receive();
  EXPECT_EQ(response.body, "[\"late\"]");
  EXPECT_EQ(response.fields.at("connection"), "close");
  EXPECT_TRUE(busy.ended());
  EXPECT_EQ(service.wait(), 0);
}

TEST(Service, HangsUpOnRequestsThatDoNotFinishInTime) {
  ServiceProcess service(answer_never, [] { host::limits().stop = 300ms; });
  Client client(service);
  client.send(post("/x"));
  EXPECT_FALSE(client.readable(100ms));
  const auto begin = std::chrono::steady_clock::now();
  service.ask_to_stop();
  EXPECT_TRUE(client.ended());
  EXPECT_EQ(service.wait(), 0);
  const auto taken = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(taken, 250ms);
  EXPECT_LT(taken, 1500ms);
}

TEST(Service, StopsThoughAClientSendsHalfARequestAndAnotherTakesNothing) {
  ServiceProcess service(echo, [] { host::limits().stop = 300ms; });
  Client half(service);
  half.send("POST /x HTTP/1.1\r\n");
  Client stuck(service);
  for (int count = 0; count < 40; ++count) {  // answers that nobody reads fill the socket
    ::send(stuck.socket(), post("/x", std::string(50'000, 'x')).data(), 50'000, MSG_NOSIGNAL | MSG_DONTWAIT);
  }
  std::this_thread::sleep_for(50ms);
  service.ask_to_stop();
  EXPECT_EQ(service.wait(), 0);
}

}  // namespace
}  // namespace dirwell::test
