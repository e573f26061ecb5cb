// Millisecond timestamps carried as additional data: base64 of the decimal text.
#pragma once

#include "lumacrypt/Types.h"

#include <cstdint>
#include <optional>
#include <string>

namespace lumacrypt {

// Milliseconds since the Unix epoch, rounded to the nearest integer.
std::int64_t KeyExchangeCurrentTimestamp();
// That number as decimal text.
std::string KeyExchangeCurrentTimestampString();
// The bytes of that text.
Bytes KeyExchangeCurrentTimestampData();

// The timestamp carried in a base64 additional-data string: base64, then UTF-8 text, then a strict
// decimal signed 64-bit integer (optional '-', digits only). Absent on any failure or overflow.
std::optional<std::int64_t> KeyExchangeTimestamp(const std::string &additionalData);

} // namespace lumacrypt
