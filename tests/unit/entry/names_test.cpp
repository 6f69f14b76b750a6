#include "entry/names.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/environment.h"
#include "support/temp_dir.h"

namespace dirwell {
namespace {

ResourceEntry owned_by(uid_t uid, gid_t gid) {
  ResourceEntry entry;
  entry.stat.st_uid = uid;
  entry.stat.st_gid = gid;
  return entry;
}

TEST(OwnerName, IsTheAccountOfTheUserId) {
  EXPECT_EQ(ownerName(owned_by(0, 54321)), "root");
  EXPECT_EQ(ownerName(owned_by(1, 54321)), "daemon");
}

TEST(OwnerName, IsThreeDashesForAnIdWithoutAccount) {
  EXPECT_EQ(ownerName(owned_by(3999999123U, 0)), "---");
  EXPECT_EQ(ownerName(owned_by(0xFFFFFFFFU, 0)), "---");
}

TEST(GroupName, IsTheGroupOfTheGroupId) {
  EXPECT_EQ(groupName(owned_by(54321, 0)), "root");
  EXPECT_EQ(groupName(owned_by(54321, 4)), "adm") << "no account has a group of this name for its own";
}

TEST(GroupName, IsThreeDashesForAnIdWithoutGroup) {
  EXPECT_EQ(groupName(owned_by(0, 3999999123U)), "---");
}

TEST(Names, AreRememberedAndStayWhereTheyAre) {
  const std::string *owner = &ownerName(owned_by(0, 0));
  const std::string *group = &groupName(owned_by(0, 0));
  for (uid_t id = 3900000000U; id < 3900000300U; ++id) {
    ownerName(owned_by(id, id));
    groupName(owned_by(id, id));
  }
  EXPECT_EQ(&ownerName(owned_by(0, 0)), owner);
  EXPECT_EQ(&groupName(owned_by(0, 0)), group);
  EXPECT_EQ(*owner, "root");
  EXPECT_EQ(*group, "root");
}

// In a mount namespace of its own, whose account files the test writes.
TEST(Names, OfRecordsBeyondTheirBufferAreThreeDashes) {
  const test::TempDir folder;
  const std::string accounts = folder.write(
      "passwd", "short:x:71001:71001::/:/bin/sh\nlong:x:71002:71002:" + std::string(1100, 'x') + ":/:/bin/sh\n");
  const std::string groups = folder.write("group", "few:x:71001:a,b\nmany:x:71002:" + std::string(1100, 'm') + "\n");
  EXPECT_EQ(test::in_child([&] {
              test::use_account_files(accounts, groups);
              const bool fitting = ownerName(owned_by(71001, 0)) == "short" && groupName(owned_by(0, 71001)) == "few";
              const bool too_long = ownerName(owned_by(71002, 0)) == "---" && groupName(owned_by(0, 71002)) == "---";
              ::_exit(fitting && too_long ? 0 : 1);
            }),
            0);
}

}  // namespace
}  // namespace dirwell
