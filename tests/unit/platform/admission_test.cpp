// Who may connect.

#include "platform/host/admission.h"

#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "platform/bus_service.h"
#include "platform/host/limits.h"
#include "platform/include/hxservice.h"
#include "support/environment.h"
#include "support/private_root.h"
#include "support/temp_dir.h"

namespace dirwell::test {
namespace {

uid_t id_of(const char *account) {
  return ::getpwnam(account)->pw_uid;
}

class AdmissionTest : public testing::Test {
 protected:
  void TearDown() override { std::filesystem::remove(private_root() + "/etc/config/host-platform.conf"); }
};

TEST_F(AdmissionTest, AdmitsRootAndTheOwnUserOnly) {
  host::Admission admission("some-service");
  EXPECT_TRUE(admission.admits(0));
  EXPECT_TRUE(admission.admits(::geteuid()));
  EXPECT_FALSE(admission.admits(id_of("nobody")));
  EXPECT_FALSE(admission.admits(12345));
}

TEST_F(AdmissionTest, AdmitsTheUserThatADaemonWithoutRightsRunsAs) {
  EXPECT_EQ(in_child([] {
              const uid_t nobody = id_of("nobody");
              if (::setresuid(nobody, nobody, nobody) != 0) {
                ::_exit(9);
              }
              host::Admission admission("some-service");
              ::_exit(admission.admits(nobody) && admission.admits(0) && !admission.admits(nobody - 1) ? 0 : 1);
            }),
            0);
}

TEST_F(AdmissionTest, AdmitsTheUserOfTheSessionForAsLongAsItLives) {
  host::Admission admission("dirwell-admit1");
  host::Admission other("other-admit1");
  EXPECT_FALSE(admission.admits(id_of("nobody")));
  {
    const ScopedSession session("admit1", "nobody");
    EXPECT_TRUE(admission.admits(id_of("nobody")));
    EXPECT_FALSE(admission.admits(id_of("daemon")));
    EXPECT_FALSE(other.admits(id_of("nobody")));
  }
  EXPECT_FALSE(admission.admits(id_of("nobody")));
}

TEST_F(AdmissionTest, AdmitsConfiguredAccountsFromTheNextConnectionOn) {
  host::Admission admission("some-service");
  EXPECT_FALSE(admission.admits(id_of("daemon")));
  write_below_root("etc/config/host-platform.conf", "[bus]\nUsers = no-such-account   daemon\tbin\n");
  EXPECT_TRUE(admission.admits(id_of("daemon")));
  EXPECT_TRUE(admission.admits(id_of("bin")));
  EXPECT_FALSE(admission.admits(id_of("nobody")));
  write_below_root("etc/config/host-platform.conf", "[BUS]\nusers =\n[OTHER]\nusers = daemon\n");
  EXPECT_FALSE(admission.admits(id_of("daemon")));
}

TEST_F(AdmissionTest, AdmitsAConfiguredAccountHoweverLongItsRecordIs) {
  const TempDir folder;
  // Longer than the room that a first look-up gives, and than twice that.
  const std::string accounts =
      folder.write("passwd", "root:x:0:0::/:/bin/sh\nwordy:x:61001:61001:" + std::string(10'000, 'w') + ":/:/bin/sh\n");
  const std::string groups = folder.write("group", "root:x:0:\n");
  write_below_root("etc/config/host-platform.conf", "[BUS]\nusers = wordy\n");
  EXPECT_EQ(in_child([&] {
              use_account_files(accounts, groups);
              host::Admission admission("some-service");
              ::_exit(admission.admits(61001) && !admission.admits(61002) ? 0 : 1);
            }),
            0);
}

TEST_F(AdmissionTest, FollowsTheSessionsRecordFromUserToUser) {
  host::Admission admission("dirwell-admit3");
  for (int round = 0; round < 3; ++round) {
    const ScopedSession nobody("admit3", "nobody");
    EXPECT_TRUE(admission.admits(id_of("nobody")));
    EXPECT_FALSE(admission.admits(id_of("daemon")));
    const ScopedSession daemon("admit3", "daemon");
    EXPECT_FALSE(admission.admits(id_of("nobody")));
    EXPECT_TRUE(admission.admits(id_of("daemon")));
  }
  EXPECT_FALSE(admission.admits(id_of("daemon")));
}

TEST_F(AdmissionTest, EndsWithTheSessionsTimeThoughNoFileChanges) {
  using std::chrono::system_clock;
  host::Admission admission("dirwell-admit4");
  const auto end = system_clock::to_time_t(system_clock::now()) + 2;
  const std::string record =
      write_below_root("var/run/dirwell/sessions/admit4", "user = nobody\nexpires = " + std::to_string(end) + "\n");
  std::this_thread::sleep_for(150ms);  // so that the file is known and settled
  EXPECT_TRUE(admission.admits(id_of("nobody")));
  EXPECT_TRUE(admission.admits(id_of("nobody")));
  EXPECT_TRUE(eventually([&] { return !admission.admits(id_of("nobody")); }, 4s));
  EXPECT_GE(system_clock::to_time_t(system_clock::now()), end);
  std::filesystem::remove(record);
}

// Each of so many names costs a search of the accounts, far more than all the rest of an admission.
TEST_F(AdmissionTest, LooksNothingUpForAStrangerWhileNothingChanges) {
  std::string names;
  for (int number = 0; number < 5'000; ++number) {
    names += " no-such-account-" + std::to_string(number);
  }
  write_below_root("etc/config/host-platform.conf", "[BUS]\nusers =" + names + " daemon\n");
  std::this_thread::sleep_for(150ms);
  host::Admission admission("some-service");
  EXPECT_FALSE(admission.admits(12345));
  const auto begin = std::chrono::steady_clock::now();
  for (int count = 0; count < 500; ++count) {
    EXPECT_FALSE(admission.admits(12345));
    EXPECT_TRUE(admission.admits(id_of("daemon")));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
}

// --- At the socket ---

void answer(hx_request *, hx_io *io, int descriptor) {
  hx_io_realloc(io, 0);
  hx_io_write(io, "{}", 2);
  hx_reply(io);
  ::close(descriptor);
  hx_io_free(io);
}

// Runs `action` as another user in a child; true when it says so.
bool as_user(const char *account, const std::function<bool()> &action) {
  return in_child([&] {
           const uid_t user = id_of(account);
           if (::setgroups(0, nullptr) != 0 || ::setresgid(user, user, user) != 0 ||
               ::setresuid(user, user, user) != 0) {
             ::_exit(9);
           }
           ::_exit(action() ? 0 : 1);
         }) == 0;
}

TEST_F(AdmissionTest, RefusesAStrangerAtOnceBeforeItSaysAnything) {
  const ServiceProcess service(answer);
  EXPECT_TRUE(as_user("nobody", [&] {
    Client client(service);
    const Response response = client.receive(1s);
    return response.status == 403 && response.fields.at("content-type") == "application/problem+json" &&
           response.fields.at("connection") == "close" &&
           response.body.starts_with(R"({"type":"about:blank","title":"Forbidden","status":403,)") && client.ended();
  }));
}

TEST_F(AdmissionTest, LetsAStrangerReadItsRefusalThoughItSendsARequestFirst) {
  const ServiceProcess service(answer);
  EXPECT_TRUE(as_user("nobody", [&] {
    Client client(service);
    return client.send(post("/x", std::string(1'000'000, 'x'))) && client.receive(1s).status == 403;
  }));
}

TEST_F(AdmissionTest, ServesTheUserOfTheSession) {
  const ScopedSession session("admit2", "nobody");
  const ServiceProcess service(answer, {}, "dirwell-admit2");
  const auto is_served = [&] {
    Client client(service);
    return client.ask(post("/x")).status == 200;
  };
  EXPECT_TRUE(as_user("nobody", is_served));
  EXPECT_FALSE(as_user("daemon", is_served));
}

TEST_F(AdmissionTest, StrangersTakeNoPlaceAndWaitForNone) {
  const ServiceProcess service(answer, [] { host::limits().connections = 2; });
  EXPECT_TRUE(as_user("nobody", [&] {
    std::vector<Client> strangers;
    strangers.reserve(200);
    for (int count = 0; count < 200; ++count) {  // more than are listened to after their refusal
      strangers.emplace_back(service);
    }
    return strangers.front().receive(1s).status == 403 && strangers.back().receive(1s).status == 403;
  }));
  Client one(service);
  Client two(service);
  EXPECT_EQ(one.ask(post("/x")).status, 200);
  EXPECT_EQ(two.ask(post("/x")).status, 200);
  EXPECT_TRUE(as_user("nobody", [&] {
    Client stranger(service);
    return stranger.receive(1s).status == 403;
  })) << "all places are taken, but a stranger needs none";
}

TEST_F(AdmissionTest, RefusesStrangersAtOnceThoughNobodyMoreMayWait) {
  const ServiceProcess service(answer, [] {
    rlimit files = {};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = 64;
    ::setrlimit(RLIMIT_NOFILE, &files);
  });
  std::vector<Client> admitted;
  for (int count = 0; count < 30; ++count) {
    admitted.emplace_back(service);
  }
  EXPECT_TRUE(as_user("nobody", [&] {
    for (int count = 0; count < 100; ++count) {
      Client stranger(service);
      if (stranger.receive(1s).status != 403 || !stranger.ended()) {
        return false;
      }
    }
    return true;
  }));
  EXPECT_EQ(admitted.front().ask(post("/x")).status, 200);
}

}  // namespace
}  // namespace dirwell::test
