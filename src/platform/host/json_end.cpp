#include "platform/host/json_end.h"

namespace dirwell::host {

namespace {

bool is_blank(char byte) {
  return byte == ' ' || byte == '\t' || byte == '\r' || byte == '\n';
}

}  // namespace

void JsonEnd::feed(std::string_view bytes) {
  for (const char byte : bytes) {
    step(byte);
  }
}

void JsonEnd::step(char byte) {
  switch (state_) {
    case State::before:
    case State::inside:
      if (byte == '"') {
        state_ = State::string;
      } else if (byte == '{' || byte == '[') {
        ++depth_;
        state_ = State::inside;
      } else if (state_ == State::before) {
        state_ = is_blank(byte) ? State::before : State::broken;
      } else if ((byte == '}' || byte == ']') && --depth_ == 0) {
        state_ = State::after;
      }
      break;
    case State::string:
      if (byte == '\\') {
        state_ = State::escape;
      } else if (byte == '"') {
        state_ = depth_ == 0 ? State::after : State::inside;
      }
      break;
    case State::escape:
      state_ = State::string;
      break;
    case State::after:
      state_ = is_blank(byte) ? State::after : State::broken;
      break;
    case State::broken:
      break;
  }
}

}  // namespace dirwell::host
