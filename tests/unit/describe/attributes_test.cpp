#include "describe/attributes.h"

#include <cerrno>

#include "describe_support.h"

namespace dirwell::test {
namespace {

TEST(ReadAttribute, GivesTheBytesOfTheValue) {
  const PlacedDir folder;
  const std::string file = folder.write("a");
  setAttribute(file, "user.t", std::string_view("a\0b\xFF", 4));
  EXPECT_EQ(readAttribute(file, "user.t", 16), std::string("a\0b\xFF", 4));
}

TEST(ReadAttribute, FollowsLinks) {
  const PlacedDir folder;
  setAttribute(folder.write("a"), "user.t", "value");
  EXPECT_EQ(readAttribute(folder.link("b", "a"), "user.t", 16), "value");
}

TEST(ReadAttribute, TellsAnEmptyValueFromAMissingOne) {
  const PlacedDir folder;
  const std::string file = folder.write("a");
  EXPECT_EQ(readAttribute(file, "user.t", 16), std::nullopt);
  EXPECT_EQ(errno, ENODATA);
  setAttribute(file, "user.t", "");
  EXPECT_EQ(readAttribute(file, "user.t", 16), "");
}

TEST(ReadAttribute, TakesAValueOfTheWholeCapacityAndRefusesALongerOne) {
  const PlacedDir folder;
  const std::string file = folder.write("a");
  setAttribute(file, "user.t", std::string(16, 'x'));
  EXPECT_EQ(readAttribute(file, "user.t", 16), "xxxxxxxxxxxxxxxx");
  EXPECT_EQ(readAttribute(file, "user.t", 15), std::nullopt);
  EXPECT_EQ(errno, ERANGE);
}

TEST(ReadAttribute, GivesNothingForAMissingFile) {
  const PlacedDir folder;
  EXPECT_EQ(readAttribute(folder.path() + "/none", "user.t", 16), std::nullopt);
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace dirwell::test
