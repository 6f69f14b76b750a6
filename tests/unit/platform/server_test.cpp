// The service as its clients see it: admission apart, one connection at a time.

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/bus_service.h"
#include "platform/host/limits.h"
#include "platform/include/hxservice.h"
#include "support/private_root.h"

namespace dirwell::test {
namespace {

// Answers at once with the request text, quoted.
void echo(hx_request *, hx_io *io, int descriptor) {
  const std::string text = "[\"" + std::string(hx_io_read(io, 0)) + "\"]";
  hx_io_realloc(io, 0);
  hx_io_write(io, text.data(), text.size());
  hx_reply(io);
  ::close(descriptor);
  hx_io_free(io);
}

TEST(Server, AnswersAPost) {
  const ServiceProcess service(echo);
  Client client(service);
  const Response response = client.ask(post("/any", "hello"));
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.fields.at("content-type"), "application/json; charset=utf-8");
  EXPECT_EQ(response.body, "[\"hello\"]");
}

}  // namespace
}  // namespace dirwell::test
