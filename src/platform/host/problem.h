// The bus's own refusals: problem details (RFC 9457), and the texts of HTTP status codes.
#pragma once

#include <string>
#include <string_view>

namespace dirwell::host {

// The reason phrase of a status code, "Unknown" where there is none.
std::string_view reason_phrase(int status);

inline constexpr std::string_view problem_type = "application/problem+json";

// The problem object of a refusal. `detail` is plain ASCII without quotes or backslashes.
std::string problem_json(int status, std::string_view detail);

// The same as a CGI-style response; `allow` is the value of the header "Allow" where it is not empty.
std::string problem_response(int status, std::string_view detail, std::string_view allow = {});

}  // namespace dirwell::host
