#include "JsonWriter.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

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

// Bytes of a word that need attention (below 0x20, '"', '\\', 0x80 and above): their high bits
// set. The lowest flagged byte is exact (a borrow can only flag bytes above a true one).
inline std::uint64_t specialBytes(std::uint64_t word) {
    constexpr std::uint64_t ones = 0x0101010101010101ULL;
    constexpr std::uint64_t highBits = 0x8080808080808080ULL;
    const auto hasZeroByte = [](std::uint64_t v) { return (v - ones) & ~v & highBits; };
    const std::uint64_t belowSpace = (word - ones * 0x20) & ~word & highBits;
    return belowSpace | hasZeroByte(word ^ (ones * '"')) | hasZeroByte(word ^ (ones * '\\')) |
           (word & highBits);
}

// Writes the escape of the ASCII byte c (its entry in asciiEscapes, not 0) at o.
inline void writeEscape(char *&o, unsigned char c, char escape) {
    if (escape == 'u') {
        static constexpr char hex[] = "0123456789abcdef";
        const char sequence[6] = {'\\', 'u', '0', '0', hex[c >> 4], hex[c & 0xF]};
        std::memcpy(o, sequence, sizeof sequence);
        o += sizeof sequence;
    } else {
        o[0] = '\\';
        o[1] = escape;
        o += 2;
    }
}

#if defined(__x86_64__)
bool haveVectorEscape() noexcept {
    static const bool have = __builtin_cpu_supports("avx2");
    return have;
}

// For 8 bytes whose quotes and backslashes are the set bits of an 8-bit mask: the shuffle that
// doubles each of those bytes, and where the backslash goes in front of each.
struct QuoteEscapeTables {
    std::array<std::array<std::uint8_t, 16>, 256> shuffle{};
    std::array<std::array<std::uint8_t, 16>, 256> backslash{};
};
constexpr QuoteEscapeTables makeQuoteEscapeTables() {
    QuoteEscapeTables t{};
    for (std::size_t mask = 0; mask < 256; ++mask) {
        std::size_t at = 0;
        for (std::uint8_t b = 0; b < 8; ++b) {
            if ((mask >> b) & 1U) {
                t.backslash[mask][at] = 0xFF;
                t.shuffle[mask][at++] = b;
            }
            t.shuffle[mask][at++] = b;
        }
        for (; at < 16; ++at) {
            t.shuffle[mask][at] = 0x80; // zero
        }
    }
    return t;
}
alignas(16) constexpr QuoteEscapeTables quoteEscapeTables = makeQuoteEscapeTables();

// Escapes the 32 bytes at `in` to `o` and returns how many bytes it took: 32, or up to 35 when
// a UTF-8 sequence runs past the block. Reads up to 64 bytes from `in`; writes up to 64 bytes
// past what it leaves at `o`, and at most 32 * 6 + 4 in all.
__attribute__((target("avx2"))) std::size_t escapeBlockAVX2(const char *in, char *&o) noexcept {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in));
    // Signed bytes: below 0x20 includes 0x80 and above.
    const __m256i special =
        _mm256_or_si256(_mm256_or_si256(_mm256_cmpeq_epi8(v, _mm256_set1_epi8('"')),
                                        _mm256_cmpeq_epi8(v, _mm256_set1_epi8('\\'))),
                        _mm256_cmpgt_epi8(_mm256_set1_epi8(0x20), v));
    auto mask = static_cast<std::uint32_t>(_mm256_movemask_epi8(special));
    if (mask == 0) {
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(o), v);
        o += 32;
        return 32;
    }
    if ((mask & static_cast<std::uint32_t>(
                    _mm256_movemask_epi8(_mm256_cmpgt_epi8(_mm256_set1_epi8(0x20), v)))) == 0) {
        // Only quotes and backslashes, as in JSON text carried inside a string: eight bytes at a
        // time, each of those doubled and its first copy turned into a backslash.
        const __m128i slash = _mm_set1_epi8('\\');
        for (int g = 0; g < 4; ++g) {
            const std::uint32_t m = (mask >> (8 * g)) & 0xFFU;
            const __m128i bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(in + 8 * g));
            const __m128i doubled =
                _mm_shuffle_epi8(bytes, _mm_load_si128(reinterpret_cast<const __m128i *>(
                                            quoteEscapeTables.shuffle[m].data())));
            const __m128i escaped =
                _mm_blendv_epi8(doubled, slash,
                                _mm_load_si128(reinterpret_cast<const __m128i *>(
                                    quoteEscapeTables.backslash[m].data())));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(o), escaped);
            o += 8 + __builtin_popcount(m);
        }
        return 32;
    }
    // Each run of plain bytes goes out as a whole vector; what follows the run is overwritten.
    const std::string_view readable(in, 64);
    std::size_t done = 0;
    while (mask != 0) {
        const auto k = static_cast<std::size_t>(__builtin_ctz(mask));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(o),
                            _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + done)));
        o += k - done;
        const auto c = static_cast<unsigned char>(in[k]);
        if (c >= 0x80) {
            // A well-formed sequence is copied, anything else becomes U+FFFD; either may end
            // past the block.
            const int length = utf8Sequence(readable, k);
            if (length > 0) {
                std::memcpy(o, in + k, 4);
                o += length;
                done = k + static_cast<std::size_t>(length);
            } else {
                std::memcpy(o, replacementCharacter.data(), replacementCharacter.size());
                o += replacementCharacter.size();
                done = k + static_cast<std::size_t>(-length);
            }
            if (done >= 32) {
                return done;
            }
            mask &= ~((1U << done) - 1U);
            continue;
        }
        writeEscape(o, c, asciiEscapes[c]);
        done = k + 1;
        mask &= mask - 1;
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(o),
                        _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + done)));
    o += 32 - done;
    return 32;
}
#else
constexpr bool haveVectorEscape() noexcept {
    return false;
}
#endif

} // namespace

void appendString(std::string &out, std::string_view text) {
    out.push_back('"');
    appendEscaped(out, text);
    out.push_back('"');
}

void appendEscaped(std::string &out, std::string_view text) {
    // Written through a pointer into room made ahead: at least `room` bytes (a block's escapes
    // and the vector written past them) are free at the top of each step, and the string grows
    // when they are not.
    const std::size_t n = text.size();
    // Short texts (names, paths, status lines) take the word-wise steps only: the blocks' room
    // would cost them more than it saves.
    const bool vector = n >= 512 && haveVectorEscape();
    if (!vector) {
        // Most of them need no escape at all: looked at word by word first, and then appended as
        // they are, without the room made for escapes (filled, then cut back).
        std::size_t k = 0;
        std::uint64_t special = 0;
        for (; k + 8 <= n && special == 0; k += 8) {
            std::uint64_t word;
            std::memcpy(&word, text.data() + k, sizeof word);
            special = specialBytes(word);
        }
        for (; k < n && special == 0; ++k) {
            const auto c = static_cast<unsigned char>(text[k]);
            special = c >= 0x80 || asciiEscapes[c] != 0 ? 1 : 0;
        }
        if (special == 0) {
            out.append(text);
            return;
        }
    }
    const std::size_t room = vector ? 32 * 6 + 4 + 64 : 16;
    std::size_t used = out.size();
    out.resize(used + n + n / 8 + room);
    char *o = out.data() + used;
    char *limit = out.data() + out.size() - room;
    const auto grow = [&] {
        used = static_cast<std::size_t>(o - out.data());
        out.resize(out.size() + out.size() / 2 + room);
        o = out.data() + used;
        limit = out.data() + out.size() - room;
    };
    const char *p = text.data();
    std::size_t i = 0;
    while (i < n) {
        if (o >= limit) {
            grow();
        }
#if defined(__x86_64__)
        if (vector && i + 64 <= n) {
            i += escapeBlockAVX2(p + i, o);
            continue;
        }
#endif
        if (i + 8 <= n) {
            std::uint64_t word;
            std::memcpy(&word, p + i, sizeof word);
            const std::uint64_t special = specialBytes(word);
            // The plain bytes up to the first special one go out in one store (the whole word is
            // written; what follows the plain prefix is overwritten next).
            std::memcpy(o, &word, sizeof word);
            if (special == 0) {
                o += 8;
                i += 8;
                continue;
            }
            const std::size_t plain = static_cast<std::size_t>(__builtin_ctzll(special)) / 8;
            o += plain;
            i += plain;
        }
        const auto c = static_cast<unsigned char>(p[i]);
        if (c < 0x80) {
            const char escape = asciiEscapes[c];
            if (escape == 0) {
                *o++ = static_cast<char>(c);
            } else {
                writeEscape(o, c, escape);
            }
            ++i;
            continue;
        }
        const int length = utf8Sequence(text, i);
        if (length > 0) {
            std::memcpy(o, p + i, static_cast<std::size_t>(length));
            o += length;
            i += static_cast<std::size_t>(length);
        } else {
            std::memcpy(o, replacementCharacter.data(), replacementCharacter.size());
            o += replacementCharacter.size();
            i += static_cast<std::size_t>(-length);
        }
    }
    out.resize(static_cast<std::size_t>(o - out.data()));
}

namespace {

constexpr std::size_t kMarkSpacing = 16 * 1024;

} // namespace

void EscapedRegion::escapeMarked(std::string &piece, std::size_t pieceStart, std::string_view text,
                                 std::size_t rawBase, std::size_t escapedBase,
                                 std::vector<Mark> &marks) {
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t end = std::min(text.size(), at + kMarkSpacing);
        while (end < text.size() && static_cast<unsigned char>(text[end]) >= 0x80) {
            ++end;
        }
        appendEscaped(piece, text.substr(at, end - at));
        at = end;
        if (at < text.size()) {
            marks.push_back({rawBase + at, escapedBase + (piece.size() - pieceStart)});
        }
    }
}

void EscapedRegion::write(std::string &out, std::string_view text) {
    begin_ = out.size();
    marks_.assign(1, Mark{0, 0});
    out.reserve(begin_ + text.size() + text.size() / 8 + 16);
    escapeMarked(out, begin_, text, 0, 0, marks_);
    size_ = out.size() - begin_;
}

void EscapedRegion::update(std::string &out, std::string_view previous, std::string_view text) {
    if (marks_.empty()) {
        marks_.push_back({0, 0});
    }
    const std::size_t pieces = marks_.size();
    const auto rawEnd = [&](std::size_t j) {
        return j + 1 < pieces ? marks_[j + 1].raw : previous.size();
    };
    const auto escapedAt = [&](std::size_t j) { return j < pieces ? marks_[j].escaped : size_; };
    const auto rawAt = [&](std::size_t j) { return j < pieces ? marks_[j].raw : previous.size(); };
    // The first piece that differs (a piece that runs past the new text's end differs).
    std::size_t first = 0;
    while (first < pieces) {
        const std::size_t from = marks_[first].raw;
        const std::size_t to = rawEnd(first);
        if (to > text.size() ||
            previous.compare(from, to - from, text.substr(from, to - from)) != 0) {
            break;
        }
        ++first;
    }
    if (first == pieces && previous.size() == text.size()) {
        return; // the same text
    }
    // Escaping starts afresh at a mark only before an ASCII byte of the new text (or at its
    // end); the pieces before `first` are the same in both, so stepping back reaches one.
    while (first > 0 && rawAt(first) < text.size() &&
           static_cast<unsigned char>(text[rawAt(first)]) >= 0x80) {
        --first;
    }
    const std::size_t from = rawAt(first);
    // The last pieces that are the same, their ends aligned, and not reaching into `from`.
    const std::ptrdiff_t shift =
        static_cast<std::ptrdiff_t>(text.size()) - static_cast<std::ptrdiff_t>(previous.size());
    std::size_t last = pieces; // the first piece of the unchanged end
    while (last > first + 1) {
        const std::size_t j = last - 1;
        const std::size_t start = marks_[j].raw;
        const std::size_t length = rawEnd(j) - start;
        const std::ptrdiff_t moved = static_cast<std::ptrdiff_t>(start) + shift;
        if (moved < static_cast<std::ptrdiff_t>(from) ||
            previous.compare(start, length, text.substr(static_cast<std::size_t>(moved), length)) !=
                0) {
            break;
        }
        last = j;
    }
    const std::size_t oldTo = rawAt(last);
    const std::size_t newTo = static_cast<std::size_t>(static_cast<std::ptrdiff_t>(oldTo) + shift);
    const std::size_t escapedFrom = escapedAt(first);
    const std::size_t escapedTo = escapedAt(last);

    std::vector<Mark> marks(
        marks_.begin(), marks_.begin() + static_cast<std::ptrdiff_t>(std::min(first + 1, pieces)));
    if (marks.empty()) {
        marks.push_back({0, 0});
    }
    const std::string_view changed = text.substr(from, newTo - from);
    const std::size_t after = out.size() - (begin_ + escapedTo);
    std::size_t written;
    if (after < escapedTo - escapedFrom) {
        // Less follows the changed part than it holds (a list changing everywhere, with only
        // the envelope's end after it): what follows is set aside and the changed part escaped
        // straight into place, not into a piece copied in afterwards.
        std::string &rest = scratch_;
        rest.assign(out, begin_ + escapedTo, after);
        out.resize(begin_ + escapedFrom);
        escapeMarked(out, begin_ + escapedFrom, changed, from, escapedFrom, marks);
        written = out.size() - (begin_ + escapedFrom);
        out += rest;
    } else {
        std::string &middle = scratch_;
        middle.clear();
        escapeMarked(middle, 0, changed, from, escapedFrom, marks);
        written = middle.size();
        out.replace(begin_ + escapedFrom, escapedTo - escapedFrom, middle);
    }
    const std::ptrdiff_t grown =
        static_cast<std::ptrdiff_t>(written) - static_cast<std::ptrdiff_t>(escapedTo - escapedFrom);
    for (std::size_t j = last; j < pieces; ++j) {
        marks.push_back(
            {static_cast<std::size_t>(static_cast<std::ptrdiff_t>(marks_[j].raw) + shift),
             static_cast<std::size_t>(static_cast<std::ptrdiff_t>(marks_[j].escaped) + grown)});
    }
    size_ = static_cast<std::size_t>(static_cast<std::ptrdiff_t>(size_) + grown);
    marks_ = std::move(marks);
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
