#include "service/reply.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "service/json.h"

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
