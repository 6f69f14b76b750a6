// From the options of a command to the request that the service understands.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace dirwell::client {

// Which page is asked for, and of which of the kept listings.
struct Selection {
  std::optional<std::int64_t> limit;
  std::optional<std::int64_t> offset;
  std::optional<std::int64_t> index;
};

struct ListOptions : Selection {
  std::vector<std::string> folders;
  std::vector<std::string> aliases;  // of the folders in their order; missing ones are made from the folder's name
  std::optional<std::string> sort;
  std::optional<std::string> cluster;
  std::optional<std::string> type;
  std::optional<std::string> name;
  std::optional<std::string> size;
  std::vector<std::string> dates;
  std::optional<std::string> owner;
  std::optional<std::string> group;
  std::optional<std::string> lang;
  bool hidden = false;
  bool recursive = false;
};

// The folder as the service, which runs elsewhere, can find it: absolute, without "." and doubled slashes. With a ".."
// in it the folder is looked up, because what lies above a link is not what stands in front of it.
std::string absolute_folder(const std::string &folder);

// The name under which the service shows a folder that was given none: "/" and the folder's own name; "" for "/".
std::string default_alias(const std::string &absolute);

// The request text. What is not given is left to the service. A text that is no UTF-8, which a request cannot carry,
// and an alias too many are usage failures.
std::string list_request(const ListOptions &options);

// The request text about a listing that is kept, or (without a uuid) about an index as such. A uuid that is no
// UTF-8 is a usage failure; whether it is one at all is the service's to say.
struct CacheOptions : Selection {
  std::optional<std::string> uuid;
};
std::string cache_request(const CacheOptions &options);

}  // namespace dirwell::client
