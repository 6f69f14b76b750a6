// A whole listing over a small tree that never changes: the request's text through query, walk, order, store, page and
// description to the reply.
//
// Input: the request's text. A "full_path" is taken below the tree; one that would lead out of it leads nowhere.
#include <fcntl.h>
#include <jansson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/handlers.h"
#include "fuzz/support/check.h"
#include "fuzz/support/input.h"
#include "fuzz/support/quiet.h"
#include "fuzz/support/stand_ins.h"
#include "listing/type_table.h"
#include "platform/include/hxservice.h"
#include "service/json.h"
#include "service/session.h"
#include "support/private_root.h"
#include "support/temp_dir.h"

namespace dirwell::fuzz {
namespace {

// Folders end in "/". Sorted in no way.
constexpr std::array<std::string_view, 29> names{
    "file10.txt", "file9.txt",    "File9.TXT",       ".profile",     ".@__thumb/",     ".@__thumb/s100photo.JPG",
    "@home",      "photo.JPG",    "README",          "notes.",       "desktop.ini",    "tone.mp3",
    "Ärger.txt",  "e\xCC\x81lan", "日本語.txt",      "\xFF\xFE bad", "tab\tand\nline", "quote\"\\.txt",
    "sub/",       "sub/a.mkv",    "sub/b.pdf",       "sub/deeper/",  "sub/deeper/c",   "sub/deeper/.hidden",
    "empty/",     "tagged/",      "tagged/clip.mp4", "Video2audio/", "clip.mkv",
};

std::string tree;  // the folder that all of it lies in

struct Made {
  json_int_t size;
  json_int_t time;
};

std::map<std::string, Made> files;  // by the name that is shown, which no other has

std::string shown_name(std::string_view path) {
  return well_formed_utf8(std::string(path.substr(path.rfind('/') + 1)));
}

std::string below_tree(std::string_view path) {
  return std::string(tree).append("/").append(path);
}

void make_tree() {
  static const test::TempDir folder;
  ::chmod(folder.path().c_str(), 0755);
  tree = folder.path() + "/tree";
  ::mkdir(tree.c_str(), 0755);
  time_t time = 1'600'000'000;
  for (const std::string_view name : names) {
    const std::string path = tree + "/" + std::string(name);
    if (name.ends_with('/')) {
      ::mkdir(path.c_str(), 0755);
    } else {
      const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
      const auto size = static_cast<off_t>(name.size() * name.size() * 50);
      check(file >= 0 && ::ftruncate(file, size) == 0, "the tree can be made", path);
      ::close(file);
      check(files.emplace(shown_name(name), Made{size, time + 5'000'000}).second, "each file has a name of its own",
            path);
    }
    time += 5'000'000;
    const std::array<timespec, 2> times{{{time, 0}, {time, 0}}};
    ::utimensat(AT_FDCWD, path.c_str(), times.data(), 0);
  }
  for (const auto &[name, target] : {std::pair("link", "sub"), {"dangling", "nowhere"}, {"loop", "loop"}}) {
    check(::symlink(target, (tree + "/" + name).c_str()) == 0, "the tree has links");
  }
  // Folders below these lie on a remote share, whose videos are not opened, and on a cloud-cache mount.
  test::write_below_root("etc/samba/smb.conf", "[Cloud]\npath = " + tree +
                                                   "/tagged\ndirwell:type = 1\n[Remote]\npath = " + tree +
                                                   "/sub\ndirwell:type = 2\n[All]\npath = " + tree + "\n");
}

std::vector<std::string> entries_below(const std::string &folder, bool recursive) {
  std::vector<std::string> found;
  const auto keep = [&](std::string_view name) {
    if (name.ends_with('/')) {
      name.remove_suffix(1);
    }
    if (name.size() <= folder.size() || !name.starts_with(folder)) {
      return;
    }
    name.remove_prefix(folder.size());
    if (recursive || name.find('/') == std::string_view::npos) {
      found.emplace_back(name);
    }
  };
  std::ranges::for_each(names, keep);
  std::ranges::for_each(std::array<std::string_view, 3>{"link", "dangling", "loop"}, keep);
  return found;
}

// Puts the tree in front of every path of the request.
void move_into_tree(json_t *request) {
  std::size_t index = 0;
  json_t *item = nullptr;
  json_array_foreach(json_object_get(request, "path"), index, item) {
    const json_t *path = json_object_get(item, "full_path");
    if (json_is_string(path)) {
      const std::string text(json_string_value(path), json_string_length(path));
      const std::string inside = text.find("..") == std::string::npos ? below_tree(text) : "/nowhere/at/all";
      json_object_set_new(item, "full_path", json_stringn(inside.data(), inside.size()));
    }
  }
  // A deadline of whole seconds would let the clock decide what is listed.
  json_object_del(request, "reach_time");
}

// --- The promises

constexpr std::array<std::pair<const char *, json_type>, 34> entry_keys{{
    {"filename", JSON_STRING},
    {"filepath", JSON_STRING},
    {"filesize", JSON_INTEGER},
    {"isfolder", JSON_INTEGER},
    {"group", JSON_STRING},
    {"owner", JSON_STRING},
    {"privilege", JSON_STRING},
    {"mt", JSON_STRING},
    {"epochmt", JSON_INTEGER},
    {"sticky_bit", JSON_INTEGER},
    {"is_h265", JSON_INTEGER},
    {"mp4_240", JSON_INTEGER},
    {"mp4_360", JSON_INTEGER},
    {"mp4_480", JSON_INTEGER},
    {"mp4_720", JSON_INTEGER},
    {"mp4_1080", JSON_INTEGER},
    {"mp4_org", JSON_INTEGER},
    {"mp3", JSON_INTEGER},
    {"play", JSON_INTEGER},
    {"has_thumbnail", JSON_INTEGER},
    {"acl", JSON_INTEGER},
    {"trans", JSON_INTEGER},
    {"randno", JSON_STRING},
    {"projection_type", JSON_INTEGER},
    {"encrypt_folder", JSON_INTEGER},
    {"is_link", JSON_INTEGER},
    {"is_cached", JSON_INTEGER},
    {"is_autotier", JSON_INTEGER},
    {"cache_file_status", JSON_INTEGER},
    {"cache_priority", JSON_INTEGER},
    {"cache_upload_progress", JSON_INTEGER},
    {"cache_folder_is_encypted", JSON_INTEGER},
    {"cache_folder_is_locked", JSON_INTEGER},
    {"cache_root_status", JSON_INTEGER},
}};

constexpr std::array<const char *, 7> setting_keys{
    "has_h265", "medialib", "rtt_support", "medialib_enable", "is_acl_enable", "is_winacl_enable", "is_winacl_support"};

const json_t *member(const json_t *object, const char *key, json_type type) {
  const json_t *value = json_object_get(object, key);
  check(value != nullptr && json_typeof(value) == type, "a reply has its keys, each of its type", key);
  return value;
}

std::string text_in(const json_t *object, const char *key) {
  const json_t *value = member(object, key, JSON_STRING);
  return {json_string_value(value), json_string_length(value)};
}

json_int_t integer_in(const json_t *object, const char *key) {
  return json_integer_value(member(object, key, JSON_INTEGER));
}

void check_entry(const json_t *entry) {
  for (const auto &[key, type] : entry_keys) {
    member(entry, key, type);
  }
  check_equal(json_object_size(entry), entry_keys.size() + 1, "an entry has its keys and no more");
  integer_in(entry, "upload_failed_count");
  const std::string name = text_in(entry, "filename");
  check(!name.empty() && name.find('/') == std::string::npos, "an entry has a name", name);
  check(text_in(entry, "filepath").ends_with(name), "the path ends in the name", text_in(entry, "filepath"));
  const auto is_it = [name = name + "/"](std::string_view each) {
    const std::string known = well_formed_utf8(std::string(each.substr(each.rfind('/', each.size() - 2) + 1)));
    return (known.ends_with('/') ? known : known + "/") == name;
  };
  check(std::ranges::any_of(names, is_it) || name == "link" || name == "dangling" || name == "loop",
        "what is listed is there", name);
  const bool is_link = name == "link" || name == "dangling" || name == "loop";
  const auto file = files.find(name);
  check(is_link || (integer_in(entry, "isfolder") == 1) == (file == files.end()), "folders are folders", name);
  if (file != files.end()) {
    check_equal(integer_in(entry, "filesize"), file->second.size, "a file has its size");
    check_equal(integer_in(entry, "epochmt"), file->second.time, "and its time");
    check_equal(text_in(entry, "privilege"), std::string("644"), "and its mode");
  }
  for (const char *flag : {"isfolder", "is_link", "play", "has_thumbnail", "trans", "is_h265"}) {
    check(integer_in(entry, flag) == 0 || integer_in(entry, flag) == 1, "a flag is 0 or 1", flag);
  }
}

std::int64_t as_integer(const json_t *value) {
  return json_as_int(value);
}

// Of a request for one folder of the tree without any criterion it is known what it must list.
void check_completeness(const json_t *request, const json_t *reply) {
  for (const char *key : {"name", "type", "date", "size", "owner", "group", "limit", "offset"}) {
    if (json_object_get(request, key) != nullptr) {
      return;
    }
  }
  const json_t *hidden = json_object_get(request, "hidden");
  const json_t *path = json_object_get(request, "path");
  if (hidden == nullptr || as_integer(hidden) != 0 || json_array_size(path) != 1) {
    return;
  }
  const std::string folder = json_string_value(json_object_get(json_array_get(path, 0), "full_path"));
  for (const std::string inside : {"", "sub/", "sub/deeper/", "empty/"}) {
    if (folder != below_tree(inside)) {
      continue;
    }
    std::multiset<std::string> expected;
    for (const std::string &name : entries_below(inside, json_as_bool(json_object_get(request, "recursive")))) {
      expected.insert(well_formed_utf8(name.substr(name.rfind('/') + 1)));
    }
    std::multiset<std::string> listed;
    std::size_t index = 0;
    const json_t *entry = nullptr;
    json_array_foreach(json_object_get(reply, "datas"), index, entry) {
      listed.insert(text_in(entry, "filename"));
    }
    check(listed == expected, "a folder is listed as it is, nothing twice and nothing left out", folder);
  }
}

void check_reply(const json_t *request, const json_t *reply) {
  check(json_is_object(reply), "a reply is one object");
  const json_int_t code = integer_in(reply, "error_code");
  const std::string message = text_in(reply, "error_message");
  if (code != 0) {
    check(code == 2 && message.starts_with("invalid "), "a request is refused for a parameter", message);
    check_equal(json_object_size(reply), std::size_t{2}, "a refusal has no results");
    return;
  }
  check(message.empty(), "success has no message", message);
  const json_t *datas = member(reply, "datas", JSON_ARRAY);
  const json_int_t total = integer_in(reply, "total");
  check_equal(text_in(reply, "uuid").size(), std::size_t{36}, "a listing has a uuid");
  check(json_is_false(json_object_get(reply, "changed")), "a listing that was just made has not changed");
  for (const char *key : setting_keys) {
    integer_in(reply, key);
  }
  check_equal(json_object_size(reply), std::size_t{14}, "a reply has its keys and no more");

  json_int_t counted = 0;
  std::set<std::string> clusters;
  std::size_t index = 0;
  const json_t *item = nullptr;
  json_array_foreach(member(reply, "cluster", JSON_ARRAY), index, item) {
    check(integer_in(item, "count") > 0 && json_object_size(item) == 2, "a group has entries");
    counted += integer_in(item, "count");
    clusters.insert(text_in(item, "value"));
  }
  check_equal(counted, total, "each entry is in one group");
  check(clusters.size() == index || clusters.contains("") || json_object_get(request, "cluster") != nullptr,
        "without grouping there is one group");

  const json_t *limit = json_object_get(request, "limit");
  const json_int_t page = limit == nullptr ? 500 : as_integer(limit);
  const auto offset = static_cast<std::int32_t>(as_integer(json_object_get(request, "offset")));
  check(limit == nullptr || total <= page, "no more is listed than a page holds");
  const json_int_t left = std::max<json_int_t>(0, total - std::max(offset, 0));
  check_equal(static_cast<json_int_t>(json_array_size(datas)), std::min(page, left), "the page is full");
  json_array_foreach(datas, index, item) {
    check_entry(item);
  }
  check_completeness(request, reply);
}

}  // namespace
}  // namespace dirwell::fuzz

extern "C" int LLVMFuzzerInitialize(int * /*count*/, char *** /*arguments*/) {
  using namespace dirwell;
  fuzz::silence();
  ::umask(022);
  test::write_below_root("var/run/dirwell/sessions/fuzzed", "user = root\n");
  fuzz::make_tree();
  Session::instance().set_sid("fuzzed");
  buildTypeIndex();
  fuzz::machine().attributes["user.cm.meta_status"] = R"({"state":"uploading","upload_progress":12.5})";
  fuzz::machine().program_output = R"({"data":{"encrypted_folder":"/a","status":1}})";
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace dirwell;
  using namespace dirwell::fuzz;
  const std::string text(text_of(data, size));
  JsonRef request(json_loads(text.c_str(), 0, nullptr));
  if (!json_is_object(request.get())) {
    request.reset(json_object());
  }
  move_into_tree(request.get());
  const JsonRef asked(json_deep_copy(request.get()));
  machine().runs.clear();
  machine().asked.clear();
  machine().set.clear();

  hx_io *io = hx_io_create();
  constexpr int reply_into_io = -1;
  fetch_resource_handler(nullptr, io, request.get(), reply_into_io);
  const std::string_view reply_text(hx_io_read(io, 0), hx_io_size(io));
  json_error_t error{};
  const JsonRef reply(json_loadb(reply_text.data(), reply_text.size(), JSON_REJECT_DUPLICATES, &error));
  check(reply != nullptr, "a reply is JSON", error.text);
  check_reply(asked.get(), reply.get());
  hx_io_free(io);
  return 0;
}
