#include "service/error_record.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace dirwell {
namespace {

TEST(SetError, FormatsTheMessageAndSetsTheCode) {
  ErrorRecord record;
  set_error(record, 2, "invalid %s", "lang");
  EXPECT_EQ(record.code, 2U);
  EXPECT_STREQ(record.message, "invalid lang");
}

TEST(SetError, WithCodeZeroDoesNothing) {
  ErrorRecord record;
  set_error(record, 0, "text");
  EXPECT_EQ(record.code, 0U);
  EXPECT_STREQ(record.message, "");
  set_error(record, 3, "uuid not found");
  set_error(record, 0, "text");
  EXPECT_EQ(record.code, 3U);
  EXPECT_STREQ(record.message, "uuid not found");
}

TEST(SetError, OverwritesAnEarlierError) {
  ErrorRecord record;
  set_error(record, 2, "a long first message");
  set_error(record, 3, "second");
  EXPECT_EQ(record.code, 3U);
  EXPECT_STREQ(record.message, "second");
}

TEST(SetError, CutsTheMessageTo255Bytes) {
  ErrorRecord record;
  set_error(record, 2, "%s", std::string(300, 'x').c_str());
  EXPECT_EQ(std::strlen(record.message), 255U);
  EXPECT_EQ(sizeof record.message, 256U);
}

}  // namespace
}  // namespace dirwell
