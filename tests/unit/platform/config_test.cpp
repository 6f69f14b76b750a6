#include "platform/host/config.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host_files.h"
#include "platform/include/strata_config.h"
#include "support/environment.h"

namespace {

using dirwell::test::in_child;
using dirwell::test::put;
using namespace std::string_literals;

constexpr const char *file = "/etc/config/test.conf";

class Config : public testing::Test {
 protected:
  ~Config() override { dirwell::test::remove(file); }

  static std::string text(const char *section, const char *key, const char *fallback = "(none)") {
    std::array<char, 256> buffer{};
    const int copied = Get_Private_Profile_String(section, key, fallback, buffer.data(), int{buffer.size()}, file);
    return {buffer.data(), static_cast<std::size_t>(copied)};
  }

  static int number(const char *section, const char *key, int fallback = -7) {
    return Get_Private_Profile_Integer(section, key, fallback, file);
  }
};

TEST_F(Config, GivesValuesOfTheAskedSectionOnly) {
  put(file, "[one]\nkey = first\n[two]\nkey = second\n");
  EXPECT_EQ(text("one", "key"), "first");
  EXPECT_EQ(text("two", "key"), "second");
  EXPECT_EQ(text("three", "key"), "(none)");
  EXPECT_EQ(text("one", "other"), "(none)");
}

TEST_F(Config, ReadsEachFormOfALine) {
  struct Row {
    const char *what;
    std::string content;
    std::string value;
  };
  const std::vector<Row> rows = {
      {"blanks around all", " \t[ s ] \n\t  k \t=  v w\t \n", "v w"},
      {"no blanks", "[s]\nk=v\n", "v"},
      {"CRLF line ends", "[s]\r\nk = v\r\n", "v"},
      {"no final line feed", "[s]\nk = v", "v"},
      {"equals sign in the value", "[s]\nk = a=b = c\n", "a=b = c"},
      {"no inline comment", "[s]\nk = v # w ; x\n", "v # w ; x"},
      {"no escapes", "[s]\nk = a\\\nb = c\\n\n", "a\\"},
      {"quotes stay", "[s]\nk = \"v\"\n", "\"v\""},
      {"empty value", "[s]\nk =\n", ""},
      {"blank value", "[s]\nk = \t \n", ""},
      {"key without equals sign", "[s]\nk\n", "(none)"},
      {"value without key", "[s]\n= v\nk = w\n", "w"},
      {"comments", "[s]\n#k = a\n;k = b\n # k = c\n\t;k = d\nk = e\n", "e"},
      {"first of equal keys", "[s]\nk = a\nK = b\n", "a"},
      {"first of equal keys though empty", "[s]\nk =\nk = b\n", ""},
      {"repeated section, key in the second", "[s]\na = 1\n[t]\nk = x\n[S]\nk = v\n", "v"},
      {"repeated section, key in both", "[s]\nk = v\n[t]\n[s]\nk = w\n", "v"},
      {"text before any section", "k = v\n[s]\n", "(none)"},
      {"unterminated section closes the one before", "[s]\na = 1\n[other\nk = v\n", "(none)"},
      {"byte order mark", "\xEF\xBB\xBF[s]\nk = v\n", "v"},
      {"NUL in a value", "[s]\nk = a\0b\n"s, "a\0b"s},
      {"NUL line before", "[s]\n\0\0\nk = v\n"s, "v"},
      {"bytes that are no UTF-8", "[s]\nk = \xFF\xFE\x80\n", "\xFF\xFE\x80"},
      {"only line feeds", "\n\n\n", "(none)"},
      {"empty file", "", "(none)"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    put(file, row.content);
    EXPECT_EQ(text("s", "k"), row.value);
  }
}

TEST_F(Config, ComparesNamesWithoutRegardToAsciiCaseOnly) {
  put(file, "[Share Def]\nVeto Files = x\n[\xC3\x84]\nk = upper\n");
  EXPECT_EQ(text("sHARE dEF", "veto fILES"), "x");
  EXPECT_EQ(text("\xC3\x84", "K"), "upper");
  EXPECT_EQ(text("\xC3\xA4", "k"), "(none)");
  EXPECT_EQ(text("Share  Def", "Veto Files"), "(none)");
}

TEST_F(Config, LetsASectionNameHoldBrackets) {
  put(file, "[SNAPSHOT /a[1]/b]\nk = v\n");
  EXPECT_EQ(text("SNAPSHOT /a[1]/b", "k"), "v");
}

TEST_F(Config, KeepsAValueOfFourThousandBytesWhole) {
  std::string list;
  while (list.size() < 4000) {
    list += "/pattern" + std::to_string(list.size());
  }
  list.resize(4000);
  put(file, "[global]\nveto files = " + list + "\nnext = 1\n");
  std::array<char, 4096> buffer{};
  EXPECT_EQ(Get_Private_Profile_String("global", "veto files", "", buffer.data(), 4096, file), 4000);
  EXPECT_EQ(std::string(buffer.data()), list);
  EXPECT_EQ(text("global", "next"), "1");
}

TEST_F(Config, ReadsALineOfAMillionBytes) {
  put(file, "[s]\nlong = " + std::string(1'000'000, 'x') + "y\nk = v\n");
  std::vector<char> buffer(1'100'000);
  EXPECT_EQ(Get_Private_Profile_String("s", "long", "", buffer.data(), 1'100'000, file), 1'000'001);
  EXPECT_EQ(buffer[1'000'000], 'y');
  EXPECT_EQ(buffer[1'000'001], '\0');
  EXPECT_EQ(text("s", "k"), "v");
}

TEST_F(Config, CutsAValueLongerThanTheBuffer) {
  put(file, "[s]\nk = 0123456789\n");
  struct Row {
    int size;
    const char *value;
    int copied;
  };
  for (const Row &row : {Row{11, "0123456789", 10}, Row{10, "012345678", 9}, Row{5, "0123", 4}, Row{1, "", 0}}) {
    SCOPED_TRACE(row.size);
    std::string buffer(16, '!');
    EXPECT_EQ(Get_Private_Profile_String("s", "k", "", buffer.data(), row.size, file), row.copied);
    EXPECT_STREQ(buffer.c_str(), row.value);
    EXPECT_EQ(buffer[static_cast<std::size_t>(row.size)], '!');
  }
}

TEST_F(Config, CutsTheFallbackToo) {
  std::string buffer(8, '!');
  EXPECT_EQ(Get_Private_Profile_String("s", "k", "fallback", buffer.data(), 5, file), 4);
  EXPECT_STREQ(buffer.c_str(), "fall");
}

TEST_F(Config, AcceptsOddArguments) {
  put(file, "[s]\nk = v\n");
  std::string buffer = "before";
  EXPECT_EQ(Get_Private_Profile_String("s", "k", "x", buffer.data(), 0, file), 0);
  EXPECT_EQ(Get_Private_Profile_String("s", "k", "x", buffer.data(), -1, file), 0);
  EXPECT_EQ(Get_Private_Profile_String("s", "k", "x", nullptr, 4, file), 0);
  EXPECT_EQ(buffer, "before");
  EXPECT_EQ(text("missing", "k", nullptr), "");
  EXPECT_EQ(text(nullptr, "k"), "(none)");
  EXPECT_EQ(text("s", nullptr), "(none)");
  EXPECT_EQ(Get_Private_Profile_Integer("s", "k", 3, nullptr), 3);
  EXPECT_EQ(number(nullptr, "k"), -7);
}

TEST_F(Config, GivesTheFallbackThatStandsInTheBuffer) {
  std::array<char, 16> buffer{"kept"};
  EXPECT_EQ(Get_Private_Profile_String("s", "k", buffer.data(), buffer.data(), 16, file), 4);
  EXPECT_STREQ(buffer.data(), "kept");
}

TEST_F(Config, ReadsIntegers) {
  struct Row {
    const char *value;
    int number;
  };
  const std::vector<Row> rows = {
      {"1", 1},
      {"0", 0},
      {"0042", 42},
      {"-3", -3},
      {"+5", 5},
      {"12 apples", 12},
      {"12apples", 12},
      {"0x10", 0},
      {"apples", 0},
      {"", 0},
      {"-", 0},
      {"--1", 0},
      {"1.9", 1},
      {"2147483647", INT_MAX},
      {"2147483648", INT_MAX},
      {"-2147483648", INT_MIN},
      {"-2147483649", INT_MIN},
      {"99999999999999999999999999999999999999", INT_MAX},
      {"-99999999999999999999999999999999999999", INT_MIN},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.value);
    put(file, std::string("[s]\nk = ") + row.value + "\n");
    EXPECT_EQ(number("s", "k"), row.number);
  }
  EXPECT_EQ(number("s", "missing"), -7);
  EXPECT_EQ(number("missing", "k"), -7);
}

TEST_F(Config, GivesTheFallbackWithoutAFile) {
  EXPECT_EQ(text("s", "k"), "(none)");
  EXPECT_EQ(number("s", "k"), -7);
}

TEST_F(Config, GivesTheFallbackForWhatIsNoRegularFile) {
  const std::string path = dirwell::test::below_root(file);
  std::filesystem::create_directories(path);
  EXPECT_EQ(text("s", "k"), "(none)");
  std::filesystem::remove(path);

  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(text("s", "k"), "(none)");  // and does not wait for a writer
  std::filesystem::remove(path);

  ASSERT_EQ(::symlink("/dev/zero", path.c_str()), 0);
  EXPECT_EQ(text("s", "k"), "(none)");
  std::filesystem::remove(path);

  ASSERT_EQ(::symlink("test.conf", path.c_str()), 0);
  EXPECT_EQ(text("s", "k"), "(none)");
}

TEST_F(Config, FollowsALinkToARegularFile) {
  put("/etc/config/target.conf", "[s]\nk = v\n");
  ASSERT_EQ(::symlink("target.conf", dirwell::test::below_root(file).c_str()), 0);
  EXPECT_EQ(text("s", "k"), "v");
  dirwell::test::remove("/etc/config/target.conf");
}

TEST_F(Config, CountsAFileBeyondSixteenMebibytesAsUnreadable) {
  const std::string head = "[s]\nk = v\n";
  const std::string path = put(file, head);
  ASSERT_EQ(::truncate(path.c_str(), (16 << 20)), 0);
  EXPECT_EQ(text("s", "k"), "v");
  ASSERT_EQ(::truncate(path.c_str(), (16 << 20) + 1), 0);
  EXPECT_EQ(text("s", "k"), "(none)");
}

TEST_F(Config, AnswersAUserOnlyWhatThatUserMayRead) {
  const std::string path = put(file, "[s]\nk = secret\n");
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  dirwell::test::let_settle();
  EXPECT_EQ(text("s", "k"), "secret");
  const auto as_nobody = [](const char *expected) {
    return in_child([expected] {
      if (::setegid(65534) != 0 || ::seteuid(65534) != 0 || text("s", "k") != expected) {
        ::_exit(1);
      }
    });
  };
  EXPECT_EQ(as_nobody("(none)"), 0);
  ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
  // The folders above belong to the test and may be closed to others.
  std::string folder = path;
  while ((folder = std::filesystem::path(folder).parent_path()).size() > 4) {
    ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
  }
  EXPECT_EQ(as_nobody("secret"), 0);
}

TEST_F(Config, SeesEveryChange) {
  std::string path = put(file, "[s]\nk = one\n");
  EXPECT_EQ(text("s", "k"), "one");
  // Same size, same moment.
  put(file, "[s]\nk = two\n");
  EXPECT_EQ(text("s", "k"), "two");
  dirwell::test::let_settle();
  EXPECT_EQ(text("s", "k"), "two");
  // Same size, and the modification time put back.
  struct stat before {};
  ASSERT_EQ(::stat(path.c_str(), &before), 0);
  put(file, "[s]\nk = six\n");
  const std::array<timespec, 2> times = {before.st_atim, before.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
  EXPECT_EQ(text("s", "k"), "six");
  // Another file in its place.
  dirwell::test::let_settle();
  EXPECT_EQ(text("s", "k"), "six");
  const std::string other = put("/etc/config/other.conf", "[s]\nk = ten\n");
  ASSERT_EQ(::rename(other.c_str(), path.c_str()), 0);
  EXPECT_EQ(text("s", "k"), "ten");
  // Gone, and back.
  dirwell::test::remove(file);
  EXPECT_EQ(text("s", "k"), "(none)");
  put(file, "[s]\nk = new\n");
  EXPECT_EQ(text("s", "k"), "new");
}

TEST_F(Config, SeesChangesThatFollowTooFastForTheTimeStamps) {
  // A file in memory is rewritten many times within one step of its time stamps.
  const int memory = ::memfd_create("config", MFD_CLOEXEC);
  ASSERT_GE(memory, 0);
  std::filesystem::create_directories(dirwell::test::below_root("/etc/config"));
  const std::string target = "/proc/self/fd/" + std::to_string(memory);
  ASSERT_EQ(::symlink(target.c_str(), dirwell::test::below_root(file).c_str()), 0);
  for (int i = 100; i < 400; ++i) {
    const std::string value = std::to_string(i);
    const std::string content = "[s]\nk = " + value + "\n";
    ASSERT_EQ(::pwrite(memory, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
    ASSERT_EQ(text("s", "k"), value);
  }
  ::close(memory);
}

// What this process has read so far, in bytes.
long long bytes_read() {
  std::ifstream io("/proc/self/io");
  std::string word;
  long long value = -1;
  io >> word >> value;
  return word == "rchar:" ? value : -1;
}

TEST_F(Config, ReadsAFileOncePerChange) {
  put(file, "[s]\nk = v\npadding = " + std::string(100'000, 'x') + "\n");
  dirwell::test::let_settle();
  const long long start = bytes_read();
  ASSERT_GE(start, 0);
  EXPECT_EQ(text("s", "k"), "v");
  EXPECT_GE(bytes_read() - start, 100'000);
  const auto parsed = dirwell::host::config_file(file);
  const long long middle = bytes_read();
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(text("s", "k"), "v");
    ASSERT_EQ(dirwell::host::config_file(file), parsed);
  }
  EXPECT_LT(bytes_read() - middle, 100'000);
}

TEST_F(Config, KeepsTheParsedFormOfAFileThatWasOnlyTouched) {
  const std::string path = put(file, "[s]\nk = v\n");
  dirwell::test::let_settle();
  const auto parsed = dirwell::host::config_file(file);
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), nullptr, 0), 0);
  EXPECT_EQ(dirwell::host::config_file(file), parsed);
}

TEST_F(Config, FindsNoNumberWithoutASectionAKeyOrAFile) {
  put(file, "[s]\nk = 7\n");
  EXPECT_EQ(Get_Private_Profile_Integer("s", "k", 3, file), 7);
  EXPECT_EQ(Get_Private_Profile_Integer(nullptr, "k", 3, file), 3);
  EXPECT_EQ(Get_Private_Profile_Integer("s", nullptr, 4, file), 4);
  EXPECT_EQ(Get_Private_Profile_Integer("s", "k", 5, "/etc/config/no-such.conf"), 5);
}

TEST_F(Config, LeavesAnOldParsedFormWhole) {
  put(file, "[s]\nk = old\n");
  const auto old = dirwell::host::config_file(file);
  put(file, "[s]\nk = new\n");
  EXPECT_EQ(text("s", "k"), "new");
  EXPECT_EQ(old->value("s", "k"), "old");
}

TEST_F(Config, ParsesManySectionsInLinearTime) {
  std::string content;
  for (int i = 0; i < 200'000; ++i) {
    content += "[" + std::to_string(i) + "]\nk=v\n";
  }
  put(file, content);
  const auto parsed = dirwell::host::config_file(file);
  EXPECT_EQ(parsed->sections().size(), 200'000U);
  EXPECT_EQ(parsed->sections().back().name, "199999");
}

TEST_F(Config, ServesThreadsWhileTheFileChanges) {
  put(file, "[s]\nk = 1\n");
  std::vector<std::thread> readers;
  std::array<int, 3> strange{};
  readers.reserve(strange.size());
  for (int &count : strange) {
    readers.emplace_back([&count] {
      for (int i = 0; i < 2000; ++i) {
        const std::string value = text("s", "k");
        count += value == "1" || value == "2222" || value == "(none)" ? 0 : 1;
      }
    });
  }
  for (int i = 0; i < 200; ++i) {
    const std::string next = put("/etc/config/next.conf", i % 2 == 0 ? "[s]\nk = 2222\n" : "[s]\nk = 1\n");
    ASSERT_EQ(::rename(next.c_str(), dirwell::test::below_root(file).c_str()), 0);
  }
  for (std::thread &reader : readers) {
    reader.join();
  }
  EXPECT_EQ(strange, (std::array{0, 0, 0}));
  EXPECT_EQ(text("s", "k"), "1");
}

}  // namespace
