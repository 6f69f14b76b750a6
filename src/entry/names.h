// Names of the owner and group of an entry.
#pragma once

#include <string>

#include "entry/resource_entry.h"

namespace dirwell {

// The account name of the entry's user id and the name of its group id; "---" for an id without a name or whose record
// exceeds 1024 bytes. Each id is looked up once per process and remembered, since a request has a process of its own.
// The references live as long as the process. One thread at a time.
const std::string &ownerName(const ResourceEntry &entry);
const std::string &groupName(const ResourceEntry &entry);

}  // namespace dirwell
