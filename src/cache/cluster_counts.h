// How many entries of a listing each cluster has.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "service/json.h"

namespace dirwell {

// One item of a summary: {"value": cluster, "count": entries}.
JsonRef clusterItem(std::string_view cluster, std::int64_t count);

// One thread at a time. Counts while a listing is written: what CacheStore::clusterSummary() finds in the rows, without
// reading them again.
class ClusterCounts {
 public:
  // The next entry's cluster; the text must live as long as this object.
  void add(std::string_view cluster);
  // An array of such items in the order of the clusters' first entries. Never null.
  [[nodiscard]] JsonRef summary() const;

 private:
  struct Row {
    std::string_view cluster;
    std::int64_t count = 0;
  };
  std::vector<Row> rows_;
  std::unordered_map<std::string_view, std::size_t> places_;  // in rows_
  std::size_t last_ = 0;                                      // place of the last entry's cluster
};

}  // namespace dirwell
