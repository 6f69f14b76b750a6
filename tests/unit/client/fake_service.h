// A service of prepared replies, for the client to speak to.
#pragma once

#include <string>
#include <thread>
#include <vector>

namespace dirwell::test {

// Listens at `path`, answers the callers that send something with the replies in their order, the last one again and
// again (each as it is; nothing: silence), and keeps what the callers sent. Callers that send nothing are let go. The
// socket file goes with the object.
class FakeService {
 public:
  enum class Reads { whole_request, nothing };  // a refusal comes before anything is read

  FakeService(std::string path, std::vector<std::string> replies, Reads reads = Reads::whole_request);
  FakeService(const std::string &path, const std::string &reply, Reads reads = Reads::whole_request);
  ~FakeService();
  FakeService(const FakeService &) = delete;
  FakeService &operator=(const FakeService &) = delete;

  // Ends the service and gives what it was sent: by the last caller, or by each.
  std::string request();
  std::vector<std::string> requests();

 private:
  void serve();

  std::string path_;
  std::vector<std::string> replies_;
  Reads reads_;
  int listener_;
  int stop_;  // becomes readable when the service is to end
  std::vector<std::string> requests_;
  std::thread thread_;
};

// A reply with this status line and body, closed after it.
std::string http_reply(const std::string &status, const std::string &type, const std::string &body);

// A 200 reply of a service endpoint.
std::string json_reply(const std::string &body);

// What stands behind the head of a request.
std::string body_of(const std::string &request);

}  // namespace dirwell::test
