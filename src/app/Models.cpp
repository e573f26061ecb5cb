#include "Models.h"

#include "JsonWriter.h"

#include <simdjson.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <utility>

namespace tarnwick {

// ---------------------------------------------------------------------------------------------
// Errors

const char *toString(TarnwickError error) noexcept {
    switch (error) {
    case TarnwickError::decodeError:
        return "decodeError";
    case TarnwickError::unknownRequestType:
        return "unknownRequestType";
    }
    return "unknown TarnwickError";
}

const char *TarnwickException::what() const noexcept {
    return toString(error_);
}

// ---------------------------------------------------------------------------------------------
// Decoding
//
// A reply is parsed whole by simdjson's DOM parser, which validates the complete text (UTF-8,
// grammar, nesting depth, number ranges) before any record is read, so a malformed text anywhere
// in a reply, even under a key we do not read, is a DecodingError. The records are then read
// from the parsed tree with strict types.

namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;

[[noreturn]] void fail(std::string message) {
    throw DecodingError(std::move(message));
}

[[noreturn]] void failKey(const char *record, std::string_view key, const char *problem) {
    std::string message = record;
    message += ": \"";
    message += key;
    message += "\" ";
    message += problem;
    fail(std::move(message));
}

// Documents up to this size reuse one parser and one input buffer per thread (they grow to the
// largest document seen); a larger one gets its own that are freed afterwards, so one huge reply
// does not pin its memory for the life of the thread.
constexpr std::size_t cachedParserLimit = 16 * 1024 * 1024;

// The parser reads up to SIMDJSON_PADDING bytes past the end of its input, which a string_view
// does not promise, so the text is copied into a padded buffer first.
class PaddedBuffer {
public:
    std::string_view fill(std::string_view json) {
        const std::size_t needed = json.size() + simdjson::SIMDJSON_PADDING;
        if (needed > capacity_) {
            data_ = std::make_unique<char[]>(needed);
            capacity_ = needed;
        }
        std::memcpy(data_.get(), json.data(), json.size());
        std::memset(data_.get() + json.size(), 0, simdjson::SIMDJSON_PADDING);
        return {data_.get(), json.size()};
    }

private:
    std::unique_ptr<char[]> data_;
    std::size_t capacity_ = 0;
};

static_assert(jsonPadding >= simdjson::SIMDJSON_PADDING);

template <class Read> auto withDocument(std::string_view json, Read &&read) {
    const auto parseWith = [&](simdjson::dom::parser &parser, PaddedBuffer &buffer) {
        const std::string_view padded = buffer.fill(json);
        element root;
        const simdjson::error_code error =
            parser.parse(padded.data(), padded.size(), false).get(root);
        if (error != simdjson::SUCCESS) {
            fail(std::string("invalid JSON: ") + simdjson::error_message(error));
        }
        return read(root);
    };
    if (json.size() <= cachedParserLimit) {
        thread_local simdjson::dom::parser parser;
        thread_local PaddedBuffer buffer;
        return parseWith(parser, buffer);
    }
    simdjson::dom::parser parser;
    PaddedBuffer buffer;
    return parseWith(parser, buffer);
}

// withDocument on a text followed by at least jsonPadding readable bytes: parsed where it lies.
template <class Read> auto withPaddedDocument(std::string_view json, Read &&read) {
    const auto parseWith = [&](simdjson::dom::parser &parser) {
        element root;
        const simdjson::error_code error = parser.parse(json.data(), json.size(), false).get(root);
        if (error != simdjson::SUCCESS) {
            fail(std::string("invalid JSON: ") + simdjson::error_message(error));
        }
        return read(root);
    };
    if (json.size() <= cachedParserLimit) {
        thread_local simdjson::dom::parser parser;
        return parseWith(parser);
    }
    simdjson::dom::parser parser;
    return parseWith(parser);
}

std::string readString(element value, const char *record, std::string_view key) {
    std::string_view text;
    if (value.get_string().get(text) != simdjson::SUCCESS) {
        failKey(record, key, "is not a string");
    }
    return std::string(text);
}

bool readBool(element value, const char *record, std::string_view key) {
    bool flag = false;
    if (value.get_bool().get(flag) != simdjson::SUCCESS) {
        failKey(record, key, "is not a boolean");
    }
    return flag;
}

// An integer that fits a signed 64-bit value. A number written with a fraction or exponent is
// accepted when its value is a whole number in range (7.0, 1e2), as the platform decoder does;
// 7.5, 2^63 and anything that is not a number are rejected.
std::int64_t readInt64(element value, const char *record, std::string_view key) {
    switch (value.type()) {
    case element_type::INT64:
        return value.get_int64().value_unsafe();
    case element_type::UINT64:
        failKey(record, key, "is out of the 64-bit integer range");
    case element_type::DOUBLE: {
        const double number = value.get_double().value_unsafe();
        // 2^63 is exactly representable; every double below it and at or above -2^63 converts.
        constexpr double limit = 9223372036854775808.0;
        if (!std::isfinite(number) || std::trunc(number) != number || number < -limit ||
            number >= limit) {
            failKey(record, key, "is not a 64-bit integer");
        }
        return static_cast<std::int64_t>(number);
    }
    default:
        failKey(record, key, "is not an integer");
    }
}

std::optional<std::string> readOptionalString(element value, const char *record,
                                              std::string_view key) {
    if (value.is_null()) {
        return std::nullopt;
    }
    return readString(value, record, key);
}

std::optional<std::int64_t> readOptionalInt64(element value, const char *record,
                                              std::string_view key) {
    if (value.is_null()) {
        return std::nullopt;
    }
    return readInt64(value, record, key);
}

// A date string the date parser does not accept is an empty date, not an error.
std::optional<Date> readOptionalDate(element value, const char *record, std::string_view key) {
    if (value.is_null()) {
        return std::nullopt;
    }
    return parseISO8601(readString(value, record, key));
}

simdjson::dom::object readObject(element value, const char *record) {
    simdjson::dom::object object;
    if (value.get_object().get(object) != simdjson::SUCCESS) {
        fail(std::string(record) + ": not a JSON object");
    }
    return object;
}

simdjson::dom::array readArray(element value, const char *what) {
    simdjson::dom::array array;
    if (value.get_array().get(array) != simdjson::SUCCESS) {
        fail(std::string(what) + ": not a JSON array");
    }
    return array;
}

void requireKey(bool seen, const char *record, std::string_view key) {
    if (!seen) {
        failKey(record, key, "is missing");
    }
}

// Every record reader visits each member once; a key given twice takes its last value.

TypeIDAndData typeIDAndDataFrom(element value) {
    static constexpr const char *record = "TypeIDAndData";
    TypeIDAndData envelope;
    bool hasType = false, hasID = false, hasData = false;
    for (const auto field : readObject(value, record)) {
        if (field.key == "Type") {
            envelope.type = readString(field.value, record, field.key);
            hasType = true;
        } else if (field.key == "ID") {
            envelope.id = readString(field.value, record, field.key);
            hasID = true;
        } else if (field.key == "Data") {
            envelope.data = readString(field.value, record, field.key);
            hasData = true;
        }
    }
    requireKey(hasType, record, "Type");
    requireKey(hasID, record, "ID");
    requireKey(hasData, record, "Data");
    return envelope;
}

ServerResponse serverResponseFrom(element value) {
    static constexpr const char *record = "ServerResponse";
    ServerResponse response;
    for (const auto field : readObject(value, record)) {
        if (field.key == "status") {
            response.status = readOptionalString(field.value, record, field.key);
        } else if (field.key == "error") {
            response.error = readOptionalString(field.value, record, field.key);
        }
    }
    return response;
}

std::string_view readStringView(element value, const char *record, std::string_view key) {
    std::string_view text;
    if (value.get_string().get(text) != simdjson::SUCCESS) {
        failKey(record, key, "is not a string");
    }
    return text;
}

// Reads a DirItem's members as views into the parsed document.
DirItemView readDirItemView(element value) {
    static constexpr const char *record = "DirItem";
    DirItemView item;
    bool hasPath = false, hasEnabled = false, hasGroupID = false, hasName = false,
         hasStatus = false;
    for (const auto field : readObject(value, record)) {
        const std::string_view key = field.key;
        if (key == "Path") {
            item.path = readStringView(field.value, record, key);
            hasPath = true;
        } else if (key == "Error") {
            if (field.value.is_null()) {
                item.error.reset();
            } else {
                item.error = readStringView(field.value, record, key);
            }
        } else if (key == "Enabled") {
            item.enabled = readBool(field.value, record, key);
            hasEnabled = true;
        } else if (key == "GroupID") {
            item.groupID = readInt64(field.value, record, key);
            hasGroupID = true;
        } else if (key == "Name") {
            item.name = readStringView(field.value, record, key);
            hasName = true;
        } else if (key == "Status") {
            item.status = readStringView(field.value, record, key);
            hasStatus = true;
        }
    }
    requireKey(hasPath, record, "Path");
    requireKey(hasEnabled, record, "Enabled");
    requireKey(hasGroupID, record, "GroupID");
    requireKey(hasName, record, "Name");
    requireKey(hasStatus, record, "Status");
    return item;
}

// Reads a DirItem into `item`, whose strings keep their memory: a report read over the last
// one allocates only where a text grew.
void readDirItem(element value, DirItem &item) {
    readDirItemView(value).assignTo(item);
}

DirItem dirItemFrom(element value) {
    DirItem item;
    readDirItem(value, item);
    return item;
}

RetentionSettings retentionSettingsFrom(element value) {
    static constexpr const char *record = "RetentionSettings";
    RetentionSettings settings;
    for (const auto field : readObject(value, record)) {
        const std::string_view key = field.key;
        if (key == "retention_days") {
            settings.retentionDays = readOptionalInt64(field.value, record, key);
        } else if (key == "last_retention_time") {
            settings.lastRetentionTime = readOptionalDate(field.value, record, key);
        } else if (key == "last_retention_file_count") {
            settings.lastRetentionFileCount = readOptionalInt64(field.value, record, key);
        } else if (key == "last_retention_byte_count") {
            settings.lastRetentionByteCount = readOptionalInt64(field.value, record, key);
        } else if (key == "last_orphan_scan_time") {
            settings.lastOrphanScanTime = readOptionalDate(field.value, record, key);
        } else if (key == "last_orphan_scan_count") {
            settings.lastOrphanScanCount = readOptionalInt64(field.value, record, key);
        }
    }
    return settings;
}

GroupItem groupItemFrom(element value) {
    static constexpr const char *record = "GroupItem";
    GroupItem group;
    bool hasGroupID = false, hasName = false, hasWalkPaths = false;
    for (const auto field : readObject(value, record)) {
        const std::string_view key = field.key;
        if (key == "GroupID") {
            group.groupID = readInt64(field.value, record, key);
            hasGroupID = true;
        } else if (key == "Name") {
            group.name = readString(field.value, record, key);
            hasName = true;
        } else if (key == "WalkPaths") {
            const auto paths = readArray(field.value, "GroupItem \"WalkPaths\"");
            group.walkPaths.clear();
            group.walkPaths.reserve(paths.size());
            for (const element path : paths) {
                group.walkPaths.push_back(readString(path, record, key));
            }
            hasWalkPaths = true;
        } else if (key == "RetentionSettings") {
            if (field.value.is_null()) {
                group.retentionSettings.reset();
            } else {
                group.retentionSettings = retentionSettingsFrom(field.value);
            }
        }
    }
    requireKey(hasGroupID, record, "GroupID");
    requireKey(hasName, record, "Name");
    requireKey(hasWalkPaths, record, "WalkPaths");
    return group;
}

template <class Record, class ReadOne>
std::vector<Record> arrayFrom(element value, const char *what, ReadOne readOne) {
    const auto array = readArray(value, what);
    std::vector<Record> records;
    records.reserve(array.size());
    for (const element item : array) {
        records.push_back(readOne(item));
    }
    return records;
}

} // namespace

TypeIDAndData TypeIDAndData::fromJSON(std::string_view json) {
    return withDocument(json, typeIDAndDataFrom);
}

namespace {

void readStringMembers(element value, const char *record, std::span<const std::string_view> keys,
                       std::span<std::string_view> values) {
    std::vector<bool> seen(keys.size(), false);
    for (const auto field : readObject(value, record)) {
        for (std::size_t i = 0; i < keys.size(); ++i) {
            if (field.key == keys[i]) {
                if (field.value.get_string().get(values[i]) != simdjson::SUCCESS) {
                    failKey(record, field.key, "is not a string");
                }
                seen[i] = true;
            }
        }
    }
    for (std::size_t i = 0; i < keys.size(); ++i) {
        requireKey(seen[i], record, keys[i]);
    }
}

} // namespace

std::vector<std::string> decodeStringMembers(std::string_view json, const char *record,
                                             std::span<const std::string_view> keys) {
    std::vector<std::string> values;
    visitStringMembers(json, record, keys, [&](std::span<const std::string_view> views) {
        values.assign(views.begin(), views.end());
    });
    return values;
}

void visitStringMembers(std::string_view json, const char *record,
                        std::span<const std::string_view> keys,
                        const std::function<void(std::span<const std::string_view> values)> &use,
                        bool padded) {
    const auto read = [&](element value) {
        std::vector<std::string_view> values(keys.size());
        readStringMembers(value, record, keys, values);
        use(values);
        return 0;
    };
    if (padded) {
        withPaddedDocument(json, read);
    } else {
        withDocument(json, read);
    }
}

ServerResponse ServerResponse::fromJSON(std::string_view json) {
    return withDocument(json, serverResponseFrom);
}

DirItem DirItem::fromJSON(std::string_view json) {
    return withDocument(json, dirItemFrom);
}

RetentionSettings RetentionSettings::fromJSON(std::string_view json) {
    return withDocument(json, retentionSettingsFrom);
}

GroupItem GroupItem::fromJSON(std::string_view json) {
    return withDocument(json, groupItemFrom);
}

std::vector<DirItem> decodeDirItems(std::string_view json) {
    return withDocument(
        json, [](element root) { return arrayFrom<DirItem>(root, "DirItem list", dirItemFrom); });
}

void decodeDirItemsInto(std::string_view json, std::vector<DirItem> &items) {
    withDocument(json, [&](element root) {
        const auto array = readArray(root, "DirItem list");
        std::size_t count = 0;
        for (const element item : array) {
            if (count == items.size()) {
                items.emplace_back();
            }
            readDirItem(item, items[count]);
            ++count;
        }
        items.resize(count);
        return 0;
    });
}

DirItemView DirItemView::of(const DirItem &item) {
    DirItemView view;
    if (item.error) {
        view.error = *item.error;
    }
    view.enabled = item.enabled;
    view.groupID = item.groupID;
    view.name = item.name;
    view.path = item.path;
    view.status = item.status;
    return view;
}

DirItem DirItemView::toItem() const {
    DirItem item;
    assignTo(item);
    return item;
}

bool DirItemView::assignTo(DirItem &item) const {
    bool changed = false;
    const auto text = [&changed](std::string &member, std::string_view value) {
        if (member != value) {
            member.assign(value);
            changed = true;
        }
    };
    text(item.status, status);
    text(item.path, path);
    text(item.name, name);
    if (item.groupID != groupID) {
        item.groupID = groupID;
        changed = true;
    }
    if (item.enabled != enabled) {
        item.enabled = enabled;
        changed = true;
    }
    if (!error) {
        if (item.error) {
            item.error.reset();
            changed = true;
        }
    } else if (!item.error) {
        item.error.emplace(*error);
        changed = true;
    } else {
        text(*item.error, *error);
    }
    return changed;
}

struct DirItemReader::Parser {
    simdjson::dom::parser parser;
    PaddedBuffer buffer;
};

DirItemReader::DirItemReader() : parser_(std::make_unique<Parser>()) {}

DirItemReader::~DirItemReader() = default;

std::span<const DirItemView> DirItemReader::read(std::string_view json, bool padded) {
    views_.clear();
    // Grown past the shared parsers' limit for a huge report, the reader starts afresh for a
    // smaller one: the huge report's memory is not kept for the life of the reader.
    if (json.size() <= cachedParserLimit && parser_->parser.capacity() > cachedParserLimit) {
        parser_ = std::make_unique<Parser>();
    }
    const std::string_view text = padded ? json : parser_->buffer.fill(json);
    try {
        element root;
        const simdjson::error_code error =
            parser_->parser.parse(text.data(), text.size(), false).get(root);
        if (error != simdjson::SUCCESS) {
            fail(std::string("invalid JSON: ") + simdjson::error_message(error));
        }
        for (const element value : readArray(root, "DirItem list")) {
            views_.push_back(readDirItemView(value));
        }
    } catch (...) {
        views_.clear();
        throw;
    }
    return views_;
}

namespace {

bool isJsonSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// The position after the string that starts after the quote at `from`, or npos when it does
// not close. A quote ends the string unless an odd run of backslashes stands before it.
std::size_t afterString(std::string_view json, std::size_t from) {
    std::size_t at = from;
    for (;;) {
        const void *found = std::memchr(json.data() + at, '"', json.size() - at);
        if (found == nullptr) {
            return std::string_view::npos;
        }
        const auto quote = static_cast<std::size_t>(static_cast<const char *>(found) - json.data());
        std::size_t backslashes = 0;
        while (quote - backslashes > from && json[quote - backslashes - 1] == '\\') {
            ++backslashes;
        }
        if (backslashes % 2 == 0) {
            return quote + 1;
        }
        at = quote + 1;
    }
}

} // namespace

std::optional<std::vector<ElementSpan>> arrayElementSpans(std::string_view json) {
    std::size_t i = 0;
    while (i < json.size() && isJsonSpace(json[i])) {
        ++i;
    }
    if (i == json.size() || json[i] != '[') {
        return std::nullopt;
    }
    ++i;
    std::vector<ElementSpan> spans;
    std::size_t depth = 1; // inside the array
    std::size_t begin = std::string_view::npos;
    std::size_t last = 0; // the position after the last byte of the element so far
    while (i < json.size()) {
        const char c = json[i];
        if (isJsonSpace(c)) {
            ++i;
            continue;
        }
        if (depth == 1 && begin == std::string_view::npos && c != ',' && c != ']') {
            begin = i;
        }
        if (c == '"') {
            i = afterString(json, i + 1);
            if (i == std::string_view::npos) {
                return std::nullopt;
            }
            last = i;
            continue;
        }
        if (c == '{' || c == '[') {
            ++depth;
        } else if (c == '}' || c == ']') {
            --depth;
            if (depth == 0) {
                if (begin != std::string_view::npos) {
                    spans.push_back({begin, last});
                }
                return spans;
            }
        } else if (c == ',' && depth == 1) {
            if (begin == std::string_view::npos) {
                return std::nullopt; // an empty element
            }
            spans.push_back({begin, last});
            begin = std::string_view::npos;
        }
        ++i;
        last = i;
    }
    return std::nullopt;
}

std::vector<GroupItem> decodeGroupItems(std::string_view json) {
    return withDocument(json, [](element root) {
        return arrayFrom<GroupItem>(root, "GroupItem list", groupItemFrom);
    });
}

// ---------------------------------------------------------------------------------------------
// Derived values

bool ServerResponse::isSuccess() const {
    return status.has_value() && *status == "success";
}

namespace {

bool isIdleStatus(const std::string &status) {
    return status == "Up to date" || status == "Server status check ...";
}

} // namespace

double DirItem::progress() const {
    if (isIdleStatus(status)) {
        return 1.0;
    }
    // The backend works in six numbered steps ("3 of 6 - ..."); each step fills 0.15 of the bar,
    // so only the idle texts reach 1.0.
    static constexpr std::pair<std::string_view, double> steps[] = {
        {"1 of", 0.15}, {"2 of", 0.3}, {"3 of", 0.45}, {"4 of", 0.6}, {"5 of", 0.75}, {"6 of", 0.9},
    };
    for (const auto &[prefix, value] : steps) {
        if (std::string_view(status).starts_with(prefix)) {
            return value;
        }
    }
    return 0.0;
}

const char *DirItem::icon() const {
    return isIdleStatus(status) ? "internaldrive" : "arrow.clockwise";
}

bool RetentionSettings::isEnabled() const {
    return retentionDays.has_value() && *retentionDays > 0;
}

RetentionSettings RetentionSettings::defaultSettings() {
    return RetentionSettings{};
}

// ---------------------------------------------------------------------------------------------
// Encoding: compact JSON, keys in the records' coding order, absent optionals left out.

namespace {

void writeTypeIDAndData(std::string &out, const TypeIDAndData &envelope) {
    json::ObjectWriter object(out);
    object.string("Type", envelope.type);
    object.string("ID", envelope.id);
    object.string("Data", envelope.data);
    object.finish();
}

void writeServerResponse(std::string &out, const ServerResponse &response) {
    json::ObjectWriter object(out);
    if (response.status) {
        object.string("status", *response.status);
    }
    if (response.error) {
        object.string("error", *response.error);
    }
    object.finish();
}

void writeDirItem(std::string &out, const DirItem &item) {
    json::ObjectWriter object(out);
    object.string("Path", item.path);
    if (item.error) {
        object.string("Error", *item.error);
    }
    object.boolean("Enabled", item.enabled);
    object.integer("GroupID", item.groupID);
    object.string("Name", item.name);
    object.string("Status", item.status);
    object.finish();
}

void writeRetentionSettings(std::string &out, const RetentionSettings &settings) {
    json::ObjectWriter object(out);
    if (settings.retentionDays) {
        object.integer("retention_days", *settings.retentionDays);
    }
    if (settings.lastRetentionTime) {
        object.string("last_retention_time", formatISO8601(*settings.lastRetentionTime));
    }
    if (settings.lastRetentionFileCount) {
        object.integer("last_retention_file_count", *settings.lastRetentionFileCount);
    }
    if (settings.lastRetentionByteCount) {
        object.integer("last_retention_byte_count", *settings.lastRetentionByteCount);
    }
    if (settings.lastOrphanScanTime) {
        object.string("last_orphan_scan_time", formatISO8601(*settings.lastOrphanScanTime));
    }
    if (settings.lastOrphanScanCount) {
        object.integer("last_orphan_scan_count", *settings.lastOrphanScanCount);
    }
    object.finish();
}

void writeGroupItem(std::string &out, const GroupItem &group) {
    json::ObjectWriter object(out);
    object.integer("GroupID", group.groupID);
    object.string("Name", group.name);
    object.key("WalkPaths");
    out.push_back('[');
    for (std::size_t i = 0; i < group.walkPaths.size(); ++i) {
        if (i != 0) {
            out.push_back(',');
        }
        json::appendString(out, group.walkPaths[i]);
    }
    out.push_back(']');
    if (group.retentionSettings) {
        object.key("RetentionSettings");
        writeRetentionSettings(out, *group.retentionSettings);
    }
    object.finish();
}

template <class Record, class Write>
std::string writeArray(const std::vector<Record> &records, std::size_t guessPerRecord,
                       Write write) {
    std::string out;
    out.reserve(2 + records.size() * guessPerRecord);
    out.push_back('[');
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (i != 0) {
            out.push_back(',');
        }
        write(out, records[i]);
    }
    out.push_back(']');
    return out;
}

} // namespace

std::string
encodeStringMembers(std::span<const std::pair<std::string_view, std::string_view>> members) {
    std::size_t size = 2;
    for (const auto &[key, value] : members) {
        size += key.size() + value.size() + 6;
    }
    std::string out;
    out.reserve(size);
    json::ObjectWriter object(out);
    for (const auto &[key, value] : members) {
        object.string(key, value);
    }
    object.finish();
    return out;
}

std::string TypeIDAndData::toJSON() const {
    std::string out;
    out.reserve(32 + type.size() + id.size() + data.size());
    writeTypeIDAndData(out, *this);
    return out;
}

std::string ServerResponse::toJSON() const {
    std::string out;
    writeServerResponse(out, *this);
    return out;
}

std::string DirItem::toJSON() const {
    std::string out;
    out.reserve(80 + path.size() + name.size() + status.size());
    writeDirItem(out, *this);
    return out;
}

std::string RetentionSettings::toJSON() const {
    std::string out;
    writeRetentionSettings(out, *this);
    return out;
}

std::string GroupItem::toJSON() const {
    std::string out;
    writeGroupItem(out, *this);
    return out;
}

void appendDirItemJSON(std::string &out, const DirItem &item) {
    writeDirItem(out, item);
}

std::string encodeDirItems(const std::vector<DirItem> &items) {
    return writeArray(items, 160, writeDirItem);
}

std::string encodeGroupItems(const std::vector<GroupItem> &items) {
    return writeArray(items, 128, writeGroupItem);
}

} // namespace tarnwick
