#include "service/reply.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <utility>

#include "service/json.h"
#include "support/environment.h"

namespace dirwell {
namespace {

// An io object with a client that is a connected socket: the test reads what the handler writes.
class ReplyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_), 0);
    io_ = hx_io_create();
    ASSERT_NE(io_, nullptr);
  }
  void TearDown() override {
    hx_io_free(io_);
    ::close(ends_[0]);
    if (ends_[1] >= 0) {
      ::close(ends_[1]);
    }
  }

  std::string written() {
    ::close(ends_[1]);
    ends_[1] = -1;
    std::string text;
    char piece[4096];
    for (ssize_t got = 0; (got = ::read(ends_[0], piece, sizeof piece)) > 0;) {
      text.append(piece, static_cast<std::size_t>(got));
    }
    return text;
  }

  int ends_[2] = {-1, -1};
  hx_io *io_ = nullptr;
};

constexpr const char *header = "Content-Type: application/json; charset=utf-8\r\n\r\n";

TEST_F(ReplyTest, CarriesCodeZeroAndAnEmptyMessageBesideTheResult) {
  const JsonRef result(json_pack("{s:i}", "total", 3));
  write_reply(io_, ends_[1], result.get(), ErrorRecord{});
  EXPECT_EQ(written(), std::string(header) + R"({"total":3,"error_code":0,"error_message":""})");
}

TEST_F(ReplyTest, OfAFailedRequestHasOnlyTheErrorKeys) {
  ErrorRecord record;
  set_error(record, 2, "invalid path");
  const JsonRef result(json_pack("{s:i,s:[]}", "total", 3, "datas"));
  write_reply(io_, ends_[1], result.get(), record);
  EXPECT_EQ(written(), std::string(header) + R"({"error_code":2,"error_message":"invalid path"})");
}

TEST_F(ReplyTest, WithoutAResultHasAnObjectOfItsOwn) {
  write_reply(io_, ends_[1], nullptr, ErrorRecord{});
  EXPECT_EQ(written(), std::string(header) + R"({"error_code":0,"error_message":""})");
}

TEST_F(ReplyTest, EscapesSlashesAndCutsReals) {
  const JsonRef result(json_pack("{s:s,s:f}", "path", "/a/b", "real", 3.14159));
  write_reply(io_, ends_[1], result.get(), ErrorRecord{});
  EXPECT_EQ(written(), std::string(header) + R"({"path":"\/a\/b","real":3.1,"error_code":0,"error_message":""})");
}

TEST_F(ReplyTest, EmptiesTheRequestTextAndGoesIntoTheIoWithoutADescriptor) {
  hx_io_write(io_, "request text", 12);
  const JsonRef result(json_pack("{s:i}", "total", 3));
  write_reply(io_, -1, result.get(), ErrorRecord{});
  EXPECT_STREQ(hx_io_read(io_, 0), R"({"total":3,"error_code":0,"error_message":""})");
}

TEST_F(ReplyTest, OfAnySizeArrivesWhole) {
  const JsonRef result(json_object());
  const std::string text(3'000'000, 'x');
  json_object_set_new(result.get(), "text", json_text(text).release());
  std::thread writer([&] {
    write_reply(io_, ends_[1], result.get(), ErrorRecord{});
    ::shutdown(ends_[1], SHUT_WR);
  });
  std::string got;
  char piece[65536];
  for (ssize_t size = 0; (size = ::read(ends_[0], piece, sizeof piece)) > 0;) {
    got.append(piece, static_cast<std::size_t>(size));
  }
  writer.join();
  EXPECT_EQ(got, std::string(header) + R"({"text":")" + text + R"(","error_code":0,"error_message":""})");
}

TEST_F(ReplyTest, ToADescriptorThatFailsEndsSilently) {
  ::signal(SIGPIPE, SIG_IGN);  // as the bus has it
  ::shutdown(ends_[0], SHUT_RDWR);
  write_reply(io_, ends_[1], nullptr, ErrorRecord{});
  ::signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(written(), "");
}

// As the bus has it: a client that goes away is told by the write itself.
class IgnoredPipeSignal {
 public:
  IgnoredPipeSignal() : before_(::signal(SIGPIPE, SIG_IGN)) {}
  ~IgnoredPipeSignal() { ::signal(SIGPIPE, before_); }
  IgnoredPipeSignal(const IgnoredPipeSignal &) = delete;
  IgnoredPipeSignal &operator=(const IgnoredPipeSignal &) = delete;

 private:
  sighandler_t before_;
};

class Pipe {
 public:
  Pipe() { EXPECT_EQ(::pipe2(ends_, O_CLOEXEC), 0); }
  ~Pipe() {
    closeReader();
    closeWriter();
  }
  Pipe(const Pipe &) = delete;
  Pipe &operator=(const Pipe &) = delete;

  [[nodiscard]] int reader() const { return ends_[0]; }
  [[nodiscard]] int writer() const { return ends_[1]; }
  void closeReader() { close(ends_[0]); }
  void closeWriter() { close(ends_[1]); }
  std::string rest() {
    std::string text;
    char piece[4096];
    for (ssize_t got = 0; (got = ::read(ends_[0], piece, sizeof piece)) > 0;) {
      text.append(piece, static_cast<std::size_t>(got));
    }
    return text;
  }

 private:
  static void close(int &descriptor) {
    if (descriptor >= 0) {
      ::close(std::exchange(descriptor, -1));
    }
  }
  int ends_[2] = {-1, -1};
};

TEST_F(ReplyTest, ArrivesThroughAPipe) {
  Pipe pipe;
  const JsonRef result(json_pack("{s:i}", "total", 3));
  write_reply(io_, pipe.writer(), result.get(), ErrorRecord{});
  pipe.closeWriter();
  EXPECT_EQ(pipe.rest(), std::string(header) + R"({"total":3,"error_code":0,"error_message":""})");
}

TEST_F(ReplyTest, OfAnySizeArrivesThroughAPipe) {
  // Around the size of the writer's buffer: header, text and the 45 bytes beside it fill it once and twice.
  for (const std::size_t size :
       {std::size_t{0}, 65536 - 49 - 45UL, 65536 - 49 - 44UL, 65536UL, 131072 - 49 - 45UL, 131072UL, 1'000'000UL}) {
    SCOPED_TRACE(size);
    Pipe pipe;
    const JsonRef result(json_object());
    const std::string text(size, 'x');
    json_object_set_new(result.get(), "text", json_text(text).release());
    std::thread writer([&] {
      write_reply(io_, pipe.writer(), result.get(), ErrorRecord{});
      pipe.closeWriter();
    });
    const std::string got = pipe.rest();
    writer.join();
    EXPECT_EQ(got, std::string(header) + R"({"text":")" + text + R"(","error_code":0,"error_message":""})");
  }
}

// The client need not put it together from a header and a body.
TEST_F(ReplyTest, ThatIsSmallGoesOutInOnePiece) {
  int packets[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, packets), 0);
  const JsonRef result(json_pack("{s:i,s:s}", "total", 3, "text", std::string(5000, 'x').c_str()));
  write_reply(io_, packets[1], result.get(), ErrorRecord{});
  ::close(packets[1]);
  std::string first(70000, '\0');
  first.resize(static_cast<std::size_t>(std::max<ssize_t>(0, ::read(packets[0], first.data(), first.size()))));
  EXPECT_EQ(first, std::string(header) + R"({"total":3,"text":")" + std::string(5000, 'x') +
                       R"(","error_code":0,"error_message":""})");
  char more = 0;
  EXPECT_EQ(::read(packets[0], &more, 1), 0);
  ::close(packets[0]);
}

TEST_F(ReplyTest, ToAClientThatIsGoneBeforeTheFirstByteEndsSilently) {
  const IgnoredPipeSignal ignored;
  const JsonRef small(json_object());
  const JsonRef large(json_object());
  json_object_set_new(large.get(), "text", json_text(std::string(3'000'000, 'x')).release());
  for (json_t *result : {static_cast<json_t *>(nullptr), small.get(), large.get()}) {
    Pipe pipe;
    pipe.closeReader();
    EXPECT_EQ(test::captured_stderr([&] { write_reply(io_, pipe.writer(), result, ErrorRecord{}); }), "");
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    ::close(ends[0]);
    EXPECT_EQ(test::captured_stderr([&] { write_reply(io_, ends[1], result, ErrorRecord{}); }), "");
    ::close(ends[1]);
  }
  // The next client has its reply.
  write_reply(io_, ends_[1], nullptr, ErrorRecord{});
  EXPECT_EQ(written(), std::string(header) + R"({"error_code":0,"error_message":""})");
}

TEST_F(ReplyTest, ToAClientThatGoesOnTheWayStopsThere) {
  const IgnoredPipeSignal ignored;
  const JsonRef result(json_object());
  json_object_set_new(result.get(), "text", json_text(std::string(5'000'000, 'x')).release());
  Pipe pipe;
  std::thread writer([&] { write_reply(io_, pipe.writer(), result.get(), ErrorRecord{}); });
  char piece[100];
  EXPECT_EQ(::read(pipe.reader(), piece, sizeof piece), 100);
  EXPECT_EQ(std::string(piece, 49), std::string(header));
  pipe.closeReader();
  writer.join();
}

TEST_F(ReplyTest, ToADescriptorThatIsClosedEndsSilently) {
  constexpr int never_open = 2'000'000'000;
  EXPECT_EQ(test::captured_stderr([&] { write_reply(io_, never_open, nullptr, ErrorRecord{}); }), "");
  EXPECT_EQ(written(), "");
}

TEST_F(ReplyTest, QuotesAMessageThatIsNotUtf8) {
  ErrorRecord record;
  set_error(record, 3, "bad \xFF");
  write_reply(io_, ends_[1], nullptr, record);
  EXPECT_EQ(written(), std::string(header) + "{\"error_code\":3,\"error_message\":\"bad \xEF\xBF\xBD\"}");
}

TEST(DumpJson, WritesCompactTextIntoAnIo) {
  hx_io *io = hx_io_create();
  const JsonRef value(json_pack("{s:i}", "index", 2));
  EXPECT_TRUE(dump_json(value.get(), io));
  EXPECT_STREQ(hx_io_read(io, 0), R"({"index":2})");
  hx_io_free(io);
}

}  // namespace
}  // namespace dirwell
