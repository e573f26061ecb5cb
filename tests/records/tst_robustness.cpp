// Truncated and mutated versions of valid JSON fed to every decoder: the only thing that may
// come out is a record or a DecodingError. (A crash ends the test; any other exception fails it.)
#include "Models.h"

#include <QtTest>

#include <functional>
#include <random>
#include <string>
#include <vector>

using namespace tarnwick;

namespace {

const std::vector<std::string> &samples() {
    static const std::vector<std::string> texts = {
        R"([{"Path":"/home/ana/Documents","Error":"permission denied","Enabled":true,"GroupID":3,)"
        R"("Name":"Documents","Status":"2 of 6 - Hashing 12 files"},{"Path":"/home/zoë/写真",)"
        "\"Enabled\":false,\"GroupID\":-1,\"Name\":\"\\u5199\\u771f \\ud83d\\ude42\","
        "\"Status\":\"Up to date\"}]",
        R"([{"GroupID":3,"Name":"Work","WalkPaths":["/home/ana/Documents","/home/ana/Photos"],)"
        R"("RetentionSettings":{"retention_days":30,"last_retention_time":"2024-05-01T10:00:00Z",)"
        R"("last_retention_file_count":12,"last_retention_byte_count":4096,)"
        R"("last_orphan_scan_time":"2024-05-02T11:30:15+02:00","last_orphan_scan_count":2}},)"
        R"({"GroupID":4,"Name":"Leer","WalkPaths":[],"RetentionSettings":null}])",
        "{\"Type\":\"updateGroup\",\"ID\":\"\","
        "\"Data\":\"{\\\"GroupID\\\":7,\\\"Name\\\":\\\"x\\\",\\\"WalkPaths\\\":[]}\"}",
        R"({"status":"failed","error":"disk full"})",
        R"({"retention_days":7,"last_orphan_scan_time":"2024-05-02T11:30:15Z","x":[1.5e3,-0,null]})",
    };
    return texts;
}

using Decoder = std::function<void(std::string_view)>;

const std::vector<std::pair<const char *, Decoder>> &decoders() {
    static const std::vector<std::pair<const char *, Decoder>> all = {
        {"decodeDirItems", [](std::string_view s) { (void)decodeDirItems(s); }},
        {"decodeGroupItems", [](std::string_view s) { (void)decodeGroupItems(s); }},
        {"DirItem", [](std::string_view s) { (void)DirItem::fromJSON(s); }},
        {"GroupItem", [](std::string_view s) { (void)GroupItem::fromJSON(s); }},
        {"RetentionSettings", [](std::string_view s) { (void)RetentionSettings::fromJSON(s); }},
        {"TypeIDAndData", [](std::string_view s) { (void)TypeIDAndData::fromJSON(s); }},
        {"ServerResponse", [](std::string_view s) { (void)ServerResponse::fromJSON(s); }},
    };
    return all;
}

// Runs every decoder on `text`; returns how many threw DecodingError. Anything else escaping
// a decoder is reported as a failure.
int feed(std::string_view text, QString &failure) {
    int rejected = 0;
    for (const auto &[name, decode] : decoders()) {
        try {
            decode(text);
        } catch (const DecodingError &) {
            ++rejected;
        } catch (const std::exception &e) {
            failure = QStringLiteral("%1 threw %2 on %3")
                          .arg(name, e.what(),
                               QString::fromLatin1(QByteArray(text.data(), text.size()).toHex()));
            return rejected;
        } catch (...) {
            failure = QStringLiteral("%1 threw a non-standard exception").arg(name);
            return rejected;
        }
    }
    return rejected;
}

// A one-item status report whose "GroupID" is the given JSON number text.
std::string dirItemWithGroupID(const std::string &number) {
    return "[{\"Path\":\"/a\",\"Enabled\":true,\"GroupID\":" + number +
           ",\"Name\":\"n\",\"Status\":\"s\"}]";
}

} // namespace

class RobustnessTest : public QObject {
    Q_OBJECT

private slots:
    void samplesAreValid() {
        // The sample set decodes with the decoder it belongs to (so mutations start from valid
        // input).
        QCOMPARE(decodeDirItems(samples()[0]).size(), std::size_t{2});
        QCOMPARE(decodeGroupItems(samples()[1]).size(), std::size_t{2});
        QCOMPARE(TypeIDAndData::fromJSON(samples()[2]).type, std::string("updateGroup"));
        QVERIFY(!ServerResponse::fromJSON(samples()[3]).isSuccess());
        QVERIFY(RetentionSettings::fromJSON(samples()[4]).isEnabled());
    }

    void everyTruncationIsRejected() {
        for (const auto &sample : samples()) {
            for (std::size_t length = 0; length < sample.size(); ++length) {
                QString failure;
                const int rejected = feed(std::string_view(sample).substr(0, length), failure);
                QVERIFY2(failure.isEmpty(), qPrintable(failure));
                // A cut-off document is never valid JSON, so every decoder refuses it.
                QCOMPARE(rejected, int(decoders().size()));
            }
        }
    }

    void mutationsNeverCrash() {
        std::mt19937_64 rng(1234567);
        static constexpr char interesting[] = {
            '"', '\\', '{', '}', '[',  ']',    ',',    ':',    '0',    '-',    'e', '.',
            'n', 't',  'f', ' ', '\0', '\x80', '\xC3', '\xE6', '\xF0', '\xFF', 'u', '9'};
        int rejectedTotal = 0, runs = 0;
        for (int round = 0; round < 30000; ++round) {
            std::string text = samples()[static_cast<std::size_t>(round) % samples().size()];
            const int edits = std::uniform_int_distribution<int>(1, 4)(rng);
            for (int e = 0; e < edits && !text.empty(); ++e) {
                const std::size_t at =
                    std::uniform_int_distribution<std::size_t>(0, text.size() - 1)(rng);
                const char c = interesting[std::uniform_int_distribution<std::size_t>(
                    0, sizeof interesting - 1)(rng)];
                switch (std::uniform_int_distribution<int>(0, 4)(rng)) {
                case 0:
                    text[at] = c;
                    break;
                case 1:
                    text.insert(text.begin() + static_cast<std::ptrdiff_t>(at), c);
                    break;
                case 2:
                    text.erase(at, 1);
                    break;
                case 3:
                    text[at] = static_cast<char>(text[at] ^ (1 << (rng() % 8)));
                    break;
                default: {
                    // Repeat a slice, which nests or duplicates structure.
                    const std::size_t len = std::min<std::size_t>(rng() % 16, text.size() - at);
                    text.insert(at, text.substr(at, len));
                    break;
                }
                }
            }
            QString failure;
            rejectedTotal += feed(text, failure);
            ++runs;
            QVERIFY2(failure.isEmpty(), qPrintable(failure));
        }
        // Most mutations break the text or its shape.
        QVERIFY(rejectedTotal > runs);
    }

    void pathologicalInputs() {
        std::vector<std::string> inputs = {
            std::string(100000, '['),
            std::string(100000, '[') + std::string(100000, ']'),
            "[" + std::string(100000, '{'),
            "[{\"Path\":\"" + std::string(1 << 20, 'a'),
            "[" + std::string(5000, '9') + "]",
            dirItemWithGroupID(std::string(400, '9')),
            dirItemWithGroupID("1e999999"),
            std::string(1, '\0'),
            std::string(64, '\0'),
            "\xEF\xBB\xBF[]",
            "[\"\\u",
            "[\"\\ud83d\\u\"]",
            "{\"status\":\"" + std::string(1000, '\\'),
        };
        for (const auto &input : inputs) {
            QString failure;
            const int rejected = feed(input, failure);
            QVERIFY2(failure.isEmpty(), qPrintable(failure));
            QVERIFY2(rejected == int(decoders().size()), input.substr(0, 60).c_str());
        }
        // A number too small for a double is zero, a whole number.
        QCOMPARE(decodeDirItems(dirItemWithGroupID("-1e-999999")).at(0).groupID, std::int64_t{0});
    }

    void largeValidReportAfterGarbage() {
        // The per-thread parser stays usable after errors of every kind.
        QString failure;
        feed(std::string(100000, '['), failure);
        feed("{\"x\":\"\xFF\"}", failure);
        QVERIFY(failure.isEmpty());
        std::vector<DirItem> items;
        for (int i = 0; i < 5000; ++i) {
            items.push_back({std::nullopt, true, i, "n" + std::to_string(i),
                             "/home/ana/d" + std::to_string(i), "Up to date"});
        }
        const auto back = decodeDirItems(encodeDirItems(items));
        QCOMPARE(back.size(), items.size());
        QCOMPARE(back.back().path, std::string("/home/ana/d4999"));
    }
};

QTEST_GUILESS_MAIN(RobustnessTest)
#include "tst_robustness.moc"
