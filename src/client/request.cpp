#include "client/request.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "client/failure.h"
#include "client/json.h"
#include "client/text.h"

namespace dirwell::client {
namespace {

using TextOption = std::pair<const char *, std::optional<std::string> ListOptions::*>;
constexpr std::array<TextOption, 8> text_options = {{
    {"name", &ListOptions::name},
    {"type", &ListOptions::type},
    {"size", &ListOptions::size},
    {"owner", &ListOptions::owner},
    {"group", &ListOptions::group},
    {"sort", &ListOptions::sort},
    {"cluster", &ListOptions::cluster},
    {"lang", &ListOptions::lang},
}};

using NumberOption = std::pair<const char *, std::optional<std::int64_t> Selection::*>;
constexpr std::array<NumberOption, 3> number_options = {{
    {"limit", &Selection::limit},
    {"offset", &Selection::offset},
    {"index", &Selection::index},
}};

json_t *text(const std::string &value) {
  json_t *result = json_stringn(value.data(), value.size());
  if (result == nullptr) {
    throw Failure(Status::usage, "\"" + display_text(value) + "\" is not valid UTF-8");
  }
  return result;
}

JsonRef paths(const ListOptions &options) {
  if (options.aliases.size() > options.folders.size()) {
    throw Failure(Status::usage, "there are more aliases than folders");
  }
  JsonRef array(json_array());
  for (std::size_t i = 0; i < options.folders.size(); ++i) {
    const std::string folder = absolute_folder(options.folders[i]);
    JsonRef item(json_object());
    json_object_set_new(item.get(), "full_path", text(folder));
    json_object_set_new(item.get(), "alias",
                        text(i < options.aliases.size() ? options.aliases[i] : default_alias(folder)));
    json_array_append_new(array.get(), item.release());
  }
  return array;
}

// The request with its selection, as it is sent.
std::string request_text(JsonRef request, const Selection &selection) {
  for (const auto &[key, member] : number_options) {
    if (const std::optional<std::int64_t> &value = selection.*member) {
      json_object_set_new(request.get(), key, json_integer(*value));
    }
  }
  const std::unique_ptr<char, decltype(&std::free)> dumped(json_dumps(request.get(), JSON_COMPACT), &std::free);
  return dumped != nullptr ? dumped.get() : std::string();
}

}  // namespace

std::string absolute_folder(const std::string &folder) {
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::path path = fs::absolute(folder, error);
  if (error) {
    throw Failure(Status::usage, "\"" + display_text(folder) + "\" cannot be found from here");
  }
  fs::path found = path;
  if (std::find(path.begin(), path.end(), "..") != path.end()) {
    found = fs::canonical(path, error);
    if (error) {
      throw Failure(Status::usage, "\"" + display_text(folder) + "\": " + error.message());
    }
  }
  std::string text = found.lexically_normal().string();
  while (text.size() > 1 && text.ends_with('/')) {
    text.pop_back();
  }
  return text;
}

std::string default_alias(const std::string &absolute) {
  const std::string alias = absolute.substr(absolute.rfind('/'));
  return alias == "/" ? "" : alias;
}

std::string list_request(const ListOptions &options) {
  JsonRef request(json_object());
  json_object_set_new(request.get(), "path", paths(options).release());
  for (const auto &[key, member] : text_options) {
    if (const std::optional<std::string> &value = options.*member) {
      json_object_set_new(request.get(), key, text(*value));
    }
  }
  if (!options.dates.empty()) {
    JsonRef dates(json_array());
    for (const std::string &date : options.dates) {
      json_array_append_new(dates.get(), text(date));
    }
    json_object_set_new(request.get(), "date", dates.release());
  }
  if (options.hidden) {
    json_object_set_new(request.get(), "hidden", json_integer(0));
  }
  if (options.recursive) {
    json_object_set_new(request.get(), "recursive", json_true());
  }
  return request_text(std::move(request), options);
}

std::string cache_request(const CacheOptions &options) {
  JsonRef request(json_object());
  if (options.uuid) {
    json_object_set_new(request.get(), "uuid", text(*options.uuid));
  }
  return request_text(std::move(request), options);
}

}  // namespace dirwell::client
