// What becomes of a handler's response, and of a handler whose client goes.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/bus_service.h"
#include "platform/host/io.h"
#include "platform/include/hxservice.h"

namespace dirwell::test {
namespace {

using testing::StartsWith;

// Words that a request process tells the test through memory they share.
struct Told {
  std::atomic<int> started;
  std::atomic<int> finished;
  std::atomic<int> result;
};

Told *told = [] {
  void *page = ::mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return new (page) Told{};
}();

class Exchange : public testing::Test {
 protected:
  void SetUp() override {
    told->started = 0;
    told->finished = 0;
    told->result = 0;
  }
};

std::string body_of(hx_io *io) {
  return hx_io_read(io, 0);
}

[[noreturn]] void die() {
  ::kill(::getpid(), SIGKILL);
  ::_exit(0);
}

// Writes what the request's body says, as it is, completes the reply or is killed before that.
void dictated(hx_io *io, int descriptor, bool completes) {
  in_request_process(io, descriptor, [&] {
    write_text(descriptor, body_of(io));
    if (!completes) {
      die();
    }
    hx_io_realloc(io, 0);
    hx_reply(io);
  });
}

void dictated_whole(hx_request *, hx_io *io, int descriptor) {
  dictated(io, descriptor, true);
}
void dictated_and_killed(hx_request *, hx_io *io, int descriptor) {
  dictated(io, descriptor, false);
}

void expect_bad_gateway(const Response &response) {
  EXPECT_EQ(response.status, 502);
  ASSERT_TRUE(response.fields.contains("content-type")) << response.head;
  EXPECT_EQ(response.fields.at("content-type"), "application/problem+json");
  EXPECT_THAT(response.body, StartsWith(R"({"type":"about:blank","title":"Bad Gateway","status":502,"detail":")"));
}

TEST_F(Exchange, PassesStatusAndFieldsOn) {
  const ServiceProcess service(dictated_whole);
  Client client(service);
  const Response response = client.ask(
      post("/x", "Status: 404 Not Here\r\nContent-Type: text/plain\r\nX-Own: 1\r\nConnection: upgrade\r\n\r\ngone"));
  EXPECT_THAT(response.head, StartsWith("HTTP/1.1 404 Not Here\r\n"));
  EXPECT_EQ(response.fields.at("x-own"), "1");
  EXPECT_FALSE(response.fields.contains("connection"));
  EXPECT_EQ(response.body, "gone");
}

TEST_F(Exchange, AnswersAHeadRequestWithoutABody) {
  const ServiceProcess service(dictated_whole);
  Client client(service);
  const std::string said = "Content-Type: text/plain\r\n\r\ntext";
  client.send("HEAD /x HTTP/1.1\r\nHost: a\r\nContent-Length: " + std::to_string(said.size()) + "\r\n\r\n" + said);
  const Response response = client.receive(5s, true);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.fields.at("content-length"), "4");
  EXPECT_EQ(client.ask(post("/x", said)).body, "text") << "a body had followed the head";
}

TEST_F(Exchange, GivesNoContentNoBody) {
  const ServiceProcess service(dictated_whole);
  Client client(service);
  client.send(post("/x", "Status: 204 No Content\r\n\r\nbody"));
  const Response response = client.receive(5s, true);
  EXPECT_EQ(response.status, 204);
  EXPECT_FALSE(response.fields.contains("content-length"));
  EXPECT_EQ(client.ask(post("/x", "A: b\r\n\r\nnext")).body, "next");
}

TEST_F(Exchange, RefusesInPlaceOfAHandlerThatEndsWithoutAWord) {
  const ServiceProcess service(dictated_and_killed);
  Client client(service);
  expect_bad_gateway(client.ask(post("/x", "")));
  expect_bad_gateway(client.ask(post("/x", "Content-Type: text/plain\r\n")));
  expect_bad_gateway(client.ask(post("/x", "Content-Type: application/json\r\n\r\n{\"datas\":[{\"a\":1},")));
  expect_bad_gateway(client.ask(post("/x", "Content-Type: text/plain\r\nContent-Length: 9\r\n\r\nshort")));
}

TEST_F(Exchange, RefusesInPlaceOfWhatIsNoResponse) {
  const ServiceProcess service(dictated_whole);
  Client client(service);
  expect_bad_gateway(client.ask(post("/x", "")));
  expect_bad_gateway(client.ask(post("/x", "{\"no\":\"head\"}")));
  expect_bad_gateway(client.ask(post("/x", "A: " + std::string(20'000, 'x') + "\r\n\r\nbody")));
}

TEST_F(Exchange, TakesTheEndOfTheLastHolderForTheEndOfTheResponse) {
  const ServiceProcess service(dictated_and_killed);
  Client client(service);
  EXPECT_EQ(client.ask(post("/x", "Content-Type: application/json\r\n\r\n{\"a\":1}")).body, "{\"a\":1}");
  EXPECT_EQ(client.ask(post("/x", "Content-Type: text/plain\r\n\r\nany")).body, "any");
}

TEST_F(Exchange, TakesTheHandlersWordForAResponseThatShowsNoEnd) {
  const ServiceProcess word(dictated_whole, {}, "word");
  const ServiceProcess no_word(dictated_and_killed, {}, "no-word");
  Client given(word);
  Client missing(no_word);
  const std::string number = "Content-Type: application/json\r\n\r\n12";
  EXPECT_EQ(given.ask(post("/x", number)).body, "12");
  expect_bad_gateway(missing.ask(post("/x", number)));
}

TEST_F(Exchange, IsCompleteAtTheReplyWhateverTheHandlerDoesAfterwards) {
  const ServiceProcess service([](hx_request *, hx_io *io, int descriptor) {
    in_request_process(io, descriptor, [&] {
      const pid_t holder = ::fork();  // another holder of the descriptor
      if (holder == 0) {
        std::this_thread::sleep_for(2s);
        ::_exit(0);
      }
      write_text(descriptor, std::string(json_head) + "{}");
      hx_io_realloc(io, 0);
      hx_reply(io);
      write_text(descriptor, "more");
      std::this_thread::sleep_for(300ms);
      told->result = hx_io_alive(io);
      ++told->finished;
      std::this_thread::sleep_for(1s);
    });
  });
  Client client(service);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(client.ask(post("/x")).body, "{}");
  EXPECT_EQ(client.ask(post("/x")).body, "{}");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 250ms);
  EXPECT_TRUE(eventually([] { return told->finished == 2; }));
  EXPECT_EQ(told->result, 1) << "the client of the finished request is still there";
}

// --- Large responses ---

std::string large_array(std::size_t size) {
  return "[\"" + std::string(size - 4, 'x') + "\"]";
}

void large(hx_request *, hx_io *io, int descriptor) {
  in_request_process(io, descriptor, [&] {
    const auto size = std::stoul(body_of(io));
    ++told->started;
    if (write_text(descriptor, std::string(json_head) + large_array(size))) {
      hx_io_realloc(io, 0);
      hx_reply(io);
    }
    ++told->finished;
  });
}

std::size_t memory_of(pid_t process) {  // KiB that are resident now
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) {
      return std::stoul(line.substr(6));
    }
  }
  return 0;
}

TEST_F(Exchange, GivesAShortResponseALengthAndALongOneChunks) {
  const ServiceProcess service(large);
  Client client(service);
  const Response fits = client.ask(post("/x", "65536"));
  EXPECT_EQ(fits.fields.at("content-length"), "65536");
  EXPECT_TRUE(fits.body == large_array(65536));
  const Response exceeds = client.ask(post("/x", "65537"));
  EXPECT_EQ(exceeds.fields.at("transfer-encoding"), "chunked");
  EXPECT_FALSE(exceeds.fields.contains("content-length"));
  EXPECT_TRUE(exceeds.whole);
  EXPECT_TRUE(exceeds.body == large_array(65537));
  EXPECT_EQ(client.ask(post("/x", "10")).body, large_array(10));
}

TEST_F(Exchange, EndsALongResponseToAnOlderClientWithTheConnection) {
  const ServiceProcess service(large);
  Client client(service);
  client.send("POST /x HTTP/1.0\r\nConnection: keep-alive\r\nContent-Length: 6\r\n\r\n300000");
  const Response response = client.receive();
  EXPECT_EQ(response.fields.at("connection"), "close");
  EXPECT_FALSE(response.fields.contains("transfer-encoding"));
  EXPECT_EQ(response.body.size(), 300000U) << response.head;
  EXPECT_TRUE(response.body == large_array(300000));
}

TEST_F(Exchange, KeepsAHandlersOwnLengthOfALongResponse) {
  const ServiceProcess service([](hx_request *, hx_io *io, int descriptor) {
    in_request_process(io, descriptor, [&] {
      write_text(descriptor, "Content-Length: 200000\r\n\r\n" + std::string(250'000, 'y'));
      hx_io_realloc(io, 0);
      hx_reply(io);
    });
  });
  Client client(service);
  const Response response = client.ask(post("/x"));
  EXPECT_EQ(response.fields.at("content-length"), "200000");
  EXPECT_EQ(response.body.size(), 200'000U);
  EXPECT_TRUE(response.body == std::string(200'000, 'y'));
  EXPECT_EQ(client.ask(post("/x")).status, 200) << "what exceeded the length was passed on";
}

TEST_F(Exchange, RelaysALargeResponseToASlowReaderInBoundedMemory) {
  const ServiceProcess service(large);
  constexpr std::size_t size = 20'000'000;
  Client client(service);
  EXPECT_EQ(client.ask(post("/x", "100000")).status, 200);
  const std::size_t before = memory_of(service.pid());
  client.send(post("/x", std::to_string(size)));
  std::size_t most = 0;
  std::string text;
  // Nothing is read for a while: the handler must be held back, not the response be stored.
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(told->finished, 1) << "the second handler is done although nobody read its response";
  for (int count = 0; count < 20; ++count) {
    text += client.read_some(100'000);
    most = std::max(most, memory_of(service.pid()));
    std::this_thread::sleep_for(2ms);
  }
  while (!text.ends_with("0\r\n\r\n")) {
    const std::string more = client.read_some(1 << 20);
    ASSERT_FALSE(more.empty());
    text += more;
  }
  most = std::max(most, memory_of(service.pid()));
  EXPECT_LT(most, before + 4096) << "KiB";
  EXPECT_EQ(std::ranges::count(text, 'x'), static_cast<std::ptrdiff_t>(size) - 4 + 0);
}

TEST_F(Exchange, ServesOthersWhileALargeResponseIsPassedOn) {
  const ServiceProcess service(large);
  Client slow(service);
  slow.send(post("/x", "5000000"));
  EXPECT_TRUE(slow.readable(2s));
  Client other(service);
  EXPECT_EQ(other.ask(post("/x", "10")).body, large_array(10));
  EXPECT_EQ(slow.receive(10s).body.size(), 5'000'000U);
}

TEST_F(Exchange, ShowsTheClientThatALongResponseWasCutOff) {
  const ServiceProcess service([](hx_request *, hx_io *io, int descriptor) {
    in_request_process(io, descriptor, [&] {
      write_text(descriptor, std::string(json_head) + "[\"" + std::string(200'000, 'x'));
      die();
    });
  });
  Client client(service);
  const Response response = client.ask(post("/x"));
  EXPECT_EQ(response.status, 200);
  EXPECT_FALSE(response.whole);
  EXPECT_GT(response.body.size(), 100'000U);
  EXPECT_TRUE(client.ended());
  Client next(service);
  EXPECT_EQ(next.ask(post("/x")).status, 200) << "the service goes on";
}

// --- Clients that go ---

// Tells when its client has gone.
void watch_client(hx_request *, hx_io *io, int descriptor) {
  in_request_process(io, descriptor, [&] {
    ++told->started;
    if (eventually([&] { return hx_io_alive(io) == 0; }, 10s)) {
      ++told->finished;
    }
  });
}

TEST_F(Exchange, TellsTheHandlerAtOnceThatItsClientHasGone) {
  const ServiceProcess service(watch_client);
  auto client = std::make_unique<Client>(service);
  client->send(post("/x"));
  EXPECT_TRUE(eventually([] { return told->started == 1; }));
  client.reset();
  EXPECT_TRUE(eventually([] { return told->finished == 1; }, 1s));
}

TEST_F(Exchange, TellsEachHandlerOfItsOwnClientThoughMoreProcessesWereForkedLater) {
  const ServiceProcess service(watch_client);
  std::vector<Client> clients;
  for (int count = 0; count < 12; ++count) {
    clients.emplace_back(service);
    clients.back().send(post("/x"));
    ASSERT_TRUE(eventually([&] { return told->started == count + 1; }));
  }
  // The first ones go while the processes of later requests, forked when those were connected, live on.
  for (int count = 0; count < 6; ++count) {
    clients.at(static_cast<std::size_t>(count)).close();
    EXPECT_TRUE(eventually([&] { return told->finished == count + 1; }, 1s)) << count;
  }
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(told->finished, 6) << "a handler lost its client for another's";
  clients.clear();
  EXPECT_TRUE(eventually([] { return told->finished == 12; }, 1s));
}

TEST_F(Exchange, HangsUpThoughAProcessHoldsCopiesOfTheBussOwnEnds) {
  const ServiceProcess service([](hx_request *request, hx_io *io, int descriptor) {
    if (request->path == "/watch") {
      return watch_client(request, io, descriptor);
    }
    // Made behind the back of the fork handlers, so it keeps everything.
    if (::syscall(SYS_fork) == 0) {
      ::alarm(5);
      ::pause();
    }
    write_text(descriptor, "A: b\r\n\r\n");
    ::close(descriptor);
    hx_io_free(io);
  });
  Client watched(service);
  watched.send(post("/watch"));
  EXPECT_TRUE(eventually([] { return told->started == 1; }));
  Client other(service);
  other.send(post("/hold"));
  std::this_thread::sleep_for(50ms);
  watched.close();
  EXPECT_TRUE(eventually([] { return told->finished == 1; }, 1s));
}

TEST_F(Exchange, DoesNotTakeAHalfClosedClientForGone) {
  const ServiceProcess service(watch_client);
  Client client(service);
  client.send(post("/x"));
  client.end_sending();
  EXPECT_TRUE(eventually([] { return told->started == 1; }));
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(told->finished, 0);
  client.close();
  EXPECT_TRUE(eventually([] { return told->finished == 1; }, 1s));
}

TEST_F(Exchange, NoticesAClientThatHasPipelinedAndGone) {
  const ServiceProcess service(watch_client);
  auto client = std::make_unique<Client>(service);
  client->send(post("/x") + post("/y", std::string(100'000, 'y')));
  EXPECT_TRUE(eventually([] { return told->started == 1; }));
  client.reset();
  EXPECT_TRUE(eventually([] { return told->finished == 1; }, 1s));
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(told->started, 1) << "a request of a client that has gone was run";
}

TEST_F(Exchange, NoticesAClientThatGoesInTheMiddleOfALongResponse) {
  const ServiceProcess service(large);
  auto client = std::make_unique<Client>(service);
  client->send(post("/x", "20000000"));
  EXPECT_FALSE(client->read_some(1000).empty());
  EXPECT_EQ(told->finished, 0);
  client.reset();
  EXPECT_TRUE(eventually([] { return told->finished == 1; }, 2s)) << "the handler still waits to write";
}

TEST_F(Exchange, NoticesAClientThatGoesWhileItsFinishedHandlerRunsOn) {
  const ServiceProcess service([](hx_request *, hx_io *io, int descriptor) {
    in_request_process(io, descriptor, [&] {
      write_text(descriptor, std::string(json_head) + "{}");
      hx_io_realloc(io, 0);
      hx_reply(io);
      told->result = hx_io_alive(io);
      ++told->started;
      if (eventually([&] { return hx_io_alive(io) == 0; }, 10s)) {
        ++told->finished;
      }
    });
  });
  Client client(service);
  EXPECT_EQ(client.ask(post("/x")).body, "{}");
  EXPECT_TRUE(eventually([] { return told->started == 1; }));
  EXPECT_EQ(told->result, 1);
  client.close();
  EXPECT_TRUE(eventually([] { return told->finished == 1; }, 1s));
}

TEST_F(Exchange, HangsUpOnAHandlerWhoseResponseIsNone) {
  const ServiceProcess service([](hx_request *, hx_io *io, int descriptor) {
    in_request_process(io, descriptor, [&] {
      write_text(descriptor, "no head\n\n");
      if (eventually([&] { return hx_io_alive(io) == 0; }, 10s)) {
        ++told->finished;
      }
    });
  });
  Client client(service);
  expect_bad_gateway(client.ask(post("/x")));
  EXPECT_TRUE(eventually([] { return told->finished == 1; }, 1s));
}

TEST_F(Exchange, SurvivesAHandlerThatIsNeverStarted) {
  const ServiceProcess service([](hx_request *, hx_io *io, int descriptor) {
    ::close(descriptor);
    hx_io_free(io);
  });
  Client client(service);
  expect_bad_gateway(client.ask(post("/x")));
  expect_bad_gateway(client.ask(post("/x")));
}

TEST_F(Exchange, DoesNotWaitForItselfOnTheWorker) {
  const ServiceProcess service([](hx_request *, hx_io *io, int descriptor) {
    const std::string text = "\"" + std::string(4'000'000, 'x') + "\"";  // more than a socket holds
    hx_io_realloc(io, 0);
    hx_io_write(io, text.data(), text.size());
    hx_reply(io);
    ::close(descriptor);
    hx_io_free(io);
  });
  Client client(service);
  EXPECT_FALSE(client.ask(post("/x")).whole) << "but it is not taken for a whole response";
}

}  // namespace
}  // namespace dirwell::test
