// Reading the CGI-style response of a handler: header lines, an empty line, the body.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/host/json_end.h"

namespace dirwell::host {

struct CgiHead {
  int status = 200;    // of the line "Status: NNN reason", which is not passed on
  std::string reason;  // never empty
  std::string fields;  // the other lines, each ending in CR LF; none that concern one connection only
  std::optional<std::uint64_t> content_length;  // as the handler declared it
  bool json = false;                            // the content type is a JSON one
  bool has_date = false;

  // 204 and 304 have no body, whatever the handler writes.
  [[nodiscard]] bool bodyless() const { return status == 204 || status == 304; }
};

class CgiReader {
 public:
  static constexpr std::size_t head_limit = 16UL * 1024;

  enum class State { head, body, broken };

  // Takes the next bytes of the response and returns those of them that belong to the body (never more in all than a
  // declared length; none of a response without a body). The view leads into `bytes`. A head that is too long or no
  // head at all makes the reader broken for good.
  std::string_view feed(std::string_view bytes);

  [[nodiscard]] State state() const { return state_; }
  // Valid once the state is State::body.
  [[nodiscard]] const CgiHead &head() const { return head_; }
  // Whether the stream, which has ended now, holds the whole response. `declared` tells that the handler said so
  // itself; otherwise a body that shows that it was cut off (its length, an unclosed JSON text) is not whole.
  [[nodiscard]] bool whole(bool declared) const;

 private:
  bool parse_head();
  bool parse_line(std::string_view line);

  State state_ = State::head;
  std::string head_text_;
  CgiHead head_;
  std::uint64_t body_bytes_ = 0;
  JsonEnd json_end_;
};

}  // namespace dirwell::host
