// The value records exchanged with the local backend and shown by the screens, with their JSON
// coding. Every record is a plain value (copied, never shared) with one fixed set of JSON keys.
// The backend's own records use capitalised keys ("GroupID", "Path"); the retention settings and
// the server response use snake-case keys ("retention_days", "status"). Both forms are part of
// the wire contract.
//
// Decoding is strict about required keys and types: a missing required key, a value of the wrong
// type (a string for an integer, 7.5 for an integer, a number for a bool, an integer beyond the
// signed 64-bit range), malformed or truncated JSON, invalid UTF-8 or excessive nesting all throw
// DecodingError. Optional keys that are absent or JSON null give an empty optional. Unknown keys
// are ignored. Encoding writes compact JSON in a fixed key order, leaves '/' unescaped and writes
// non-ASCII UTF-8 as is; absent optionals write no key.
#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarnwick {

// A JSON text could not be decoded into the requested record.
class DecodingError : public std::runtime_error {
public:
    using runtime_error::runtime_error;
};

// The app's own error cases.
enum class TarnwickError {
    decodeError,        // a reply's payload did not decode into the record its command expects
    unknownRequestType, // a reply arrived for a command type the app does not handle
};

// Carries a TarnwickError; what() gives the case name ("decodeError" / "unknownRequestType").
class TarnwickException : public std::exception {
public:
    explicit TarnwickException(TarnwickError error) noexcept : error_(error) {}
    TarnwickError error() const noexcept { return error_; }
    const char *what() const noexcept override;

private:
    TarnwickError error_;
};

// The name of an error case: "decodeError" or "unknownRequestType".
const char *toString(TarnwickError error) noexcept;

// A point in time in whole seconds, UTC.
using Date = std::chrono::sys_seconds;

// Internet date-time with a time zone and no fractional seconds: "YYYY-MM-DDTHH:MM:SS" followed
// by "Z", "+HH:MM", "-HH:MM" or "+HHMM"/"-HHMM". Offsets are converted to UTC. Anything else
// (fractional seconds, a missing zone, out-of-range fields, trailing text) gives nullopt.
std::optional<Date> parseISO8601(std::string_view text);
// UTC with "Z", e.g. "2024-05-01T10:00:00Z".
std::string formatISO8601(Date date);

// The clear-text envelope of every request and reply. All three keys are required.
struct TypeIDAndData {
    std::string type; // "Type": the command name
    std::string id;   // "ID": the request identifier, echoed by the reply
    std::string data; // "Data": the payload, itself JSON text or plain text, as one string

    static TypeIDAndData fromJSON(std::string_view json);
    std::string toJSON() const; // keys "Type", "ID", "Data"
    friend bool operator==(const TypeIDAndData &, const TypeIDAndData &) = default;
};

// A JSON object whose members `keys` are all required strings, as the values in the order of
// `keys` (unknown keys ignored, a key given twice takes its last value). Throws DecodingError,
// naming `record`, for anything else.
std::vector<std::string> decodeStringMembers(std::string_view json, const char *record,
                                             std::span<const std::string_view> keys);
// Readable bytes a text must have after its end for the JSON reader to parse it where it lies.
inline constexpr std::size_t jsonPadding = 64;
// decodeStringMembers that hands the values to `use` as views into the parsed document (valid
// during the call only) instead of copying them out. With `padded`, the text is followed by at
// least jsonPadding readable bytes (whatever they hold) and is parsed where it lies.
void visitStringMembers(std::string_view json, const char *record,
                        std::span<const std::string_view> keys,
                        const std::function<void(std::span<const std::string_view> values)> &use,
                        bool padded = false);
// A compact JSON object of string members in the given order.
std::string
encodeStringMembers(std::span<const std::pair<std::string_view, std::string_view>> members);

// A status reply from the backend. Both keys may be absent or null.
struct ServerResponse {
    std::optional<std::string> status; // "status": "success" on success
    std::optional<std::string> error;  // "error": the backend's error text

    // True exactly when status is present and equals "success" (case-sensitive).
    bool isSuccess() const;

    static ServerResponse fromJSON(std::string_view json);
    std::string toJSON() const; // keys "status", "error"
};

// One watched folder and its sync state. Members are in declaration order, so aggregate
// initialisation DirItem{error, enabled, groupID, name, path, status} is the memberwise
// constructor.
struct DirItem {
    std::optional<std::string> error; // "Error", optional
    bool enabled = false;             // "Enabled", required
    std::int64_t groupID = 0;         // "GroupID", required
    std::string name;                 // "Name", required
    std::string path;                 // "Path", required; the record's identity
    std::string status;               // "Status", required; the backend's progress line

    const std::string &id() const { return path; }

    // 1.0 for the two idle texts, 0.15 per numbered step "1 of" .. "6 of", otherwise 0.0.
    double progress() const;
    // "internaldrive" when idle, otherwise "arrow.clockwise".
    const char *icon() const;

    static DirItem fromJSON(std::string_view json);
    // Keys in the order "Path", "Error", "Enabled", "GroupID", "Name", "Status".
    std::string toJSON() const;
};

// Asks the processor to fetch the record's texts, which lie on the heap apart from the record:
// a loop over many records calls this a few records ahead of the one it reads.
inline void prefetchTexts(const DirItem &item) {
    __builtin_prefetch(item.path.data());
    __builtin_prefetch(item.name.data());
    __builtin_prefetch(item.status.data());
}

// How long a group keeps deleted files, and what the last clean-up did. Every key is optional,
// so "{}" decodes to all fields empty. Members are in table order; aggregate initialisation is
// the memberwise constructor.
struct RetentionSettings {
    std::optional<std::int64_t> retentionDays;          // "retention_days"
    std::optional<Date> lastRetentionTime;              // "last_retention_time"
    std::optional<std::int64_t> lastRetentionFileCount; // "last_retention_file_count"
    std::optional<std::int64_t> lastRetentionByteCount; // "last_retention_byte_count"
    std::optional<Date> lastOrphanScanTime;             // "last_orphan_scan_time"
    std::optional<std::int64_t> lastOrphanScanCount;    // "last_orphan_scan_count"

    // True exactly when retentionDays is present and greater than 0.
    bool isEnabled() const;
    // Every field absent.
    static RetentionSettings defaultSettings();

    // A date string that is not an internet date-time gives an empty date, not an error; a
    // non-string there is a type error.
    static RetentionSettings fromJSON(std::string_view json);
    std::string toJSON() const; // keys in member order, absent fields left out
};

// One sync group: a set of folders that sync to one place. Aggregate initialisation
// GroupItem{groupID, name, walkPaths, retentionSettings} is the memberwise constructor.
struct GroupItem {
    std::int64_t groupID = 0;                           // "GroupID", required; the identity
    std::string name;                                   // "Name", required
    std::vector<std::string> walkPaths;                 // "WalkPaths", required
    std::optional<RetentionSettings> retentionSettings; // "RetentionSettings", optional

    std::int64_t id() const { return groupID; }

    static GroupItem fromJSON(std::string_view json);
    // Keys in the order "GroupID", "Name", "WalkPaths", "RetentionSettings".
    std::string toJSON() const;
};

// JSON arrays of records (the status report and the group list). Anything that is not an array
// of well-formed records throws DecodingError.
// decodeDirItems into `items`, reusing its elements and their strings' memory. On an error
// (DecodingError) the content of `items` is unspecified.
void decodeDirItemsInto(std::string_view json, std::vector<DirItem> &items);
std::vector<DirItem> decodeDirItems(std::string_view json);

// A DirItem whose texts are views into someone else's memory: a record as a report holds it.
struct DirItemView {
    std::optional<std::string_view> error;
    bool enabled = false;
    std::int64_t groupID = 0;
    std::string_view name;
    std::string_view path;
    std::string_view status;

    static DirItemView of(const DirItem &item);
    DirItem toItem() const;
    // Makes `item` this record, writing only the members that differ (a string keeps its
    // memory); whether any did.
    bool assignTo(DirItem &item) const;
};

// Reads status reports as decodeDirItems does, with the same checks and errors, but hands out
// views into its own buffers instead of copies: a report goes to the merge without one text
// copied on the way. The views hold until this reader's next read() or its end.
class DirItemReader {
public:
    DirItemReader();
    ~DirItemReader();
    DirItemReader(const DirItemReader &) = delete;
    DirItemReader &operator=(const DirItemReader &) = delete;

    // With `padded`, the text is followed by at least jsonPadding readable bytes (whatever they
    // hold) and is parsed where it lies. Throws DecodingError; the reader then holds no views.
    std::span<const DirItemView> read(std::string_view json, bool padded = false);

private:
    struct Parser;
    std::unique_ptr<Parser> parser_;
    std::vector<DirItemView> views_;
};

// Where one element of a JSON array lies in its text: [begin, end).
struct ElementSpan {
    std::size_t begin = 0;
    std::size_t end = 0;
    bool operator==(const ElementSpan &) const = default;
};
// The elements of the JSON array that `json` holds, in order, as the structure of the text
// places them (strings, escapes and nesting followed; nothing else is checked, so the text is
// one a decoder has accepted). Nothing when the text does not hold an array that closes.
std::optional<std::vector<ElementSpan>> arrayElementSpans(std::string_view json);
std::vector<GroupItem> decodeGroupItems(std::string_view json);
std::string encodeDirItems(const std::vector<DirItem> &items);
// Appends the record's JSON text (what toJSON gives).
void appendDirItemJSON(std::string &out, const DirItem &item);
std::string encodeGroupItems(const std::vector<GroupItem> &items);

} // namespace tarnwick
