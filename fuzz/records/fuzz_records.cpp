// An opened reply's plaintext is the backend's text: the reply dispatch tries it as a status
// report, a group list, an envelope and a status reply, in that order, and the retention editor
// and the envelope readers decode parts of it on their own. Each decoder may only refuse with
// DecodingError; any other exception, a crash or a sanitizer report is a finding. A record that
// decodes must survive encoding and decoding again unchanged.
#include <Models.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

using namespace tarnwick;

namespace {

[[noreturn]] void fail(const char *what, const std::string &first, const std::string &second) {
    std::fprintf(stderr, "%s\n  first:  %s\n  second: %s\n", what, first.c_str(), second.c_str());
    std::abort();
}

// decode(encode(value)) encodes to the same text as value.
template <class Decode, class Encode>
void roundTrip(const char *what, const std::string &encoded, Decode decode, Encode encode) {
    std::string again;
    try {
        again = encode(decode(encoded));
    } catch (const DecodingError &error) {
        fail(what, encoded, error.what());
    }
    if (again != encoded) {
        fail(what, encoded, again);
    }
}

template <class Body> void decoding(Body body) {
    try {
        body();
    } catch (const DecodingError &) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);

    decoding([&] {
        const std::string encoded = encodeDirItems(decodeDirItems(text));
        roundTrip("DirItem list", encoded, decodeDirItems, encodeDirItems);
    });
    decoding([&] {
        const std::string encoded = encodeGroupItems(decodeGroupItems(text));
        roundTrip("GroupItem list", encoded, decodeGroupItems, encodeGroupItems);
    });
    decoding([&] {
        const TypeIDAndData envelope = TypeIDAndData::fromJSON(text);
        const std::string encoded = envelope.toJSON();
        if (TypeIDAndData::fromJSON(encoded) != envelope) {
            fail("TypeIDAndData", text, encoded);
        }
    });
    decoding([&] {
        const ServerResponse response = ServerResponse::fromJSON(text);
        roundTrip(
            "ServerResponse", response.toJSON(),
            [](const std::string &json) { return ServerResponse::fromJSON(json); },
            [](const ServerResponse &value) { return value.toJSON(); });
        if (response.isSuccess() != (response.status && *response.status == "success")) {
            fail("ServerResponse::isSuccess", text, response.toJSON());
        }
    });
    decoding([&] {
        const DirItem item = DirItem::fromJSON(text);
        roundTrip(
            "DirItem", item.toJSON(),
            [](const std::string &json) { return DirItem::fromJSON(json); },
            [](const DirItem &value) { return value.toJSON(); });
        const double progress = item.progress();
        if (!(progress >= 0.0 && progress <= 1.0)) {
            fail("DirItem::progress out of range", text, std::to_string(progress));
        }
        (void)item.icon();
    });
    decoding([&] {
        const GroupItem group = GroupItem::fromJSON(text);
        roundTrip(
            "GroupItem", group.toJSON(),
            [](const std::string &json) { return GroupItem::fromJSON(json); },
            [](const GroupItem &value) { return value.toJSON(); });
    });
    decoding([&] {
        const RetentionSettings settings = RetentionSettings::fromJSON(text);
        roundTrip(
            "RetentionSettings", settings.toJSON(),
            [](const std::string &json) { return RetentionSettings::fromJSON(json); },
            [](const RetentionSettings &value) { return value.toJSON(); });
        (void)settings.isEnabled();
    });
    decoding([&] {
        static constexpr std::array<std::string_view, 2> keys{"email", "code"};
        const std::vector<std::string> values = decodeStringMembers(text, "fuzz", keys);
        if (values.size() != keys.size()) {
            fail("decodeStringMembers: wrong number of values", text,
                 std::to_string(values.size()));
        }
        std::array<std::pair<std::string_view, std::string_view>, 2> members{
            {{keys[0], values[0]}, {keys[1], values[1]}}};
        const std::string encoded = encodeStringMembers(members);
        if (decodeStringMembers(encoded, "fuzz", keys) != values) {
            fail("decodeStringMembers round trip", text, encoded);
        }
    });
    return 0;
}
