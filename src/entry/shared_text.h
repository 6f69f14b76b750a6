// Immutable text that many records share: a listing of 100,000 entries holds each of its folders' paths once.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace dirwell {

// A copy is a reference to the same bytes. Reads and copies from several threads are safe.
class SharedText {
 public:
  SharedText() = default;
  SharedText(std::string_view text)  // NOLINT(google-explicit-constructor): a text, wherever one is expected
      : text_(text.empty() ? nullptr : std::make_shared<const std::string>(text)) {}
  SharedText(const std::string &text) : SharedText(std::string_view(text)) {}
  SharedText(const char *text) : SharedText(std::string_view(text)) {}

  [[nodiscard]] std::string_view view() const { return text_ ? std::string_view(*text_) : std::string_view(); }
  operator std::string_view() const { return view(); }
  [[nodiscard]] bool empty() const { return text_ == nullptr; }
  // Whether both are references to the same bytes: equality without looking at them.
  [[nodiscard]] bool same_object(const SharedText &other) const { return text_ == other.text_; }

  friend bool operator==(const SharedText &a, const SharedText &b) {
    return a.text_ == b.text_ || a.view() == b.view();
  }

 private:
  std::shared_ptr<const std::string> text_;  // none for the empty text
};

}  // namespace dirwell
