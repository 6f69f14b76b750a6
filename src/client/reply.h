// What the service answers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace dirwell::client {

// One entry, as the service describes it; texts are UTF-8 and as untrusted as the names of files.
struct Entry {
  std::string name;
  std::string path;
  std::int64_t size = 0;
  bool folder = false;
  std::string owner;
  std::string group;
  std::string permissions;
  std::string modified;
  std::vector<std::string> marks;  // "link", "cached", "h265", …
};

struct Cluster {
  std::string value;
  std::int64_t count = 0;
};

struct Listing {
  std::vector<Entry> entries;     // one page
  std::vector<Cluster> clusters;  // of the whole listing, in its order
  std::int64_t total = 0;         // entries in the whole listing
  bool changed = false;           // a kept listing: something has changed in its folders
};

// A listing that the service now keeps.
struct CreatedCache {
  std::string uuid;
  std::vector<Cluster> clusters;
  std::int64_t total = 0;
};

// Each reads a reply. A reply that holds an error is a Failure (refused) with the service's message; what is not the
// kind of reply at all is a Failure (unreachable).
Listing read_listing(std::string_view reply);
CreatedCache read_created(std::string_view reply);
void read_done(std::string_view reply);  // one that says nothing but that it is done

}  // namespace dirwell::client
