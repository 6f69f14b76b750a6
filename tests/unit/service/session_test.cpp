#include "service/session.h"

#include <gmock/gmock.h>
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "service/log.h"
#include "support/environment.h"
#include "support/private_root.h"

namespace dirwell {
namespace {

using test::captured_stderr;
using test::in_child;
using test::ScopedSession;
using ::testing::HasSubstr;

constexpr uid_t nobody = 65534;

// Each test has the process-wide session to itself, in a child.
TEST(Session, IsNamedAfterItsId) {
  EXPECT_EQ(in_child([] {
              captured_stderr([] { Session::instance().set_sid("3f9c"); });
              const bool right = Session::instance().sid() == "3f9c" &&
                                 Session::instance().instance_name() == "dirwell-3f9c" &&
                                 !Session::instance().alive() && Session::instance().uid() == 0;
              ::_exit(right ? 0 : 1);
            }),
            0);
}

TEST(Session, HasNoNameBeforeAnIdIsSet) {
  EXPECT_EQ(in_child([] {
              Session &session = Session::instance();
              ::_exit(session.sid().empty() && session.instance_name().empty() && !session.alive() ? 0 : 1);
            }),
            0);
}

TEST(Session, LogsItsIdUnderTheErrorTag) {
  const test::ScopedEnvironment zone("TZ", "UTC0");
  const std::string line = captured_stderr([] { in_child([] { Session::instance().set_sid("abc"); }); });
  EXPECT_THAT(line,
              ::testing::MatchesRegex("[-0-9T:]{19}-0000 \\[E\\] dirwell\\([0-9]+\\): \\[session\\] abc be set\\.\n"));
}

TEST(Session, TakesOverTheUserOfALivingSession) {
  const ScopedSession file("alive1", "nobody");
  EXPECT_EQ(in_child([] {
              captured_stderr([] { Session::instance().set_sid("alive1"); });
              const Session &session = Session::instance();
              const bool right = Session::instance().alive() && session.uid() == nobody &&
                                 session.user_name() == "nobody" && session.gid() == ::getpwnam("nobody")->pw_gid;
              ::_exit(right ? 0 : 1);
            }),
            0);
}

TEST(Session, NoticesItsEnd) {
  EXPECT_EQ(in_child([] {
              bool was_alive = false;
              {
                const ScopedSession file("alive2");
                captured_stderr([] { Session::instance().set_sid("alive2"); });
                was_alive = Session::instance().alive();
              }
              ::_exit(was_alive && !Session::instance().alive() ? 0 : 1);
            }),
            0);
}

TEST(Session, ThatCannotBeLookedUpHasNotEnded) {
  const ScopedSession file("alive3", "nobody");
  EXPECT_EQ(in_child([] {
              captured_stderr([] { Session::instance().set_sid("alive3"); });
              const rlimit none{0, 0};
              ::setrlimit(RLIMIT_NOFILE, &none);
              Session &session = Session::instance();
              ::_exit(session.alive() && session.user_name() == "nobody" ? 0 : 1);
            }),
            0);
}

TEST(SetEUser, TakesOnGroupsGroupAndUserAndKeepsTheRealOnes) {
  const ScopedSession file("switch1", "nobody");
  EXPECT_EQ(in_child([] {
              captured_stderr([] { Session::instance().set_sid("switch1"); });
              const gid_t stray = 4242;
              ::setgroups(1, &stray);
              const bool switched = Session::instance().seteuser(false);
              uid_t real = 1;
              uid_t effective = 1;
              uid_t saved = 1;
              ::getresuid(&real, &effective, &saved);
              std::vector<gid_t> groups(64);
              groups.resize(static_cast<std::size_t>(::getgroups(64, groups.data())));
              const bool stray_gone = std::find(groups.begin(), groups.end(), stray) == groups.end();
              ::_exit(switched && real == 0 && effective == nobody && ::getegid() == ::getpwnam("nobody")->pw_gid &&
                              ::getgid() == 0 && stray_gone
                          ? 0
                          : 1);
            }),
            0);
}

TEST(SetEUser, GoesBackWithRestore) {
  const ScopedSession file("switch2", "nobody");
  EXPECT_EQ(in_child([] {
              captured_stderr([] { Session::instance().set_sid("switch2"); });
              const bool there = Session::instance().seteuser(false) && ::geteuid() == nobody;
              // The way back starts with the user, or the group and the groups are refused: as documented, the caller
              // looks at the result.
              Session::instance().seteuser(true);
              ::_exit(there && ::geteuid() == 0 ? 0 : 1);
            }),
            0);
}

TEST(SetEUser, ReportsThatAnotherUsersIdentityIsRefused) {
  const ScopedSession file("switch3", "root");
  EXPECT_EQ(in_child([] {
              captured_stderr([] { Session::instance().set_sid("switch3"); });
              if (::setgid(nobody) != 0 || ::setuid(nobody) != 0) {
                ::_exit(2);
              }
              ::_exit(Session::instance().seteuser(false) ? 1 : 0);
            }),
            0);
}

TEST(SetEUser, IsFineForAnOrdinaryUserWhoIsTheSessionsUser) {
  const ScopedSession file("switch4", "nobody");
  EXPECT_EQ(in_child([] {
              captured_stderr([] { Session::instance().set_sid("switch4"); });
              if (::setgid(::getpwnam("nobody")->pw_gid) != 0 || ::setuid(nobody) != 0) {
                ::_exit(2);
              }
              ::_exit(Session::instance().seteuser(false) ? 0 : 1);
            }),
            0);
}

TEST(SetEUser, RefusesWhenTheSessionHasBecomeAnotherUsers) {
  EXPECT_EQ(in_child([] {
              {
                const ScopedSession file("switch6", "root");
                captured_stderr([] { Session::instance().set_sid("switch6"); });
              }
              const ScopedSession file("switch6", "nobody");
              ::_exit(Session::instance().alive() && !Session::instance().seteuser(false) ? 0 : 1);
            }),
            0);
}

TEST(SetEUser, RefusesWhenTheSessionCameOnlyAfterItsIdWasSet) {
  EXPECT_EQ(in_child([] {
              captured_stderr([] { Session::instance().set_sid("switch7"); });
              const ScopedSession file("switch7", "nobody");
              ::_exit(Session::instance().alive() && !Session::instance().seteuser(false) ? 0 : 1);
            }),
            0);
}

TEST(SetEUser, TracesTheWholeGroupArray) {
  const ScopedSession file("switch5", "nobody");
  const std::string text = captured_stderr([] {
    in_child([] {
      Session::instance().set_sid("switch5");
      log_level = 8;
      Session::instance().seteuser(false);
    });
  });
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 65536 + 1);
  EXPECT_THAT(
      text,
      HasSubstr("): (session:97) seteuser() [session] gid = " + std::to_string(::getpwnam("nobody")->pw_gid) + "\n"));
  EXPECT_THAT(text, HasSubstr("): (session:97) seteuser() [session] gid = 0\n"));
}

}  // namespace
}  // namespace dirwell
