// Decoding, encoding and derived values of the wire records.
#include "Models.h"

#include <QtTest>

#include <chrono>
#include <limits>
#include <optional>
#include <string>
#include <vector>

using namespace tarnwick;
using namespace std::chrono;
using namespace std::string_literals;

namespace {

Date utc(int y, unsigned m, unsigned d, int hh, int mm, int ss) {
    return Date{sys_days{year{y} / month{m} / day{d}} + hours{hh} + minutes{mm} + seconds{ss}};
}

template <class F> QString decodingFailure(F &&f) {
    try {
        f();
    } catch (const DecodingError &error) {
        return QString::fromUtf8(error.what());
    }
    return {};
}

// The expression must throw DecodingError; any other exception fails the test through QtTest.
#define EXPECT_DECODING_ERROR(expr)                                                                \
    do {                                                                                           \
        bool thrown_ = false;                                                                      \
        try {                                                                                      \
            (void)(expr);                                                                          \
        } catch (const DecodingError &) {                                                          \
            thrown_ = true;                                                                        \
        }                                                                                          \
        QVERIFY2(thrown_, "no DecodingError from: " #expr);                                        \
    } while (false)

bool same(const DirItem &a, const DirItem &b) {
    return a.error == b.error && a.enabled == b.enabled && a.groupID == b.groupID &&
           a.name == b.name && a.path == b.path && a.status == b.status;
}

bool same(const RetentionSettings &a, const RetentionSettings &b) {
    return a.retentionDays == b.retentionDays && a.lastRetentionTime == b.lastRetentionTime &&
           a.lastRetentionFileCount == b.lastRetentionFileCount &&
           a.lastRetentionByteCount == b.lastRetentionByteCount &&
           a.lastOrphanScanTime == b.lastOrphanScanTime &&
           a.lastOrphanScanCount == b.lastOrphanScanCount;
}

bool same(const GroupItem &a, const GroupItem &b) {
    if (a.groupID != b.groupID || a.name != b.name || a.walkPaths != b.walkPaths ||
        a.retentionSettings.has_value() != b.retentionSettings.has_value()) {
        return false;
    }
    return !a.retentionSettings || same(*a.retentionSettings, *b.retentionSettings);
}

const std::string validDirItem =
    R"({"Path":"/home/ana/Documents","Error":"permission denied","Enabled":true,"GroupID":3,)"
    R"("Name":"Documents","Status":"2 of 6 - Hashing 12 files"})";

const std::string validGroupItem =
    R"({"GroupID":3,"Name":"Work","WalkPaths":["/home/ana/Documents","/home/ana/Photos"],)"
    R"("RetentionSettings":{"retention_days":30,"last_retention_time":"2024-05-01T10:00:00Z",)"
    R"("last_retention_file_count":12,"last_retention_byte_count":4096,)"
    R"("last_orphan_scan_time":"2024-05-02T11:30:15Z","last_orphan_scan_count":2}})";

// Replaces the value of `key` in a one-level JSON object text by `replacement` (the raw JSON
// value, or nothing to remove the member).
std::string withMember(const std::string &json, const std::string &key,
                       const std::optional<std::string> &replacement) {
    const std::string needle = "\"" + key + "\":";
    const auto at = json.find(needle);
    Q_ASSERT(at != std::string::npos);
    // The value ends at the next ',' or '}' at this level; the fixtures hold no such
    // characters inside the values that are replaced.
    auto end = at + needle.size();
    int depth = 0;
    bool inString = false;
    for (; end < json.size(); ++end) {
        const char c = json[end];
        if (inString) {
            if (c == '\\') {
                ++end;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            ++depth;
        } else if (c == ']' || c == '}') {
            if (depth == 0) {
                break;
            }
            --depth;
        } else if (c == ',' && depth == 0) {
            break;
        }
    }
    if (replacement) {
        return json.substr(0, at + needle.size()) + *replacement + json.substr(end);
    }
    // Remove the member and one adjoining comma.
    if (json[end] == ',') {
        return json.substr(0, at) + json.substr(end + 1);
    }
    auto start = at;
    if (start > 0 && json[start - 1] == ',') {
        --start;
    }
    return json.substr(0, start) + json.substr(end);
}

} // namespace

class ModelsTest : public QObject {
    Q_OBJECT

private slots:
    // -- TypeIDAndData ------------------------------------------------------------------------
    void envelopeDecodes() {
        const auto envelope =
            TypeIDAndData::fromJSON(R"({"Type":"ping","ID":"42","Data":"[]","Extra":{"x":[1]}})");
        QCOMPARE(envelope.type, "ping"s);
        QCOMPARE(envelope.id, "42"s);
        QCOMPARE(envelope.data, "[]"s);
    }

    void envelopeRejectsBadRequiredFields_data() {
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QByteArray>("value"); // empty = key removed
        for (const char *key : {"Type", "ID", "Data"}) {
            QTest::addRow("%s missing", key) << QByteArray(key) << QByteArray();
            QTest::addRow("%s null", key) << QByteArray(key) << QByteArray("null");
            QTest::addRow("%s number", key) << QByteArray(key) << QByteArray("1");
            QTest::addRow("%s bool", key) << QByteArray(key) << QByteArray("true");
            QTest::addRow("%s object", key) << QByteArray(key) << QByteArray(R"({"a":"b"})");
            QTest::addRow("%s array", key) << QByteArray(key) << QByteArray(R"(["x"])");
        }
    }
    void envelopeRejectsBadRequiredFields() {
        QFETCH(QByteArray, key);
        QFETCH(QByteArray, value);
        const std::string valid = R"({"Type":"auth","ID":"ana@example.com","Data":"123456"})";
        QVERIFY(TypeIDAndData::fromJSON(valid).type == "auth");
        const auto json =
            withMember(valid, key.toStdString(),
                       value.isEmpty() ? std::nullopt : std::optional(value.toStdString()));
        EXPECT_DECODING_ERROR(TypeIDAndData::fromJSON(json));
    }

    void envelopeRejectsNonObjects() {
        EXPECT_DECODING_ERROR(TypeIDAndData::fromJSON("[]"));
        EXPECT_DECODING_ERROR(TypeIDAndData::fromJSON(R"("ping")"));
        EXPECT_DECODING_ERROR(TypeIDAndData::fromJSON("null"));
        EXPECT_DECODING_ERROR(TypeIDAndData::fromJSON("{}"));
    }

    void envelopeEncodesInKeyOrder() {
        const TypeIDAndData envelope{"addWatchDir", "Work", "/home/ana/Fotos 2024"};
        QCOMPARE(envelope.toJSON(),
                 R"({"Type":"addWatchDir","ID":"Work","Data":"/home/ana/Fotos 2024"})"s);
    }

    void envelopeCarriesJSONTextAsString() {
        GroupItem group{
            7, "Fam\"ily", {"/home/ana/Bilder"}, RetentionSettings{14, {}, {}, {}, {}, {}}};
        const TypeIDAndData envelope{"updateGroup", "", group.toJSON()};
        // The payload is JSON text inside a JSON string: its quotes and backslashes are escaped.
        const std::string expected =
            "{\"Type\":\"updateGroup\",\"ID\":\"\",\"Data\":\"{\\\"GroupID\\\":7,"
            "\\\"Name\\\":\\\"Fam\\\\\\\"ily\\\",\\\"WalkPaths\\\":[\\\"/home/ana/Bilder\\\"],"
            "\\\"RetentionSettings\\\":{\\\"retention_days\\\":14}}\"}";
        QCOMPARE(envelope.toJSON(), expected);
        const auto back = TypeIDAndData::fromJSON(envelope.toJSON());
        QCOMPARE(back.data, group.toJSON());
        QVERIFY(same(GroupItem::fromJSON(back.data), group));
    }

    // -- ServerResponse -----------------------------------------------------------------------
    void serverResponseSuccess_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("success");
        QTest::newRow("success") << QByteArray(R"({"status":"success"})") << true;
        QTest::newRow("success with error")
            << QByteArray(R"({"status":"success","error":"x"})") << true;
        QTest::newRow("capital S") << QByteArray(R"({"status":"Success"})") << false;
        QTest::newRow("upper case") << QByteArray(R"({"status":"SUCCESS"})") << false;
        QTest::newRow("padded") << QByteArray(R"({"status":"success "})") << false;
        QTest::newRow("empty object") << QByteArray("{}") << false;
        QTest::newRow("status null") << QByteArray(R"({"status":null})") << false;
        QTest::newRow("error only") << QByteArray(R"({"error":"no such group"})") << false;
        QTest::newRow("failed") << QByteArray(R"({"status":"failed","error":"disk full"})")
                                << false;
        QTest::newRow("unrelated object") << QByteArray(R"({"Foo":1,"Bar":[true]})") << false;
    }
    void serverResponseSuccess() {
        QFETCH(QByteArray, json);
        QFETCH(bool, success);
        QCOMPARE(ServerResponse::fromJSON(json.toStdString()).isSuccess(), success);
    }

    void serverResponseNullIsAbsent() {
        const auto response = ServerResponse::fromJSON(R"({"status":null,"error":null})");
        QVERIFY(!response.status);
        QVERIFY(!response.error);
        const auto empty = ServerResponse::fromJSON("{}");
        QVERIFY(!empty.status);
        QVERIFY(!empty.error);
        const auto full = ServerResponse::fromJSON(R"({"error":"disk full","status":"failed"})");
        QCOMPARE(full.status, std::optional("failed"s));
        QCOMPARE(full.error, std::optional("disk full"s));
    }

    void serverResponseRejectsWrongTypes() {
        EXPECT_DECODING_ERROR(ServerResponse::fromJSON(R"({"status":1})"));
        EXPECT_DECODING_ERROR(ServerResponse::fromJSON(R"({"status":true})"));
        EXPECT_DECODING_ERROR(ServerResponse::fromJSON(R"({"error":["x"]})"));
        EXPECT_DECODING_ERROR(ServerResponse::fromJSON(R"({"error":{}})"));
        EXPECT_DECODING_ERROR(ServerResponse::fromJSON("[]"));
        EXPECT_DECODING_ERROR(ServerResponse::fromJSON(R"("success")"));
        EXPECT_DECODING_ERROR(ServerResponse::fromJSON("null"));
        EXPECT_DECODING_ERROR(ServerResponse::fromJSON(""));
        EXPECT_DECODING_ERROR(ServerResponse::fromJSON("not json"));
    }

    void serverResponseEncodesInKeyOrder() {
        QCOMPARE((ServerResponse{"failed", "disk full"}.toJSON()),
                 R"({"status":"failed","error":"disk full"})"s);
        QCOMPARE((ServerResponse{"success", std::nullopt}.toJSON()), R"({"status":"success"})"s);
        QCOMPARE((ServerResponse{std::nullopt, "oops"}.toJSON()), R"({"error":"oops"})"s);
        QCOMPARE(ServerResponse{}.toJSON(), "{}"s);
    }

    // -- DirItem ------------------------------------------------------------------------------
    void dirItemDecodes() {
        const auto item = DirItem::fromJSON(validDirItem);
        QCOMPARE(item.path, "/home/ana/Documents"s);
        QCOMPARE(item.error, std::optional("permission denied"s));
        QCOMPARE(item.enabled, true);
        QCOMPARE(item.groupID, std::int64_t{3});
        QCOMPARE(item.name, "Documents"s);
        QCOMPARE(item.status, "2 of 6 - Hashing 12 files"s);
        QCOMPARE(item.id(), item.path);
    }

    void dirItemWithoutErrorHasNoError() {
        const auto item = DirItem::fromJSON(withMember(validDirItem, "Error", std::nullopt));
        QVERIFY(!item.error.has_value());
        QCOMPARE(item.name, "Documents"s);
        const auto nulled = DirItem::fromJSON(withMember(validDirItem, "Error", "null"));
        QVERIFY(!nulled.error.has_value());
    }

    void dirItemWithoutStatusFails() {
        const auto json = withMember(validDirItem, "Status", std::nullopt);
        QVERIFY(json.find("Status") == std::string::npos);
        const QString message = decodingFailure([&] { DirItem::fromJSON(json); });
        QVERIFY2(message.contains("Status"), qPrintable(message));
    }

    void dirItemRejectsBadFields_data() {
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QByteArray>("value"); // empty = key removed
        const char *wrongForString[] = {"null", "1", "true", "[]", "{}"};
        for (const char *key : {"Path", "Name", "Status"}) {
            QTest::addRow("%s missing", key) << QByteArray(key) << QByteArray();
            for (const char *value : wrongForString) {
                QTest::addRow("%s = %s", key, value) << QByteArray(key) << QByteArray(value);
            }
        }
        QTest::newRow("Enabled missing") << QByteArray("Enabled") << QByteArray();
        for (const char *value : {"null", "1", "0", "\"true\"", "[]", "{}"}) {
            QTest::addRow("Enabled = %s", value) << QByteArray("Enabled") << QByteArray(value);
        }
        QTest::newRow("GroupID missing") << QByteArray("GroupID") << QByteArray();
        for (const char *value :
             {"null", "\"3\"", "true", "7.5", "-0.5", "1e300", "9223372036854775808",
              "18446744073709551615", "-9223372036854775809", "[3]", "{}"}) {
            QTest::addRow("GroupID = %s", value) << QByteArray("GroupID") << QByteArray(value);
        }
        for (const char *value : {"1", "false", "[]", "{}"}) {
            QTest::addRow("Error = %s", value) << QByteArray("Error") << QByteArray(value);
        }
    }
    void dirItemRejectsBadFields() {
        QFETCH(QByteArray, key);
        QFETCH(QByteArray, value);
        const auto json =
            withMember(validDirItem, key.toStdString(),
                       value.isEmpty() ? std::nullopt : std::optional(value.toStdString()));
        EXPECT_DECODING_ERROR(DirItem::fromJSON(json));
        // The same record inside a report fails the whole report.
        EXPECT_DECODING_ERROR(decodeDirItems("[" + validDirItem + "," + json + "]"));
    }

    void dirItemIntegerForms_data() {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<qint64>("expected");
        QTest::newRow("zero") << QByteArray("0") << qint64(0);
        QTest::newRow("negative") << QByteArray("-12") << qint64(-12);
        QTest::newRow("max") << QByteArray("9223372036854775807")
                             << std::numeric_limits<qint64>::max();
        QTest::newRow("min") << QByteArray("-9223372036854775808")
                             << std::numeric_limits<qint64>::min();
        // A whole number written with a fraction or exponent is still that integer.
        QTest::newRow("7.0") << QByteArray("7.0") << qint64(7);
        QTest::newRow("1e2") << QByteArray("1e2") << qint64(100);
        QTest::newRow("-0.0") << QByteArray("-0.0") << qint64(0);
    }
    void dirItemIntegerForms() {
        QFETCH(QByteArray, value);
        QFETCH(qint64, expected);
        const auto item =
            DirItem::fromJSON(withMember(validDirItem, "GroupID", value.toStdString()));
        QCOMPARE(item.groupID, std::int64_t{expected});
    }

    void dirItemIgnoresUnknownKeysAndKeyOrder() {
        const auto item = DirItem::fromJSON(
            R"({"Status":"Up to date","Unknown":{"nested":[1,2,{"Path":5}]},"Name":"n",)"
            R"("GroupID":-1,"Enabled":false,"Path":"/p","Size":12.5})");
        QCOMPARE(item.path, "/p"s);
        QCOMPARE(item.enabled, false);
        QCOMPARE(item.groupID, std::int64_t{-1});
        QVERIFY(!item.error);
    }

    void duplicateKeysTakeTheLastValue() {
        const auto item = DirItem::fromJSON(
            R"({"Path":"/a","Enabled":true,"GroupID":1,"Name":"n","Status":"s","Path":"/b"})");
        QCOMPARE(item.path, "/b"s);
    }

    void dirItemEncodesInKeyOrder() {
        const DirItem item{"disk full", true, 12, "Fotos", "/home/ana/Fotos", "Up to date"};
        QCOMPARE(item.toJSON(),
                 R"({"Path":"/home/ana/Fotos","Error":"disk full","Enabled":true,"GroupID":12,)"
                 R"("Name":"Fotos","Status":"Up to date"})"s);
        const DirItem noError{std::nullopt, false, -3, "x", "/x", "1 of 6 - Scanning"};
        QCOMPARE(
            noError.toJSON(),
            R"({"Path":"/x","Enabled":false,"GroupID":-3,"Name":"x","Status":"1 of 6 - Scanning"})"s);
    }

    void encodingKeepsSlashesAndUTF8Raw() {
        const DirItem item{std::nullopt,
                           true,
                           1,
                           "Résumé 日本 🙂",
                           "/home/zoë/Документы/写真",
                           "Tab\there \"quoted\" back\\slash\n"};
        const std::string expected =
            "{\"Path\":\"/home/zoë/Документы/写真\",\"Enabled\":true,\"GroupID\":1,"
            "\"Name\":\"Résumé 日本 🙂\",\"Status\":\"Tab\\there \\\"quoted\\\" "
            "back\\\\slash\\n\"}";
        QCOMPARE(item.toJSON(), expected);
        QVERIFY(same(DirItem::fromJSON(item.toJSON()), item));
    }

    void progressAndIcon_data() {
        QTest::addColumn<QByteArray>("status");
        QTest::addColumn<double>("progress");
        QTest::addColumn<QByteArray>("icon");
        const QByteArray busy = "arrow.clockwise", idle = "internaldrive";
        QTest::newRow("up to date") << QByteArray("Up to date") << 1.0 << idle;
        QTest::newRow("server check") << QByteArray("Server status check ...") << 1.0 << idle;
        QTest::newRow("step 1") << QByteArray("1 of 6 - Scanning folders") << 0.15 << busy;
        QTest::newRow("step 2") << QByteArray("2 of 6 - Hashing") << 0.3 << busy;
        QTest::newRow("step 3") << QByteArray("3 of 6 - Comparing") << 0.45 << busy;
        QTest::newRow("step 4") << QByteArray("4 of 6 - Uploading 3 files") << 0.6 << busy;
        QTest::newRow("step 5") << QByteArray("5 of 6 - Downloading") << 0.75 << busy;
        QTest::newRow("step 6") << QByteArray("6 of 6 - Cleaning up") << 0.9 << busy;
        QTest::newRow("bare prefix") << QByteArray("6 of") << 0.9 << busy;
        QTest::newRow("lower case idle") << QByteArray("up to date") << 0.0 << busy;
        QTest::newRow("lower case check") << QByteArray("server status check ...") << 0.0 << busy;
        QTest::newRow("idle with suffix") << QByteArray("Up to date.") << 0.0 << busy;
        QTest::newRow("step 7") << QByteArray("7 of 6") << 0.0 << busy;
        QTest::newRow("leading space") << QByteArray(" 1 of 6") << 0.0 << busy;
        QTest::newRow("step 10") << QByteArray("10 of 12") << 0.0 << busy;
        QTest::newRow("empty") << QByteArray("") << 0.0 << busy;
        QTest::newRow("other") << QByteArray("Waiting for network") << 0.0 << busy;
    }
    void progressAndIcon() {
        QFETCH(QByteArray, status);
        QFETCH(double, progress);
        QFETCH(QByteArray, icon);
        DirItem item{std::nullopt, true, 1, "n", "/p", status.toStdString()};
        QCOMPARE(item.progress(), progress);
        QCOMPARE(QByteArray(item.icon()), icon);
    }

    // -- RetentionSettings --------------------------------------------------------------------
    void retentionEmptyObject() {
        const auto settings = RetentionSettings::fromJSON("{}");
        QVERIFY(same(settings, RetentionSettings::defaultSettings()));
        QVERIFY(!settings.retentionDays && !settings.lastRetentionTime &&
                !settings.lastRetentionFileCount && !settings.lastRetentionByteCount &&
                !settings.lastOrphanScanTime && !settings.lastOrphanScanCount);
        QVERIFY(!settings.isEnabled());
        QCOMPARE(settings.toJSON(), "{}"s);
    }

    void retentionDecodesEveryField() {
        const auto settings = RetentionSettings::fromJSON(
            R"({"retention_days":30,"last_retention_time":"2024-05-01T10:00:00Z",)"
            R"("last_retention_file_count":12,"last_retention_byte_count":5000000000,)"
            R"("last_orphan_scan_time":"2024-05-02T13:30:15+02:00","last_orphan_scan_count":2})");
        QCOMPARE(settings.retentionDays, std::optional<std::int64_t>(30));
        QCOMPARE(settings.lastRetentionTime, std::optional(utc(2024, 5, 1, 10, 0, 0)));
        QCOMPARE(settings.lastRetentionFileCount, std::optional<std::int64_t>(12));
        QCOMPARE(settings.lastRetentionByteCount, std::optional<std::int64_t>(5000000000));
        QCOMPARE(settings.lastOrphanScanTime, std::optional(utc(2024, 5, 2, 11, 30, 15)));
        QCOMPARE(settings.lastOrphanScanCount, std::optional<std::int64_t>(2));
    }

    void retentionNullIsAbsent_data() {
        QTest::addColumn<QByteArray>("key");
        for (const char *key :
             {"retention_days", "last_retention_time", "last_retention_file_count",
              "last_retention_byte_count", "last_orphan_scan_time", "last_orphan_scan_count"}) {
            QTest::newRow(key) << QByteArray(key);
        }
    }
    void retentionNullIsAbsent() {
        QFETCH(QByteArray, key);
        const std::string full =
            R"({"retention_days":30,"last_retention_time":"2024-05-01T10:00:00Z",)"
            R"("last_retention_file_count":12,"last_retention_byte_count":4096,)"
            R"("last_orphan_scan_time":"2024-05-02T11:30:15Z","last_orphan_scan_count":2})";
        const auto nulled =
            RetentionSettings::fromJSON(withMember(full, key.toStdString(), "null"));
        const auto removed =
            RetentionSettings::fromJSON(withMember(full, key.toStdString(), std::nullopt));
        QVERIFY(same(nulled, removed));
        // Exactly that field is empty, the others keep their values.
        const auto all = RetentionSettings::fromJSON(full);
        int differing = 0;
        differing += all.retentionDays != nulled.retentionDays;
        differing += all.lastRetentionTime != nulled.lastRetentionTime;
        differing += all.lastRetentionFileCount != nulled.lastRetentionFileCount;
        differing += all.lastRetentionByteCount != nulled.lastRetentionByteCount;
        differing += all.lastOrphanScanTime != nulled.lastOrphanScanTime;
        differing += all.lastOrphanScanCount != nulled.lastOrphanScanCount;
        QCOMPARE(differing, 1);
        QVERIFY(nulled.toJSON().find(key.toStdString()) == std::string::npos);
    }

    void retentionIsEnabled_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("enabled");
        QTest::newRow("zero") << QByteArray(R"({"retention_days":0})") << false;
        QTest::newRow("seven") << QByteArray(R"({"retention_days":7})") << true;
        QTest::newRow("one") << QByteArray(R"({"retention_days":1})") << true;
        QTest::newRow("negative") << QByteArray(R"({"retention_days":-3})") << false;
        QTest::newRow("absent") << QByteArray(R"({"last_orphan_scan_count":3})") << false;
        QTest::newRow("null") << QByteArray(R"({"retention_days":null})") << false;
    }
    void retentionIsEnabled() {
        QFETCH(QByteArray, json);
        QFETCH(bool, enabled);
        QCOMPARE(RetentionSettings::fromJSON(json.toStdString()).isEnabled(), enabled);
    }

    void retentionRejectsWrongTypes_data() {
        QTest::addColumn<QByteArray>("json");
        for (const char *key : {"retention_days", "last_retention_file_count",
                                "last_retention_byte_count", "last_orphan_scan_count"}) {
            for (const char *value : {"\"7\"", "7.5", "true", "[]", "{}", "1e30"}) {
                QTest::addRow("%s = %s", key, value)
                    << (QByteArray("{\"") + key + "\":" + value + "}");
            }
        }
        for (const char *key : {"last_retention_time", "last_orphan_scan_time"}) {
            for (const char *value : {"1714557600", "true", "[\"2024-05-01T10:00:00Z\"]", "{}"}) {
                QTest::addRow("%s = %s", key, value)
                    << (QByteArray("{\"") + key + "\":" + value + "}");
            }
        }
        QTest::newRow("array") << QByteArray("[]");
        QTest::newRow("null document") << QByteArray("null");
    }
    void retentionRejectsWrongTypes() {
        QFETCH(QByteArray, json);
        EXPECT_DECODING_ERROR(RetentionSettings::fromJSON(json.toStdString()));
    }

    void retentionDates_data() {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<bool>("parses");
        QTest::addColumn<qint64>("unixSeconds");
        QTest::newRow("Z") << QByteArray("2024-05-01T10:00:00Z") << true << qint64(1714557600);
        QTest::newRow("+02:00 to UTC")
            << QByteArray("2024-05-01T12:00:00+02:00") << true << qint64(1714557600);
        QTest::newRow("-05:30 to UTC")
            << QByteArray("2024-05-01T04:30:00-05:30") << true << qint64(1714557600);
        QTest::newRow("+0200") << QByteArray("2024-05-01T12:00:00+0200") << true
                               << qint64(1714557600);
        QTest::newRow("fractional seconds")
            << QByteArray("2024-05-01T10:00:00.123Z") << false << qint64(0);
        QTest::newRow("garbage") << QByteArray("yesterday") << false << qint64(0);
        QTest::newRow("empty") << QByteArray("") << false << qint64(0);
        QTest::newRow("date only") << QByteArray("2024-05-01") << false << qint64(0);
        QTest::newRow("no zone") << QByteArray("2024-05-01T10:00:00") << false << qint64(0);
    }
    void retentionDates() {
        QFETCH(QByteArray, text);
        QFETCH(bool, parses);
        QFETCH(qint64, unixSeconds);
        const auto settings = RetentionSettings::fromJSON(
            "{\"retention_days\":7,\"last_retention_time\":\"" + text.toStdString() +
            "\",\"last_orphan_scan_time\":\"" + text.toStdString() + "\"}");
        QCOMPARE(settings.retentionDays, std::optional<std::int64_t>(7));
        QCOMPARE(settings.lastRetentionTime.has_value(), parses);
        QCOMPARE(settings.lastOrphanScanTime.has_value(), parses);
        if (parses) {
            QCOMPARE(settings.lastRetentionTime->time_since_epoch().count(), unixSeconds);
            QCOMPARE(settings.lastOrphanScanTime->time_since_epoch().count(), unixSeconds);
        }
    }

    void retentionEncodesOnlyRetentionDays() {
        RetentionSettings settings = RetentionSettings::defaultSettings();
        settings.retentionDays = 7;
        QCOMPARE(settings.toJSON(), R"({"retention_days":7})"s);
    }

    void retentionEncodesInTableOrder() {
        const RetentionSettings settings{30,   utc(2024, 5, 1, 10, 0, 0),   12,
                                         4096, utc(2024, 5, 2, 11, 30, 15), 2};
        QCOMPARE(settings.toJSON(),
                 R"({"retention_days":30,"last_retention_time":"2024-05-01T10:00:00Z",)"
                 R"("last_retention_file_count":12,"last_retention_byte_count":4096,)"
                 R"("last_orphan_scan_time":"2024-05-02T11:30:15Z","last_orphan_scan_count":2})"s);
        QVERIFY(same(RetentionSettings::fromJSON(settings.toJSON()), settings));
        const RetentionSettings partial{
            std::nullopt, std::nullopt, 0, std::nullopt, utc(1999, 12, 31, 23, 59, 59),
            std::nullopt};
        QCOMPARE(
            partial.toJSON(),
            R"({"last_retention_file_count":0,"last_orphan_scan_time":"1999-12-31T23:59:59Z"})"s);
    }

    // -- Dates --------------------------------------------------------------------------------
    void parseDates_data() {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<bool>("parses");
        QTest::addColumn<qint64>("unixSeconds");
        QTest::newRow("epoch") << QByteArray("1970-01-01T00:00:00Z") << true << qint64(0);
        QTest::newRow("before epoch") << QByteArray("1969-12-31T23:59:59Z") << true << qint64(-1);
        QTest::newRow("leap day") << QByteArray("2024-02-29T00:00:00Z") << true
                                  << qint64(1709164800);
        QTest::newRow("offset over midnight")
            << QByteArray("2024-01-01T01:00:00+02:00") << true << qint64(1704063600);
        QTest::newRow("negative zero offset")
            << QByteArray("2024-05-01T10:00:00-00:00") << true << qint64(1714557600);
        QTest::newRow("-0530") << QByteArray("2024-05-01T04:30:00-0530") << true
                               << qint64(1714557600);
        QTest::newRow("year 0000")
            << QByteArray("0000-01-01T00:00:00Z") << true << qint64(-62167219200);
        QTest::newRow("year 9999")
            << QByteArray("9999-12-31T23:59:59Z") << true << qint64(253402300799);
        const char *bad[] = {
            "2023-02-29T00:00:00Z",       "2024-13-01T00:00:00Z",     "2024-00-10T00:00:00Z",
            "2024-04-31T00:00:00Z",       "2024-05-01T24:00:00Z",     "2024-05-01T10:60:00Z",
            "2024-05-01T10:00:60Z",       "2024-05-01t10:00:00Z",     "2024-05-01T10:00:00z",
            "2024-05-01 10:00:00Z",       "2024-05-01T10:00:00Z ",    " 2024-05-01T10:00:00Z",
            "2024-05-01T10:00:00.5Z",     "2024-05-01T10:00:00,5Z",   "2024-05-01T10:00Z",
            "2024-5-01T10:00:00Z",        "20240501T100000Z",         "2024-05-01T10:00:00+2:00",
            "2024-05-01T10:00:00+02",     "2024-05-01T10:00:00+02:0", "2024-05-01T10:00:00+24:00",
            "2024-05-01T10:00:00+02:60",  "2024-05-01T10:00:00UTC",   "+2024-05-01T10:00:00Z",
            "2024-05-01T10:00:00+02:00Z", "２０２４-05-01T10:00:00Z", "2024-05-01T10:00:00+0２:00"};
        for (const char *text : bad) {
            QTest::addRow("bad %s", text) << QByteArray(text) << false << qint64(0);
        }
    }
    void parseDates() {
        QFETCH(QByteArray, text);
        QFETCH(bool, parses);
        QFETCH(qint64, unixSeconds);
        const auto date = parseISO8601(text.toStdString());
        QCOMPARE(date.has_value(), parses);
        if (parses) {
            QCOMPARE(date->time_since_epoch().count(), unixSeconds);
        }
    }

    void formatDates() {
        QCOMPARE(formatISO8601(utc(2024, 5, 1, 10, 0, 0)), "2024-05-01T10:00:00Z"s);
        QCOMPARE(formatISO8601(Date{seconds{0}}), "1970-01-01T00:00:00Z"s);
        QCOMPARE(formatISO8601(Date{seconds{-1}}), "1969-12-31T23:59:59Z"s);
        QCOMPARE(formatISO8601(utc(2000, 2, 29, 23, 5, 9)), "2000-02-29T23:05:09Z"s);
        QCOMPARE(formatISO8601(utc(0, 1, 1, 0, 0, 0)), "0000-01-01T00:00:00Z"s);
        QCOMPARE(formatISO8601(utc(9999, 12, 31, 23, 59, 59)), "9999-12-31T23:59:59Z"s);
        // Every day over several centuries comes back through the parser unchanged.
        for (std::int64_t day = -200000; day < 200000; day += 7) {
            const Date date{seconds{day * 86400 + (day % 86400 + 86400) % 86400}};
            const auto text = formatISO8601(date);
            const auto back = parseISO8601(text);
            QVERIFY2(back.has_value(), text.c_str());
            QCOMPARE(back->time_since_epoch().count(), date.time_since_epoch().count());
        }
        // Extreme time points format without overflow.
        QVERIFY(!formatISO8601(Date{seconds{std::numeric_limits<std::int64_t>::max()}}).empty());
        QVERIFY(!formatISO8601(Date{seconds{std::numeric_limits<std::int64_t>::min()}}).empty());
    }

    // -- GroupItem ----------------------------------------------------------------------------
    void groupItemDecodes() {
        const auto group = GroupItem::fromJSON(validGroupItem);
        QCOMPARE(group.groupID, std::int64_t{3});
        QCOMPARE(group.id(), std::int64_t{3});
        QCOMPARE(group.name, "Work"s);
        QCOMPARE(group.walkPaths,
                 (std::vector<std::string>{"/home/ana/Documents", "/home/ana/Photos"}));
        QVERIFY(group.retentionSettings);
        QCOMPARE(group.retentionSettings->retentionDays, std::optional<std::int64_t>(30));
        QCOMPARE(group.retentionSettings->lastOrphanScanCount, std::optional<std::int64_t>(2));
    }

    void groupItemNullRetentionSettings() {
        const auto nulled =
            GroupItem::fromJSON(withMember(validGroupItem, "RetentionSettings", "null"));
        QVERIFY(!nulled.retentionSettings.has_value());
        QCOMPARE(nulled.name, "Work"s);
        const auto absent =
            GroupItem::fromJSON(withMember(validGroupItem, "RetentionSettings", std::nullopt));
        QVERIFY(!absent.retentionSettings.has_value());
        const auto empty =
            GroupItem::fromJSON(withMember(validGroupItem, "RetentionSettings", "{}"));
        QVERIFY(empty.retentionSettings.has_value());
        QVERIFY(same(*empty.retentionSettings, RetentionSettings::defaultSettings()));
    }

    void groupItemRejectsBadFields_data() {
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QByteArray>("value"); // empty = key removed
        QTest::newRow("GroupID missing") << QByteArray("GroupID") << QByteArray();
        for (const char *value : {"null", "\"3\"", "true", "3.5", "9223372036854775808", "[]"}) {
            QTest::addRow("GroupID = %s", value) << QByteArray("GroupID") << QByteArray(value);
        }
        QTest::newRow("Name missing") << QByteArray("Name") << QByteArray();
        for (const char *value : {"null", "1", "false", "[\"Work\"]", "{}"}) {
            QTest::addRow("Name = %s", value) << QByteArray("Name") << QByteArray(value);
        }
        QTest::newRow("WalkPaths missing") << QByteArray("WalkPaths") << QByteArray();
        for (const char *value : {"null", "\"/home\"", "1", "{}", "[1]", "[\"/a\",null]",
                                  "[[\"/a\"]]", "[\"/a\",{}]"}) {
            QTest::addRow("WalkPaths = %s", value) << QByteArray("WalkPaths") << QByteArray(value);
        }
        for (const char *value : {"1", "\"x\"", "[]", "true", R"({"retention_days":"7"})"}) {
            QTest::addRow("RetentionSettings = %s", value)
                << QByteArray("RetentionSettings") << QByteArray(value);
        }
    }
    void groupItemRejectsBadFields() {
        QFETCH(QByteArray, key);
        QFETCH(QByteArray, value);
        const auto json =
            withMember(validGroupItem, key.toStdString(),
                       value.isEmpty() ? std::nullopt : std::optional(value.toStdString()));
        EXPECT_DECODING_ERROR(GroupItem::fromJSON(json));
        EXPECT_DECODING_ERROR(decodeGroupItems("[" + validGroupItem + "," + json + "]"));
    }

    void groupItemEncodesInKeyOrder() {
        const GroupItem group{5,
                              "Family",
                              {"/home/ana/Bilder", "/home/ana/Ünterlagen"},
                              RetentionSettings{7, {}, {}, {}, {}, {}}};
        QCOMPARE(
            group.toJSON(),
            R"({"GroupID":5,"Name":"Family","WalkPaths":["/home/ana/Bilder","/home/ana/Ünterlagen"],)"
            R"("RetentionSettings":{"retention_days":7}})"s);
        const GroupItem bare{-1, "", {}, std::nullopt};
        QCOMPARE(bare.toJSON(), R"({"GroupID":-1,"Name":"","WalkPaths":[]})"s);
        const GroupItem emptySettings{2, "g", {"/g"}, RetentionSettings::defaultSettings()};
        QCOMPARE(emptySettings.toJSON(),
                 R"({"GroupID":2,"Name":"g","WalkPaths":["/g"],"RetentionSettings":{}})"s);
    }

    void groupItemRoundTrip() {
        const auto group = GroupItem::fromJSON(validGroupItem);
        QCOMPARE(group.toJSON(), validGroupItem);
        QVERIFY(same(GroupItem::fromJSON(group.toJSON()), group));
    }

    // -- Lists --------------------------------------------------------------------------------
    void emptyArrays() {
        QVERIFY(decodeDirItems("[]").empty());
        QVERIFY(decodeDirItems(" [ ] \n").empty());
        QVERIFY(decodeGroupItems("[]").empty());
        QCOMPARE(encodeDirItems({}), "[]"s);
        QCOMPARE(encodeGroupItems({}), "[]"s);
    }

    void listsRejectNonArrays_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("object") << QByteArray("{}");
        QTest::newRow("single DirItem") << QByteArray(validDirItem.c_str());
        QTest::newRow("null") << QByteArray("null");
        QTest::newRow("string") << QByteArray("\"[]\"");
        QTest::newRow("number") << QByteArray("0");
        QTest::newRow("array of numbers") << QByteArray("[1,2]");
        QTest::newRow("array of null") << QByteArray("[null]");
        QTest::newRow("nested array") << QByteArray("[[]]");
        QTest::newRow("envelope") << QByteArray(R"({"Type":"ping","ID":"","Data":""})");
        QTest::newRow("empty text") << QByteArray("");
    }
    void listsRejectNonArrays() {
        QFETCH(QByteArray, json);
        EXPECT_DECODING_ERROR(decodeDirItems(json.toStdString()));
        EXPECT_DECODING_ERROR(decodeGroupItems(json.toStdString()));
    }

    void groupListIsNotADirList() {
        const std::string groups = "[" + validGroupItem + "]";
        QCOMPARE(decodeGroupItems(groups).size(), std::size_t{1});
        EXPECT_DECODING_ERROR(decodeDirItems(groups));
        const std::string dirs = "[" + validDirItem + "]";
        QCOMPARE(decodeDirItems(dirs).size(), std::size_t{1});
        EXPECT_DECODING_ERROR(decodeGroupItems(dirs));
        // Neither list is an envelope; any object is a server response, no array is.
        EXPECT_DECODING_ERROR(TypeIDAndData::fromJSON(dirs));
        EXPECT_DECODING_ERROR(ServerResponse::fromJSON(groups));
    }

    void dirItemsDecodedOverAnEarlierList() {
        // Reading a list over the records of an earlier one gives what a fresh decode gives:
        // a longer earlier list shrinks, a shorter one grows, an Error that was there and is
        // now absent or null is gone, and no text of the earlier records stays behind.
        const std::vector<DirItem> first{
            {"disk full", true, 1, "A long name that is longer", "/a", "3 of 6 - Checking"},
            {"gone soon", false, 2, "B", "/b", "Up to date"},
            {std::nullopt, true, 3, "C", "/c", "Up to date"},
        };
        const std::string second =
            R"([{"Path":"/b2","Enabled":true,"GroupID":5,"Name":"b","Status":"1 of 6 - x"},)"
            R"({"Path":"/a","Error":null,"Enabled":false,"GroupID":1,"Name":"A","Status":"s"}])";
        const std::string third = "[" + validDirItem + "," + first[0].toJSON() + "," +
                                  first[1].toJSON() + "," + first[2].toJSON() + "]";
        std::vector<DirItem> items = first;
        for (const std::string &text : {second, third, second, encodeDirItems(first)}) {
            decodeDirItemsInto(text, items);
            const std::vector<DirItem> fresh = decodeDirItems(text);
            QCOMPARE(items.size(), fresh.size());
            for (std::size_t i = 0; i < fresh.size(); ++i) {
                QVERIFY2(same(items[i], fresh[i]), text.c_str());
            }
        }
        decodeDirItemsInto("[]", items);
        QVERIFY(items.empty());
        EXPECT_DECODING_ERROR(decodeDirItemsInto("[" + validGroupItem + "]", items));
    }

    void dirItemReaderViewsWhatADecodeGives() {
        // The reader's views are the records a decode gives, read where the text lies or from
        // a copy, and each read replaces the last; what a decode refuses, the reader refuses,
        // and it reads the next text as if nothing had happened.
        const std::vector<DirItem> first{
            {"disk full", true, 1, "A long name that is longer", "/a", "3 of 6 - Checking"},
            {std::nullopt, false, -2, "Фото \"q\" \\", "/b", "\t\r\n\b\f\x01"},
        };
        const std::string second =
            R"([{"Path":"/b2","Enabled":true,"GroupID":5,"Name":"b","Status":"1 of 6 - x"},)"
            R"({"Path":"/a","Error":null,"Enabled":false,"GroupID":1,"Name":"A\u00e9","Status":"s"}])";
        DirItemReader reader;
        for (const bool padded : {false, true}) {
            for (std::string text :
                 {encodeDirItems(first), second, std::string("[]"), "[" + validDirItem + "]"}) {
                const std::vector<DirItem> fresh = decodeDirItems(text);
                const std::size_t size = text.size();
                if (padded) {
                    text.append(jsonPadding, 'x'); // whatever the padding holds
                }
                const std::span<const DirItemView> views =
                    reader.read(std::string_view(text.data(), size), padded);
                QCOMPARE(views.size(), fresh.size());
                for (std::size_t i = 0; i < fresh.size(); ++i) {
                    QVERIFY2(same(views[i].toItem(), fresh[i]), text.c_str());
                    QVERIFY(same(DirItemView::of(fresh[i]).toItem(), fresh[i]));
                }
            }
        }
        // Views of one reader hold while another reads (a longer text, needing more room).
        const std::span<const DirItemView> held = reader.read(second);
        DirItemReader other;
        QCOMPARE(other.read(encodeDirItems(std::vector<DirItem>(40, first[0]))).size(),
                 std::size_t{40});
        QCOMPARE(held[1].toItem().name, std::string("A\u00e9"));
        QCOMPARE(held[0].path, std::string_view("/b2"));
        // Good records before a bad last one.
        const std::string lastBroken = "[" + validDirItem + "," + first[0].toJSON() + ",{}]";
        const std::string lastMistyped = "[" + validDirItem + R"(,{"Path":1}])";
        for (const std::string &bad :
             {"[" + validGroupItem + "]", lastBroken, lastMistyped, std::string("{}"),
              std::string("[1]"), std::string("not json")}) {
            EXPECT_DECODING_ERROR(decodeDirItems(bad));
            EXPECT_DECODING_ERROR(reader.read(bad));
            QCOMPARE(reader.read(second).size(), std::size_t{2});
        }
    }

    void listsRoundTrip() {
        std::vector<DirItem> items{
            {std::nullopt, true, 1, "Documents", "/home/ana/Documents", "Up to date"},
            {"permission denied: /home/ana/Privat", false, 2, "Privat", "/home/ana/Privat",
             "3 of 6 - Comparing 1,204 files"},
            {"", true, -7, "Фото 📷", "/media/ana/USB Stick/Фото", "Server status check ..."},
            {std::nullopt, true, 9223372036854775807, "ctl\x01\x1f", "/tmp/\"q\"\\", "\t\r\n\b\f"},
        };
        const auto text = encodeDirItems(items);
        QCOMPARE(text.front(), '[');
        QCOMPARE(text.back(), ']');
        const auto back = decodeDirItems(text);
        QCOMPARE(back.size(), items.size());
        for (std::size_t i = 0; i < items.size(); ++i) {
            QVERIFY2(same(back[i], items[i]), items[i].path.c_str());
            QCOMPARE(items[i].toJSON(), back[i].toJSON());
        }
        QCOMPARE(encodeDirItems(back), text);
        QCOMPARE(text, "[" + items[0].toJSON() + "," + items[1].toJSON() + "," + items[2].toJSON() +
                           "," + items[3].toJSON() + "]");

        std::vector<GroupItem> groups{
            GroupItem::fromJSON(validGroupItem),
            {8, "Leer", {}, std::nullopt},
            {9,
             "Fotos",
             {"/home/ana/Pictures/Photos Library.photoslibrary"},
             RetentionSettings{0, std::nullopt, 0, 0, std::nullopt, 0}},
        };
        const auto groupText = encodeGroupItems(groups);
        QCOMPARE(groupText, "[" + groups[0].toJSON() + "," + groups[1].toJSON() + "," +
                                groups[2].toJSON() + "]");
        const auto groupsBack = decodeGroupItems(groupText);
        QCOMPARE(groupsBack.size(), groups.size());
        for (std::size_t i = 0; i < groups.size(); ++i) {
            QVERIFY(same(groupsBack[i], groups[i]));
        }
    }

    // -- Malformed input ----------------------------------------------------------------------
    void malformedInputIsADecodingError_data() {
        QTest::addColumn<QByteArray>("json");
        const QByteArray item = QByteArray::fromStdString(validDirItem);
        QTest::newRow("empty") << QByteArray("");
        QTest::newRow("whitespace") << QByteArray("  \n\t");
        QTest::newRow("truncated") << ("[" + item.left(item.size() - 1));
        QTest::newRow("truncated string") << QByteArray("[{\"Path\":\"/home");
        QTest::newRow("unclosed array") << ("[" + item);
        QTest::newRow("trailing text") << ("[" + item + "] x");
        QTest::newRow("two documents") << ("[" + item + "][]");
        QTest::newRow("trailing comma") << ("[" + item + ",]");
        QTest::newRow("single quotes") << QByteArray("['a']");
        QTest::newRow("bare word") << QByteArray("[nul]");
        QTest::newRow("comment") << QByteArray("[/* x */]");
        QTest::newRow("invalid UTF-8 in value")
            << QByteArray("[{\"Path\":\"/home/\xC3\x28\",\"Enabled\":true,\"GroupID\":1,"
                          "\"Name\":\"n\",\"Status\":\"s\"}]");
        QTest::newRow("invalid UTF-8 in unknown key")
            << ("[" + item.left(item.size() - 1) + ",\"\xFF\":1}]");
        QTest::newRow("surrogate in UTF-8")
            << ("[" + item.left(item.size() - 1) + ",\"x\":\"\xED\xA0\x80\"}]");
        QTest::newRow("overlong UTF-8")
            << ("[" + item.left(item.size() - 1) + ",\"x\":\"\xC0\xAF\"}]");
        QTest::newRow("lone surrogate escape")
            << ("[" + item.left(item.size() - 1) + ",\"x\":\"\\ud800\"}]");
        QTest::newRow("bad escape") << ("[" + item.left(item.size() - 1) + ",\"x\":\"\\q\"}]");
        QTest::newRow("raw control character")
            << ("[" + item.left(item.size() - 1) + ",\"x\":\"a\nb\"}]");
        QTest::newRow("huge integer in unknown key")
            << ("[" + item.left(item.size() - 1) + ",\"x\":123456789012345678901234567890}]");
        QTest::newRow("huge exponent") << ("[" + item.left(item.size() - 1) + ",\"x\":1e400}]");
        QTest::newRow("leading zero") << ("[" + item.left(item.size() - 1) + ",\"x\":01}]");
        QTest::newRow("NaN") << ("[" + item.left(item.size() - 1) + ",\"x\":NaN}]");
        QTest::newRow("deep nesting")
            << ("[" + item.left(item.size() - 1) + ",\"x\":" + QByteArray(5000, '[') +
                QByteArray(5000, ']') + "}]");
        QTest::newRow("NUL byte") << ("[" + item + "]" + QByteArray(1, '\0'));
    }
    void malformedInputIsADecodingError() {
        QFETCH(QByteArray, json);
        const std::string text(json.constData(), static_cast<std::size_t>(json.size()));
        EXPECT_DECODING_ERROR(decodeDirItems(text));
        EXPECT_DECODING_ERROR(decodeGroupItems(text));
        EXPECT_DECODING_ERROR(DirItem::fromJSON(text));
        EXPECT_DECODING_ERROR(GroupItem::fromJSON(text));
        EXPECT_DECODING_ERROR(TypeIDAndData::fromJSON(text));
        EXPECT_DECODING_ERROR(ServerResponse::fromJSON(text));
        EXPECT_DECODING_ERROR(RetentionSettings::fromJSON(text));
    }

    void wellFormedNonASCIIDecodes() {
        const auto item = DirItem::fromJSON(
            "{\"Path\":\"/home/zo\\u00eb/\xE5\x86\x99\xE7\x9C\x9F\",\"Enabled\":true,\"GroupID\":1,"
            "\"Name\":\"\\ud83d\\ude42 \xF0\x9F\x93\xB7\",\"Status\":\"a\\/b\\u0000c\"}");
        QCOMPARE(item.path, "/home/zoë/写真"s);
        QCOMPARE(item.name, "🙂 📷"s);
        QCOMPARE(item.status, "a/b\0c"s);
        QCOMPARE(item.toJSON().find("\\u0000"), item.toJSON().find("a/b") + 3);
    }

    // -- Errors -------------------------------------------------------------------------------
    void errorNames() {
        QCOMPARE(QByteArray(TarnwickException(TarnwickError::decodeError).what()),
                 QByteArray("decodeError"));
        QCOMPARE(QByteArray(TarnwickException(TarnwickError::unknownRequestType).what()),
                 QByteArray("unknownRequestType"));
        QVERIFY(TarnwickException(TarnwickError::unknownRequestType).error() ==
                TarnwickError::unknownRequestType);
        QCOMPARE(QByteArray(toString(TarnwickError::decodeError)), QByteArray("decodeError"));
        // A DecodingError is a runtime_error with a message that names the problem.
        const QString message = decodingFailure([] { DirItem::fromJSON(R"({"Path":1})"); });
        QVERIFY2(message.contains("Path"), qPrintable(message));
    }

    // -- Where a list's elements lie -------------------------------------------------------------
    void elementSpansFollowStringsEscapesAndNesting() {
        const auto texts = [](std::string_view json) {
            std::vector<std::string> out;
            const auto spans = arrayElementSpans(json);
            if (!spans) {
                out.push_back("<none>");
                return out;
            }
            for (const ElementSpan &span : *spans) {
                out.emplace_back(json.substr(span.begin, span.end - span.begin));
            }
            return out;
        };
        using List = std::vector<std::string>;
        QCOMPARE(texts("[]"), List{});
        QCOMPARE(texts(" [ ] "), List{});
        QCOMPARE(texts("[1,2 , 3]"), (List{"1", "2", "3"}));
        // A string holding "},{", and one holding an escaped quote and an escaped backslash.
        QCOMPARE(texts("[ {\"a\":\"},{\"} , {\"b\":\"\\\"},{\\\\\"} ]"),
                 (List{"{\"a\":\"},{\"}", "{\"b\":\"\\\"},{\\\\\"}"}));
        QCOMPARE(texts("[{\"a\":[1,{\"b\":[]}]},\"x]\",null,true]"),
                 (List{"{\"a\":[1,{\"b\":[]}]}", "\"x]\"", "null", "true"}));
        QCOMPARE(texts("\n[\n  {\"a\": 1},\n  {\"b\": 2}\n]\n"),
                 (List{"{\"a\": 1}", "{\"b\": 2}"}));
        // Not an array that closes, or with an empty element.
        for (const char *bad : {"", "{}", "[1,2", "[\"a]", "[1,,2]", "[,1]"}) {
            QVERIFY2(!arrayElementSpans(bad), bad);
        }
    }

    void elementSpansOfWrittenListsAreItsRecords() {
        std::vector<DirItem> items;
        for (int i = 0; i < 300; ++i) {
            std::string name = "Folder " + std::to_string(i);
            if (i % 7 == 0) {
                name += R"( "quoted" },{ [x] \ back\)";
            }
            if (i % 11 == 0) {
                name += "\x01 Документы 写真";
            }
            items.push_back({i % 5 == 0 ? std::optional<std::string>("e\"},{") : std::nullopt,
                             i % 2 == 0, i, name, "/data/" + name, "1 of 6 - x"});
        }
        const std::string json = encodeDirItems(items);
        const auto spans = arrayElementSpans(json);
        QVERIFY(spans);
        QCOMPARE(spans->size(), items.size());
        for (std::size_t i = 0; i < items.size(); ++i) {
            const std::string_view text = std::string_view(json).substr(
                (*spans)[i].begin, (*spans)[i].end - (*spans)[i].begin);
            QCOMPARE(DirItem::fromJSON(text).toJSON(), items[i].toJSON());
        }
    }
};

QTEST_GUILESS_MAIN(ModelsTest)
#include "tst_models.moc"
