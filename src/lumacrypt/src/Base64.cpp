#include "lumacrypt/Base64.h"

#include <array>
#include <cstring>

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

// The two characters of every 12-bit value: two lookups encode three bytes.
constexpr std::array<char, 2 * 4096> makePairTable() {
    std::array<char, 2 * 4096> table{};
    for (std::size_t v = 0; v < 4096; ++v) {
        table[2 * v] = kAlphabet[v >> 6];
        table[2 * v + 1] = kAlphabet[v & 63];
    }
    return table;
}

constexpr std::array<char, 2 * 4096> kPairs = makePairTable();

// Per position in a group of four characters, the character's six bits already moved to where
// they land in the group's 24-bit value; characters outside the alphabet map to kBad, which
// survives any OR with valid entries.
constexpr std::uint32_t kBad = 0xFF000000U;

constexpr std::array<std::array<std::uint32_t, 256>, 4> makeShiftedTables() {
    std::array<std::array<std::uint32_t, 256>, 4> tables{};
    for (int position = 0; position < 4; ++position) {
        for (int c = 0; c < 256; ++c) {
            const int value = kDecode[static_cast<std::size_t>(c)];
            tables[static_cast<std::size_t>(position)][static_cast<std::size_t>(c)] =
                value < 0 ? kBad : static_cast<std::uint32_t>(value) << (18 - 6 * position);
        }
    }
    return tables;
}

constexpr std::array<std::array<std::uint32_t, 256>, 4> kShifted = makeShiftedTables();

inline void putPair(char *o, std::uint32_t v12) {
    std::memcpy(o, kPairs.data() + 2 * v12, 2);
}

} // namespace

void base64EncodeInto(std::span<const std::uint8_t> bytes, char *o) noexcept {
    const std::uint8_t *in = bytes.data();
    std::size_t left = bytes.size();
    // Six bytes (eight characters) at a time.
    while (left >= 6) {
        std::uint64_t word = 0;
        for (int k = 0; k < 6; ++k) {
            word = (word << 8) | in[k];
        }
        putPair(o, static_cast<std::uint32_t>(word >> 36) & 0xFFF);
        putPair(o + 2, static_cast<std::uint32_t>(word >> 24) & 0xFFF);
        putPair(o + 4, static_cast<std::uint32_t>(word >> 12) & 0xFFF);
        putPair(o + 6, static_cast<std::uint32_t>(word) & 0xFFF);
        in += 6;
        o += 8;
        left -= 6;
    }
    while (left >= 3) {
        const std::uint32_t v = (std::uint32_t{in[0]} << 16) | (std::uint32_t{in[1]} << 8) | in[2];
        putPair(o, v >> 12);
        putPair(o + 2, v & 0xFFF);
        in += 3;
        o += 4;
        left -= 3;
    }
    if (left > 0) {
        const std::uint32_t v =
            (std::uint32_t{in[0]} << 16) | (left == 2 ? std::uint32_t{in[1]} << 8 : 0U);
        o[0] = kAlphabet[(v >> 18) & 63];
        o[1] = kAlphabet[(v >> 12) & 63];
        o[2] = left == 2 ? kAlphabet[(v >> 6) & 63] : '=';
        o[3] = '=';
    }
}

std::string base64Encode(std::span<const std::uint8_t> bytes) {
    std::string out(base64EncodedSize(bytes.size()), '=');
    base64EncodeInto(bytes, out.data());
    return out;
}

std::optional<std::size_t> base64DecodedSize(std::string_view text) noexcept {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    if (text.empty()) {
        return 0;
    }
    std::size_t padding = 0;
    if (text[text.size() - 1] == '=') {
        padding = (text[text.size() - 2] == '=') ? 2 : 1;
    }
    return text.size() / 4 * 3 - padding;
}

bool base64DecodeInto(std::string_view text, std::uint8_t *o) noexcept {
    if (text.size() % 4 != 0) {
        return false;
    }
    if (text.empty()) {
        return true;
    }
    std::size_t padding = 0;
    if (text[text.size() - 1] == '=') {
        padding = (text[text.size() - 2] == '=') ? 2 : 1;
    }
    const auto *in = reinterpret_cast<const unsigned char *>(text.data());
    std::size_t groups = (text.size() / 4) - (padding > 0 ? 1 : 0);
    const auto &t0 = kShifted[0];
    const auto &t1 = kShifted[1];
    const auto &t2 = kShifted[2];
    const auto &t3 = kShifted[3];
    // Invalid characters ('=' inside the text, whitespace, line breaks, other bytes) are
    // collected over a block and judged once per block.
    while (groups > 0) {
        const std::size_t block = groups < 16 ? groups : 16;
        std::uint32_t bad = 0;
        for (std::size_t g = 0; g < block; ++g, in += 4, o += 3) {
            const std::uint32_t v = t0[in[0]] | t1[in[1]] | t2[in[2]] | t3[in[3]];
            bad |= v;
            o[0] = static_cast<std::uint8_t>(v >> 16);
            o[1] = static_cast<std::uint8_t>(v >> 8);
            o[2] = static_cast<std::uint8_t>(v);
        }
        if ((bad & kBad) != 0) {
            return false;
        }
        groups -= block;
    }
    if (padding > 0) {
        // The last group: "xx==" or "xxx=".
        const int a = kDecode[in[0]];
        const int b = kDecode[in[1]];
        const int c = padding == 1 ? kDecode[in[2]] : 0;
        if ((a | b | c) < 0) {
            return false;
        }
        const std::uint32_t v =
            (std::uint32_t(a) << 18) | (std::uint32_t(b) << 12) | (std::uint32_t(c) << 6);
        o[0] = static_cast<std::uint8_t>(v >> 16);
        if (padding == 1) {
            o[1] = static_cast<std::uint8_t>(v >> 8);
        }
    }
    return true;
}

std::optional<Bytes> base64Decode(std::string_view text) {
    const std::optional<std::size_t> size = base64DecodedSize(text);
    if (!size) {
        return std::nullopt;
    }
    Bytes out(*size);
    if (!base64DecodeInto(text, out.data())) {
        return std::nullopt;
    }
    return out;
}

} // namespace lumacrypt
