// The bus's own limits. Fixed in every program that serves; tests shorten them before they start a service.
#pragma once

#include <chrono>
#include <cstddef>

namespace dirwell::host {

struct Limits {
  std::chrono::milliseconds first_request{10'000};  // from a connection's place to its first request's end
  std::chrono::milliseconds request{10'000};        // from a later request's first byte to its end
  std::chrono::milliseconds idle{60'000};           // between requests
  std::chrono::milliseconds stalled{30'000};        // for a client that takes nothing of its response
  std::chrono::milliseconds stop{5'000};            // for requests in flight once the service stops
  std::chrono::milliseconds linger{1'000};          // for a refused client to read its answer
  std::chrono::milliseconds pause{100};             // before accepting again when descriptors are short
  std::chrono::milliseconds program{10'000};        // for a program that is run

  // Fewer where the process may hold few descriptors.
  std::size_t connections = 128;  // served at once
  std::size_t kept = 128;         // handlers that go on after their reply
  std::size_t lingering = 64;     // refused clients that are still being listened to

  std::size_t header_bytes = 16UL * 1024;      // request line and header fields
  std::size_t body_bytes = 1024UL * 1024;      // request body
  std::size_t captured_bytes = 1024UL * 1024;  // kept of each output stream of a program
};

// The limits of this process. Changed only while nothing is served.
Limits &limits();

}  // namespace dirwell::host
