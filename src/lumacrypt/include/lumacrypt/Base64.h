// Standard base64 (RFC 4648 alphabet, with padding, no line breaks).
#pragma once

#include "lumacrypt/Types.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace lumacrypt {

std::string base64Encode(std::span<const std::uint8_t> bytes);

inline std::string base64Encode(std::string_view text) {
    return base64Encode(std::span<const std::uint8_t>(
        reinterpret_cast<const std::uint8_t *>(text.data()), text.size()));
}

// Strict decoding: the length must be a multiple of four, padding is required, and any character
// outside the alphabet (whitespace and line breaks included) makes the text invalid.
std::optional<Bytes> base64Decode(std::string_view text);

} // namespace lumacrypt
