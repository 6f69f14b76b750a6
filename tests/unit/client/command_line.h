// Command lines of dirwellctl, worked on in the test's own process against a service of prepared replies.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "client/cli.h"
#include "client/instance.h"
#include "fake_service.h"
#include "support/environment.h"
#include "support/temp_dir.h"

namespace dirwell::test {

inline const std::string empty_listing =
    R"({"cluster":[],"uuid":"u","datas":[],"total":0,"changed":false,"error_code":0,"error_message":""})";

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

class CommandLine : public testing::Test {
 protected:
  CommandLine() { folder.mkdir("var/run"); }

  static Outcome run(const std::vector<std::string> &arguments) {
    std::ostringstream out;
    std::ostringstream err;
    const int status = client::run(arguments, out, err);
    return {status, out.str(), err.str()};
  }

  // Runs with a service that gives these replies; gives what was sent, each as its whole text, in `requests`.
  [[nodiscard]] Outcome answered(const std::vector<std::string> &arguments, const std::vector<std::string> &bodies,
                                 std::vector<std::string> *requests = nullptr) const {
    std::vector<std::string> replies;
    replies.reserve(bodies.size());
    for (const std::string &body : bodies) {
      replies.push_back(json_reply(body));
    }
    FakeService service(client::socket_path(folder.path(), "abc"), replies);
    Outcome outcome = run(arguments);
    if (requests != nullptr) {
      *requests = service.requests();
    }
    return outcome;
  }

  // Lists with a service that answers `reply`; gives the body of the request in `request` when there was one.
  Outcome list(std::vector<std::string> arguments, const std::string &reply, std::string *request = nullptr) const {
    arguments.insert(arguments.begin(), "list");
    std::vector<std::string> requests;
    Outcome outcome = answered(arguments, {reply}, &requests);
    if (request != nullptr && !requests.empty()) {
      *request = body_of(requests.back());
    }
    return outcome;
  }

  [[nodiscard]] std::string session_file(const std::string &sid) const {
    return folder.path() + "/var/run/dirwell/sessions/" + sid;
  }

  TempDir folder;
  ScopedEnvironment root{"DIRWELL_ROOT", folder.path()};
  ScopedEnvironment none{"DIRWELL_SID", ""};
};

}  // namespace dirwell::test
