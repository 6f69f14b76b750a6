#include "stages.h"

#include <jansson.h>

#include <stdexcept>

#include "service/json.h"

namespace dirwell::bench {

namespace {

bool any_failed = false;

}  // namespace

void expect(benchmark::State &state, bool done, const char *message) {
  if (!done) {
    any_failed = true;
    state.SkipWithError(message);
  }
}

bool anyFailed() {
  return any_failed;
}

ResourceQuery queryOf(Parameters parameters) {
  const JsonRef request(json_pack("{s:[]}", "path"));
  for (const auto &[key, value] : parameters) {
    json_object_set_new(request.get(), key, json_text(value).release());
  }
  ResourceQuery query;
  ErrorRecord record;
  parseResourceQuery(query, request.get(), record);
  if (record.code != error_none) {
    throw std::invalid_argument(static_cast<const char *>(record.message));
  }
  return query;
}

}  // namespace dirwell::bench
