#include "stages.h"

#include <jansson.h>

#include <stdexcept>
#include <utility>

#include "service/json.h"

namespace dirwell::bench {

namespace {

bool any_failed = false;

class Row final : public benchmark::internal::Benchmark {
 public:
  Row(const std::string &name, std::function<void(benchmark::State &)> measure)
      : Benchmark(name.c_str()), measure_(std::move(measure)) {}
  void Run(benchmark::State &state) override { measure_(state); }

 private:
  std::function<void(benchmark::State &)> measure_;
};

}  // namespace

void addRows(const std::string &name, std::initializer_list<std::int64_t> sizes,
             std::function<void(benchmark::State &)> measure) {
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the library owns it from here on
  auto *rows = benchmark::internal::RegisterBenchmarkInternal(new Row(name, std::move(measure)));
  rows->Unit(benchmark::kMicrosecond);
  for (const std::int64_t size : sizes) {
    rows->Arg(size);
  }
}

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
