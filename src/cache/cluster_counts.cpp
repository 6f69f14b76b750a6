#include "cache/cluster_counts.h"

namespace dirwell {

JsonRef clusterItem(std::string_view cluster, std::int64_t count) {
  JsonRef item(json_object());
  json_put(item.get(), "value", json_text(cluster).release());
  json_put(item.get(), "count", json_integer(count));
  return item;
}

void ClusterCounts::add(std::string_view cluster) {
  // Entries of a cluster mostly stand together.
  if (rows_.empty() || rows_[last_].cluster != cluster) {
    const auto [place, is_new] = places_.try_emplace(cluster, rows_.size());
    if (is_new) {
      rows_.push_back({cluster});
    }
    last_ = place->second;
  }
  ++rows_[last_].count;
}

JsonRef ClusterCounts::summary() const {
  JsonRef summary(json_array());
  for (const Row &row : rows_) {
    json_append(summary.get(), clusterItem(row.cluster, row.count).release());
  }
  return summary;
}

}  // namespace dirwell
