#include "lumacrypt/Base64.h"

#include <array>

namespace lumacrypt {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> makeDecodeTable() {
    std::array<std::int8_t, 256> table{};
    for (auto &entry : table) {
        entry = -1;
    }
    for (int i = 0; i < 64; ++i) {
        table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
    }
    return table;
}

constexpr std::array<std::int8_t, 256> kDecode = makeDecodeTable();

} // namespace

std::string base64Encode(std::span<const std::uint8_t> bytes) {
    std::string out;
    out.resize((bytes.size() + 2) / 3 * 4);
    std::size_t o = 0;
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t v =
            (std::uint32_t{bytes[i]} << 16) | (std::uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
        out[o++] = kAlphabet[(v >> 18) & 63];
        out[o++] = kAlphabet[(v >> 12) & 63];
        out[o++] = kAlphabet[(v >> 6) & 63];
        out[o++] = kAlphabet[v & 63];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest == 1) {
        const std::uint32_t v = std::uint32_t{bytes[i]} << 16;
        out[o++] = kAlphabet[(v >> 18) & 63];
        out[o++] = kAlphabet[(v >> 12) & 63];
        out[o++] = '=';
        out[o++] = '=';
    } else if (rest == 2) {
        const std::uint32_t v =
            (std::uint32_t{bytes[i]} << 16) | (std::uint32_t{bytes[i + 1]} << 8);
        out[o++] = kAlphabet[(v >> 18) & 63];
        out[o++] = kAlphabet[(v >> 12) & 63];
        out[o++] = kAlphabet[(v >> 6) & 63];
        out[o++] = '=';
    }
    return out;
}

std::optional<Bytes> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    Bytes out;
    if (text.empty()) {
        return out;
    }
    std::size_t padding = 0;
    if (text[text.size() - 1] == '=') {
        padding = (text[text.size() - 2] == '=') ? 2 : 1;
    }
    out.reserve(text.size() / 4 * 3);
    const std::size_t dataChars = text.size() - padding;
    std::uint32_t accumulator = 0;
    int bits = 0;
    for (std::size_t i = 0; i < dataChars; ++i) {
        const std::int8_t value = kDecode[static_cast<unsigned char>(text[i])];
        if (value < 0) {
            return std::nullopt; // includes '=' inside the text, whitespace and line breaks
        }
        accumulator = (accumulator << 6) | static_cast<std::uint32_t>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<std::uint8_t>((accumulator >> bits) & 0xff));
        }
    }
    return out;
}

} // namespace lumacrypt
