// Writes fuzzed strings, integers and records with the JSON writer and reads them back with
// simdjson, the decoder replies are read with:
// - a string that is valid UTF-8 decodes to exactly itself; any other string decodes to valid
//   UTF-8 that keeps every ASCII byte of the input in order and holds at least one U+FFFD;
// - an integer decodes to itself;
// - an object of fuzzed members decodes to the same members in the same order;
// - a DirItem / GroupItem built from fuzzed fields encodes, decodes with the records' own
//   decoder and encodes again to the same text.
#include "FuzzInput.h"

#include <JsonWriter.h>
#include <Models.h>

#include <simdjson.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

using namespace tarnwick;
using tarnwick::fuzz::FuzzInput;

namespace {

[[noreturn]] void fail(const char *what, std::string_view first, std::string_view second) {
    std::fprintf(stderr, "%s\n  first:  %.*s\n  second: %.*s\n", what, int(first.size()),
                 first.data(), int(second.size()), second.data());
    std::abort();
}

simdjson::dom::element parse(simdjson::dom::parser &parser, const std::string &json) {
    simdjson::dom::element element;
    if (const auto error = parser.parse(json).get(element); error != simdjson::SUCCESS) {
        fail("the writer's output is not JSON", json, simdjson::error_message(error));
    }
    return element;
}

std::string asciiOf(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (static_cast<unsigned char>(c) < 0x80) {
            out.push_back(c);
        }
    }
    return out;
}

void checkString(simdjson::dom::parser &parser, const std::string &text) {
    std::string json;
    json::appendString(json, text);
    std::string_view decoded;
    if (parse(parser, json).get(decoded) != simdjson::SUCCESS) {
        fail("a written string is not a JSON string", text, json);
    }
    if (simdjson::validate_utf8(text.data(), text.size())) {
        if (decoded != text) {
            fail("a valid string does not decode to itself", text, decoded);
        }
        return;
    }
    if (!simdjson::validate_utf8(decoded.data(), decoded.size())) {
        fail("an invalid string decodes to invalid UTF-8", text, decoded);
    }
    if (asciiOf(decoded) != asciiOf(text)) {
        fail("an invalid string lost or gained ASCII", text, decoded);
    }
    if (decoded.find("\xEF\xBF\xBD") == std::string_view::npos) {
        fail("an invalid string decodes without a replacement character", text, decoded);
    }
}

void checkInteger(simdjson::dom::parser &parser, std::int64_t value) {
    std::string json;
    json::appendInteger(json, value);
    std::int64_t decoded = 0;
    if (parse(parser, json).get(decoded) != simdjson::SUCCESS || decoded != value) {
        fail("an integer does not decode to itself", std::to_string(value), json);
    }
}

void checkObject(simdjson::dom::parser &parser, FuzzInput &input) {
    struct Member {
        std::string name;
        int kind; // 0 string, 1 integer, 2 boolean
        std::string text;
        std::int64_t number = 0;
        bool flag = false;
    };
    std::vector<Member> members;
    const int count = input.byte() % 6;
    for (int i = 0; i < count; ++i) {
        Member member;
        // Member names are the records' own: plain printable ASCII, unique here.
        member.name = "k" + std::to_string(i);
        member.kind = input.byte() % 3;
        if (member.kind == 0) {
            member.text = input.string();
        } else if (member.kind == 1) {
            member.number = input.i64();
        } else {
            member.flag = input.boolean();
        }
        members.push_back(std::move(member));
    }
    std::string json;
    json::ObjectWriter writer(json);
    for (const Member &member : members) {
        if (member.kind == 0) {
            writer.string(member.name, member.text);
        } else if (member.kind == 1) {
            writer.integer(member.name, member.number);
        } else {
            writer.boolean(member.name, member.flag);
        }
    }
    writer.finish();

    simdjson::dom::object object;
    if (parse(parser, json).get(object) != simdjson::SUCCESS) {
        fail("a written object is not a JSON object", "", json);
    }
    std::size_t index = 0;
    for (const auto field : object) {
        if (index >= members.size() || field.key != members[index].name) {
            fail("an object's members changed", members.empty() ? "" : members[0].name, json);
        }
        const Member &member = members[index++];
        bool same = false;
        if (member.kind == 0) {
            std::string_view value;
            if (field.value.get(value) == simdjson::SUCCESS) {
                // Invalid UTF-8 is checked in detail by checkString.
                same = simdjson::validate_utf8(member.text.data(), member.text.size())
                           ? value == member.text
                           : simdjson::validate_utf8(value.data(), value.size());
            }
        } else if (member.kind == 1) {
            std::int64_t value = 0;
            same = field.value.get(value) == simdjson::SUCCESS && value == member.number;
        } else {
            bool value = false;
            same = field.value.get(value) == simdjson::SUCCESS && value == member.flag;
        }
        if (!same) {
            fail("an object member does not decode to what was written", member.name, json);
        }
    }
    if (index != members.size()) {
        fail("an object lost members", std::to_string(members.size()), json);
    }
}

void checkRecords(FuzzInput &input) {
    DirItem item;
    if (input.boolean()) {
        item.error = input.string();
    }
    item.enabled = input.boolean();
    item.groupID = input.i64();
    item.name = input.string();
    item.path = input.string();
    item.status = input.string();
    const std::string encoded = item.toJSON();
    try {
        const std::string again = DirItem::fromJSON(encoded).toJSON();
        if (again != encoded) {
            fail("a written DirItem does not read back", encoded, again);
        }
    } catch (const DecodingError &error) {
        fail("a written DirItem does not decode", encoded, error.what());
    }

    GroupItem group;
    group.groupID = input.i64();
    group.name = input.string();
    const int paths = input.byte() % 4;
    for (int i = 0; i < paths; ++i) {
        group.walkPaths.push_back(input.string());
    }
    if (input.boolean()) {
        RetentionSettings settings;
        if (input.boolean()) {
            settings.retentionDays = input.i64();
        }
        if (input.boolean()) {
            settings.lastRetentionFileCount = input.i64();
        }
        if (input.boolean()) {
            settings.lastRetentionByteCount = input.i64();
        }
        if (input.boolean()) {
            settings.lastOrphanScanCount = input.i64();
        }
        if (input.boolean()) {
            // Dates travel as internet date-times: keep them within four-digit years.
            const std::int64_t span = 253402300799; // 9999-12-31T23:59:59Z
            settings.lastRetentionTime =
                Date{std::chrono::seconds{static_cast<std::int64_t>(input.u64() % span)}};
        }
        group.retentionSettings = settings;
    }
    const std::string groupJSON = group.toJSON();
    try {
        const std::string again = GroupItem::fromJSON(groupJSON).toJSON();
        if (again != groupJSON) {
            fail("a written GroupItem does not read back", groupJSON, again);
        }
    } catch (const DecodingError &error) {
        fail("a written GroupItem does not decode", groupJSON, error.what());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static simdjson::dom::parser parser;
    FuzzInput whole(data, size);
    checkString(parser, whole.rest());

    FuzzInput input(data, size);
    checkInteger(parser, input.i64());
    checkObject(parser, input);
    checkRecords(input);
    return 0;
}
