#include "daemon/request_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "service/json.h"
#include "service/session.h"
#include "support/environment.h"
#include "support/private_root.h"
#include "support/temp_dir.h"

namespace dirwell {
namespace {

using test::in_child;

bool is_open(int descriptor) {
  return ::fcntl(descriptor, F_GETFD) != -1;
}

TEST(CloseInheritedFds, KeepsStandardStreamsSocketsAndDeletedFilesAndClosesTheRest) {
  const test::TempDir folder;
  EXPECT_EQ(in_child([&] {
              const int file = ::open(folder.write("file").c_str(), O_RDONLY);
              const int deleted = ::open(folder.write("gone").c_str(), O_RDONLY);
              ::unlink(folder.at("gone").c_str());
              int pipe_ends[2];
              int sockets[2];
              if (::pipe(pipe_ends) != 0 || ::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0) {
                ::_exit(2);
              }
              close_inherited_fds();
              const bool kept = is_open(0) && is_open(1) && is_open(2) && is_open(sockets[0]) && is_open(sockets[1]) &&
                                is_open(deleted);
              const bool closed = !is_open(file) && !is_open(pipe_ends[0]) && !is_open(pipe_ends[1]);
              ::_exit(kept && closed ? 0 : 1);
            }),
            0);
}

// What the handlers below report through their descriptor.
struct Report {
  char request[512];
  uid_t effective;
  pid_t process;
  pid_t parent;
};

void report_handler(hx_request * /*request*/, hx_io *io, json_t *object, int descriptor) {
  Report report{};
  char *text = json_dumps(object, JSON_COMPACT);
  std::snprintf(report.request, sizeof report.request, "%s|%zu", text, hx_io_size(io));
  std::free(text);
  report.effective = ::geteuid();
  report.process = ::getpid();
  report.parent = ::getppid();
  [[maybe_unused]] const ssize_t written = ::write(descriptor, &report, sizeof report);
}

using Prehandler = decltype(&fork_prehandler);

// Runs one request through a pre-handler and returns what its handler saw.
Report request_through(Prehandler prehandler, const std::string &body, const char *parameters) {
  int ends[2];
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  hx_io *io = hx_io_create();
  hx_io_write(io, body.data(), body.size());
  const JsonRef query(json_loads(parameters, 0, nullptr));
  prehandler(nullptr, report_handler, io, query.get(), ends[1]);
  Report report{};
  EXPECT_EQ(::recv(ends[0], &report, sizeof report, MSG_WAITALL), static_cast<ssize_t>(sizeof report));
  ::close(ends[0]);
  return report;
}

struct Row {
  const char *body;
  const char *parameters;
  const char *seen;
};

constexpr Row requests[] = {
    {R"({"a":1})", "{}", R"({"a":1}|0)"},
    {R"({"a":1,"b":2})", R"({"b":"x","c":"y"})", R"({"a":1,"b":"x","c":"y"}|0)"},  // a parameter wins
    {"not json", R"({"b":"x"})", R"({"b":"x"}|0)"},
    {"[1,2]", R"({"b":"x"})", R"({"b":"x"}|0)"},
    {"\"text\"", "{}", "{}|0"},
    {"", R"({"b":"x"})", R"({"b":"x"}|0)"},
    {R"({"a":1} trailing)", "{}", "{}|0"},
    {R"({"a":)", "{}", "{}|0"},
};

TEST(ForkPrehandler, MergesTheParametersOverTheBody) {
  for (const Row &row : requests) {
    EXPECT_STREQ(request_through(fork_prehandler, row.body, row.parameters).request, row.seen) << row.body;
  }
}

TEST(ForkPrehandler, RunsTheHandlerInAProcessThatIsNotADaemonsChild) {
  const Report report = request_through(fork_prehandler, "{}", "{}");
  EXPECT_NE(report.process, ::getpid());
  EXPECT_EQ(::waitpid(report.process, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(ForkPrehandler, ReleasesTheDescriptorInTheDaemon) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const JsonRef parameters(json_object());
  fork_prehandler(nullptr, report_handler, hx_io_create(), parameters.get(), ends[1]);
  EXPECT_FALSE(is_open(ends[1]));
  ::close(ends[0]);
}

TEST(ForkPrehandler, RunsUnderTheSessionUsersIdentity) {
  const test::ScopedSession session("request1", "nobody");
  EXPECT_EQ(in_child([] {
              test::captured_stderr([] { Session::instance().set_sid("request1"); });
              ::_exit(request_through(fork_prehandler, "{}", "{}").effective == 65534 ? 0 : 1);
            }),
            0);
}

TEST(ForkPrehandler, DropsARequestWhoseProcessCannotBeMade) {
  EXPECT_EQ(in_child([] {
              if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
                ::_exit(2);
              }
              const rlimit none{0, 0};
              ::setrlimit(RLIMIT_NPROC, &none);
              int ends[2];
              if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
                ::_exit(3);
              }
              fork_prehandler(nullptr, report_handler, hx_io_create(), json_object(), ends[1]);
              char byte = 0;
              const bool no_reply = ::read(ends[0], &byte, 1) == 0;
              ::_exit(no_reply && !is_open(ends[1]) ? 0 : 1);
            }),
            0);
}

TEST(ForkPrehandler, ServesNothingWithoutTheSessionUsersIdentity) {
  const test::ScopedSession session("request2", "root");
  EXPECT_EQ(in_child([] {
              test::captured_stderr([] { Session::instance().set_sid("request2"); });
              if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
                ::_exit(2);
              }
              int ends[2];
              if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
                ::_exit(3);
              }
              fork_prehandler(nullptr, report_handler, hx_io_create(), json_object(), ends[1]);
              char byte = 0;
              ::_exit(::read(ends[0], &byte, 1) == 0 ? 0 : 1);
            }),
            0);
}

TEST(WatchPrehandler, RunsTheHandlerOnThePoolOfThisProcess) {
  start_thread_pool();
  for (const Row &row : requests) {
    const Report report = request_through(watch_prehandler, row.body, row.parameters);
    EXPECT_STREQ(report.request, row.seen) << row.body;
    EXPECT_EQ(report.process, ::getpid());
  }
  stop_thread_pool();
}

// What the endpoint reads of a long text reaches its handler, and nothing else of it.
TEST(WatchPrehandler, KeepsOfALongTextWhatTheEndpointKnows) {
  start_thread_pool();
  const std::string padding = R"("padding":")" + std::string(100'000, 'x') + '"';
  const std::string many = R"("many":[)" + std::string(300'000, '[') + "]";
  const struct {
    std::string body;
    const char *parameters;
    const char *seen;
  } rows[] = {
      {R"({"index":2,)" + padding + "}", "{}", R"({"index":2}|0)"},
      {R"({"index":2,)" + padding + "}", R"({"index":"1","a":"b"})", R"({"index":"1","a":"b"}|0)"},
      {R"({"index":"2)" + std::string(5'000, 'x') + "\"}", "{}", R"({"index":2}|0)"},
      {R"({"index":true,)" + padding + "}", "{}", R"({"index":1}|0)"},
      {R"({"index":[2],)" + padding + "}", "{}", R"({"index":0}|0)"},
      {R"({"index":-1,)" + padding + "}", "{}", R"({"index":-1}|0)"},
      {"{" + padding + "}", R"({"b":"x"})", R"({"b":"x"}|0)"},
      {"[{" + padding + "}]", "{}", "{}|0"},
      {R"({"index":2,)" + many + "}", "{}", "{}|0"},
      {std::string(200'000, '['), R"({"b":"x"})", R"({"b":"x"}|0)"},
  };
  for (const auto &row : rows) {
    EXPECT_STREQ(request_through(watch_prehandler, row.body, row.parameters).request, row.seen)
        << row.body.substr(0, 20);
  }
  stop_thread_pool();
}

TEST(WatchPrehandler, DropsTheRequestWithoutAPool) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const JsonRef parameters(json_object());
  watch_prehandler(nullptr, report_handler, hx_io_create(), parameters.get(), ends[1]);
  char byte = 0;
  EXPECT_EQ(::read(ends[0], &byte, 1), 0);
  ::close(ends[0]);
}

}  // namespace
}  // namespace dirwell
