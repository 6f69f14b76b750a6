#include "ordering/listings.h"

namespace dirwell::test {

std::string Names::character(char32_t code) {
  std::string bytes;
  icu::UnicodeString(static_cast<UChar32>(code)).toUTF8String(bytes);
  return bytes;
}

std::string Names::one(Kind kind) {
  std::string name;
  for (std::size_t parts = 1 + below(6); parts > 0; --parts) {
    switch (kind) {
      case Kind::Ascii:
        name += any({"a",  "A",  "b", "B", "c", "C", "ch", "Ch", "CH", "cs", "ccs", "dz", "dzs", "gy", "ly", "aa",
                     "AA", "Aa", "h", "H", "s", "z", "Z",  "i",  "I",  "ij", "IJ",  "n",  "l",   "ll", "y",  "Y",
                     " ",  "-",  "_", ".", "@", "(", "~",  "'",  "`",  "^",  "0",   "1",  "00",  "9",  "10"});
        break;
      case Kind::AnyAscii:
        name += static_cast<char>(1 + below(127));
        break;
      case Kind::LongNumbers:
        name = std::string(below(2), 'a') + std::string(below(4) == 0 ? below(300) : 0, '0') +
               std::string(1, static_cast<char>('1' + below(2))) +
               std::string((below(2) == 0 ? 250 : 505) + below(7), static_cast<char>('0' + below(2)));
        name.back() = static_cast<char>('0' + below(10));
        name += any({"", "", "b", " "});
        break;
      case Kind::SplitNumbers:
        name += any({"\xC2\xAD",
                     "\xE2\x80\x8B",
                     "\xE2\x80\x8D",
                     "\xCC\x81",
                     "\xCC\xA3",
                     "\xCD\x85",
                     "\xCD\x8F",
                     "\xEF\xBB\xBF",
                     "a",
                     "0",
                     "1",
                     "0",
                     "1",
                     "2",
                     "\x01",
                     " ",
                     ".",
                     "\xC2\xB2",
                     "\xE2\x91\xA0",
                     "\xC2\xBD",
                     "\xE4\xBA\x8C"});
        break;
      case Kind::Marks:
        name += any({"a",
                     "A",
                     "e",
                     "o",
                     "i",
                     "I",
                     "c",
                     "h",
                     "l",
                     "L",
                     "\xC3\xA9",
                     "\xC3\x85",
                     "\xC3\xA5",
                     "\xCC\x8A",
                     "\xCC\x81",
                     "\xCC\x80",
                     "\xCC\xA3",
                     "\xCC\x87",
                     "\xCC\xA7",
                     "\xCD\x85",
                     "\xE1\xB9\xA9",
                     "\xE1\xB9\xA3",
                     "\xE2\x84\xAB",
                     "\xF0\x9D\x85\xA5",
                     "\xF0\x9D\x85\x9F",
                     "\xCE\xB1",
                     "\xE1\xBE\x80",
                     "\xE1\xBC\x80",
                     "\xCC\x93",
                     "\xC4\xB1",
                     "\xC4\xB0",
                     "\xC2\xB7",
                     "\xCE\x87",
                     "\xE0\xBD\xB1",
                     "\xE0\xBD\xB2",
                     "\xE0\xBD\xB4",
                     "\xE0\xBD\xB3",
                     "\xE0\xBE\x81"});
        break;
      case Kind::EastAsian:
        switch (below(8)) {
          case 0:
            name += between(0x4E00, 0x4E05);
            break;
          case 1:
            name += between(0xAC00, 0xAC27);
            break;
          case 2:
            name += between(0x1100, 0x1112);
            break;
          case 3:
            name += between(0x1161, 0x1175);
            break;
          case 4:
            name += between(0x11A8, 0x11C2);
            break;
          case 5:
            name += between(0x3041, 0x3096);
            break;
          case 6:
            name += between(0x30A1, 0x30FE);
            break;
          default:
            name += any({"\xE3\x83\xBC", "\xE3\x82\x99", "\xE3\x82\x9A", "\xE3\x82\x9D", "\xE3\x82\x9E", "\xEF\xBD\xB0",
                         "\xEF\xBE\x9E", "\xEF\xBD\xB6", "\xF0\xA0\x80\x80", "\xEF\xA4\x80", "\xE3\x90\x80",
                         "\xF0\xAF\xA0\x80"});
        }
        break;
      case Kind::Thai:
        name += below(2) == 0 ? between(0x0E40, 0x0E44)
                              : (below(4) == 0 ? between(0x0E47, 0x0E4E) : between(0x0E01, 0x0E3A));
        break;
      case Kind::Latin:
        name += below(3) == 0 ? between(0xA0, 0x24F) : (below(2) == 0 ? between('a', 'z') : between(0x20, 0x7E));
        break;
      case Kind::Greek:
        name += below(3) == 0 ? between(0x400, 0x45F) : (below(4) == 0 ? between(0x300, 0x304) : between(0x388, 0x3CE));
        break;
      case Kind::IllFormed:
        // A byte that starts no character must not stand among the first two: the rule for the front of a name is not
        // consistent there. That has a test of its own.
        if (name.empty()) {
          name = any({"a", "b", "1", "z", "\xC3\xA9"});
          name += any({"a", "b", "1", "0", "\xC3\xA9"});
        }
        name += any({"a", "b", "\xFF", "\xC0", "\x80", "\xE4\xB8", "\xF0\x9F\x98", "\xED\xA0\x80", "\xC3", "\xC3\xA9",
                     "\xEF\xBF\xBD", "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "\xE0\x80\x80", "1", "0", "\xCC\x81",
                     ".", "@"});
        break;
      case Kind::Odd:
        name += any({"\xEF\xBF\xBE",
                     "\xEF\xBF\xBF",
                     "\xEF\xBF\xBD",
                     "\x01",
                     "\x7F",
                     "\xC2\x85",
                     "\xC2\xA0",
                     "\xE2\x80\xA8",
                     "\xF4\x8F\xBF\xBF",
                     "\xEE\x80\x80",
                     "\xCD\xB8",
                     "\xEF\xB7\x90",
                     "a",
                     "b",
                     "A",
                     "\xCC\x81",
                     "1",
                     "0",
                     " ",
                     "_"});
        break;
      case Kind::OtherDigits:
        switch (below(4)) {
          case 0:
            name += any({"a", "b"});
            break;
          case 1:
            name += any({"0", "1", "9"});
            break;
          default: {
            constexpr char32_t zeros[] = {0x660, 0x6F0, 0x966, 0x9E6, 0xE50, 0xFF10, 0x104A0, 0x1D7CE, 0x1D7D8};
            const char32_t zero = zeros[below(std::size(zeros))];
            name += below(2) == 0 ? character(zero) : between(zero, zero + 9);
          }
        }
        break;
    }
  }
  return name;
}

std::vector<std::string> Names::of(Kind kind, int count) {
  std::vector<std::string> names;
  for (; count > 0; --count) {
    names.push_back(one(kind));
  }
  return names;
}

std::vector<std::string> Names::consistent(int each) {
  std::vector<std::string> names;
  for (const Kind kind : consistent_kinds) {
    for (int made = 0; made < each; ++made) {
      names.push_back(one(kind));
      if (below(8) == 0) {
        names.push_back(names[below(names.size())]);
      }
      if (below(8) == 0) {
        constexpr const char *fronts[] = {".", "@", ".@"};
        names.push_back(fronts[below(3)] + names[below(names.size())]);
      }
    }
  }
  std::shuffle(names.begin(), names.end(), random_);
  return names;
}

}  // namespace dirwell::test
