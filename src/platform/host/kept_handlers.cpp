#include "platform/host/kept_handlers.h"

#include <algorithm>
#include <utility>

namespace dirwell::host {

namespace {

constexpr std::ptrdiff_t most_of_one_connection = 16;

}  // namespace

void KeptHandlers::keep(const void *owner, std::shared_ptr<Stream> handler) {
  const auto is_owners = [owner](const Kept &kept) { return kept.owner == owner; };
  if (std::ranges::count_if(kept_, is_owners) == most_of_one_connection) {
    forget(std::ranges::find_if(kept_, is_owners));
  }
  if (kept_.size() >= most_) {
    forget(kept_.begin());
  }
  const auto place = kept_.insert(kept_.end(), {owner, std::move(handler)});
  place->handler->watch([this, place] { kept_.erase(place); });
}

void KeptHandlers::hang_up(const void *owner) {
  for (auto kept = kept_.begin(); kept != kept_.end();) {
    const auto next = std::next(kept);
    if (kept->owner == owner) {
      kept->handler->hang_up();
      forget(kept);
    }
    kept = next;
  }
}

void KeptHandlers::clear() {
  while (!kept_.empty()) {
    forget(kept_.begin());
  }
}

void KeptHandlers::forget(std::list<Kept>::iterator kept) {
  kept->handler->unwatch();
  kept_.erase(kept);
}

}  // namespace dirwell::host
