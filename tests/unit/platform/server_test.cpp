// A service as its clients see it: HTTP on a connection, limits of time and number, start and stop.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/bus_service.h"
#include "platform/host/limits.h"
#include "platform/include/hxservice.h"
#include "support/private_root.h"

namespace dirwell::test {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// Answers at once with the request text in an array.
void echo(hx_request *, hx_io *io, int descriptor) {
  const std::string text = "[\"" + std::string(hx_io_read(io, 0)) + "\"]";
  hx_io_realloc(io, 0);
  hx_io_write(io, text.data(), text.size());
  hx_reply(io);
  ::close(descriptor);
  hx_io_free(io);
}

// Answers from a request process after 300 ms.
void answer_late(hx_request *, hx_io *io, int descriptor) {
  in_request_process(io, descriptor, [&] {
    std::this_thread::sleep_for(300ms);
    write_text(descriptor, std::string(json_head) + "[\"late\"]");
    hx_reply(io);
  });
}

// Never answers, until the client goes.
void answer_never(hx_request *, hx_io *io, int descriptor) {
  in_request_process(io, descriptor, [&] { eventually([&] { return hx_io_alive(io) == 0; }, 20s); });
}

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
  const ServiceProcess service(echo, [] {
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
    for (int count = 0; count < 30; ++count) {
      gone.emplace_back(service);
    }
    std::this_thread::sleep_for(100ms);
  }
  Client waiting(service);
  waiting.send(post("/x", "waited"));
  std::this_thread::sleep_for(200ms);
  served.close();
  EXPECT_EQ(waiting.receive().body, "[\"waited\"]");
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

TEST(Server, RefusesForWantOfASocketAndGoesOn) {
  const ServiceProcess service(echo, [] {
    rlimit files = {};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = static_cast<rlim_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})) + 7;
    ::setrlimit(RLIMIT_NOFILE, &files);
  });
  std::vector<Client> clients;
  Response response;
  for (int count = 0; count < 6 && response.status != 503; ++count) {
    clients.emplace_back(service);
    clients.back().send(post("/x"));
    response = clients.back().receive(500ms);
  }
  expect_problem(response, 503, "Service Unavailable");
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
  EXPECT_TRUE(eventually([&] { return service.descriptors() == before; }));
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

// --- Start and stop ---

TEST(Server, MakesItsFolderAndALeavesNoFile) {
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

TEST(Server, ReplacesAStaleSocketFile) {
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

TEST(Server, LeavesALiveServiceItsSocket) {
  const ServiceProcess service(echo);
  EXPECT_EQ(start_here("bus-under-test"), -EADDRINUSE);
  Client client(service);
  EXPECT_EQ(client.ask(post("/x")).status, 200);
}

TEST(Server, LeavesAFileThatIsNoSocket) {
  const std::string path = write_below_root("var/run/occupied.sock", "precious");
  EXPECT_EQ(start_here("occupied"), -EADDRINUSE);
  EXPECT_EQ(std::filesystem::file_size(path), 8U);
  std::filesystem::remove(path);
}

TEST(Server, StopsThoughAskedBeforeItsStart) {
  EXPECT_EQ(start_here("stopped-early"), 0);
}

TEST(Server, CannotListenAtAPathThatTheKernelCannotHold) {
  EXPECT_EQ(start_here(std::string(108, 'x')), -ENAMETOOLONG);
}

TEST(Server, TakesTheLongestPath) {
  const std::size_t around = private_root().size() + std::string("/var/run/.sock").size();
  EXPECT_EQ(start_here(std::string(107 - around, 'x')), 0);
  EXPECT_EQ(start_here(std::string(108 - around, 'x')), -ENAMETOOLONG);
}

TEST(Server, RefusesANameThatLeavesTheFolder) {
  EXPECT_EQ(start_here("../x"), -EINVAL);
  EXPECT_EQ(start_here(""), -EINVAL);
}

std::string hook_log;

TEST(Server, RunsItsHooksOnTheWorkerAroundTheLoop) {
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

TEST(Server, RunsNoHookWhenItCannotListen) {
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

TEST(Server, StopsFromAnotherThread) {
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

TEST(Server, LetsRequestsInFlightFinishWhenItStops) {
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

TEST(Server, HangsUpOnRequestsThatDoNotFinishInTime) {
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

TEST(Server, StopsThoughAClientSendsHalfARequestAndAnotherTakesNothing) {
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
