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
    std::string out((bytes.size() + 2) / 3 * 4, '=');
    char *o = out.data();
    const std::uint8_t *in = bytes.data();
    const std::size_t fullGroups = bytes.size() / 3;
    for (std::size_t g = 0; g < fullGroups; ++g, in += 3, o += 4) {
        const std::uint32_t v = (std::uint32_t{in[0]} << 16) | (std::uint32_t{in[1]} << 8) | in[2];
        o[0] = kAlphabet[(v >> 18) & 63];
        o[1] = kAlphabet[(v >> 12) & 63];
        o[2] = kAlphabet[(v >> 6) & 63];
        o[3] = kAlphabet[v & 63];
    }
    const std::size_t rest = bytes.size() - fullGroups * 3;
    if (rest > 0) {
        const std::uint32_t v =
            (std::uint32_t{in[0]} << 16) | (rest == 2 ? std::uint32_t{in[1]} << 8 : 0U);
        o[0] = kAlphabet[(v >> 18) & 63];
        o[1] = kAlphabet[(v >> 12) & 63];
        if (rest == 2) {
            o[2] = kAlphabet[(v >> 6) & 63];
        }
        // The remaining positions already hold the padding.
    }
    return out;
}

std::optional<Bytes> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    if (text.empty()) {
        return Bytes{};
    }
    std::size_t padding = 0;
    if (text[text.size() - 1] == '=') {
        padding = (text[text.size() - 2] == '=') ? 2 : 1;
    }
    Bytes out(text.size() / 4 * 3 - padding);
    const auto *in = reinterpret_cast<const unsigned char *>(text.data());
    const std::size_t fullGroups = (text.size() / 4) - (padding > 0 ? 1 : 0);
    std::uint8_t *o = out.data();
    for (std::size_t g = 0; g < fullGroups; ++g, in += 4, o += 3) {
        const int a = kDecode[in[0]];
        const int b = kDecode[in[1]];
        const int c = kDecode[in[2]];
        const int d = kDecode[in[3]];
        if ((a | b | c | d) < 0) {
            return std::nullopt; // '=' inside the text, whitespace, line breaks, other bytes
        }
        const std::uint32_t v = (std::uint32_t(a) << 18) | (std::uint32_t(b) << 12) |
                                (std::uint32_t(c) << 6) | std::uint32_t(d);
        o[0] = static_cast<std::uint8_t>(v >> 16);
        o[1] = static_cast<std::uint8_t>(v >> 8);
        o[2] = static_cast<std::uint8_t>(v);
    }
    if (padding > 0) {
        // The last group: "xx==" or "xxx=".
        const int a = kDecode[in[0]];
        const int b = kDecode[in[1]];
        const int c = padding == 1 ? kDecode[in[2]] : 0;
        if ((a | b | c) < 0) {
            return std::nullopt;
        }
        const std::uint32_t v =
            (std::uint32_t(a) << 18) | (std::uint32_t(b) << 12) | (std::uint32_t(c) << 6);
        o[0] = static_cast<std::uint8_t>(v >> 16);
        if (padding == 1) {
            o[1] = static_cast<std::uint8_t>(v >> 8);
        }
    }
    return out;
}

} // namespace lumacrypt
