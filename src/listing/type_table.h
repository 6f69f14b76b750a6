// File types by extension: media class and MIME type.
#pragma once

#include <cstdint>
#include <string_view>

namespace dirwell {

// Media classes, one bit each.
inline constexpr std::uint32_t class_music = 1;
inline constexpr std::uint32_t class_video = 2;
inline constexpr std::uint32_t class_photo = 4;
inline constexpr std::uint32_t class_pdf = 8;
inline constexpr std::uint32_t class_word = 16;
inline constexpr std::uint32_t class_sheet = 32;
inline constexpr std::uint32_t class_slides = 64;
inline constexpr std::uint32_t class_mail = 128;
inline constexpr std::uint32_t media_classes = 7;
inline constexpr std::uint32_t document_classes = 248;

struct TypeRow {
  std::uint32_t mediaClass;
  std::string_view extension;  // lower case, without the dot
  std::string_view mimeType;
};

// Fills the index from the table; once, before the first lookup. Later calls change nothing.
void buildTypeIndex();

// The row of an extension in any ASCII letter case, or null. Lookups are read-only; any thread.
const TypeRow *findType(std::string_view extension);

// Whether the extension's class is exactly `value`.
bool mediaClassEquals(std::string_view extension, std::uint32_t value);
// Whether the extension's class is one of `mask`.
bool mediaClassIn(std::string_view extension, std::uint32_t mask);
bool isMediaExtension(std::string_view extension);
bool isDocumentExtension(std::string_view extension);

}  // namespace dirwell
