// Names as people and devices give them.
#pragma once

#include <cstdint>
#include <random>
#include <string>

namespace dirwell::bench {

// The library's distributions differ from one implementation to the next; this is the same on all.
inline std::size_t below(std::mt19937_64 &random, std::size_t bound) {
  return static_cast<std::size_t>(random() % bound);
}

// A random name. `number` is a part of it, so that no two numbers give the same name.
std::string nameWith(std::uint32_t number, std::mt19937_64 &random);

}  // namespace dirwell::bench
