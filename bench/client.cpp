// Times whole HTTP requests, from before the connection is made to behind the last byte of the response, over a UNIX
// stream socket or TCP, and prints a JSON object: the seconds of each request, the bytes of its body, the failures.
#include <jansson.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using Clock = std::chrono::steady_clock;
using Request = http::request<http::string_body>;

struct Options {
  std::string socket;
  std::uint16_t port = 0;
  std::string target;
  std::string body_file;
  std::string expected;  // what the body has to hold
  std::string save;
  std::vector<std::string> headers;
  unsigned clients = 1;
  unsigned requests = 1;  // in all
};

struct Outcome {
  std::vector<double> seconds;
  std::uint64_t bytes = 0;  // of all bodies
  std::uint64_t failures = 0;
  std::string failure;  // the first one, in words
  std::string body;     // of one of the requests that succeeded
};

Request requestOf(const Options &options) {
  const bool post = !options.body_file.empty();
  Request request(post ? http::verb::post : http::verb::get, options.target, 11);
  request.set(http::field::host, "localhost");
  request.keep_alive(false);
  for (const std::string &header : options.headers) {
    const std::size_t colon = header.find(": ");
    if (colon == std::string::npos) {
      throw std::runtime_error("no header: " + header);
    }
    request.insert(header.substr(0, colon), header.substr(colon + 2));
  }
  if (post) {
    std::ifstream file(options.body_file, std::ios::binary);
    if (!file) {
      throw std::runtime_error("cannot read " + options.body_file);
    }
    request.set(http::field::content_type, "application/json");
    request.body().assign(std::istreambuf_iterator<char>(file), {});
    request.prepare_payload();
  }
  return request;
}

template <class Socket, class Endpoint>
std::string exchange(const Endpoint &endpoint, const Request &request) {
  asio::io_context context;
  Socket socket(context);
  socket.connect(endpoint);
  http::write(socket, request);
  boost::beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.body_limit(std::numeric_limits<std::uint64_t>::max());
  http::read(socket, buffer, parser);
  if (parser.get().result() != http::status::ok) {
    throw std::runtime_error("status " + std::to_string(parser.get().result_int()));
  }
  return std::move(parser.get().body());
}

std::string exchange(const Options &options, const Request &request) {
  if (options.port != 0) {
    return exchange<asio::ip::tcp::socket>(asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), options.port),
                                           request);
  }
  return exchange<asio::local::stream_protocol::socket>(asio::local::stream_protocol::endpoint(options.socket),
                                                        request);
}

// One client's share of the requests.
Outcome serve(const Options &options, const Request &request, std::atomic<unsigned> &left) {
  Outcome outcome;
  for (;;) {
    unsigned open = left.load();
    while (open > 0 && !left.compare_exchange_weak(open, open - 1)) {
    }
    if (open == 0) {
      return outcome;
    }
    const auto start = Clock::now();
    try {
      std::string body = exchange(options, request);
      const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
      if (body.find(options.expected) == std::string::npos) {
        throw std::runtime_error("unexpected body: " + body.substr(0, 400));
      }
      outcome.seconds.push_back(seconds);
      outcome.bytes += body.size();
      outcome.body = std::move(body);
    } catch (const std::exception &error) {
      ++outcome.failures;
      outcome.failure = error.what();
    }
  }
}

Outcome run(const Options &options) {
  const Request request = requestOf(options);
  std::atomic<unsigned> left = options.requests;
  std::vector<Outcome> outcomes(options.clients);
  {
    std::vector<std::jthread> threads;
    threads.reserve(options.clients);
    for (Outcome &outcome : outcomes) {
      threads.emplace_back([&] { outcome = serve(options, request, left); });
    }
  }
  Outcome all;
  for (Outcome &outcome : outcomes) {
    all.seconds.insert(all.seconds.end(), outcome.seconds.begin(), outcome.seconds.end());
    all.bytes += outcome.bytes;
    all.failures += outcome.failures;
    if (!outcome.failure.empty()) {
      all.failure = outcome.failure;
    }
    if (!outcome.body.empty()) {
      all.body = std::move(outcome.body);
    }
  }
  return all;
}

void print(const Outcome &outcome, double elapsed) {
  json_t *seconds = json_array();
  for (const double value : outcome.seconds) {
    json_array_append_new(seconds, json_real(value));
  }
  json_t *report = json_pack("{so,sf,sI,sI,ss}", "seconds", seconds, "elapsed", elapsed, "bytes",
                             static_cast<json_int_t>(outcome.bytes), "failures",
                             static_cast<json_int_t>(outcome.failures), "failure", outcome.failure.c_str());
  json_dumpf(report, stdout, JSON_COMPACT | JSON_REAL_PRECISION(9));
  std::putchar('\n');
  json_decref(report);
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app("Times HTTP requests, each on a connection of its own; prints a JSON object.");
  Options options;
  auto *socket = app.add_option("--socket", options.socket, "path of a UNIX stream socket");
  app.add_option("--port", options.port, "TCP port on this machine")->excludes(socket);
  app.add_option("--target", options.target, "path and query")->required();
  app.add_option("--body", options.body_file, "file with the body to POST (default: GET)");
  app.add_option("--expect", options.expected, "text that every body has to hold");
  app.add_option("--save", options.save, "file for one of the bodies");
  app.add_option("--header", options.headers, "a further header field, \"Name: value\"");
  app.add_option("--clients", options.clients, "how many send at once")->check(CLI::PositiveNumber);
  app.add_option("--requests", options.requests, "how many, of all clients together")->check(CLI::PositiveNumber);
  CLI11_PARSE(app, argc, argv);
  try {
    const auto start = Clock::now();
    const Outcome outcome = run(options);
    print(outcome, std::chrono::duration<double>(Clock::now() - start).count());
    if (!options.save.empty()) {
      std::ofstream(options.save, std::ios::binary) << outcome.body;
    }
    return 0;
  } catch (const std::exception &error) {
    std::fprintf(stderr, "bench_client: %s\n", error.what());
    return 1;
  }
}
