// A database of the cache folder that may be anybody's: opened, read and described as a request does it, and held
// against plain queries through a connection of the check's own.
#pragma once

#include <cstdint>
#include <string>

namespace dirwell::fuzz {

// Makes the volume, the session and the quiet that the store needs. For LLVMFuzzerInitialize.
void prepare_store();

// The file that a store of index 1 opens.
const std::string &store_file();

// Puts `bytes` in the place of that file.
void write_store(const std::string &bytes);

// Reads the listing `uuid` from the file in every way there is. In the end the listing is removed from it.
void check_store(const std::string &uuid, std::int64_t offset, std::int64_t limit);

// The uuid of the first row; empty where none can be read.
std::string first_uuid();

}  // namespace dirwell::fuzz
