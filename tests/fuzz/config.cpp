// Configuration files and session records: what their lines mean, and that no file can confuse those who ask.
//
// Input: the file. The oracle cuts it into lines by its own plain rules.
#include <pwd.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz/support/check.h"
#include "fuzz/support/input.h"
#include "platform/host/config.h"
#include "platform/include/strata_config.h"
#include "platform/include/strata_nas.h"
#include "platform/include/strata_nasauth.h"
#include "support/private_root.h"

namespace dirwell::fuzz {
namespace {

// --- The plain rules

std::string lower(std::string_view text) {
  std::string result(text);
  for (char &letter : result) {
    letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter;
  }
  return result;
}

std::string stripped(std::string text) {
  const auto blank = [](char letter) {
    return letter == ' ' || letter == '\t' || letter == '\r' || letter == '\v' || letter == '\f';
  };
  while (!text.empty() && blank(text.back())) {
    text.pop_back();
  }
  while (!text.empty() && blank(text.front())) {
    text.erase(0, 1);
  }
  return text;
}

struct Value {
  std::string section;
  std::string key;
  std::string value;
};

struct Meaning {
  std::vector<std::string> sections;  // in lower case, each once
  std::vector<std::string> names;     // of the same, as first written
  std::vector<Value> values;          // section and key in lower case
};

Meaning meaning_of(std::string_view text) {
  Meaning meaning;
  if (text.starts_with("\xEF\xBB\xBF")) {
    text.remove_prefix(3);
  }
  std::optional<std::string> section;
  while (!text.empty()) {
    const std::string line = stripped(std::string(take_line(text)));
    if (line.empty() || line[0] == '#' || line[0] == ';') {
      continue;
    }
    if (line[0] == '[') {
      const std::size_t close = line.rfind(']');
      section.reset();
      if (close != std::string::npos) {
        const std::string name = stripped(line.substr(1, close - 1));
        section = lower(name);
        if (std::ranges::find(meaning.sections, *section) == meaning.sections.end()) {
          meaning.sections.push_back(*section);
          meaning.names.push_back(name);
        }
      }
      continue;
    }
    const std::size_t equals = line.find('=');
    const std::string key = lower(stripped(line.substr(0, equals)));
    if (equals != std::string::npos && section && !key.empty()) {
      meaning.values.push_back({*section, key, stripped(line.substr(equals + 1))});
    }
  }
  return meaning;
}

std::optional<std::string> value_of(const Meaning &meaning, std::string_view section, std::string_view key) {
  const auto found = std::ranges::find_if(
      meaning.values, [&](const Value &each) { return each.section == lower(section) && each.key == lower(key); });
  return found == meaning.values.end() ? std::nullopt : std::optional(found->value);
}

int number(std::string_view text) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) {
    text.remove_prefix(1);
  }
  __int128 value = 0;
  for (const char digit : text) {
    if (digit < '0' || digit > '9') {
      break;
    }
    value = std::min<__int128>(value * 10 + (digit - '0'), 1'000'000'000'000);
  }
  value = negative ? -value : value;
  return static_cast<int>(std::clamp<__int128>(value, INT32_MIN, INT32_MAX));
}

// Whether `path` is one of the pieces between colons or lies below one.
bool below_one_of(std::string_view list, std::string_view path) {
  for (std::string_view piece : split(list, ':', list.size() + 1)) {
    if (piece.empty()) {
      continue;
    }
    while (piece.ends_with('/')) {
      piece.remove_suffix(1);
    }
    if (path == piece || (path.starts_with(piece) && path.substr(piece.size()).starts_with('/'))) {
      return true;
    }
  }
  return false;
}

// --- The promises

// As callers of the platform see it: a text, cut to fit and terminated.
void check_text_reader(const Meaning &meaning, const std::string &section, const std::string &key) {
  for (const int size : {1, 2, 8, 4096}) {
    std::vector<char> buffer(static_cast<std::size_t>(size), '?');
    const int length =
        Get_Private_Profile_String(section.c_str(), key.c_str(), "none", buffer.data(), size, host::platform_file);
    const std::string expected = value_of(meaning, section, key).value_or("none").substr(0, buffer.size() - 1);
    check_equal(static_cast<std::size_t>(length), expected.size(), "as many bytes are copied as fit");
    check_equal(std::string(buffer.data(), expected.size()), expected, "the value is the one of the file");
    check(buffer[expected.size()] == '\0', "the text is terminated");
  }
  const auto value = value_of(meaning, section, key);
  check_equal(Get_Private_Profile_Integer(section.c_str(), key.c_str(), 77, host::platform_file),
              value ? number(*value) : 77, "a number is the digits at the front");
}

void check_values(const host::ConfigFile &file, const Meaning &meaning) {
  check_equal(file.sections().size(), meaning.sections.size(), "sections of one name are one");
  for (std::size_t index = 0; index < meaning.sections.size(); ++index) {
    check_equal(std::string(file.sections()[index].name), meaning.names[index], "sections stand in their order");
  }
  for (const Value &each : meaning.values) {
    const auto value = file.value(each.section, each.key);
    check(value.has_value(), "a value that is there is found", each.key);
    check_equal(std::string(*value), *value_of(meaning, each.section, each.key), "the first of equal keys counts");
    check(value->empty() || (value->data() >= file.content().data() &&
                             value->data() + value->size() <= file.content().data() + file.content().size()),
          "a value is a view into the file");
  }
  check(!file.value("no such section", "key"), "what is not there is not found");
}

void check_shares(const Meaning &meaning) {
  const SMB_Share_Info *shares = SMB_Get_Share_Info();
  check(shares != nullptr, "a file that can be read is a list of shares");
  std::size_t count = 0;
  for (const std::string &section : meaning.sections) {
    const std::string path = value_of(meaning, section, "path").value_or("");
    const std::string visible = c_text(path);  // names and paths are C texts
    if (section == "global" || section == "homes" || section == "printers" || section == "print$" || visible.empty()) {
      continue;
    }
    check(count < shares->count, "each section with a path is a share", section);
    const SMB_Share &share = shares->shares[count++];
    check_equal(lower(share.name), c_text(section), "a share has its section's name");
    check_equal(std::string(share.path), visible, "a share has its path");
    check_equal(share.type, number(value_of(meaning, section, "dirwell:type").value_or("")), "a share has its type");
  }
  check_equal(count, shares->count, "nothing else is a share");
  SMB_Free_Share_Info(shares);
}

void check_device_shares(const Meaning &meaning) {
  for (const char *path : {"/Camera", "/Camera/a", "/Camerab", "/", "", "relative", "/a:b"}) {
    check_equal(Is_MTP_Share(path), below_one_of(value_of(meaning, "shares", "mtp").value_or(""), path) ? 1 : 0,
                "a phone share is one of the list");
    check_equal(Is_ODD_Share(path), below_one_of(value_of(meaning, "shares", "odd").value_or(""), path) ? 1 : 0,
                "a disc share is one of the list");
  }
}

// The longest snapshot path that the path lies in wins; outputs stay alone without one.
void check_snapshots(const Meaning &meaning, const std::string &path) {
  const std::string *winner = nullptr;
  std::string longest;
  for (const std::string &section : meaning.names) {
    std::string place = lower(section).starts_with("snapshot") ? section.substr(8) : "";
    const std::size_t slash = place.find_first_not_of(" \t");
    if (slash == 0 || slash == std::string::npos || place[slash] != '/') {
      continue;
    }
    place.erase(0, slash);
    while (place.ends_with('/')) {
      place.pop_back();
    }
    if ((path == place || path.starts_with(place + "/")) && (winner == nullptr || place.size() > longest.size())) {
      winner = &section;
      longest = place;
    }
  }
  int volume = -7;
  int id = -7;
  std::array<char, 6> mount{"stay"};
  const int result = NAS_Snapshot_Get_Id_Path(path.c_str(), &volume, &id, mount.data(), mount.size());
  if (winner == nullptr) {
    check(result == -1 && volume == -7 && id == -7 && std::string_view(mount.data()) == "stay",
          "a path in no snapshot leaves the outputs alone");
    return;
  }
  check_equal(result, 0, "the path lies in a snapshot");
  check_equal(volume, number(value_of(meaning, *winner, "volume").value_or("")), "the volume is the snapshot's");
  check_equal(id, number(value_of(meaning, *winner, "id").value_or("")), "the id is the snapshot's");
  const std::string mounted = value_of(meaning, *winner, "mount").value_or("").substr(0, mount.size() - 1);
  check_equal(std::string(mount.data(), mounted.size()), mounted, "the mount path is cut to fit");
  check(mount[mounted.size()] == '\0', "and terminated");
}

// A session record is the lines before the first section.
void check_session(std::string_view text) {
  std::optional<std::string> user;
  std::optional<std::string> expires;
  while (!text.empty()) {
    const std::string line = stripped(std::string(take_line(text)));
    if (line.starts_with('[')) {
      break;
    }
    const std::size_t equals = line.find('=');
    if (line.empty() || line[0] == '#' || line[0] == ';' || equals == std::string::npos) {
      continue;
    }
    const std::string key = lower(stripped(line.substr(0, equals)));
    std::optional<std::string> &field = key == "user" ? user : expires;
    if ((key == "user" || key == "expires") && !field) {
      field = stripped(line.substr(equals + 1));
    }
  }
  auth_session record{};
  record.uid = 12345;
  const bool alive = auth_get_session_ex("fuzzed", 1, &record) == 0;
  const bool has_account = user && user->find('\0') == std::string::npos && ::getpwnam(user->c_str()) != nullptr;
  check(!alive || has_account, "a session has an account");
  check(alive || record.uid == 12345, "the record of no session is left alone");
  if (alive) {
    check_equal(std::string(record.user), *user, "the session is its user's");
    check_equal(record.uid, std::uint32_t{::getpwnam(user->c_str())->pw_uid}, "with that user's id");
  }
  const bool endless = !expires || (*expires == "99999999999" && !expires->empty());
  check(alive || !has_account || !endless, "a session with an account and without an end lives");
  const bool over = expires && !expires->empty() && expires->size() < 10 &&
                    std::ranges::all_of(*expires, [](char digit) { return digit >= '0' && digit <= '9'; });
  check(!alive || !over, "a session that has ended does not live", expires.value_or(""));
}

void write(const std::string &path, std::string_view content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

}  // namespace
}  // namespace dirwell::fuzz

extern "C" int LLVMFuzzerInitialize(int * /*count*/, char *** /*arguments*/) {
  for (const char *path : {"etc/samba/smb.conf", "etc/config/host-platform.conf", "var/run/dirwell/sessions/fuzzed"}) {
    ::chmod(dirwell::test::write_below_root(path, "").c_str(), 0644);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace dirwell;
  using namespace dirwell::fuzz;
  const std::string_view text = text_of(data, size);
  const Meaning meaning = meaning_of(text);
  check_values(host::ConfigFile(std::string(text)), meaning);

  const std::string &root = test::private_root();
  write(root + host::shares_file, text);
  write(root + host::platform_file, text);
  write(root + "/var/run/dirwell/sessions/fuzzed", text);
  for (std::size_t index = 0; index < std::min<std::size_t>(meaning.values.size(), 4); ++index) {
    const Value &each = meaning.values[index];
    if (each.section.find('\0') == std::string::npos && each.key.find('\0') == std::string::npos) {
      check_text_reader(meaning, each.section, each.key);
    }
  }
  check_text_reader(meaning, "media", "library");
  check_shares(meaning);
  check_device_shares(meaning);
  check_snapshots(meaning, "/share/data/file");
  check_snapshots(meaning, "relative");
  const int transcoded = MediaLib_Transcoding_CheckFile(2, "/share/Videos/a.mkv");
  check(transcoded == 0 ||
            value_of(meaning, "media", "transcoded").value_or("").find_first_of("/*?[") != std::string::npos,
        "a file is transcoded when a pattern says so");
  check_session(text);
  return 0;
}
