// Clients that mean harm: how long they may hold a place, and what they may cost.

#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "platform/bus_service.h"
#include "platform/host/limits.h"
#include "platform/include/hxservice.h"

namespace dirwell::test {
namespace {

// Words that a request process tells the test through memory they share.
struct Told {
  std::atomic<int> started;
  std::atomic<int> finished;
};

Told *told = [] {
  void *page = ::mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return new (page) Told{};
}();

class HostileClients : public testing::Test {
 protected:
  void SetUp() override {
    told->started = 0;
    told->finished = 0;
  }
};

// --- Readers that stall ---

constexpr std::size_t long_size = 3'000'000;

// Writes a long response; tells when it could not be written whole.
void write_long(hx_request *, hx_io *io, int descriptor) {
  in_request_process(io, descriptor, [&] {
    ::signal(SIGPIPE, SIG_IGN);
    ++told->started;
    if (!write_text(descriptor, std::string(json_head) + "[\"" + std::string(long_size, 'x') + "\"]")) {
      ++told->finished;
      return;
    }
    hx_io_realloc(io, 0);
    hx_reply(io);
  });
}

void stall_briefly() {
  host::limits().connections = 1;
  host::limits().stalled = 300ms;
}

TEST_F(HostileClients, LoseTheirPlaceWhenTheyReadNothing) {
  const ServiceProcess service(write_long, stall_briefly);
  Client stalled(service);
  stalled.send(post("/x"));
  EXPECT_TRUE(eventually([] { return told->started == 1; }));
  Client next(service);
  next.send(post("/x"));
  EXPECT_FALSE(next.readable(150ms)) << "the place was not taken at all";
  EXPECT_TRUE(next.readable(2s));
  EXPECT_EQ(told->finished, 1) << "the handler of the stalled client still writes";
  EXPECT_EQ(next.receive().body.size(), long_size + 4);
  // What it gets now does not look whole.
  const Response cut = stalled.receive();
  EXPECT_EQ(cut.status, 200);
  EXPECT_FALSE(cut.whole);
}

TEST_F(HostileClients, LoseTheirPlaceWhenTheyPipelineAndReadNothing) {
  const ServiceProcess service(echo, stall_briefly);
  Client stalled(service);
  std::string requests;
  for (int count = 0; count < 20; ++count) {
    requests += post("/x", std::string(60'000, 'y'));
  }
  std::thread sender([&] { stalled.send(requests); });
  Client next(service);
  next.send(post("/x", "next"));
  EXPECT_EQ(next.receive(3s).body, "[\"next\"]");
  sender.join();
}

TEST_F(HostileClients, KeepTheirPlaceForAsLongAsTheyReadOn) {
  const ServiceProcess service(write_long, stall_briefly);
  Client slow(service);
  slow.send(post("/x"));
  std::string text;
  const auto begin = std::chrono::steady_clock::now();
  while (!text.ends_with("0\r\n\r\n")) {
    std::this_thread::sleep_for(200ms);
    std::string more;
    do {
      more += slow.read_some(1 << 20);
    } while (more.size() < 200'000 && !more.ends_with("0\r\n\r\n") && slow.readable(0ms));
    ASSERT_FALSE(more.empty());
    text += more;
  }
  EXPECT_GT(std::chrono::steady_clock::now() - begin, 1s) << "the reader was not slow";
  EXPECT_EQ(static_cast<std::size_t>(std::ranges::count(text, 'x')), long_size);
}

// --- Handlers that go on after their reply ---

// Replies, and goes on until its client has gone.
void reply_and_stay(hx_request *, hx_io *io, int descriptor) {
  in_request_process(io, descriptor, [&] {
    write_text(descriptor, std::string(json_head) + "{}");
    hx_io_realloc(io, 0);
    hx_reply(io);
    ++told->started;
    if (eventually([&] { return hx_io_alive(io) == 0; }, 20s)) {
      ++told->finished;
    }
  });
}

TEST_F(HostileClients, KeepNoMoreThanSixteenHandlersOfAConnection) {
  const ServiceProcess service(reply_and_stay);
  Client client(service);
  const std::size_t before = service.descriptors();
  for (int count = 1; count <= 40; ++count) {
    ASSERT_EQ(client.ask(post("/x")).status, 200);
    ASSERT_TRUE(eventually([&] { return told->started == count; }));
  }
  EXPECT_TRUE(eventually([] { return told->finished == 24; }));
  EXPECT_LE(service.descriptors(), before + 18);
  client.close();
  EXPECT_TRUE(eventually([] { return told->finished == 40; }));
}

TEST_F(HostileClients, KeepNoMoreHandlersThanAllTogetherMay) {
  const ServiceProcess service(reply_and_stay, [] { host::limits().kept = 10; });
  std::vector<Client> clients;
  for (int count = 1; count <= 30; ++count) {
    clients.emplace_back(service);
    ASSERT_EQ(clients.back().ask(post("/x")).status, 200);
    ASSERT_TRUE(eventually([&] { return told->started == count; }));
  }
  EXPECT_TRUE(eventually([] { return told->finished == 20; }));
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(told->finished, 20) << "the last ten are kept";
  clients.clear();
  EXPECT_TRUE(eventually([] { return told->finished == 30; }));
}

}  // namespace
}  // namespace dirwell::test
