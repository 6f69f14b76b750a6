#include "names.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <string_view>

namespace dirwell::bench {

namespace {

constexpr std::array<std::string_view, 40> words{
    "annual",  "archive", "backup", "beach",  "birthday", "budget",  "concert",  "contract",  "customer", "design",
    "draft",   "export",  "family", "final",  "garden",   "holiday", "invoice",  "journal",   "kitchen",  "letter",
    "meeting", "minutes", "movie",  "notes",  "offer",    "party",   "plan",     "portrait",  "project",  "receipt",
    "report",  "scan",    "school", "screen", "session",  "summer",  "template", "timetable", "travel",   "winter"};

// Five of each: Latin letters with accents (one of them written with a combining mark), Cyrillic, kana, Han, Thai.
constexpr std::array<std::string_view, 25> accented_words{
    "žluťoučký kůň", "façade",    "Überblick", "año nuevo", "re\xCC\x81sume\xCC\x81",
    "Отчёт",         "Документы", "фото",      "Музыка",    "план",
    "さくら",        "テスト",    "ノート",    "カメラ",    "まとめ",
    "会议",          "照片",      "文件",      "旅行",      "報告",
    "เอกสาร",        "ภาพถ่าย",    "รายงาน",    "เพลง",      "โครงการ"};

constexpr std::array<std::string_view, 24> extensions{"jpg", "jpg", "jpg", "JPG", "png", "mp4",  "mkv", "mov",
                                                      "mp3", "mp3", "pdf", "pdf", "doc", "docx", "xls", "xlsx",
                                                      "txt", "txt", "zip", "csv", "iso", "html", "ppt", "md"};

template <std::size_t Size>
std::string any(const std::array<std::string_view, Size> &table, std::mt19937_64 &random) {
  return std::string(table[below(random, Size)]);
}

std::string capitalised(std::string word) {
  if (word.front() >= 'a' && word.front() <= 'z') {
    word.front() = static_cast<char>(word.front() - 'a' + 'A');
  }
  return word;
}

// At least so many digits.
std::string digits(std::size_t number, int width) {
  std::array<char, 24> text{};
  std::snprintf(text.data(), text.size(), "%0*zu", width, number);
  return text.data();
}

}  // namespace

std::string nameWith(std::uint32_t number, std::mt19937_64 &random) {
  const bool accented = below(random, 10) == 0;
  const std::string first = accented ? any(accented_words, random) : any(words, random);
  const std::string second = any(words, random);
  const std::string extension = "." + any(extensions, random);
  const std::string day = "20" + digits(10 + below(random, 14), 2) + "-" + digits(1 + below(random, 12), 2) + "-" +
                          digits(1 + below(random, 28), 2);
  const std::string plain = digits(number, 1);
  switch (below(random, 50)) {
    case 0:
      return "." + first + "-" + plain;
    case 1:
      return "@" + first + " " + plain + extension;
    default:
      break;
  }
  switch (below(random, 6)) {
    case 0:
      return (accented ? first : "IMG") + "_" + digits(number, 6) + extension;
    case 1:
      return capitalised(first) + " " + second + " " + plain + extension;
    case 2:
      return first + "_" + second + plain + extension;
    case 3:
      return day + " " + first + " (" + plain + ")" + extension;
    case 4:
      return digits(number, 6) + " - " + capitalised(first) + " " + capitalised(second) + extension;
    default:
      return first + "-" + second + "-v" + digits(below(random, 10), 1) + "-" + plain;
  }
}

}  // namespace dirwell::bench
