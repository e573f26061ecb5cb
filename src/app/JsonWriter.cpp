#include "JsonWriter.h"

#include <array>
#include <charconv>

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

} // namespace

void appendString(std::string &out, std::string_view text) {
    out.push_back('"');
    std::size_t runStart = 0;
    std::size_t i = 0;
    const std::size_t n = text.size();
    while (i < n) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            const char escape = asciiEscapes[c];
            if (escape == 0) {
                ++i;
                continue;
            }
            out.append(text.data() + runStart, i - runStart);
            out.push_back('\\');
            if (escape == 'u') {
                static constexpr char hex[] = "0123456789abcdef";
                out.append("u00");
                out.push_back(hex[c >> 4]);
                out.push_back(hex[c & 0xF]);
            } else {
                out.push_back(escape);
            }
            ++i;
            runStart = i;
            continue;
        }
        const int length = utf8Sequence(text, i);
        if (length > 0) {
            i += static_cast<std::size_t>(length);
            continue;
        }
        out.append(text.data() + runStart, i - runStart);
        out.append(replacementCharacter);
        i += static_cast<std::size_t>(-length);
        runStart = i;
    }
    out.append(text.data() + runStart, n - runStart);
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
    appendString(out_, name);
    out_.push_back(':');
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
