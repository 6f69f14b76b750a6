// One service calling another.

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <thread>

#include "platform/bus_service.h"
#include "platform/host/io.h"
#include "platform/include/hxrest.h"
#include "platform/shortage.h"
#include "support/environment.h"
#include "support/private_root.h"
#include "support/refused_calls.h"

namespace dirwell::test {
namespace {

struct Free {
  void operator()(hx_io *io) const { hx_io_free(io); }
};
using Io = std::unique_ptr<hx_io, Free>;

Io io_with(std::string_view text) {
  Io io(hx_io_create());
  hx_io_write(io.get(), text.data(), text.size());
  return io;
}

std::string text_of(const Io &io) {
  return {hx_io_read(io.get(), 0), hx_io_size(io.get())};
}

// "/path:body", or what the path names.
void name_and_body(hx_request *request, hx_io *io, int descriptor) {
  in_request_process(io, descriptor, [&] {
    const std::string path = request->path;
    if (path == "/slow") {
      std::this_thread::sleep_for(3s);
    }
    const std::string filler(path == "/large" ? 10'000'000 : path == "/too-large" ? 17'000'000 : 0, 'x');
    write_text(descriptor, std::string(path == "/missing" ? "Status: 404 Not Found\r\n" : "") +
                               "Content-Type: text/plain\r\n\r\n" + path + ":" + hx_io_read(io, 0) + filler);
    hx_io_realloc(io, 0);
    hx_reply(io);
  });
}

TEST(Call, PostsTheContentAndReadsTheReply) {
  const ServiceProcess service(name_and_body);
  const Io io = io_with("{\"index\":1}");
  EXPECT_EQ(hx_call("bus-under-test", "watch", io.get(), 5, -1), 200);
  EXPECT_EQ(text_of(io), "/watch:{\"index\":1}");
}

TEST(Call, EncodesTheEndpointsName) {
  const ServiceProcess service(name_and_body);
  const Io io = io_with("");
  EXPECT_EQ(hx_call("bus-under-test", "fetch.cache x%/?ü", io.get(), 5, -1), 200);
  EXPECT_EQ(text_of(io), "/fetch.cache x%/?ü:");
}

TEST(Call, GivesTheStatusOfARefusal) {
  const ServiceProcess service(name_and_body);
  const Io io = io_with("");
  EXPECT_EQ(hx_call("bus-under-test", "missing", io.get(), 5, -1), 404);
  const Io too_long = io_with(std::string(2'000'000, 'x'));
  EXPECT_EQ(hx_call("bus-under-test", "x", too_long.get(), 5, -1), 413);
  EXPECT_THAT(text_of(too_long), testing::HasSubstr("Content Too Large"));
}

TEST(Call, ReadsALargeChunkedReply) {
  const ServiceProcess service(name_and_body);
  const Io io = io_with("");
  EXPECT_EQ(hx_call("bus-under-test", "large", io.get(), 5, -1), 200);
  EXPECT_EQ(hx_io_size(io.get()), 10'000'007U);
}

TEST(Call, RefusesAReplyBeyondItsLimit) {
  const ServiceProcess service(name_and_body);
  const Io io = io_with("kept");
  EXPECT_EQ(hx_call("bus-under-test", "too-large", io.get(), 5, -1), -1);
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_EQ(text_of(io), "kept");
}

TEST(Call, WritesTheReplyToADescriptor) {
  const ServiceProcess service(name_and_body);
  const Io io = io_with("body");
  std::array<int, 2> ends = {-1, -1};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  EXPECT_EQ(hx_call("bus-under-test", "x", io.get(), 5, ends[1]), 200);
  EXPECT_EQ(text_of(io), "body");
  std::array<char, 64> chunk;
  EXPECT_EQ(std::string(chunk.data(), static_cast<std::size_t>(::read(ends[0], chunk.data(), chunk.size()))),
            "/x:body");
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(Call, DoesNotWaitForADescriptorThatNobodyReads) {
  const ServiceProcess service(name_and_body);
  const Io io = io_with("");
  std::array<int, 2> ends = {-1, -1};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  EXPECT_EQ(hx_call("bus-under-test", "large", io.get(), 1, ends[1]), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(Call, TellsWhyTheReplyCannotBeWritten) {
  const ServiceProcess service(name_and_body);
  std::array<int, 2> ends = {-1, -1};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  EXPECT_EQ(in_child([&] {
              const Io io = io_with("kept");
              refuse_poll(ENOMEM);
              const int status = hx_call("bus-under-test", "x", io.get(), 5, ends[1]);
              ::_exit(status == -1 && errno == ENOMEM && text_of(io) == "kept" ? 0 : 1);
            }),
            0);
  ::close(ends[0]);
  EXPECT_EQ(in_child([&] {
              ::signal(SIGPIPE, SIG_IGN);
              const Io io = io_with("kept");
              const int status = hx_call("bus-under-test", "x", io.get(), 5, ends[1]);
              ::_exit(status == -1 && errno == EPIPE && text_of(io) == "kept" ? 0 : 1);
            }),
            0);
  ::close(ends[1]);
}

TEST(Call, SaysSoWhenMemoryIsShortAtAnyStep) {
  const ServiceProcess service(name_and_body);
  const Io io = io_with("body");
  const int before = ::dup(0);
  ::close(before);
  std::size_t step = 0;
  for (bool failed = true; failed; ++step) {
    int status = 0;
    int reason = 0;
    {
      const FailingAllocation allocation(step);
      status = hx_call("bus-under-test", "x", io.get(), 5, -1);
      reason = errno;
      failed = FailingAllocation::has_failed();
    }
    EXPECT_EQ(status, failed ? -1 : 200) << step;
    EXPECT_TRUE(!failed || reason == ENOMEM) << step;
    EXPECT_EQ(text_of(io), failed ? "body" : "/x:body") << step;
  }
  EXPECT_GT(step, 5U);
  const int after = ::dup(0);
  EXPECT_EQ(after, before) << "a descriptor was left behind";
  ::close(after);
}

TEST(Call, EndsAfterItsTime) {
  const ServiceProcess service(name_and_body);
  const Io io = io_with("kept");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(hx_call("bus-under-test", "slow", io.get(), 1, -1), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 1500ms);
  EXPECT_EQ(text_of(io), "kept");
}

TEST(Call, FailsWithoutAService) {
  const Io io = io_with("");
  EXPECT_EQ(hx_call("no-such-service", "x", io.get(), 1, -1), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(hx_call(std::string(200, 'x').c_str(), "x", io.get(), 1, -1), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(hx_call("no-such-service", "x", io.get(), 0, -1), -1);
  EXPECT_EQ(errno, EINVAL);
}

// A peer that says what it is told and ends.
class FakeService {
 public:
  // After the reply, `more` is said until the client goes.
  explicit FakeService(std::string reply, std::string more = "")
      : listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)), path_(private_root() + "/var/run/fake.sock") {
    write_below_root("var/run/.keep", "");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (::bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        ::listen(listener_, 1) != 0) {
      throw std::runtime_error("cannot listen at " + path_);
    }
    thread_ = std::thread([this, reply = std::move(reply), more = std::move(more)] {
      const int client = ::accept(listener_, nullptr, nullptr);
      std::array<char, 4096> request;
      static_cast<void>(!::read(client, request.data(), request.size()));
      write_text(client, reply);
      while (!more.empty() && ::send(client, more.data(), more.size(), MSG_NOSIGNAL) > 0) {
      }
      ::close(client);
    });
  }
  ~FakeService() {
    thread_.join();
    ::close(listener_);
    ::unlink(path_.c_str());
  }

 private:
  int listener_;
  std::string path_;
  std::thread thread_;
};

TEST(Call, TakesNoReplyForWhole) {
  for (const char *reply : {"", "HTTP/1.1 200 OK\r\n", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nabc",
                            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n", "nonsense\r\n\r\n"}) {
    const FakeService service(reply);
    const Io io = io_with("kept");
    EXPECT_EQ(hx_call("fake", "x", io.get(), 2, -1), -1) << reply;
    EXPECT_EQ(text_of(io), "kept");
  }
}

TEST(Call, ReadsAReplyThatEndsWithTheConnection) {
  const FakeService service("HTTP/1.1 200 OK\r\n\r\nall of it");
  const Io io = io_with("");
  EXPECT_EQ(hx_call("fake", "x", io.get(), 2, -1), 200);
  EXPECT_EQ(text_of(io), "all of it");
}

TEST(Call, IsNotProlongedByAReplyThatComesByteByByte) {
  // So that there is always something to read when the time is over.
  const FakeService service("HTTP/1.1 200 OK\r\nContent-Length: 16000000\r\n\r\n", "x");
  const Io io = io_with("kept");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(hx_call("fake", "x", io.get(), 1, -1), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  const auto taken = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(taken, 1s);
  EXPECT_LT(taken, 5s);
  EXPECT_EQ(text_of(io), "kept");
}

TEST(Call, WorksFromARequestProcessToItsOwnService) {
  const ServiceProcess service([](hx_request *request, hx_io *io, int descriptor) {
    if (request->path != "/outer") {
      return name_and_body(request, io, descriptor);
    }
    in_request_process(io, descriptor, [&] {
      const Io call = io_with("inner body");
      const int status = hx_call("bus-under-test", "inner", call.get(), 5, -1);
      write_text(descriptor, "Content-Type: text/plain\r\n\r\n" + std::to_string(status) + text_of(call));
      hx_io_realloc(io, 0);
      hx_reply(io);
    });
  });
  Client client(service);
  EXPECT_EQ(client.ask(post("/outer")).body, "200/inner:inner body");
}

}  // namespace
}  // namespace dirwell::test
