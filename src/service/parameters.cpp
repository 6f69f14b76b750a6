#include "service/parameters.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>

#include "service/json.h"
#include "service/languages.h"
#include "service/pattern.h"
#include "service/unique_fd.h"

namespace dirwell {

namespace {

constexpr std::int64_t lowest_limit = 50;
constexpr std::int64_t highest_limit = 2000;
constexpr std::uint64_t highest_index = 2;

// Compiled before the first fork, so that every request process has it ready.
const Pattern uuid_pattern("^[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}$");  // NOLINT(cert-err58-cpp)
constexpr std::size_t uuid_length = 36;

std::string_view text_of(const json_t *value) {
  return {json_string_value(value), json_string_length(value)};
}

}  // namespace

void read_lang(const json_t *request, ErrorRecord &record) {
  if (record.code != error_none) {
    return;
  }
  set_default_language(LanguageTable.front());
  const json_t *value = json_object_get(request, "lang");
  if (value == nullptr) {
    return;
  }
  if (!json_is_string(value)) {
    set_error(record, error_invalid_parameter, "invalid lang");
    return;
  }
  std::string code(text_of(value));
  std::transform(code.begin(), code.end(), code.begin(),
                 [](unsigned char byte) { return static_cast<char>(std::toupper(byte)); });
  const auto *const language = std::find_if(LanguageTable.begin(), LanguageTable.end(),
                                            [&code](const Language &row) { return row.code == code; });
  if (language == LanguageTable.end()) {
    set_error(record, error_invalid_parameter, "invalid lang");
    return;
  }
  set_default_language(*language);
}

void read_uuid(std::string &uuid, const json_t *request, ErrorRecord &record) {
  uuid.clear();
  if (record.code != error_none) {
    return;
  }
  const json_t *value = json_object_get(request, "uuid");
  // The length is tested beside the pattern, which sees a text only up to its first NUL.
  if (!json_is_string(value) || json_string_length(value) != uuid_length ||
      !uuid_pattern.matches(json_string_value(value))) {
    set_error(record, error_invalid_parameter, "invalid uuid");
    return;
  }
  uuid = text_of(value);
}

void read_paging(Paging &paging, const json_t *request, ErrorRecord &record) {
  paging = Paging{};
  if (record.code != error_none) {
    return;
  }
  if (const json_t *limit = json_object_get(request, "limit"); limit != nullptr) {
    paging.limit = json_as_int(limit);
    if (paging.limit < lowest_limit || paging.limit > highest_limit) {
      set_error(record, error_invalid_parameter, "invalid limit");
      return;
    }
  }
  if (const json_t *offset = json_object_get(request, "offset"); offset != nullptr) {
    paging.offset = json_as_int(offset);
  }
}

void read_index(std::uint64_t &index, const json_t *request, ErrorRecord &record) {
  index = default_cache_index;
  if (record.code != error_none) {
    return;
  }
  if (const json_t *value = json_object_get(request, "index"); value != nullptr) {
    index = static_cast<std::uint64_t>(json_as_int(value));
    if (index < 1 || index > highest_index) {
      set_error(record, error_invalid_parameter, "invalid index");
    }
  }
}

void read_cache_reference(CacheReference &result, const json_t *request, ErrorRecord &record) {
  read_uuid(result.uuid, request, record);
  read_index(result.index, request, record);
}

void read_cache_page(CachePage &result, const json_t *request, ErrorRecord &record) {
  read_uuid(result.uuid, request, record);
  read_paging(result.paging, request, record);
  read_index(result.index, request, record);
}

std::string new_uuid() {
  // Read without a stream: a process's first stream sets up the locale, which costs a small request a tenth of its
  // time.
  UniqueFd file;
  do {
    file.reset(::open("/proc/sys/kernel/random/uuid", O_RDONLY | O_CLOEXEC));
  } while (!file.valid() && errno == EINTR);
  std::array<char, uuid_length> uuid;
  std::size_t done = 0;
  while (done < uuid.size()) {
    const ssize_t count = ::read(file.get(), uuid.data() + done, uuid.size() - done);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      break;
    }
    done += static_cast<std::size_t>(count);
  }
  return {uuid.data(), done};
}

}  // namespace dirwell
