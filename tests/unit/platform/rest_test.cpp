// The endpoint table behind a real service.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <new>
#include <stdexcept>

#include "platform/bus_service.h"
#include "platform/host/io.h"
#include "platform/include/hxrest.h"
#include "platform/shortage.h"

namespace dirwell::test {
namespace {

using testing::StartsWith;

hx_rest *table = nullptr;
constexpr const char *first_usage = "first: an endpoint (Español)\n\nUsage: [General]\n\n";

// Answers with the parameters that the pre-handler was given, and the body.
void show(hx_request *, hx_io *io, json_t *request_object, int descriptor) {
  char *text = json_dumps(request_object, JSON_COMPACT | JSON_SORT_KEYS);
  write_text(descriptor,
             std::string(json_head) + "{\"parameters\":" + text + ",\"body\":\"" + hx_io_read(io, 0) + "\"}");
  free(text);
  hx_io_realloc(io, 0);
  hx_reply(io);
}

void in_place(hx_request *request, hx_rest_handler handler, hx_io *io, json_t *parameters, int descriptor) {
  handler(request, io, parameters, descriptor);
  ::close(descriptor);
  hx_io_free(io);
}

void forked(hx_request *request, hx_rest_handler handler, hx_io *io, json_t *parameters, int descriptor) {
  in_request_process(io, descriptor, [&] { handler(request, io, parameters, descriptor); });
}

void dispatch(hx_request *request, hx_io *io, int descriptor) {
  hx_rest_dispatch(table, request, io, descriptor);
}

class Rest : public testing::Test {
 protected:
  static void make_table() {
    table = hx_rest_create();
    hx_rest_endpoint(table, show, "second", forked, "second usage\n");
    hx_rest_endpoint(table, show, "first.one", in_place, first_usage);
  }
  ServiceProcess service{dispatch, make_table};
  Client client{service};

  Response ask(const std::string &method, const std::string &target) {
    client.send(method + " " + target + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
    return client.receive(5s, method == "HEAD");
  }
};

TEST_F(Rest, RunsAnEndpointWithItsParametersAndBody) {
  for (const char *name : {"/first.one", "/second", "/first%2Eone", "http://localhost/second"}) {
    const Response response =
        client.ask(post(std::string(name) + "?limit=50&text=%E4%B8%AD+%26&limit=60&empty", "raw text"));
    EXPECT_EQ(response.status, 200) << name;
    EXPECT_EQ(response.fields.at("content-type"), "application/json; charset=utf-8");
    EXPECT_EQ(response.body,
              "{\"parameters\":{\"empty\":\"\",\"limit\":\"60\",\"text\":\"中+&\"},\"body\":\"raw text\"}");
  }
}

TEST_F(Rest, GivesAnObjectWithoutParameters) {
  EXPECT_EQ(client.ask(post("/second")).body, "{\"parameters\":{},\"body\":\"\"}");
}

TEST_F(Rest, ShowsAnEndpointsUsageByteForByte) {
  const Response response = ask("OPTIONS", "/first.one");
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.fields.at("content-type"), "text/plain; charset=utf-8");
  EXPECT_EQ(response.fields.at("allow"), "OPTIONS, POST");
  EXPECT_EQ(response.body, "first: an endpoint (Español)\n\nUsage: [General]\n\n");
}

TEST_F(Rest, ListsTheEndpointsInTheOrderOfRegistration) {
  const Response response = ask("GET", "/");
  EXPECT_EQ(response.status, 200);
  EXPECT_THAT(response.fields.at("content-type"), StartsWith("text/plain"));
  EXPECT_EQ(response.body, "second\nfirst.one\n");
}

TEST_F(Rest, RefusesWhatIsNotThere) {
  for (const char *target : {"/third", "/second/", "/second/x", "//second", "/Second", "/seco"}) {
    const Response response = client.ask(post(target));
    EXPECT_EQ(response.status, 404) << target;
    EXPECT_EQ(response.fields.at("content-type"), "application/problem+json");
    EXPECT_THAT(response.body, StartsWith(R"({"type":"about:blank","title":"Not Found","status":404,"detail":")"));
  }
  EXPECT_EQ(ask("GET", "/third").status, 404);
  EXPECT_EQ(ask("OPTIONS", "*").status, 404);
}

TEST_F(Rest, RefusesOtherMethodsAndSaysWhichThereAre) {
  for (const char *method : {"GET", "PUT", "DELETE", "PATCH", "HEAD", "post", "INVENTED"}) {
    const Response response = ask(method, "/second");
    EXPECT_EQ(response.status, 405) << method;
    EXPECT_EQ(response.fields.at("allow"), "OPTIONS, POST") << method;
    EXPECT_EQ(response.fields.at("content-type"), "application/problem+json");
  }
  for (const char *method : {"POST", "OPTIONS", "HEAD", "DELETE"}) {
    const Response response = ask(method, "/");
    EXPECT_EQ(response.status, 405) << method;
    EXPECT_EQ(response.fields.at("allow"), "GET") << method;
  }
  EXPECT_EQ(ask("GET", "/").status, 200) << "the connection goes on after refusals";
}

TEST(RestTable, TakesEachNameOnce) {
  hx_rest *own = hx_rest_create();
  EXPECT_EQ(hx_rest_endpoint(own, show, "a", in_place, "usage"), 0);
  EXPECT_EQ(hx_rest_endpoint(own, show, "a", in_place, "usage"), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(hx_rest_endpoint(own, show, "b", in_place, "usage"), 0);
  hx_rest_destroy(own);
  hx_rest_destroy(nullptr);
}

TEST(RestTable, SaysSoWhenThereIsNoMemoryForARow) {
  hx_rest *own = hx_rest_create();
  {
    const FailingAllocation none(0);
    EXPECT_EQ(hx_rest_endpoint(own, show, "a", in_place, "usage"), -1);
    EXPECT_EQ(errno, ENOMEM);
  }
  EXPECT_EQ(hx_rest_endpoint(own, show, "a", in_place, "usage"), 0) << "the name is not taken";
  hx_rest_destroy(own);
}

// The daemon's own code answers then; see hx_rest_dispatch.
TEST(RestTable, LeavesARequestToItsCallerWhereThereIsNoMemoryForItsParameters) {
  static bool handled = false;
  handled = false;
  hx_rest *own = hx_rest_create();
  ASSERT_EQ(hx_rest_endpoint(
                own, show, "a", [](hx_request *, hx_rest_handler, hx_io *, json_t *, int) { handled = true; }, "usage"),
            0);
  hx_request request;
  request.method = "POST";
  request.path = "/a";
  request.parameters = {{"name", "value"}};
  hx_io *const io = hx_io_create();
  hx_io_write(io, "body", 4);
  const int descriptor = ::dup(0);
  int step = 0;
  for (; !handled && step < 100; ++step) {
    static int allocations = 0;
    allocations = step;
    json_set_alloc_funcs([](std::size_t size) { return allocations-- == 0 ? nullptr : std::malloc(size); }, std::free);
    bool thrown = false;
    try {
      hx_rest_dispatch(own, &request, io, descriptor);
    } catch (const std::bad_alloc &) {
      thrown = true;
    }
    json_set_alloc_funcs(std::malloc, std::free);
    EXPECT_NE(thrown, handled) << step;
    EXPECT_STREQ(hx_io_read(io, 0), "body");
    EXPECT_GE(::fcntl(descriptor, F_GETFD), 0) << step;
  }
  EXPECT_TRUE(handled);
  EXPECT_GT(step, 3) << "an object, a key, a value";
  ::close(descriptor);
  hx_io_free(io);
  hx_rest_destroy(own);
}

TEST(RestTable, TakesUsageTextsThatASocketHolds) {
  const std::string fits(64UL * 1024, 'u');
  const std::string exceeds(64UL * 1024 + 1, 'u');
  hx_rest *own = hx_rest_create();
  EXPECT_EQ(hx_rest_endpoint(own, show, "b", in_place, exceeds.c_str()), -1);
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_EQ(hx_rest_endpoint(own, show, "a", in_place, fits.c_str()), 0);
  hx_rest_destroy(own);
}

TEST(RestTable, ShowsTheLongestUsage) {
  static const std::string usage(64UL * 1024, 'u');
  const ServiceProcess service(dispatch, [] {
    table = hx_rest_create();
    hx_rest_endpoint(table, show, "a", in_place, usage.c_str());
  });
  Client client(service);
  const Response response = client.ask("OPTIONS /a HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_TRUE(response.body == usage);
}

}  // namespace
}  // namespace dirwell::test
