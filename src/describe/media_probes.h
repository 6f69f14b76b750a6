// What kind of picture or video an entry is, and whether there is a thumbnail of it. No probe fails or logs: what
// cannot be found out has its fallback value. Runs in the request's own process, with its user's rights, one thread.
//
// Each probe takes an entry; the form beside it takes what a caller that asks several probes has already computed.
#pragma once

#include <cstdint>
#include <string>

#include "entry/resource_entry.h"

namespace dirwell {

// 1 when the video tool reports an H.265 stream in the file, else 0. Runs the tool, except for an "iso" entry.
int probeH265(const ResourceEntry &entry);
int probeH265(const ResourceEntry &entry, const std::string &fullPath);

// Whether a picture or clip is a 360-degree one, by the tag on the file: 1 it is, 0 it is not or is not known yet, -1
// the tag is empty. A file below /share/ without a tag is looked up in the media database and tagged with the answer
// for the next time; this time's answer is 0.
int probeProjection(const ResourceEntry &entry);
int probeProjection(const std::string &fullPath);

// The media database's answer for the file: 1 a 360-degree one, -1 otherwise. Runs the database tool.
int queryMediaProjection(const ResourceEntry &entry);
int queryMediaProjection(const std::string &fullPath);

// Writes the tag, as decimal text, onto the file: 2 for a 360-degree one, 0 for any other. 0, or -1 for an empty path
// and when the tag cannot be written.
int writeProjectionTag(const ResourceEntry &entry, int value);
int writeProjectionTag(const std::string &fullPath, int value);

// 1 when there is a thumbnail of the entry in its listed directory, else 0. Only media files and documents have one.
int hasThumbnail(const ResourceEntry &entry);
// The same where the media class of the entry's extension is known (0: none).
int hasThumbnail(const ResourceEntry &entry, std::uint32_t mediaClass);

}  // namespace dirwell
