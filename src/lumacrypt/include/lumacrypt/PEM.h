// Extraction of the public key printed by the backend between PEM marker lines.
#pragma once

#include "lumacrypt/Types.h"

#include <optional>
#include <string>

namespace lumacrypt {

// The text between "-----BEGIN PUBLIC KEY-----\n" and the next "\n-----END PUBLIC KEY-----",
// unchanged. No begin marker, a begin marker not followed by a newline, or an empty body throws
// PEMException(doesNotExist).
std::string PEMFromString(const std::string &text);
// PEMFromString with any error turned into an absent result.
std::optional<std::string> PEMSearchString(const std::string &text);

} // namespace lumacrypt
