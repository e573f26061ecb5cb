// Decoding a status report of 10,000 folders (about 1.5 MB) into std::vector<DirItem>, and
// encoding the folder list, with each candidate JSON library. The library's own
// decodeDirItems/encodeDirItems are measured beside the alternatives they were chosen over.
#include "ReportFixture.h"

#include <JsonWriter.h>

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QVariant>

#include <nlohmann/json.hpp>

#include <limits>

using namespace records_bench;

namespace {

// -- Decoders over the other libraries, with the same strictness as the library's own ----------

std::vector<DirItem> decodeQt(const std::string &json) {
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(
        QByteArray::fromRawData(json.data(), static_cast<qsizetype>(json.size())), &error);
    if (error.error != QJsonParseError::NoError || !doc.isArray()) {
        fail("invalid JSON");
    }
    const QJsonArray array = doc.array();
    std::vector<DirItem> items;
    items.reserve(static_cast<std::size_t>(array.size()));
    const auto string = [](const QJsonObject &object, QLatin1StringView key) {
        const QJsonValue value = object.value(key);
        if (!value.isString()) {
            fail("not a string");
        }
        return value.toString().toStdString();
    };
    for (const QJsonValue element : array) {
        if (!element.isObject()) {
            fail("not an object");
        }
        const QJsonObject object = element.toObject();
        DirItem item;
        item.path = string(object, QLatin1StringView("Path"));
        const QJsonValue errorValue = object.value(QLatin1StringView("Error"));
        if (errorValue.isString()) {
            item.error = errorValue.toString().toStdString();
        } else if (!errorValue.isUndefined() && !errorValue.isNull()) {
            fail("Error");
        }
        const QJsonValue enabled = object.value(QLatin1StringView("Enabled"));
        if (!enabled.isBool()) {
            fail("Enabled");
        }
        item.enabled = enabled.toBool();
        const QJsonValue groupID = object.value(QLatin1StringView("GroupID"));
        if (!groupID.isDouble()) {
            fail("GroupID");
        }
        // QJsonValue keeps integers that fit 64 bits exactly; others become doubles.
        const QVariant number = groupID.toVariant();
        item.groupID = number.typeId() == QMetaType::LongLong ? number.toLongLong()
                                                              : integerFrom(groupID.toDouble());
        item.name = string(object, QLatin1StringView("Name"));
        item.status = string(object, QLatin1StringView("Status"));
        items.push_back(std::move(item));
    }
    return items;
}

std::vector<DirItem> decodeNlohmann(const std::string &json) {
    const auto doc = nlohmann::json::parse(json, nullptr, false);
    if (doc.is_discarded() || !doc.is_array()) {
        fail("invalid JSON");
    }
    std::vector<DirItem> items;
    items.reserve(doc.size());
    const auto string = [](const nlohmann::json &object, const char *key) {
        const auto found = object.find(key);
        if (found == object.end() || !found->is_string()) {
            fail("not a string");
        }
        return found->get_ref<const std::string &>();
    };
    for (const auto &object : doc) {
        if (!object.is_object()) {
            fail("not an object");
        }
        DirItem item;
        item.path = string(object, "Path");
        if (const auto error = object.find("Error"); error != object.end() && !error->is_null()) {
            if (!error->is_string()) {
                fail("Error");
            }
            item.error = error->get_ref<const std::string &>();
        }
        const auto enabled = object.find("Enabled");
        if (enabled == object.end() || !enabled->is_boolean()) {
            fail("Enabled");
        }
        item.enabled = enabled->get<bool>();
        const auto groupID = object.find("GroupID");
        if (groupID == object.end()) {
            fail("GroupID");
        }
        if (groupID->is_number_integer() && !groupID->is_number_unsigned()) {
            item.groupID = groupID->get<std::int64_t>();
        } else if (groupID->is_number_unsigned()) {
            const auto value = groupID->get<std::uint64_t>();
            if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
                fail("GroupID");
            }
            item.groupID = static_cast<std::int64_t>(value);
        } else if (groupID->is_number_float()) {
            item.groupID = integerFrom(groupID->get<double>());
        } else {
            fail("GroupID");
        }
        item.name = string(object, "Name");
        item.status = string(object, "Status");
        items.push_back(std::move(item));
    }
    return items;
}

// -- Encoders -------------------------------------------------------------------------------

std::string encodeOrderedJson(const std::vector<DirItem> &items) {
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const auto &item : items) {
        nlohmann::ordered_json object;
        object["Path"] = item.path;
        if (item.error) {
            object["Error"] = *item.error;
        }
        object["Enabled"] = item.enabled;
        object["GroupID"] = item.groupID;
        object["Name"] = item.name;
        object["Status"] = item.status;
        array.push_back(std::move(object));
    }
    return array.dump();
}

// QJsonObject sorts its keys, so this cannot give the wire order; it is here for scale only.
std::string encodeQt(const std::vector<DirItem> &items) {
    QJsonArray array;
    for (const auto &item : items) {
        QJsonObject object;
        object.insert(QLatin1StringView("Path"), QString::fromStdString(item.path));
        if (item.error) {
            object.insert(QLatin1StringView("Error"), QString::fromStdString(*item.error));
        }
        object.insert(QLatin1StringView("Enabled"), item.enabled);
        object.insert(QLatin1StringView("GroupID"), static_cast<qint64>(item.groupID));
        object.insert(QLatin1StringView("Name"), QString::fromStdString(item.name));
        object.insert(QLatin1StringView("Status"), QString::fromStdString(item.status));
        array.append(object);
    }
    return QJsonDocument(array).toJson(QJsonDocument::Compact).toStdString();
}

// -- Decoding -------------------------------------------------------------------------------

// -- Decoding -------------------------------------------------------------------------------

void BM_Decode_Library_SimdjsonDOM(benchmark::State &state) {
    state.SetLabel(simdjson::get_active_implementation()->name());
    if (!checked(state, tarnwick::decodeDirItems(report()))) {
        return;
    }
    for (auto _ : state) {
        auto items = tarnwick::decodeDirItems(report());
        benchmark::DoNotOptimize(items.data());
    }
    setCounters(state);
}

// On Demand in this executable's baseline x86-64 build: simdjson's portable fallback kernel.
// (bench_records_avx2 measures it with the AVX2 kernel.)
void BM_Decode_SimdjsonOnDemand_Baseline(benchmark::State &state) {
    state.SetLabel(onDemandKernels());
    simdjson::ondemand::parser parser;
    if (!checked(state, decodeOnDemand(parser, report()))) {
        return;
    }
    for (auto _ : state) {
        auto items = decodeOnDemand(parser, report());
        benchmark::DoNotOptimize(items.data());
    }
    setCounters(state);
}

void BM_Decode_QJsonDocument(benchmark::State &state) {
    if (!checked(state, decodeQt(report()))) {
        return;
    }
    for (auto _ : state) {
        auto items = decodeQt(report());
        benchmark::DoNotOptimize(items.data());
    }
    setCounters(state);
}

void BM_Decode_Nlohmann(benchmark::State &state) {
    if (!checked(state, decodeNlohmann(report()))) {
        return;
    }
    for (auto _ : state) {
        auto items = decodeNlohmann(report());
        benchmark::DoNotOptimize(items.data());
    }
    setCounters(state);
}

// Parsing alone, without building records, for reference.
void BM_ParseOnly_SimdjsonDOM(benchmark::State &state) {
    simdjson::dom::parser parser;
    for (auto _ : state) {
        simdjson::dom::element root;
        if (parser.parse(report().data(), report().size(), true).get(root)) {
            state.SkipWithError("parse failed");
            return;
        }
        benchmark::DoNotOptimize(root);
    }
    setCounters(state);
}

void BM_ParseOnly_QJsonDocument(benchmark::State &state) {
    for (auto _ : state) {
        auto doc = QJsonDocument::fromJson(
            QByteArray::fromRawData(report().data(), static_cast<qsizetype>(report().size())));
        benchmark::DoNotOptimize(doc);
    }
    setCounters(state);
}

void BM_ParseOnly_Nlohmann(benchmark::State &state) {
    for (auto _ : state) {
        auto doc = nlohmann::json::parse(report());
        benchmark::DoNotOptimize(doc);
    }
    setCounters(state);
}

// -- Encoding -------------------------------------------------------------------------------

void BM_Encode_Library_Writer(benchmark::State &state) {
    for (auto _ : state) {
        auto text = tarnwick::encodeDirItems(folders());
        benchmark::DoNotOptimize(text.data());
    }
    setCounters(state);
}

// The "ping" request: the whole folder list as JSON text inside the envelope's "Data" string, so
// every quote of the list is escaped once more.
void BM_Encode_Library_PingEnvelope(benchmark::State &state) {
    for (auto _ : state) {
        auto text =
            tarnwick::TypeIDAndData{"ping", "", tarnwick::encodeDirItems(folders())}.toJSON();
        benchmark::DoNotOptimize(text.data());
    }
    setCounters(state);
}

// The envelope's share alone: the list's JSON text escaped into a string, as the ping's "Data".
void BM_Escape_PingPayload(benchmark::State &state) {
    const std::string list = tarnwick::encodeDirItems(folders());
    std::string out;
    for (auto _ : state) {
        out.clear();
        tarnwick::json::appendEscaped(out, list);
        benchmark::DoNotOptimize(out.data());
    }
    setCounters(state);
}

void BM_Encode_NlohmannOrderedJson(benchmark::State &state) {
    if (encodeOrderedJson(folders()) != tarnwick::encodeDirItems(folders())) {
        state.SkipWithError("ordered_json text differs from the library's");
        return;
    }
    for (auto _ : state) {
        auto text = encodeOrderedJson(folders());
        benchmark::DoNotOptimize(text.data());
    }
    setCounters(state);
}

void BM_Encode_QJsonDocument_SortedKeys(benchmark::State &state) {
    for (auto _ : state) {
        auto text = encodeQt(folders());
        benchmark::DoNotOptimize(text.data());
    }
    setCounters(state);
}

} // namespace

BENCHMARK(BM_Decode_Library_SimdjsonDOM)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Decode_SimdjsonOnDemand_Baseline)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Decode_QJsonDocument)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Decode_Nlohmann)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseOnly_SimdjsonDOM)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseOnly_QJsonDocument)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseOnly_Nlohmann)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Encode_Library_Writer)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Encode_Library_PingEnvelope)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Escape_PingPayload)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Encode_NlohmannOrderedJson)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Encode_QJsonDocument_SortedKeys)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
