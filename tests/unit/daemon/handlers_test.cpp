#include "daemon/handlers.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "cache/watch_times.h"
#include "daemon/watchers.h"
#include "listing/type_table.h"
#include "service/json.h"
#include "service/log.h"
#include "service/session.h"
#include "support/environment.h"
#include "support/private_root.h"
#include "support/temp_dir.h"

namespace dirwell {
namespace {

using namespace std::chrono_literals;
using test::TempDir;
using test::write_below_root;

constexpr const char *no_cache = "01234567-89ab-cdef-0123-456789abcdef";

// The parts of a reply that a listing decides, as compact JSON text: of each entry its name alone, and for a uuid that
// is there "UUID".
std::string brief(const json_t *reply) {
  const JsonRef shown(json_object());
  for (const char *key : {"error_code", "error_message", "cluster", "total", "changed"}) {
    json_object_set(shown.get(), key, json_object_get(reply, key));
  }
  if (const json_t *uuid = json_object_get(reply, "uuid"); uuid != nullptr) {
    json_object_set_new(shown.get(), "uuid", json_string(json_string_length(uuid) == 36 ? "UUID" : "no uuid"));
  }
  if (const json_t *entries = json_object_get(reply, "datas"); entries != nullptr) {
    json_t *names = json_array();
    for (std::size_t place = 0; place < json_array_size(entries); ++place) {
      json_array_append(names, json_object_get(json_array_get(entries, place), "filename"));
    }
    json_object_set_new(shown.get(), "names", names);
  }
  char *text = json_dumps(shown.get(), JSON_COMPACT);
  std::string result(text);
  std::free(text);
  return result;
}

// Runs a handler on a request text, without a client: the reply stays in the io object.
JsonRef run(hx_rest_handler handler, const std::string &request) {
  hx_io *io = hx_io_create();
  const JsonRef object(json_loads(request.c_str(), 0, nullptr));
  handler(nullptr, io, object.get(), -1);
  JsonRef reply(json_loads(hx_io_read(io, 0), 0, nullptr));
  hx_io_free(io);
  return reply;
}

std::string uuid_in(const JsonRef &reply) {
  return json_string_value(json_object_get(reply.get(), "uuid"));
}

// Every test has a session of root's and a volume; what it does runs in a process of its own, as requests do.
class HandlersTest : public ::testing::Test {
 protected:
  HandlersTest() {
    write_below_root("etc/config/def_share.info", "[SHARE_DEF]\ndefVolMP = " + volume_.path() + "\n");
    volume_.mkdir(".fs");
  }

  // What `action` says line by line in the child; "died" where it did not end in order.
  static std::vector<std::string> in_request(
      const std::function<void(const std::function<void(const std::string &)> &)> &action) {
    const int notes = ::memfd_create("notes", MFD_CLOEXEC);
    const int status = test::in_child([&] {
      log_level = 0;
      Session::instance().set_sid("handlers");
      buildTypeIndex();
      action([notes](const std::string &line) {
        const std::string whole = line + '\n';
        static_cast<void>(!::write(notes, whole.data(), whole.size()));
      });
    });
    std::string text(static_cast<std::size_t>(::lseek(notes, 0, SEEK_END)), '\0');
    static_cast<void>(!::pread(notes, text.data(), text.size(), 0));
    ::close(notes);
    std::vector<std::string> lines;
    for (std::string_view rest = text; !rest.empty();) {
      const std::size_t end = rest.find('\n');
      lines.emplace_back(rest.substr(0, end));
      rest.remove_prefix(end + 1);
    }
    if (status != 0) {
      lines.emplace_back("died");
    }
    return lines;
  }

  [[nodiscard]] std::string request(const std::string &more = {}) const {
    return R"({"path":[{"full_path":")" + share_.path() + R"(","alias":"/Share"}])" + more + "}";
  }

  [[nodiscard]] std::vector<std::string> databases() const {
    std::vector<std::string> names;
    for (const auto &file : std::filesystem::directory_iterator(volume_.at(".fs"))) {
      names.push_back(file.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  test::ScopedSession session_{"handlers"};
  TempDir volume_;
  TempDir share_;
};

using Lines = std::vector<std::string>;

TEST_F(HandlersTest, FetchResourceListsOrdersGroupsAndKeepsNothing) {
  share_.write("b.txt");
  share_.write("A.jpg");
  share_.mkdir("folder");
  EXPECT_EQ(in_request([&](const auto &say) {
              say(brief(run(fetch_resource_handler, request()).get()));
              say(brief(run(fetch_resource_handler, request(R"(,"cluster":"type:asc","sort":"name:desc")")).get()));
              say(brief(run(fetch_resource_handler, request(R"(,"type":"photo")")).get()));
              say(brief(run(fetch_resource_handler, request(R"(,"limit":50,"offset":2)")).get()));
            }),
            (Lines{R"({"error_code":0,"error_message":"","cluster":[{"value":"","count":3}],"total":3,"changed":false,)"
                   R"("uuid":"UUID","names":["A.jpg","b.txt","folder"]})",
                   R"({"error_code":0,"error_message":"","cluster":[{"value":"folder","count":1},)"
                   R"({"value":"jpg","count":1},{"value":"txt","count":1}],"total":3,"changed":false,)"
                   R"("uuid":"UUID","names":["folder","A.jpg","b.txt"]})",
                   R"({"error_code":0,"error_message":"","cluster":[{"value":"","count":1}],"total":1,"changed":false,)"
                   R"("uuid":"UUID","names":["A.jpg"]})",
                   R"({"error_code":0,"error_message":"","cluster":[{"value":"","count":3}],"total":3,"changed":false,)"
                   R"("uuid":"UUID","names":["folder"]})"}));
  EXPECT_EQ(databases(), Lines{});
}

TEST_F(HandlersTest, WriteToTheDescriptorThatTheyAreGiven) {
  share_.write("file");
  EXPECT_EQ(in_request([&](const auto &say) {
              int ends[2];
              if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
                return;
              }
              hx_io *io = hx_io_create();
              const JsonRef object(json_loads(request().c_str(), 0, nullptr));
              fetch_resource_handler(nullptr, io, object.get(), ends[1]);
              ::shutdown(ends[1], SHUT_WR);
              std::string text(65536, '\0');
              text.resize(static_cast<std::size_t>(::recv(ends[0], text.data(), text.size(), MSG_WAITALL)));
              const std::size_t head = text.find("\r\n\r\n");
              say(text.substr(0, head));
              say(brief(JsonRef(json_loads(text.c_str() + head, 0, nullptr)).get()));
              say(std::to_string(hx_io_size(io)));
              hx_io_free(io);
            }),
            (Lines{"Content-Type: application/json; charset=utf-8",
                   R"({"error_code":0,"error_message":"","cluster":[{"value":"","count":1}],"total":1,"changed":false,)"
                   R"("uuid":"UUID","names":["file"]})",
                   "0"}));
}

// Whatever was asked for, a request that is refused is answered with the refusal alone and touches no cache.
TEST_F(HandlersTest, AnswerABadParameterWithNothingButTheError) {
  const std::string uuid = std::string(R"({"uuid":")") + no_cache + '"';
  const struct {
    hx_rest_handler handler;
    std::string request;
    const char *reply;
  } refusals[] = {
      {fetch_resource_handler, "{}", R"({"error_code":2,"error_message":"invalid path"})"},
      {fetch_resource_handler, request(R"(,"limit":49)"), R"({"error_code":2,"error_message":"invalid limit"})"},
      {fetch_resource_handler, request(R"(,"lang":"XYZ")"), R"({"error_code":2,"error_message":"invalid lang"})"},
      {create_cache_handler, request(R"(,"index":3)"), R"({"error_code":2,"error_message":"invalid index"})"},
      {create_cache_handler, "{}", R"({"error_code":2,"error_message":"invalid path"})"},
      {fetch_cache_handler, R"({"uuid":"1"})", R"({"error_code":2,"error_message":"invalid uuid"})"},
      {fetch_cache_handler, uuid + R"(,"limit":2001})", R"({"error_code":2,"error_message":"invalid limit"})"},
      {fetch_cache_handler, uuid + R"(,"index":0})", R"({"error_code":2,"error_message":"invalid index"})"},
      {delete_cache_handler, R"({"index":1})", R"({"error_code":2,"error_message":"invalid uuid"})"},
      {delete_cache_handler, uuid + R"(,"index":-1})", R"({"error_code":2,"error_message":"invalid index"})"},
      {watch_handler, R"({"index":"7"})", R"({"error_code":2,"error_message":"invalid index"})"},
  };
  for (const auto &row : refusals) {
    EXPECT_EQ(in_request([&](const auto &say) {
                const JsonRef reply = run(row.handler, row.request);
                char *text = json_dumps(reply.get(), JSON_COMPACT);
                say(text);
                std::free(text);
              }),
              Lines{row.reply})
        << row.request;
  }
  EXPECT_EQ(databases(), Lines{});
}

TEST_F(HandlersTest, ACacheIsCreatedPagedAndDeleted) {
  for (const char *name : {"c", "a", "b"}) {
    share_.write(name);
  }
  EXPECT_EQ(in_request([&](const auto &say) {
              const JsonRef made = run(create_cache_handler, request(R"(,"index":2)"));
              say(brief(made.get()));
              const std::string uuid = R"({"index":2,"uuid":")" + uuid_in(made) + '"';
              say(brief(run(fetch_cache_handler, uuid + "}").get()));
              say(brief(run(fetch_cache_handler, uuid + R"(,"offset":1})").get()));
              say(brief(run(fetch_cache_handler, R"({"uuid":")" + uuid_in(made) + "\"}").get()));  // of index 1
              say(brief(run(delete_cache_handler, uuid + "}").get()));
              say(brief(run(delete_cache_handler, uuid + "}").get()));
              say(brief(run(fetch_cache_handler, uuid + "}").get()));
            }),
            (Lines{R"({"error_code":0,"error_message":"","cluster":[{"value":"","count":3}],"total":3,"uuid":"UUID"})",
                   R"({"error_code":0,"error_message":"","total":3,"changed":false,"names":["a","b","c"]})",
                   R"({"error_code":0,"error_message":"","total":3,"changed":false,"names":["b","c"]})",
                   R"({"error_code":2,"error_message":"invalid uuid"})", R"({"error_code":0,"error_message":""})",
                   R"({"error_code":3,"error_message":"uuid not found"})",
                   R"({"error_code":2,"error_message":"invalid uuid"})"}));
  EXPECT_EQ(databases(), Lines{"handlers.2"});
}

TEST_F(HandlersTest, ACacheThatCannotBeKeptIsNoListing) {
  share_.write("file");
  write_below_root("etc/config/def_share.info", "");
  EXPECT_EQ(in_request([&](const auto &say) {
              const JsonRef reply = run(create_cache_handler, request());
              say(brief(reply.get()));
              say(std::to_string(json_object_size(reply.get())));
            }),
            (Lines{R"({"error_code":0,"error_message":""})", "2"}));
}

// The daemon, here a socket in its place, owns the watchers.
TEST_F(HandlersTest, CreateCacheAsksTheDaemonToWatchBehindItsReply) {
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = test::private_root() + "/var/run/dirwell-handlers.sock";
  ASSERT_LT(path.size(), sizeof address.sun_path);
  path.copy(address.sun_path, path.size());
  ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 1), 0);
  const timeval patience{20, 0};
  ASSERT_EQ(::setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience), 0);
  std::string asked;
  std::thread daemon([&] {
    const int client = ::accept(listener, nullptr, nullptr);
    char chunk[1024];
    while (!asked.ends_with('}')) {
      const ssize_t got = ::recv(client, chunk, sizeof chunk, 0);
      if (got <= 0) {
        break;
      }
      asked.append(chunk, static_cast<std::size_t>(got));
    }
    constexpr std::string_view answer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}";
    ::send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
    ::close(client);
  });
  EXPECT_EQ(in_request([&](const auto &say) { say(brief(run(create_cache_handler, request(R"(,"index":2)")).get())); }),
            (Lines{R"({"error_code":0,"error_message":"","cluster":[],"total":0,"uuid":"UUID"})"}));
  daemon.join();
  ::close(listener);
  ::unlink(path.c_str());
  EXPECT_TRUE(asked.starts_with("POST /watch HTTP/1.1\r\n")) << asked;
  EXPECT_TRUE(asked.ends_with("\r\n\r\n{\"index\":2}")) << asked;
}

TEST_F(HandlersTest, WatchRepliesAndThenFollowsTheFoldersOfItsCache) {
  share_.write("file");
  EXPECT_EQ(in_request([&](const auto &say) {
              run(create_cache_handler, request(R"(,"index":2)"));
              start_watchers();
              watchTimes(2)->lastReload = 0;
              say(brief(run(watch_handler, R"({"index":2,"left":"over"})").get()));
              say(watchTimes(2)->lastReload != 0 ? "reloaded" : "not reloaded");
              watchTimes(1)->lastChange = 0;
              watchTimes(2)->lastChange = 0;
              share_.write("file", "longer");
              for (int i = 0; i < 500 && watchTimes(2)->lastChange == 0; ++i) {
                std::this_thread::sleep_for(10ms);
              }
              say(watchTimes(2)->lastChange != 0 ? "followed" : "not followed");
              say(watchTimes(1)->lastChange == 0 ? "alone" : "not alone");
              stop_watchers();
            }),
            (Lines{R"({"error_code":0,"error_message":""})", "reloaded", "followed", "alone"}));
}

}  // namespace
}  // namespace dirwell
