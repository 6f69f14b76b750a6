// Describing the entries of a page, its JSON text, and the reply that carries it to the client.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <list>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "cache/cache_store.h"
#include "data.h"
#include "describe/formatter.h"
#include "describe/places.h"
#include "listing/walk.h"
#include "service/json.h"
#include "service/reply.h"
#include "service/unique_fd.h"
#include "stages.h"

namespace dirwell::bench {

namespace {

constexpr std::size_t keys_of_an_entry = 35;

// The first page of a real folder by name, as the walk leaves its entries.
std::vector<ResourceEntry> pageEntries(std::size_t count) {
  const ResourceQuery query = queryOf({{"sort", "name"}});
  std::list<ResourceEntry> roots{
      ResourceEntry::queuedDirectory(folderOf(small_listing, Shape::flat).path, {}, "/Files")};
  std::vector<ResourceEntry> entries;
  walkDirectory(entries, roots, query.filters, query.sorter, nullptr, query.scanLimit, false, 0);
  entries.resize(count);
  return entries;
}

// The whole result of a request for that page.
JsonRef pageReply(std::size_t count) {
  CacheStore store;
  ErrorRecord error;
  JsonRef reply = store.set(pageEntries(count), error);
  const auto formatter = std::make_shared<LegacyFormatter>();
  json_merge(reply.get(), store.fetchOwn(0, page_size, formatter, error));
  if (json_array_size(json_object_get(reply.get(), "datas")) != count) {
    throw std::runtime_error("no page to reply with");
  }
  return reply;
}

void measureDescribe(benchmark::State &state) {
  const std::vector<ResourceEntry> entries = pageEntries(static_cast<std::size_t>(state.range(0)));
  JsonRef described;
  while (state.KeepRunning()) {
    state.PauseTiming();
    described.reset(json_array());  // a request ends without freeing what it has described
    state.ResumeTiming();
    const std::shared_ptr<Formatter> formatter = std::make_shared<LegacyFormatter>();
    for (const ResourceEntry &entry : entries) {
      json_array_append_new(described.get(), formatter->format(entry));
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  const json_t *last = json_array_get(described.get(), entries.size() - 1);
  const char *name = json_string_value(json_object_get(last, "filename"));
  expect(state, json_object_size(last) == keys_of_an_entry && name != nullptr && name == entries.back().name,
         "the last entry is not described");
  expect(state, shareTypeOf(entries.back()) == share_remote, "the entries lie on another kind of share");
}

void measureDump(benchmark::State &state) {
  const JsonRef reply = pageReply(static_cast<std::size_t>(state.range(0)));
  const std::unique_ptr<hx_io, decltype(&hx_io_free)> io(hx_io_create(), hx_io_free);
  bool whole = true;
  while (state.KeepRunning()) {
    hx_io_realloc(io.get(), 0);
    whole = whole && dump_json(reply.get(), io.get());
  }
  const std::size_t size = hx_io_size(io.get());
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
  const JsonRef read(json_loadb(hx_io_read(io.get(), 0), size, 0, nullptr));
  expect(state, whole && json_equal(read.get(), reply.get()) == 1, "the text is not the reply's");
}

// A connected socket whose other end is read by a thread, as a client does.
class Client {
 public:
  Client() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
      throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    ours_ = UniqueFd(ends[0]);
    reader_ = std::thread([this, theirs = ends[1]] { received_ = drain(theirs); });
  }
  ~Client() { hangUp(); }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  [[nodiscard]] int descriptor() const { return ours_.get(); }
  // How many bytes have come through in all; nothing can be sent any more.
  std::int64_t hangUp() {
    ours_ = UniqueFd();
    if (reader_.joinable()) {
      reader_.join();
    }
    return received_;
  }

 private:
  static std::int64_t drain(int descriptor) {
    std::vector<char> buffer(1U << 16U);
    const UniqueFd socket(descriptor);
    std::int64_t total = 0;
    for (ssize_t got = 0; (got = ::read(socket.get(), buffer.data(), buffer.size())) > 0;) {
      total += got;
    }
    return total;
  }

  UniqueFd ours_;
  std::thread reader_;
  std::int64_t received_ = 0;
};

void measureReply(benchmark::State &state) {
  const JsonRef reply = pageReply(static_cast<std::size_t>(state.range(0)));
  const std::unique_ptr<hx_io, decltype(&hx_io_free)> io(hx_io_create(), hx_io_free);
  Client client;
  while (state.KeepRunning()) {
    write_reply(io.get(), client.descriptor(), reply.get(), ErrorRecord{});
  }
  dump_json(reply.get(), io.get());
  const auto text = static_cast<std::int64_t>(hx_io_size(io.get()));
  const std::int64_t received = client.hangUp();
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.SetBytesProcessed(received);
  const std::int64_t header = received / state.iterations() - text;
  expect(state, header > 0 && header < text && received == state.iterations() * (header + text),
         "the client has not received every reply whole");
}

}  // namespace

void registerReply() {
  addRows("describe", {page_size}, measureDescribe);
  addRows("dump", {page_size}, measureDump);
  addRows("reply", {page_size}, measureReply);
}

}  // namespace dirwell::bench
