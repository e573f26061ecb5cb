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

namespace tarnwick::json {

// Appends `text` as a JSON string literal, quotes included.
void appendString(std::string &out, std::string_view text);
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
