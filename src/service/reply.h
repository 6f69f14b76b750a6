// The reply writer: every reply is one JSON object that carries "error_code" and "error_message".
#pragma once

#include <jansson.h>

#include "platform/include/hxservice.h"
#include "service/error_record.h"

namespace dirwell {

// Writes `result` (or a new object when null) with the record's code and message to `descriptor`, or into `io` when the
// descriptor is negative, and completes the reply. A record with an error empties `result` first: a failed request
// returns no partial data. Writes nothing when the client has gone; a reply that cannot be written to its end is left
// incomplete, silently. Throws std::bad_alloc, with nothing written, when it cannot be put together. `result` is
// borrowed and changed. Called once per request, by the thread that serves it.
void write_reply(hx_io *io, int descriptor, json_t *result, const ErrorRecord &record);

// Serialises `value` into `io` with the flags of replies; false when the io did not take every byte.
bool dump_json(const json_t *value, hx_io *io);

}  // namespace dirwell
