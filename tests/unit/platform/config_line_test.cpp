#include "platform/host/config_line.h"

#include <gtest/gtest.h>

namespace dirwell::host {
namespace {

struct Row {
  const char *text;
  LineKind kind;
  const char *name;
  const char *value;
};

TEST(TakeLine, TellsWhatALineIs) {
  const Row rows[] = {
      {"", LineKind::nothing, "", ""},
      {" \t\r\v\f", LineKind::nothing, "", ""},
      {"# key = value", LineKind::nothing, "", ""},
      {"  ; key = value", LineKind::nothing, "", ""},
      {"no line of this grammar", LineKind::nothing, "", ""},
      {"[Name]", LineKind::section, "Name", ""},
      {"  [ two words ]  rest", LineKind::section, "two words", ""},
      {"[SNAPSHOT /a[1]]", LineKind::section, "SNAPSHOT /a[1]", ""},
      {"[]", LineKind::section, "", ""},
      {"[never closed", LineKind::broken_section, "", ""},
      {"[key = value", LineKind::broken_section, "", ""},
      {"key=value", LineKind::value, "key", "value"},
      {" \t a key \t=\t a = b # c ; d \r", LineKind::value, "a key", "a = b # c ; d"},
      {"key =", LineKind::value, "key", ""},
      {"= value", LineKind::value, "", "value"},
  };
  for (const Row &row : rows) {
    std::string_view text = row.text;
    const Line line = take_line(text);
    EXPECT_EQ(line.kind, row.kind) << row.text;
    EXPECT_EQ(line.name, row.name) << row.text;
    EXPECT_EQ(line.value, row.value) << row.text;
    EXPECT_TRUE(text.empty()) << row.text;
  }
}

TEST(TakeLine, GoesOnBehindTheLineFeed) {
  std::string_view text = "a=1\n\nb=2";
  EXPECT_EQ(take_line(text).name, "a");
  EXPECT_EQ(text, "\nb=2");
  EXPECT_EQ(take_line(text).kind, LineKind::nothing);
  EXPECT_EQ(take_line(text).name, "b");
  EXPECT_EQ(text, "");
  EXPECT_EQ(take_line(text).kind, LineKind::nothing);
}

TEST(FoldedName, IsTheSameForNamesThatDifferInAsciiCaseAlone) {
  EXPECT_EQ(folded_name("Veto FILES_[Z]@`{"), "veto files_[z]@`{");
  EXPECT_EQ(folded_name("\xC3\x89"), "\xC3\x89");
}

TEST(LeadingInteger, IsHeldWithinTheRange) {
  const struct {
    const char *text;
    int number;
  } rows[] = {
      {"", 0},
      {"word", 0},
      {"-", 0},
      {"+", 0},
      {"--1", 0},
      {" 1", 0},
      {"0", 0},
      {"17", 17},
      {"+17", 17},
      {"-17", -17},
      {"1.9", 1},
      {"12ab", 12},
      {"0x10", 0},
      {"2147483647", 2147483647},
      {"2147483648", 2147483647},
      {"-2147483648", -2147483647 - 1},
      {"-2147483649", -2147483647 - 1},
      {"99999999999999999999999999", 2147483647},
      {"-99999999999999999999999999", -2147483647 - 1},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(leading_integer(row.text), row.number) << row.text;
  }
}

}  // namespace
}  // namespace dirwell::host
