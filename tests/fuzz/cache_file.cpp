// A database of a stranger, byte for byte: opened and read as "fetch.cache" and the watch thread do it.
//
// Input: the file.
#include <cstdint>
#include <string>

#include "fuzz/support/input.h"
#include "fuzz/support/store_check.h"

extern "C" int LLVMFuzzerInitialize(int * /*count*/, char *** /*arguments*/) {
  dirwell::fuzz::prepare_store();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace dirwell::fuzz;
  write_store(std::string(text_of(data, size)));
  check_store(first_uuid(), 1, 50);
  check_store("11111111-2222-4333-8444-555555555555", 0, 50);
  return 0;
}
