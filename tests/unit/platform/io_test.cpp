#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>

#include "platform/host/io.h"
#include "platform/host/reply_mark.h"
#include "platform/host/root.h"
#include "platform/include/hxservice.h"
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

TEST(Root, IsTheEnvironmentsReadOnce) {
  EXPECT_EQ(hx_root(), private_root());
  const ScopedEnvironment changed("DIRWELL_ROOT", "/elsewhere");
  EXPECT_EQ(hx_root(), private_root());
}

TEST(Root, HasNoSlashAtItsEnd) {
  EXPECT_EQ(host::root_from(nullptr), "");
  EXPECT_EQ(host::root_from(""), "");
  EXPECT_EQ(host::root_from("/"), "");
  EXPECT_EQ(host::root_from("/tmp/box"), "/tmp/box");
  EXPECT_EQ(host::root_from("/tmp/box//"), "/tmp/box");
}

TEST(Io, StartsEmptyAndTerminated) {
  const Io io(hx_io_create());
  EXPECT_EQ(hx_io_size(io.get()), 0U);
  EXPECT_STREQ(hx_io_read(io.get(), 0), "");
  EXPECT_STREQ(hx_io_read(io.get(), 100), "");
}

TEST(Io, AppendsAndReadsFromAnOffset) {
  const Io io(hx_io_create());
  EXPECT_EQ(hx_io_write(io.get(), "abc", 3), 3U);
  EXPECT_EQ(hx_io_write(io.get(), "d\0e", 3), 3U);
  EXPECT_EQ(hx_io_size(io.get()), 6U);
  EXPECT_STREQ(hx_io_read(io.get(), 1), "bcd");
  EXPECT_EQ(std::memcmp(hx_io_read(io.get(), 0), "abcd\0e\0", 7), 0);
  EXPECT_STREQ(hx_io_read(io.get(), 6), "");
}

TEST(Io, IsCutAndExtendedWithZeros) {
  const Io io(hx_io_create());
  hx_io_write(io.get(), "abcdef", 6);
  EXPECT_EQ(hx_io_realloc(io.get(), 2), 0);
  EXPECT_STREQ(hx_io_read(io.get(), 0), "ab");
  EXPECT_EQ(hx_io_realloc(io.get(), 4), 0);
  EXPECT_EQ(std::memcmp(hx_io_read(io.get(), 0), "ab\0\0\0", 5), 0);
  EXPECT_EQ(hx_io_realloc(io.get(), 0), 0);
  EXPECT_EQ(hx_io_size(io.get()), 0U);
}

TEST(Io, SaysSoWhenMemoryIsShort) {
  const Io io(hx_io_create());
  hx_io_write(io.get(), "kept", 4);
  EXPECT_EQ(hx_io_realloc(io.get(), SIZE_MAX / 2), -1);
  EXPECT_EQ(hx_io_write(io.get(), "x", SIZE_MAX / 2), 0U);
  EXPECT_STREQ(hx_io_read(io.get(), 0), "kept");
}

TEST(Io, SaysSoWhenThereIsNoMoreMemory) {
  const Io io(hx_io_create());
  hx_io_write(io.get(), "kept", 4);
  const std::string text(1000, 'x');
  {
    const FailingAllocation none(0);
    EXPECT_EQ(hx_io_write(io.get(), text.data(), text.size()), 0U);
  }
  {
    const FailingAllocation none(0);
    EXPECT_EQ(hx_io_realloc(io.get(), 1000), -1);
  }
  EXPECT_EQ(hx_io_size(io.get()), 4U);
  EXPECT_STREQ(hx_io_read(io.get(), 0), "kept");
  EXPECT_EQ(hx_io_write(io.get(), text.data(), text.size()), 1000U);
  EXPECT_EQ(hx_io_size(io.get()), 1004U);
}

TEST(Io, WithoutAClientIsAliveAndHasNothingToReply) {
  const Io io(hx_io_create());
  hx_io_write(io.get(), "text", 4);
  EXPECT_EQ(hx_io_alive(io.get()), 1);
  hx_reply(io.get());
  EXPECT_STREQ(hx_io_read(io.get(), 0), "text");
}

TEST(Io, IsFreedWhenNull) {
  hx_io_free(nullptr);
}

// An io as the bus makes it for a request, and the bus's end of its socket.
class RequestIo : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    struct stat status = {};
    ASSERT_EQ(::fstat(ends[1], &status), 0);
    io->request = std::make_unique<hx_request>();
    io->request->descriptor = ends[1];
    io->request->device = status.st_dev;
    io->request->inode = status.st_ino;
    io->request->mark = mark = marks.open();
  }
  void TearDown() override {
    ::close(ends[0]);
    ::close(ends[1]);
  }

  // Everything up to the end of the stream, or what has come when there is no end.
  [[nodiscard]] std::string received(bool &ended) const {
    std::string text;
    std::array<char, 4096> chunk;
    ssize_t got = 0;
    while ((got = ::recv(ends[0], chunk.data(), chunk.size(), MSG_DONTWAIT)) > 0) {
      text.append(chunk.data(), static_cast<std::size_t>(got));
    }
    ended = got == 0;
    return text;
  }

  host::ReplyMarks marks;
  host::ReplyMark mark;
  std::array<int, 2> ends = {-1, -1};  // the bus's, the handler's
  Io io{hx_io_create()};
};

TEST_F(RequestIo, IsAliveUntilTheBusHangsUp) {
  EXPECT_EQ(hx_io_alive(io.get()), 1);
  ::shutdown(ends[0], SHUT_RDWR);
  EXPECT_EQ(hx_io_alive(io.get()), 0);
}

TEST_F(RequestIo, HangingUpReachesProcessesThatHoldCopiesOfBothEnds) {
  std::array<int, 2> go = {-1, -1};
  ASSERT_EQ(::pipe(go.data()), 0);
  const int status = in_child([&] {
    const pid_t holder = ::fork();
    if (holder == 0) {  // keeps both ends open
      ::pause();
    }
    const bool before = hx_io_alive(io.get()) == 1;
    ::shutdown(ends[0], SHUT_RDWR);
    const bool after = hx_io_alive(io.get()) == 0;
    ::kill(holder, SIGKILL);
    ::_exit(before && after ? 0 : 1);
  });
  EXPECT_EQ(status, 0);
  ::close(go[0]);
  ::close(go[1]);
}

TEST_F(RequestIo, ReplyEndsTheStreamAtOnceThoughTheDescriptorStaysOpen) {
  bool ended = false;
  ASSERT_EQ(::write(ends[1], "head\n\nbody", 10), 10);
  const int copy = ::dup(ends[1]);
  EXPECT_FALSE(host::ReplyMarks::is_set(mark));
  hx_reply(io.get());
  EXPECT_TRUE(host::ReplyMarks::is_set(mark));
  EXPECT_EQ(received(ended), "head\n\nbody");
  EXPECT_TRUE(ended);
  ::close(copy);
}

TEST_F(RequestIo, ReplySendsTheContentAsJson) {
  bool ended = false;
  hx_io_write(io.get(), "{\"a\":1}", 7);
  hx_reply(io.get());
  EXPECT_EQ(received(ended), "Content-Type: application/json; charset=utf-8\r\n\r\n{\"a\":1}");
  EXPECT_TRUE(ended);
}

TEST_F(RequestIo, OnlyTheFirstReplyCounts) {
  bool ended = false;
  hx_reply(io.get());
  hx_io_write(io.get(), "{}", 2);
  hx_reply(io.get());
  EXPECT_EQ(received(ended), "");
  EXPECT_TRUE(ended);
}

TEST_F(RequestIo, IsStillAliveAfterItsReply) {
  hx_reply(io.get());
  EXPECT_EQ(hx_io_alive(io.get()), 1);
}

TEST_F(RequestIo, LeavesAnotherOwnerOfTheNumberAlone) {
  std::array<int, 2> others = {-1, -1};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, others.data()), 0);
  ASSERT_EQ(::dup2(others[1], ends[1]), ends[1]);  // closed by its handler, then reused
  EXPECT_EQ(hx_io_alive(io.get()), 0);
  hx_reply(io.get());
  char byte = 0;
  EXPECT_EQ(::recv(others[0], &byte, 1, MSG_DONTWAIT), -1) << "the stream was ended";
  EXPECT_FALSE(host::ReplyMarks::is_set(mark));
  ::close(others[0]);
  ::close(others[1]);
}

TEST(ReplyMarks, AreSetFromAForkedProcess) {
  host::ReplyMarks marks;
  const host::ReplyMark mark = marks.open();
  EXPECT_EQ(in_child([&] { mark.set(); }), 0);
  EXPECT_TRUE(host::ReplyMarks::is_set(mark));
}

TEST(ReplyMarks, IgnoreARequestThatIsOver) {
  host::ReplyMarks marks;
  const host::ReplyMark old = marks.open();
  marks.close(old);
  const host::ReplyMark next = marks.open();
  old.set();
  EXPECT_FALSE(host::ReplyMarks::is_set(next));
  next.set();
  old.set();
  EXPECT_TRUE(host::ReplyMarks::is_set(next));
}

TEST(ReplyMarks, NeedAPageOfTheirOwn) {
  EXPECT_EQ(in_child([] {
              refuse_calls(SYS_mmap, ENOMEM, Argument{3, MAP_SHARED | MAP_ANONYMOUS});
              try {
                const host::ReplyMarks marks;
              } catch (const std::bad_alloc &) {
                ::_exit(0);
              }
              ::_exit(1);
            }),
            0);
}

TEST(ReplyMarks, RunOutWithoutHarm) {
  host::ReplyMarks marks;
  std::vector<host::ReplyMark> all;
  for (std::size_t count = 0; count < host::ReplyMarks::capacity; ++count) {
    all.push_back(marks.open());
  }
  const host::ReplyMark none = marks.open();
  none.set();
  EXPECT_FALSE(host::ReplyMarks::is_set(none));
  marks.close(all[7]);
  const host::ReplyMark again = marks.open();
  again.set();
  EXPECT_TRUE(host::ReplyMarks::is_set(again));
  EXPECT_FALSE(host::ReplyMarks::is_set(all[8]));
}

}  // namespace
}  // namespace dirwell::test
