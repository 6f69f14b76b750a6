#include "entry/names.h"

#include <gtest/gtest.h>

#include <string>

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

}  // namespace
}  // namespace dirwell
