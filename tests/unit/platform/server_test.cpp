// A service as its clients see it: HTTP on a connection, limits of time and number.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/bus_service.h"
#include "platform/host/limits.h"
#include "platform/include/hxservice.h"

namespace dirwell::test {
namespace {

using testing::StartsWith;

void expect_problem(const Response &response, int status, const std::string &title) {
  EXPECT_EQ(response.status, status);
  EXPECT_TRUE(response.whole);
  EXPECT_EQ(response.fields.count("content-type"), 1U) << response.head;
  EXPECT_EQ(response.fields.at("content-type"), "application/problem+json");
  EXPECT_THAT(response.body, StartsWith("{\"type\":\"about:blank\",\"title\":\"" + title +
                                        "\",\"status\":" + std::to_string(status) + ",\"detail\":\""));
}

TEST(Server, AnswersAPost) {
  const ServiceProcess service(echo);
  Client client(service);
  const Response response = client.ask(post("/any", "hello"));
  EXPECT_THAT(response.head, StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_EQ(response.fields.at("content-type"), "application/json; charset=utf-8");
  EXPECT_EQ(response.fields.at("content-length"), "9");
  EXPECT_TRUE(response.fields.contains("date"));
  EXPECT_FALSE(response.fields.contains("connection"));
  EXPECT_EQ(response.body, "[\"hello\"]");
}

TEST(Server, KeepsTheConnectionForFurtherRequests) {
  const ServiceProcess service(echo);
  Client client(service);
  for (const char *body : {"one", "two", "three"}) {
    EXPECT_EQ(client.ask(post("/any", body)).body, "[\"" + std::string(body) + "\"]");
  }
}

TEST(Server, AnswersPipelinedRequestsInOrder) {
  const ServiceProcess service(answer_late);
  Client client(service);
  client.send(post("/1") + post("/2") + post("/3").substr(0, 20));
  EXPECT_EQ(client.receive().body, "[\"late\"]");
  EXPECT_EQ(client.receive().body, "[\"late\"]");
  client.send(post("/3").substr(20));
  EXPECT_EQ(client.receive().body, "[\"late\"]");
}

TEST(Server, ReadsAChunkedBody) {
  const ServiceProcess service(echo);
  Client client(service);
  client.send("POST /x HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n");
  client.send("2\r\nde\r\n0\r\n\r\n");
  EXPECT_EQ(client.receive().body, "[\"abcde\"]");
  EXPECT_EQ(client.ask(post("/x", "next")).body, "[\"next\"]");
}

TEST(Server, AsksAWaitingClientForItsBody) {
  const ServiceProcess service(echo);
  Client client(service);
  client.send("POST /x HTTP/1.1\r\nHost: a\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n");
  const Response interim = client.receive();
  EXPECT_EQ(interim.status, 100);
  client.send("body");
  EXPECT_EQ(client.receive().body, "[\"body\"]");
}

TEST(Server, DoesNotAskForABodyThatItRefuses) {
  const ServiceProcess service(echo);
  Client client(service);
  client.send("POST /x HTTP/1.1\r\nHost: a\r\nExpect: 100-continue\r\nContent-Length: 1048577\r\n\r\n");
  expect_problem(client.receive(), 413, "Content Too Large");
}

TEST(Server, AnswersAClientThatHasShutDownItsSendingSide) {
  const ServiceProcess service(answer_late);
  Client client(service);
  client.send(post("/x"));
  client.end_sending();
  EXPECT_EQ(client.receive().body, "[\"late\"]");
  EXPECT_TRUE(client.ended());
}

TEST(Server, AnswersAnOlderClientAndEndsTheConnection) {
  const ServiceProcess service(echo);
  Client client(service);
  const Response response = client.ask("POST /x HTTP/1.0\r\nContent-Length: 2\r\n\r\nab");
  EXPECT_EQ(response.fields.at("connection"), "close");
  EXPECT_EQ(response.body, "[\"ab\"]");
  EXPECT_TRUE(client.ended());
  Client keeping(service);
  const Response kept = keeping.ask("POST /x HTTP/1.0\r\nConnection: keep-alive\r\nContent-Length: 2\r\n\r\nab");
  EXPECT_EQ(kept.fields.at("connection"), "keep-alive");
  EXPECT_EQ(keeping.ask(post("/x", "cd")).body, "[\"cd\"]");
}

TEST(Server, EndsTheConnectionWhenTheClientAsksForThat) {
  const ServiceProcess service(echo);
  Client client(service);
  // What was pipelined behind it is not answered, and does not keep the answer from being read.
  client.send(post("/x", "last", "Connection: close\r\n") + post("/y", std::string(100'000, 'x')));
  const Response response = client.receive();
  EXPECT_EQ(response.fields.at("connection"), "close");
  EXPECT_EQ(response.body, "[\"last\"]");
  EXPECT_TRUE(client.ended());
}

TEST(Server, RefusesWhatIsMalformedAndEndsTheConnection) {
  const ServiceProcess service(echo);
  for (const char *text : {"nonsense\r\n\r\n", "POST / HTTP/1.1\r\n\r\n", "POST /?a=%zz HTTP/1.1\r\nHost: a\r\n\r\n",
                           "POST /?a=%00 HTTP/1.1\r\nHost: a\r\n\r\n", "POST /?a=%ff HTTP/1.1\r\nHost: a\r\n\r\n"}) {
    Client client(service);
    const Response response = client.ask(text);
    expect_problem(response, 400, "Bad Request");
    EXPECT_EQ(response.fields.at("connection"), "close");
    EXPECT_TRUE(client.ended()) << text;
  }
}

TEST(Server, RefusesARequestThatEndsBeforeItIsComplete) {
  const ServiceProcess service(echo);
  Client client(service);
  client.send("POST /x HTTP/1.1\r\nHost: a\r\nContent-Length: 10\r\n\r\nabc");
  client.end_sending();
  expect_problem(client.receive(), 400, "Bad Request");
}

TEST(Server, LetsARefusedClientReadItsAnswerThoughItGoesOnSending) {
  const ServiceProcess service(echo);
  Client client(service);
  EXPECT_TRUE(client.send("POST /x HTTP/1.1\r\nHost: a\r\nContent-Length: 3000000\r\n\r\n"));
  EXPECT_TRUE(client.send(std::string(3'000'000, 'x'))) << "the connection broke under the sender";
  expect_problem(client.receive(), 413, "Content Too Large");
  EXPECT_TRUE(client.ended());
}

TEST(Server, RefusesAHeadThatIsTooLong) {
  const ServiceProcess service(echo);
  Client client(service);
  client.send("POST /x HTTP/1.1\r\nHost: a\r\nX: " + std::string(17'000, 'x') + "\r\n\r\n");
  expect_problem(client.receive(), 431, "Request Header Fields Too Large");
}

void shorten_times() {
  host::limits().first_request = 200ms;
  host::limits().request = 300ms;
  host::limits().idle = 400ms;
}

TEST(Server, RefusesANewClientThatSaysNothing) {
  const ServiceProcess service(echo, shorten_times);
  Client client(service);
  expect_problem(client.receive(), 408, "Request Timeout");
  EXPECT_TRUE(client.ended());
}

TEST(Server, RefusesAFirstRequestThatDribbles) {
  const ServiceProcess service(echo, shorten_times);
  Client client(service);
  const auto begin = std::chrono::steady_clock::now();
  for (int count = 0; count < 40 && !client.readable(0ms); ++count) {
    client.send(count == 0 ? "POST /x HTTP/1.1\r\nHost: a\r\nX: " : "x");
    std::this_thread::sleep_for(20ms);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 700ms);
  expect_problem(client.receive(), 408, "Request Timeout");
}

TEST(Server, GivesALaterRequestItsTimeFromItsFirstByte) {
  const ServiceProcess service(echo, shorten_times);
  Client client(service);
  EXPECT_EQ(client.ask(post("/x", "first")).status, 200);
  std::this_thread::sleep_for(250ms);
  client.send("POST /x HTTP/1.1\r\n");
  std::this_thread::sleep_for(220ms);  // beyond the idle time by now
  client.send("Host: a\r\n\r\n");
  EXPECT_EQ(client.receive().status, 200);
  client.send("POST /x HTTP/1.1\r\nHost: a\r\nContent-Length: 5\r\n\r\nab");
  expect_problem(client.receive(), 408, "Request Timeout");
}

TEST(Server, EndsAnIdleConnectionWithoutAWord) {
  const ServiceProcess service(echo, shorten_times);
  Client client(service);
  EXPECT_EQ(client.ask(post("/x")).status, 200);
  EXPECT_FALSE(client.readable(250ms));
  EXPECT_TRUE(client.ended());
}

TEST(Server, NeverCutsAHandlerShort) {
  const ServiceProcess service(answer_late, [] {
    host::limits().first_request = 50ms;
    host::limits().request = 50ms;
    host::limits().idle = 50ms;
  });
  Client client(service);
  EXPECT_EQ(client.ask(post("/x")).body, "[\"late\"]");
}

TEST(Server, HasTheLimitsThatItsClientsRelyOn) {
  const host::Limits limits;
  EXPECT_EQ(limits.first_request, 10s);
  EXPECT_EQ(limits.request, 10s);
  EXPECT_EQ(limits.idle, 60s);
  EXPECT_EQ(limits.stalled, 30s);
  EXPECT_EQ(limits.stop, 5s);
  EXPECT_EQ(limits.program, 10s);
  EXPECT_EQ(limits.connections, 128U);
  EXPECT_EQ(limits.header_bytes, 16U * 1024);
  EXPECT_EQ(limits.body_bytes, 1024U * 1024);
  EXPECT_EQ(limits.captured_bytes, 1024U * 1024);
}

TEST(Server, ServesOneHundredAndTwentyEightConnectionsAndLetsMoreWait) {
  const ServiceProcess service(echo);
  std::vector<Client> served;
  for (int count = 0; count < 128; ++count) {
    served.emplace_back(service);
    ASSERT_EQ(served.back().ask(post("/x")).status, 200) << count;
  }
  Client waiting(service);
  Client leaving(service);
  waiting.send(post("/x", "waited"));
  EXPECT_FALSE(waiting.readable(200ms));
  leaving.close();
  served.front().close();
  EXPECT_EQ(waiting.receive().body, "[\"waited\"]");
  EXPECT_EQ(served.back().ask(post("/x")).status, 200);
}

TEST(Server, GivesThePlacesToClientsThatAreStillThere) {
  ServiceProcess service(echo, [] {
    host::limits().connections = 1;
    host::limits().pause = 20ms;
    rlimit files = {};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = 64;  // the least number of clients may wait
    ::setrlimit(RLIMIT_NOFILE, &files);
  });
  Client served(service);
  EXPECT_EQ(served.ask(post("/x")).status, 200);
  {
    std::vector<Client> gone;
    gone.reserve(30);
    for (int count = 0; count < 30; ++count) {
      gone.emplace_back(service);
    }
    std::this_thread::sleep_for(100ms);
  }
  Client waiting(service);
  waiting.send(post("/x", "waited"));
  // The places of the gone are given back, not only their order: there is room for others to wait.
  for (int looks = 0; service.descriptors() > 30 && looks < 500; ++looks) {
    std::this_thread::sleep_for(20ms);
  }
  EXPECT_LE(service.descriptors(), 30U);
  served.close();
  EXPECT_EQ(waiting.receive().body, "[\"waited\"]");
  service.ask_to_stop();
  EXPECT_EQ(service.wait(), 0);
}

TEST(Server, RefusesThoseForWhomThereIsNoRoomToWait) {
  const ServiceProcess service(echo, [] {
    rlimit files = {};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = 64;  // four places, and room for ten to wait
    ::setrlimit(RLIMIT_NOFILE, &files);
  });
  std::vector<Client> clients;
  for (int count = 0; count < 4; ++count) {
    clients.emplace_back(service);
    EXPECT_EQ(clients.back().ask(post("/x")).status, 200) << count;
  }
  for (int count = 0; count < 10; ++count) {
    clients.emplace_back(service);
  }
  for (int count = 0; count < 20; ++count) {
    Client surplus(service);
    expect_problem(surplus.receive(), 503, "Service Unavailable");
    EXPECT_TRUE(surplus.ended());
  }
  EXPECT_LE(service.descriptors(), 40U);
  for (std::size_t waiting = 4; waiting < 14; ++waiting) {
    EXPECT_FALSE(clients.at(waiting).readable(0ms)) << waiting;
  }
  for (std::size_t first = 0; first < 10; ++first) {
    clients.at(first).close();
    EXPECT_EQ(clients.at(first + 4).ask(post("/x", "waited")).body, "[\"waited\"]") << first;
  }
}

TEST(Server, GoesOnAfterDescriptorsWereShort) {
  const ServiceProcess service(echo, [] {
    rlimit files = {};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = 24;
    ::setrlimit(RLIMIT_NOFILE, &files);
  });
  {
    std::vector<Client> many;
    for (int count = 0; count < 40; ++count) {
      many.emplace_back(service);
      many.back().send(post("/x"));
    }
    // Some are answered, some refused for want of a socket, some still wait; none of it ends the service.
    std::this_thread::sleep_for(200ms);
    const Response first = many.front().receive();
    EXPECT_TRUE(first.status == 200 || first.status == 503) << first.status;
  }
  Client client(service);
  EXPECT_EQ(client.ask(post("/x", "after")).body, "[\"after\"]");
}

// Takes every descriptor that is left, and answers as echo() does.
void hoard(hx_request *request, hx_io *io, int descriptor) {
  static std::vector<int> hoarded;
  if (std::string_view(hx_io_read(io, 0)) == "take") {
    for (int taken = 0; (taken = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
      hoarded.push_back(taken);
    }
  }
  echo(request, io, descriptor);
}

TEST(Server, RefusesForWantOfASocketAndGoesOn) {
  const ServiceProcess service(hoard, [] {
    rlimit files = {};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = 64;
    ::setrlimit(RLIMIT_NOFILE, &files);
  });
  Client client(service);
  Client other(service);
  EXPECT_EQ(other.ask(post("/x", "before")).body, "[\"before\"]");
  EXPECT_EQ(client.ask(post("/x", "take")).body, "[\"take\"]");
  Client late(service);  // takes one of the two that this request has given back
  Response refused;
  EXPECT_TRUE(eventually([&] {
    refused = client.ask(post("/x"));
    return refused.status != 200;
  }));
  expect_problem(refused, 503, "Service Unavailable");
  EXPECT_FALSE(refused.fields.contains("connection"));
  late.close();
  EXPECT_TRUE(eventually([&] { return client.ask(post("/x", "again")).body == "[\"again\"]"; }));
}

TEST(Server, LeavesNothingBehindPerRequest) {
  const ServiceProcess service(answer_never);
  {
    Client warm_up(service);
    warm_up.send("nonsense\r\n\r\n");
    EXPECT_EQ(warm_up.receive().status, 400);
  }
  std::size_t before = 0;
  EXPECT_TRUE(eventually([&] { return std::exchange(before, service.descriptors()) == service.descriptors(); }));
  for (int count = 0; count < 20; ++count) {
    Client client(service);
    client.send(post("/x"));
    EXPECT_FALSE(client.readable(5ms));
  }
  EXPECT_TRUE(eventually([&] { return service.descriptors() <= before; }));
}

TEST(Server, IsNotKeptBusyByOutOfBandData) {
  const ServiceProcess service(answer_never);
  Client client(service);
  client.send(post("/x"));
  ::send(client.socket(), "!", 1, MSG_OOB | MSG_NOSIGNAL);
  const auto cpu_ticks = [&] {
    std::ifstream stat("/proc/" + std::to_string(service.pid()) + "/stat");
    std::string word;
    long ticks = 0;
    for (int field = 1; field <= 15 && stat >> word; ++field) {
      ticks += field >= 14 ? std::stol(word) : 0;
    }
    return ticks;
  };
  const long before = cpu_ticks();
  std::this_thread::sleep_for(500ms);
  EXPECT_LT(cpu_ticks() - before, 10) << "more than 100 ms of 500";
}

}  // namespace
}  // namespace dirwell::test
