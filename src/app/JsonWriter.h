// A small compact JSON writer for the wire records. It writes exactly what the records need
// (objects, arrays, strings, 64-bit integers, booleans) in the caller's key order, with the same
// string escaping as nlohmann::json's dump(): '"' and '\\' escaped, control characters as
// \b \t \n \f \r or \u00xx, '/' and non-ASCII UTF-8 written as they are. Bytes that are not
// well-formed UTF-8 are each replaced by U+FFFD (one per maximal invalid subsequence), so the
// output is always valid JSON even when a path from the file system is not valid UTF-8.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwick::json {

// Appends `text` as a JSON string literal, quotes included.
void appendString(std::string &out, std::string_view text);
// Appends what appendString writes between the quotes.
void appendEscaped(std::string &out, std::string_view text);

// A long text written as a JSON string's content (escaped, without the quotes) inside a larger
// text, kept with marks so that a new version of it is escaped again only where it changed: a
// ping's folder list changes in a few places between pings, and escaping all of it again is
// much of a ping's cost. The marks sit before ASCII bytes, where escaping can start afresh (no
// UTF-8 sequence, valid or not, runs across one), about every 16 KiB.
class EscapedRegion {
public:
    // Appends `text`, escaped, to `out`, and remembers where it went.
    void write(std::string &out, std::string_view text);
    // `out` holds, where write() or the last update() put it, the escaped form of `previous`
    // (the text given then), followed by anything. Makes it the escaped form of `text`, escaping
    // again only the pieces between the first and the last that differ; what follows the
    // region moves with its end.
    void update(std::string &out, std::string_view previous, std::string_view text);
    // Where the region starts in the text, and its length there.
    std::size_t begin() const { return begin_; }
    std::size_t size() const { return size_; }

private:
    struct Mark {
        std::size_t raw;     // offset in the text
        std::size_t escaped; // offset in the escaped form
    };
    // Appends `text` (which starts at raw offset rawBase, escaped offset escapedBase), escaped,
    // to `piece`, whose escaped offset escapedBase is at pieceStart; adds the marks inside it to
    // `marks`.
    static void escapeMarked(std::string &piece, std::size_t pieceStart, std::string_view text,
                             std::size_t rawBase, std::size_t escapedBase,
                             std::vector<Mark> &marks);

    std::size_t begin_ = 0;
    std::size_t size_ = 0;
    // Ascending; the first is {0, 0}.
    std::vector<Mark> marks_;
    // Where changed pieces are escaped before they go in, or what follows them is set aside:
    // kept, so that it is not fresh memory (and its page faults) every time.
    std::string scratch_;
};
// Appends the decimal form of `value`.
void appendInteger(std::string &out, std::int64_t value);

// Writes one JSON object's members into `out`: the constructor writes '{', finish() writes '}'.
class ObjectWriter {
public:
    explicit ObjectWriter(std::string &out) : out_(out) { out_.push_back('{'); }
    ObjectWriter(const ObjectWriter &) = delete;
    ObjectWriter &operator=(const ObjectWriter &) = delete;

    // Member names must be plain printable ASCII without '"' or '\\' (they are written as they
    // are). key() starts a member; the caller then appends exactly one value to out().
    void key(std::string_view name);
    void string(std::string_view name, std::string_view value);
    void integer(std::string_view name, std::int64_t value);
    void boolean(std::string_view name, bool value);
    void finish() { out_.push_back('}'); }

    std::string &out() { return out_; }

private:
    std::string &out_;
    bool first_ = true;
};

} // namespace tarnwick::json
