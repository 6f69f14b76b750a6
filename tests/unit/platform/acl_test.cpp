#include "platform/include/strata_nasacl.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "host_files.h"
#include "support/environment.h"
#include "support/temp_dir.h"

namespace {

using dirwell::test::in_child;
using dirwell::test::put;
using dirwell::test::TempDir;

constexpr const char *platform_file = "/etc/config/host-platform.conf";
constexpr uid_t user = 4242;
constexpr gid_t group = 4343;

class Access : public testing::Test {
 protected:
  Access() { ::chmod(folder.path().c_str(), 0755); }

  // The right that a request process of the user has, who is also in `supplementary`.
  static int right_of_user(const std::string &path, gid_t supplementary = 9999) {
    const int status = in_child([&] {
      if (::setgroups(1, &supplementary) != 0 || ::setegid(group) != 0 || ::seteuid(user) != 0) {
        ::_exit(99);
      }
      ::_exit(Get_ACL_User_Group_Security_For_Share("whoever", path.c_str()));
    });
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  [[nodiscard]] std::string file(const char *name, mode_t mode, uid_t owner, gid_t owner_group) const {
    std::string path = folder.write(name, "x");
    EXPECT_EQ(::chown(path.c_str(), owner, owner_group), 0);
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
    return path;
  }

  TempDir folder;
};

TEST_F(Access, AddsReadWriteAndExecute) {
  for (int bits = 0; bits < 8; ++bits) {
    SCOPED_TRACE(bits);
    const std::string path = file(("owned" + std::to_string(bits)).c_str(), static_cast<mode_t>(bits << 6), user, 0);
    EXPECT_EQ(right_of_user(path), bits);
  }
}

TEST_F(Access, AddsThemInEachClassAndForFolders) {
  for (int bits = 0; bits < 8; ++bits) {
    SCOPED_TRACE(bits);
    const std::string suffix = std::to_string(bits);
    const auto mode = static_cast<mode_t>(bits);
    EXPECT_EQ(right_of_user(file(("grouped" + suffix).c_str(), mode << 3, 0, group)), bits);
    EXPECT_EQ(right_of_user(file(("others" + suffix).c_str(), mode, 0, 0)), bits);
    EXPECT_EQ(right_of_user(file(("denied" + suffix).c_str(), 0777 & ~(mode << 6), user, group)), 7 - bits);
    const std::string subfolder = folder.mkdir("folder" + suffix);
    ASSERT_EQ(::chmod(subfolder.c_str(), mode), 0);
    EXPECT_EQ(right_of_user(subfolder), bits);
  }
}

// The superuser reads and writes everything, and executes what anyone may execute.
TEST_F(Access, OfTheSuperuserLacksExecutionAlone) {
  const struct {
    mode_t mode;
    int right;
  } rows[] = {{0, 6}, {0400, 6}, {0200, 6}, {0100, 7}, {0010, 7}, {0001, 7}, {0777, 7}, {0666, 6}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.mode);
    const std::string path = file(("root" + std::to_string(row.mode)).c_str(), row.mode, user, group);
    EXPECT_EQ(Get_ACL_User_Group_Security_For_Share("root", path.c_str()), row.right);
  }
  const std::string closed = folder.mkdir("closed");
  ASSERT_EQ(::chmod(closed.c_str(), 0), 0);
  EXPECT_EQ(Get_ACL_User_Group_Security_For_Share("root", closed.c_str()), 7);
}

TEST_F(Access, OfOthersIsNoneOnWhatDoesNotExist) {
  const std::string plain = file("plain", 0777, user, group);
  EXPECT_EQ(right_of_user(plain), 7);
  EXPECT_EQ(right_of_user(folder.at("missing")), 0);
  EXPECT_EQ(right_of_user(plain + "/x"), 0);
  EXPECT_EQ(right_of_user(plain + "/"), 0);
  EXPECT_EQ(right_of_user(""), 0);
  EXPECT_EQ(right_of_user(std::string(10'000, 'x')), 0);
  EXPECT_EQ(right_of_user(folder.path() + "/" + std::string(300, 'x')), 0);
}

TEST_F(Access, OfOthersEndsAtAFolderThatTheyMayNotPass) {
  folder.write("closed/missing/none", "");
  const std::string inner = folder.write("closed/inner", "x");
  ASSERT_EQ(::chmod(inner.c_str(), 0777), 0);
  for (const mode_t mode : {0700U, 0766U, 0771U}) {
    SCOPED_TRACE(mode);
    ASSERT_EQ(::chmod(folder.at("closed").c_str(), mode), 0);
    EXPECT_EQ(right_of_user(inner), mode == 0771U ? 7 : 0);
    EXPECT_EQ(right_of_user(inner + "s"), 0);
  }
}

// Where nothing can be written, reading and executing are allowed all the same.
TEST_F(Access, OfAReadOnlyMountLacksWriting) {
  const std::string mount = folder.mkdir("mount");
  for (const mode_t mode : {0777U, 0666U, 0333U, 0222U, 0111U}) {
    const std::string path = file(("mount/" + std::to_string(mode)).c_str(), mode, user, group);
  }
  const int status = in_child([&] {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount(mount.c_str(), mount.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
        ::mount("none", mount.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
      ::_exit(100);
    }
    const auto right = [&](mode_t mode) { return right_of_user(mount + "/" + std::to_string(mode)); };
    const std::vector<int> of_user{right(0777U), right(0666U), right(0333U), right(0222U), right(0111U)};
    const int of_root = Get_ACL_User_Group_Security_For_Share("root", (mount + "/" + std::to_string(0222U)).c_str());
    ::_exit((of_user == std::vector{5, 4, 1, 0, 1} ? 0 : 1) + (of_root == 4 ? 0 : 2));
  });
  EXPECT_EQ(status, 0);
}

TEST_F(Access, CountsTheClassThatAppliesToTheEffectiveIdentity) {
  EXPECT_EQ(right_of_user(file("owner", 0407, user, group)), 4);
  EXPECT_EQ(right_of_user(file("group", 0652, 0, group)), 5);
  EXPECT_EQ(right_of_user(file("supplementary", 0020, 0, 5555), 5555), 2);
  EXPECT_EQ(right_of_user(file("others", 0771, 0, 0)), 1);
}

TEST_F(Access, CountsPosixAcls) {
  const std::string path = file("acl", 0600, 0, 0);
  // user::rw- user:4242:r-x group::--- mask::r-x other::---
  const std::string acl(
      "\x02\0\0\0\x01\0\x06\0\xFF\xFF\xFF\xFF\x02\0\x05\0\x92\x10\0\0\x04\0\0\0\xFF\xFF\xFF\xFF"
      "\x10\0\x05\0\xFF\xFF\xFF\xFF\x20\0\0\0\xFF\xFF\xFF\xFF",
      44);
  if (::setxattr(path.c_str(), "system.posix_acl_access", acl.data(), acl.size(), 0) != 0) {
    ASSERT_EQ(errno, EOPNOTSUPP);  // a file system without ACLs: then the mode alone counts
    EXPECT_EQ(right_of_user(path), 0);
    return;
  }
  EXPECT_EQ(right_of_user(path), 5);
}

TEST_F(Access, AnswersForFolders) {
  const std::string closed = folder.mkdir("closed");
  folder.write("closed/inner", "x");
  ASSERT_EQ(::chmod((closed + "/inner").c_str(), 0666), 0);
  ASSERT_EQ(::chmod(closed.c_str(), 0704), 0);
  EXPECT_EQ(right_of_user(closed), 4);
  EXPECT_EQ(right_of_user(closed + "/inner"), 0);
}

TEST_F(Access, FollowsLinks) {
  std::filesystem::create_symlink(file("target", 0405, user, 0), folder.at("link"));
  std::filesystem::create_symlink("nowhere", folder.at("dangling"));
  std::filesystem::create_symlink("loop", folder.at("loop"));
  EXPECT_EQ(right_of_user(folder.at("link")), 4);
  EXPECT_EQ(right_of_user(folder.at("dangling")), 0);
  EXPECT_EQ(right_of_user(folder.at("loop")), 0);
}

TEST_F(Access, GivesNoRightOnWhatDoesNotExist) {
  EXPECT_EQ(Get_ACL_User_Group_Security_For_Share("root", folder.at("missing").c_str()), 0);
  EXPECT_EQ(Get_ACL_User_Group_Security_For_Share("root", (file("plain", 0644, 0, 0) + "/x").c_str()), 0);
  EXPECT_EQ(Get_ACL_User_Group_Security_For_Share("root", ""), 0);
  EXPECT_EQ(Get_ACL_User_Group_Security_For_Share("root", nullptr), 0);
  EXPECT_EQ(Get_ACL_User_Group_Security_For_Share("root", std::string(10'000, 'x').c_str()), 0);
}

TEST_F(Access, AsksForTheEffectiveIdentityWhoeverIsNamed) {
  const std::string path = file("plain", 0600, 0, 0);
  EXPECT_EQ(Get_ACL_User_Group_Security_For_Share("nobody", path.c_str()), 6);
  EXPECT_EQ(Get_ACL_User_Group_Security_For_Share(nullptr, path.c_str()), 6);
  EXPECT_EQ(right_of_user(path), 0);
}

class AccessSwitches : public testing::Test {
 protected:
  ~AccessSwitches() override { dirwell::test::remove(platform_file); }

  static std::vector<int> all() {
    return {Is_ACL_Enabled(), Is_RichACL_Enabled(), Is_Win_ACL_Enabled(), Is_Win_ACL_Supported()};
  }
};

TEST_F(AccessSwitches, AreOffWithoutConfiguration) {
  EXPECT_EQ(all(), (std::vector{0, 0, 0, 0}));
}

TEST_F(AccessSwitches, AnswerEachByItsOwnKey) {
  put(platform_file, "[ACL]\nenable = 1\n");
  EXPECT_EQ(all(), (std::vector{1, 0, 0, 0}));
  put(platform_file, "[ACL]\nrich = 1\n");
  EXPECT_EQ(all(), (std::vector{0, 1, 0, 0}));
  put(platform_file, "[ACL]\nwin_enable = 1\n");
  EXPECT_EQ(all(), (std::vector{0, 0, 1, 0}));
  put(platform_file, "[ACL]\nwin_support = 1\n");
  EXPECT_EQ(all(), (std::vector{0, 0, 0, 1}));
  put(platform_file, "[ACL]\nenable = yes\nrich = 0\nwin_enable =\nwin_support = 3\n");
  EXPECT_EQ(all(), (std::vector{0, 0, 0, 3}));
}

TEST_F(Access, IsThatOfTheProcessWhateverNameIsGiven) {
  const std::string path = file("owned", 0640, user, 0);
  const std::string unknown(5'000, 'x');
  for (const char *name : {"root", "nobody", "", "no such account", "\xFF\n", unknown.c_str()}) {
    EXPECT_EQ(in_child([&] {
                if (::setegid(group) != 0 || ::seteuid(user) != 0) {
                  ::_exit(99);
                }
                ::_exit(Get_ACL_User_Group_Security_For_Share(name, path.c_str()) == 6 ? 0 : 1);
              }),
              0)
        << name;
  }
}

}  // namespace
