// Standard base64 (RFC 4648 alphabet, with padding, no line breaks).
#pragma once

#include "lumacrypt/Types.h"

#include <cstddef>
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

// The length of the base64 text of `size` bytes.
constexpr std::size_t base64EncodedSize(std::size_t size) noexcept {
    return (size + 2) / 3 * 4;
}

// Writes the base64 text of `bytes` (base64EncodedSize(bytes.size()) characters) to `out`.
void base64EncodeInto(std::span<const std::uint8_t> bytes, char *out) noexcept;

// The number of bytes `text` decodes to, or nothing when its length or padding already makes it
// invalid (the characters themselves are checked by base64DecodeInto).
std::optional<std::size_t> base64DecodedSize(std::string_view text) noexcept;

// Decodes `text` (as strictly as base64Decode) into `out`, which holds base64DecodedSize(text)
// bytes; false when the text is not valid (out then holds an unspecified part of the result).
bool base64DecodeInto(std::string_view text, std::uint8_t *out) noexcept;

} // namespace lumacrypt
