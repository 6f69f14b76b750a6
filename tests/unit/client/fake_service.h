// A service of one reply, for the client to speak to.
#pragma once

#include <string>
#include <thread>

namespace dirwell::test {

// Listens at `path`, answers the first caller that sends something with `reply` (as it is; nothing: silence) and keeps
// what the caller sent. Callers that send nothing are let go. The socket file goes with the object.
class FakeService {
 public:
  enum class Reads { whole_request, nothing };  // a refusal comes before anything is read

  FakeService(std::string path, std::string reply, Reads reads = Reads::whole_request);
  ~FakeService();
  FakeService(const FakeService &) = delete;
  FakeService &operator=(const FakeService &) = delete;

  // Ends the service and gives what it was sent.
  std::string request();

 private:
  void serve();

  std::string path_;
  std::string reply_;
  Reads reads_;
  int listener_;
  int stop_;  // becomes readable when the service is to end
  std::string request_;
  std::thread thread_;
};

// A reply with this status line and body, closed after it.
std::string http_reply(const std::string &status, const std::string &type, const std::string &body);

// A 200 reply of a service endpoint.
std::string json_reply(const std::string &body);

}  // namespace dirwell::test
