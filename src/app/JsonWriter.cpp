#include "JsonWriter.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>

namespace tarnwick::json {

namespace {

// What to do with each byte below 0x80: 0 = copy as is, otherwise the escape letter, or 'u' for
// a \u00xx escape.
constexpr std::array<char, 128> makeAsciiEscapes() {
    std::array<char, 128> table{};
    for (int c = 0; c < 0x20; ++c) {
        table[static_cast<std::size_t>(c)] = 'u';
    }
    table['\b'] = 'b';
    table['\t'] = 't';
    table['\n'] = 'n';
    table['\f'] = 'f';
    table['\r'] = 'r';
    table['"'] = '"';
    table['\\'] = '\\';
    return table;
}
constexpr std::array<char, 128> asciiEscapes = makeAsciiEscapes();

constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

bool isContinuation(unsigned char c, unsigned char low = 0x80, unsigned char high = 0xBF) {
    return c >= low && c <= high;
}

// Length of the well-formed UTF-8 sequence at text[i] (lead byte >= 0x80), or, negated, the
// number of bytes that form its maximal invalid subpart (at least 1). A sequence cut off by the
// end of the text counts as invalid over the bytes that remain.
int utf8Sequence(std::string_view text, std::size_t i) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    int length;
    unsigned char low = 0x80, high = 0xBF; // range allowed for the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead == 0xE0) {
        length = 3;
        low = 0xA0;
    } else if (lead == 0xED) {
        length = 3;
        high = 0x9F;
    } else if (lead >= 0xE1 && lead <= 0xEF) {
        length = 3;
    } else if (lead == 0xF0) {
        length = 4;
        low = 0x90;
    } else if (lead == 0xF4) {
        length = 4;
        high = 0x8F;
    } else if (lead >= 0xF1 && lead <= 0xF3) {
        length = 4;
    } else {
        return -1;
    }
    for (int k = 1; k < length; ++k) {
        const std::size_t at = i + static_cast<std::size_t>(k);
        if (at >= text.size()) {
            return -k;
        }
        const bool ok = k == 1 ? isContinuation(byte(at), low, high) : isContinuation(byte(at));
        if (!ok) {
            return -k;
        }
    }
    return length;
}

// Length of the prefix of p[0..n) that is written as it is: printable ASCII other than '"' and
// '\\'. Eight bytes at a time while no byte in the word needs attention.
std::size_t plainRun(const char *p, std::size_t n) {
    constexpr std::uint64_t ones = 0x0101010101010101ULL;
    constexpr std::uint64_t highBits = 0x8080808080808080ULL;
    // Non-zero exactly when some byte of v is zero.
    const auto hasZeroByte = [](std::uint64_t v) { return (v - ones) & ~v & highBits; };
    std::size_t i = 0;
    while (i + 8 <= n) {
        std::uint64_t word;
        std::memcpy(&word, p + i, sizeof word);
        const std::uint64_t belowSpace = (word - ones * 0x20) & ~word & highBits;
        const std::uint64_t special = belowSpace | hasZeroByte(word ^ (ones * '"')) |
                                      hasZeroByte(word ^ (ones * '\\')) | (word & highBits);
        if (special != 0) {
            break;
        }
        i += 8;
    }
    while (i < n) {
        const auto c = static_cast<unsigned char>(p[i]);
        if (c >= 0x80 || asciiEscapes[c] != 0) {
            break;
        }
        ++i;
    }
    return i;
}

} // namespace

void appendString(std::string &out, std::string_view text) {
    // Room for the usual case (few escapes) up front; the string grows as usual beyond that.
    out.reserve(out.size() + text.size() + text.size() / 8 + 2);
    out.push_back('"');
    const std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n) {
        const std::size_t run = plainRun(text.data() + i, n - i);
        out.append(text.data() + i, run);
        i += run;
        if (i == n) {
            break;
        }
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            const char escape = asciiEscapes[c];
            if (escape == 'u') {
                static constexpr char hex[] = "0123456789abcdef";
                const char sequence[6] = {'\\', 'u', '0', '0', hex[c >> 4], hex[c & 0xF]};
                out.append(sequence, sizeof sequence);
            } else {
                const char sequence[2] = {'\\', escape};
                out.append(sequence, sizeof sequence);
            }
            ++i;
            continue;
        }
        const int length = utf8Sequence(text, i);
        if (length > 0) {
            out.append(text.data() + i, static_cast<std::size_t>(length));
            i += static_cast<std::size_t>(length);
        } else {
            out.append(replacementCharacter);
            i += static_cast<std::size_t>(-length);
        }
    }
    out.push_back('"');
}

void appendInteger(std::string &out, std::int64_t value) {
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

void ObjectWriter::key(std::string_view name) {
    if (!first_) {
        out_.push_back(',');
    }
    first_ = false;
    // Member names are the records' own plain-ASCII constants: nothing in them needs escaping.
    out_.push_back('"');
    out_.append(name);
    out_.append("\":", 2);
}

void ObjectWriter::string(std::string_view name, std::string_view value) {
    key(name);
    appendString(out_, value);
}

void ObjectWriter::integer(std::string_view name, std::int64_t value) {
    key(name);
    appendInteger(out_, value);
}

void ObjectWriter::boolean(std::string_view name, bool value) {
    key(name);
    out_.append(value ? "true" : "false");
}

} // namespace tarnwick::json
