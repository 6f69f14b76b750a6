// Readers of the parameters that several endpoints share.
//
// Each reader does nothing when the record already holds an error, sets code 2 with its message when its parameter is
// bad, and leaves the record untouched when it succeeds. `request` is a JSON object and is only borrowed. They run on
// the thread that serves the request.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <string>

#include "service/error_record.h"

namespace dirwell {

struct Paging {
  std::int64_t limit = 500;
  std::int64_t offset = 0;
};

inline constexpr std::uint64_t default_cache_index = 1;

// "lang": makes its locale, or en_US where it is absent, the process's ICU default locale. "invalid lang".
void read_lang(const json_t *request, ErrorRecord &record);

// "uuid": 36 characters of lower-case hexadecimal digits and hyphens; empty on failure. "invalid uuid".
void read_uuid(std::string &uuid, const json_t *request, ErrorRecord &record);

// "limit" (50 to 2000, default 500; "invalid limit") and "offset" (any, default 0).
void read_paging(Paging &paging, const json_t *request, ErrorRecord &record);

// "index": 1 or 2, default 1; other values are stored as they are and refused with "invalid index".
void read_index(std::uint64_t &index, const json_t *request, ErrorRecord &record);

// The parameters of "delete.cache": uuid, then index.
struct CacheReference {
  std::string uuid;
  std::uint64_t index = default_cache_index;
};
void read_cache_reference(CacheReference &result, const json_t *request, ErrorRecord &record);

// The parameters of "fetch.cache": uuid, then paging, then index.
struct CachePage {
  std::string uuid;
  Paging paging;
  std::uint64_t index = default_cache_index;
};
void read_cache_page(CachePage &result, const json_t *request, ErrorRecord &record);

// A new random uuid from the kernel; empty when it cannot be read.
std::string new_uuid();

}  // namespace dirwell
