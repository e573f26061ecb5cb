#include "lumacrypt/Base64.h"

#include <array>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

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

#if defined(__x86_64__)
// AVX2 steps, used when the processor has AVX2. They handle the bulk of a text; the scalar loops
// do what they leave and all of the judging of padding.

bool haveAVX2() noexcept {
    static const bool have = __builtin_cpu_supports("avx2");
    return have;
}

// Encodes 24 bytes per step while 28 can be read; returns the bytes taken.
__attribute__((target("avx2"))) std::size_t encodeAVX2(const std::uint8_t *in, std::size_t size,
                                                       char *&o) noexcept {
    // Each 32-bit word gets the three bytes of one group as [b1, b0, b2, b1].
    const __m256i spread = _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10, 1, 0,
                                            2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
    const __m256i shiftLUT =
        _mm256_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                         '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0,
                         'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                         '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
    std::size_t done = 0;
    while (size - done >= 28) {
        const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + done));
        const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + done + 12));
        __m256i v = _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
        v = _mm256_shuffle_epi8(v, spread);
        // The four six-bit values of each group, one per byte.
        const __m256i t0 = _mm256_and_si256(v, _mm256_set1_epi32(0x0fc0fc00));
        const __m256i t1 = _mm256_mulhi_epu16(t0, _mm256_set1_epi32(0x04000040));
        const __m256i t2 = _mm256_and_si256(v, _mm256_set1_epi32(0x003f03f0));
        const __m256i t3 = _mm256_mullo_epi16(t2, _mm256_set1_epi32(0x01000010));
        const __m256i indices = _mm256_or_si256(t1, t3);
        // Values to characters: an offset per range of the alphabet.
        __m256i range = _mm256_subs_epu8(indices, _mm256_set1_epi8(51));
        const __m256i upper = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), indices);
        range = _mm256_or_si256(range, _mm256_and_si256(upper, _mm256_set1_epi8(13)));
        const __m256i text = _mm256_add_epi8(_mm256_shuffle_epi8(shiftLUT, range), indices);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(o), text);
        o += 32;
        done += 24;
    }
    return done;
}

// Decodes 32 characters (eight groups) per step while at least eleven groups remain, so that the
// 32-byte store stays within the output; returns the groups taken, or nothing when a character
// outside the alphabet was met.
__attribute__((target("avx2"))) std::optional<std::size_t>
decodeAVX2(const unsigned char *in, std::size_t groups, std::uint8_t *&o) noexcept {
    // A character is in the alphabet exactly when the classes of its low and high nibble share
    // no bit.
    const __m256i lutLow =
        _mm256_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A,
                         0x1B, 0x1B, 0x1B, 0x1A, 0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11,
                         0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A);
    const __m256i lutHigh =
        _mm256_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10,
                         0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08,
                         0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10);
    // The offset from character to value by high nibble ('/' shares its nibble with '+').
    const __m256i lutRoll =
        _mm256_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0, 0, 16, 19, 4,
                         -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
    const __m256i nibble = _mm256_set1_epi8(0x0f);
    const __m256i slash = _mm256_set1_epi8('/');
    const __m256i pack = _mm256_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1, 2,
                                          1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
    const __m256i lanes = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7);
    std::size_t done = 0;
    while (groups - done >= 11) {
        const __m256i text = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + 4 * done));
        const __m256i highNibbles = _mm256_and_si256(_mm256_srli_epi32(text, 4), nibble);
        const __m256i lowNibbles = _mm256_and_si256(text, nibble);
        const __m256i high = _mm256_shuffle_epi8(lutHigh, highNibbles);
        const __m256i low = _mm256_shuffle_epi8(lutLow, lowNibbles);
        if (!_mm256_testz_si256(low, high)) {
            return std::nullopt;
        }
        const __m256i isSlash = _mm256_cmpeq_epi8(text, slash);
        const __m256i roll = _mm256_shuffle_epi8(lutRoll, _mm256_add_epi8(isSlash, highNibbles));
        const __m256i values = _mm256_add_epi8(text, roll);
        // Four six-bit values to one 24-bit value per word, then the words' three bytes in order.
        const __m256i pairs = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));
        __m256i words = _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00011000));
        words = _mm256_shuffle_epi8(words, pack);
        words = _mm256_permutevar8x32_epi32(words, lanes);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(o), words);
        o += 24;
        done += 8;
    }
    return done;
}
#endif

} // namespace

void base64EncodeInto(std::span<const std::uint8_t> bytes, char *o) noexcept {
    const std::uint8_t *in = bytes.data();
    std::size_t left = bytes.size();
#if defined(__x86_64__)
    if (left >= 28 && haveAVX2()) {
        const std::size_t taken = encodeAVX2(in, left, o);
        in += taken;
        left -= taken;
    }
#endif
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
#if defined(__x86_64__)
    if (groups >= 11 && haveAVX2()) {
        const std::optional<std::size_t> taken = decodeAVX2(in, groups, o);
        if (!taken) {
            return false;
        }
        in += 4 * *taken;
        groups -= *taken;
    }
#endif
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
        // The bits below the last byte are zero in every encoder's output; a text that sets
        // them is another spelling of the same bytes and is refused, so that one box has one text.
        if ((padding == 2 ? (b & 0x0F) : (c & 0x03)) != 0) {
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
