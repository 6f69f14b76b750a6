#include "client/text.h"

#include <clocale>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace {

using dirwell::client::display_text;
using dirwell::client::human_size;
using namespace std::string_literals;

class Locale {
 public:
  explicit Locale(const char *name) { EXPECT_NE(std::setlocale(LC_CTYPE, name), nullptr); }
  ~Locale() { std::setlocale(LC_CTYPE, "C"); }
  Locale(const Locale &) = delete;
  Locale &operator=(const Locale &) = delete;
};

TEST(DisplayText, EscapesWhatSteersATerminal) {
  const Locale utf8("C.UTF-8");
  struct Row {
    std::string text;
    const char *shown;
  };
  const std::vector<Row> rows = {
      {"plain name.txt", "plain name.txt"},
      {"", ""},
      {" edges ", " edges "},
      {"two\nlines", "two\\nlines"},
      {"tab\there", "tab\\there"},
      {"\rback", "\\rback"},
      {"\x1b[31mred\x1b[0m", "\\u001b[31mred\\u001b[0m"},
      {"bell\x07", "bell\\u0007"},
      {"\x7f", "\\u007f"},
      {"nul\0nul"s, "nul\\u0000nul"},
      {"\xC2\x9B"
       "31m",
       "\\u009b31m"},                             // the one-character form of ESC [
      {"\xE2\x80\xAEtxt.exe", "\\u202etxt.exe"},  // right-to-left override
      {"\xE2\x80\xA8\xE2\x81\xA6\xEF\xBB\xBF", "\\u2028\\u2066\\ufeff"},
      {"\xD8\x9C\xE2\x80\x8E\xE2\x80\x8F", "\\u061c\\u200e\\u200f"},  // marks of a direction
      {"\xE2\x80\xA9\xE2\x80\xAA\xE2\x81\xA9", "\\u2029\\u202a\\u2069"},
      {"back\\slash\\n", "back\\\\slash\\\\n"},
      {"\xC3\xA9t\xC3\xA9", "\xC3\xA9t\xC3\xA9"},
      {"\xE6\x97\xA5\xE6\x9C\xAC", "\xE6\x97\xA5\xE6\x9C\xAC"},
      {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
      {"e\xCC\x81", "e\xCC\x81"},  // a combining accent stays
      {"\xF4\x8F\xBF\xBF", "\\U0010ffff"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.shown);
    EXPECT_EQ(display_text(row.text), row.shown);
  }
}

TEST(DisplayText, ShowsBytesThatAreNoUtf8InOctal) {
  const Locale utf8("C.UTF-8");
  EXPECT_EQ(display_text("a\xFF"
                         "b"),
            "a\\377b");
  EXPECT_EQ(display_text("\xC3"), "\\303");  // cut short
  EXPECT_EQ(display_text("\xC3("), "\\303(");
  EXPECT_EQ(display_text("\xC0\x80"), "\\300\\200");           // an overlong NUL
  EXPECT_EQ(display_text("\xE0\x80\x8A"), "\\340\\200\\212");  // an overlong line feed
  EXPECT_EQ(display_text("\xED\xA0\x80"), "\\355\\240\\200");  // a surrogate
  EXPECT_EQ(display_text("\xF4\x90\x80\x80"), "\\364\\220\\200\\200");
  EXPECT_EQ(display_text("\x80"), "\\200");
}

TEST(DisplayText, EscapesWhatTheTerminalCannotShow) {
  const Locale ascii("C");
  EXPECT_EQ(display_text("caf\xC3\xA9 \xE6\x97\xA5 \xF0\x9F\x98\x80"), "caf\\u00e9 \\u65e5 \\U0001f600");
  EXPECT_EQ(display_text("plain"), "plain");
}

TEST(HumanSize, ShowsAtMostFourCharactersAndAUnit) {
  struct Row {
    std::int64_t bytes;
    const char *shown;
  };
  const std::vector<Row> rows = {
      {0, "0"},
      {1, "1"},
      {1023, "1023"},
      {1024, "1.0K"},
      {1536, "1.5K"},
      {10138, "9.9K"},
      {10189, "10K"},
      {10240, "10K"},
      {1'047'552, "1023K"},
      {1'048'063, "1023K"},
      {1'048'064, "1.0M"},
      {1'048'576, "1.0M"},
      {5'368'709'120, "5.0G"},
      {1'099'511'627'776, "1.0T"},
      {1'125'899'906'842'624, "1.0P"},
      {std::numeric_limits<std::int64_t>::max(), "8.0E"},
      {-1, "-1"},
  };
  for (const Row &row : rows) {
    EXPECT_EQ(human_size(row.bytes), row.shown) << row.bytes;
  }
}

}  // namespace
