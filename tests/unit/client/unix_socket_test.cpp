#include "client/unix_socket.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <boost/asio/error.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "support/environment.h"
#include "support/refused_calls.h"
#include "support/temp_dir.h"

namespace {

using boost::system::error_code;
using dirwell::client::UnixSocket;
using namespace std::chrono_literals;
namespace errc = boost::system::errc;

// A socket that is listened at, and a client of it whose caller's end the test holds.
class UnixSocketTest : public testing::Test {
 protected:
  void SetUp() override {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 0), 0);
  }
  void TearDown() override {
    ::close(peer);
    ::close(listener);
  }

  void accept() { peer = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC); }
  void hang_up() { ::close(std::exchange(peer, -1)); }

  dirwell::test::TempDir folder;
  std::string path = folder.at("sock");
  int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int peer = -1;
  error_code error;
};

TEST_F(UnixSocketTest, MovesWhatIsThere) {
  UnixSocket socket(path, 5s, error);
  ASSERT_FALSE(error);
  accept();
  EXPECT_EQ(socket.write_some(boost::asio::buffer(std::string_view("hello"))), 5U);
  std::array<char, 16> text{};
  EXPECT_EQ(::recv(peer, text.data(), text.size(), 0), 5);
  EXPECT_STREQ(text.data(), "hello");
  ASSERT_EQ(::send(peer, "you", 3, 0), 3);
  text.fill('\0');
  EXPECT_EQ(socket.read_some(boost::asio::buffer(text)), 3U);
  EXPECT_STREQ(text.data(), "you");
}

TEST_F(UnixSocketTest, TakesTheFirstBufferThatIsNotEmpty) {
  UnixSocket socket(path, 5s, error);
  accept();
  const std::vector<boost::asio::const_buffer> texts = {{}, {}, boost::asio::buffer(std::string_view("third"))};
  EXPECT_EQ(socket.write_some(texts, error), 5U);
  EXPECT_FALSE(error);
  std::array<char, 16> text{};
  EXPECT_EQ(::recv(peer, text.data(), text.size(), 0), 5);
  EXPECT_STREQ(text.data(), "third");
}

// Nothing is asked for: there is nothing to wait for either, although the other end is silent.
TEST_F(UnixSocketTest, MovesNothingByEmptyBuffers) {
  UnixSocket socket(path, 60s, error);
  accept();
  error = errc::make_error_code(errc::io_error);
  EXPECT_EQ(socket.read_some(std::vector<boost::asio::mutable_buffer>(2), error), 0U);
  EXPECT_FALSE(error);
  error = errc::make_error_code(errc::io_error);
  EXPECT_EQ(socket.write_some(std::vector<boost::asio::const_buffer>(2), error), 0U);
  EXPECT_FALSE(error);
}

TEST_F(UnixSocketTest, SaysWhyItCannotBeMade) {
  EXPECT_EQ(dirwell::test::in_child([this] {
              dirwell::test::refuse_calls(SYS_socket, EMFILE);
              const UnixSocket socket(path, 5s, error);
              ::_exit(error == errc::too_many_files_open ? 0 : 1);
            }),
            0);
}

TEST_F(UnixSocketTest, SaysWhyItCannotWait) {
  EXPECT_EQ(dirwell::test::in_child([this] {
              UnixSocket socket(path, 5s, error);
              accept();
              dirwell::test::refuse_poll(ENOMEM);
              std::array<char, 16> text{};
              const std::size_t got = socket.read_some(boost::asio::buffer(text), error);
              ::_exit(got == 0 && error == errc::not_enough_memory ? 0 : 1);
            }),
            0);
}

// Whoever is in the queue already fills it.
TEST_F(UnixSocketTest, GivesUpConnectingWhereNobodyIsAccepted) {
  const UnixSocket waiting(path, 5s, error);
  ASSERT_FALSE(error);
  const UnixSocket late(path, 100ms, error);
  EXPECT_EQ(error, errc::timed_out);
}

TEST_F(UnixSocketTest, GivesUpReadingAndWritingWhenNothingMoves) {
  UnixSocket socket(path, 100ms, error);
  accept();
  std::array<char, 16> text{};
  EXPECT_EQ(socket.read_some(boost::asio::buffer(text), error), 0U);
  EXPECT_EQ(error, errc::timed_out);
  const std::string much(1 << 20, 'x');
  for (int i = 0; i < 100 && socket.write_some(boost::asio::buffer(much), error) > 0; ++i) {
  }
  EXPECT_EQ(error, errc::timed_out);
}

TEST_F(UnixSocketTest, TellsTheEndFromAnEndWithoutReading) {
  std::array<char, 16> text{};
  {
    UnixSocket socket(path, 5s, error);
    accept();
    hang_up();
    EXPECT_EQ(socket.read_some(boost::asio::buffer(text), error), 0U);
    EXPECT_EQ(error, boost::asio::error::eof);
  }
  UnixSocket socket(path, 5s, error);
  accept();
  EXPECT_EQ(socket.write_some(boost::asio::buffer(std::string_view("unread")), error), 6U);
  hang_up();
  EXPECT_EQ(socket.read_some(boost::asio::buffer(text), error), 0U);
  EXPECT_EQ(error, errc::connection_reset);
}

TEST_F(UnixSocketTest, ThrowsWhatNobodyAsksFor) {
  UnixSocket socket(path, 5s, error);
  accept();
  hang_up();
  try {
    socket.write_some(boost::asio::buffer(std::string_view("x")));
    FAIL() << "nobody reads";
  } catch (const boost::system::system_error &thrown) {
    EXPECT_EQ(thrown.code(), errc::broken_pipe);
  }
}

std::atomic<int> interruptions{0};

TEST_F(UnixSocketTest, WaitsOnAfterASignal) {
  struct sigaction counted {};
  counted.sa_handler = [](int) { ++interruptions; };  // without SA_RESTART
  struct sigaction before {};
  ::sigaction(SIGUSR1, &counted, &before);
  UnixSocket socket(path, 60s, error);
  accept();
  interruptions = 0;
  std::thread other([this, reader = ::pthread_self()] {
    for (int i = 0; i < 3; ++i) {
      std::this_thread::sleep_for(50ms);
      ::pthread_kill(reader, SIGUSR1);
      for (int looks = 0; interruptions <= i && looks < 9000; ++looks) {  // two that wait would become one
        std::this_thread::sleep_for(1ms);
      }
    }
    ::send(peer, "late", 4, 0);
  });
  std::array<char, 16> text{};
  EXPECT_EQ(socket.read_some(boost::asio::buffer(text), error), 4U);
  EXPECT_FALSE(error);
  EXPECT_STREQ(text.data(), "late");
  other.join();
  ::sigaction(SIGUSR1, &before, nullptr);
  EXPECT_EQ(interruptions, 3);
}

}  // namespace
