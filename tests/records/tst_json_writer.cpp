// The records' JSON writer against nlohmann::json: string escaping byte for byte (dump() with
// raw UTF-8 and U+FFFD replacement of invalid bytes), and whole records against
// nlohmann::ordered_json built in the same key order.
#include "JsonWriter.h"
#include "Models.h"

#include <QtTest>

#include <nlohmann/json.hpp>

#include <array>
#include <random>
#include <string>

using namespace tarnwick;

namespace {

std::string nlohmannString(const std::string &text) {
    return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string ourString(const std::string &text) {
    std::string out;
    json::appendString(out, text);
    return out;
}

void appendUTF8(std::string &out, char32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

// Strings that lean towards the interesting cases: control characters, quotes, backslashes,
// slashes, multi-byte characters, and (when `allowInvalid`) broken or stray UTF-8 bytes.
std::string randomText(std::mt19937_64 &rng, bool allowInvalid) {
    std::uniform_int_distribution<int> length(0, 24);
    std::uniform_int_distribution<int> kind(0, allowInvalid ? 9 : 6);
    const int n = length(rng);
    std::string out;
    for (int i = 0; i < n; ++i) {
        switch (kind(rng)) {
        case 0:
            out.push_back(static_cast<char>(std::uniform_int_distribution<int>(0, 0x1F)(rng)));
            break;
        case 1: {
            static constexpr char special[] = {'"', '\\', '/', '\x7f', ' ', 'u'};
            out.push_back(special[std::uniform_int_distribution<int>(0, 5)(rng)]);
            break;
        }
        case 2:
        case 3:
            out.push_back(static_cast<char>(std::uniform_int_distribution<int>(0x20, 0x7E)(rng)));
            break;
        case 4:
            appendUTF8(out, std::uniform_int_distribution<char32_t>(0x80, 0x7FF)(rng));
            break;
        case 5: {
            char32_t cp = std::uniform_int_distribution<char32_t>(0x800, 0xFFFF)(rng);
            if (cp >= 0xD800 && cp <= 0xDFFF) {
                cp = 0xFFFD;
            }
            appendUTF8(out, cp);
            break;
        }
        case 6:
            appendUTF8(out, std::uniform_int_distribution<char32_t>(0x10000, 0x10FFFF)(rng));
            break;
        case 7:
            // Any byte at all.
            out.push_back(static_cast<char>(std::uniform_int_distribution<int>(0x80, 0xFF)(rng)));
            break;
        case 8: {
            // A multi-byte character cut short.
            std::string full;
            appendUTF8(full, std::uniform_int_distribution<char32_t>(0x800, 0x10FFFF)(rng));
            out.append(full, 0, full.size() - 1);
            break;
        }
        default: {
            // Lead bytes with the edge ranges of their second byte.
            static constexpr unsigned char leads[] = {0xC0, 0xC1, 0xE0, 0xED, 0xF0, 0xF4, 0xF5};
            static constexpr unsigned char seconds[] = {0x7F, 0x80, 0x8F, 0x90,
                                                        0x9F, 0xA0, 0xBF, 0xC0};
            out.push_back(static_cast<char>(leads[std::uniform_int_distribution<int>(0, 6)(rng)]));
            out.push_back(
                static_cast<char>(seconds[std::uniform_int_distribution<int>(0, 7)(rng)]));
            break;
        }
        }
    }
    return out;
}

// Empty when the writer escapes text as nlohmann does; otherwise what differs, in hex.
QString escapingMismatch(int round, const std::string &text) {
    const std::string ours = ourString(text);
    const std::string theirs = nlohmannString(text);
    if (ours == theirs) {
        return {};
    }
    const auto hex = [](const std::string &bytes) {
        return QString::fromLatin1(QByteArray::fromStdString(bytes).toHex());
    };
    return QStringLiteral("round %1: input %2 gave %3, expected %4")
        .arg(round)
        .arg(hex(text), hex(ours), hex(theirs));
}

} // namespace

class JsonWriterTest : public QObject {
    Q_OBJECT

private slots:
    void escapesLikeNlohmann_data() {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("empty") << QByteArray("");
        QTest::newRow("plain") << QByteArray("hello world");
        QTest::newRow("slash") << QByteArray("/home/ana/a/b");
        QTest::newRow("quote and backslash") << QByteArray("say \"hi\" \\ bye");
        QTest::newRow("named escapes") << QByteArray("\b\t\n\f\r");
        QTest::newRow("all controls") << [] {
            QByteArray all;
            for (int c = 0; c < 0x20; ++c) {
                all.append(static_cast<char>(c));
            }
            return all;
        }();
        QTest::newRow("DEL") << QByteArray("a\x7f z");
        QTest::newRow("UTF-8") << QByteArray("Zoë 日本 🙂 Документы");
        QTest::newRow("lone continuation") << QByteArray("a\x80z");
        QTest::newRow("overlong") << QByteArray("\xC0\xAF");
        QTest::newRow("surrogate") << QByteArray("\xED\xA0\x80x");
        QTest::newRow("above U+10FFFF") << QByteArray("\xF4\x90\x80\x80");
        QTest::newRow("F5 lead") << QByteArray("\xF5\x80\x80\x80");
        QTest::newRow("cut at end") << QByteArray("abc\xE6\x97");
        QTest::newRow("cut before ASCII") << QByteArray("\xE6\x97z");
        QTest::newRow("cut before lead") << QByteArray("\xF0\x9F\xC3\xA9");
        QTest::newRow("E0 short second") << QByteArray("\xE0\x80\x80");
        QTest::newRow("FF") << QByteArray("\xFF\xFE");
    }
    void escapesLikeNlohmann() {
        QFETCH(QByteArray, text);
        const std::string s = text.toStdString();
        QCOMPARE(ourString(s), nlohmannString(s));
    }

    void escapingMatchesOnRandomText() {
        std::mt19937_64 rng(20240501);
        for (int round = 0; round < 200000; ++round) {
            const std::string text = randomText(rng, round % 2 == 1);
            const QString mismatch = escapingMismatch(round, text);
            if (!mismatch.isEmpty()) {
                QFAIL(qPrintable(mismatch));
            }
        }
    }

    void escapingMatchesOnLongTexts() {
        // Long texts (as a folder list carried in a string is) of plain bytes with special ones
        // now rare, now dense, now nearly everywhere: the block-wise steps meet every kind of
        // special byte at every place of a block and sequences across a block's end.
        std::mt19937_64 rng(20261125);
        std::uniform_int_distribution<int> length(0, 3000);
        std::uniform_int_distribution<int> plain(0x20, 0x7E);
        for (int round = 0; round < 6000; ++round) {
            const int n = length(rng);
            std::uniform_int_distribution<int> odds(0, std::array{0, 1, 3, 10, 60}[round % 5]);
            std::string text;
            while (int(text.size()) < n) {
                if (odds(rng) == 0) {
                    text += randomText(rng, round % 2 == 1).substr(0, 4);
                } else {
                    text.push_back(static_cast<char>(plain(rng)));
                }
            }
            const QString mismatch = escapingMismatch(round, text);
            if (!mismatch.isEmpty()) {
                QFAIL(qPrintable(mismatch));
            }
        }
    }

    void longTextsThatGrowManyTimesOverAndAppendsToEarlierText() {
        // Texts far longer than the room made for them up front (control characters take six
        // bytes each), with special bytes at every offset of an eight-byte word, appended after
        // earlier output.
        std::string controls;
        for (int i = 0; i < 100000; ++i) {
            controls.push_back(static_cast<char>(i % 0x20));
        }
        std::string mixed;
        for (int i = 0; i < 50000; ++i) {
            mixed += (i % 9 == 0)    ? "\""
                     : (i % 11 == 0) ? "\xC3\xA9"
                     : (i % 13 == 0) ? "\xFF"
                                     : "a";
        }
        for (const std::string &text : {controls, mixed}) {
            std::string out = "prefix:";
            json::appendString(out, text);
            QCOMPARE(out, "prefix:" + nlohmannString(text));
        }
    }

    void escapedRegionFollowsEditsAsAFreshEscapingWould() {
        // A long text (ASCII, quotes, controls, UTF-8 and broken UTF-8) edited again and again:
        // after each update the region reads exactly as the new text escaped afresh, and the
        // text around it stays. Edits fall anywhere, also right at and around the marks every
        // 16 KiB, and include growing, shrinking, emptying and repeating the same text.
        std::mt19937_64 rng(99);
        std::string text;
        while (text.size() < 200000) {
            text += randomText(rng, true);
            text += "\",\"Status\":\"3 of 6 - \xD0\x94\xD0\xBE\xD0\xBA \xE6\x97\xA5";
        }
        json::EscapedRegion region;
        std::string out = "{\"Data\":\"";
        region.write(out, text);
        out += "\"}";
        const auto check = [&](const std::string &current) {
            std::string expected = "{\"Data\":\"";
            json::appendEscaped(expected, current);
            expected += "\"}";
            return out == expected && region.size() == expected.size() - 11;
        };
        QVERIFY(check(text));
        for (int round = 0; round < 400; ++round) {
            std::string next = text;
            const int kind = round % 8;
            std::size_t at = next.empty() ? 0 : std::size_t(rng() % (next.size() + 1));
            if (kind == 1) {
                at = std::min(next.size(), std::size_t(16384) * (1 + rng() % 12) + rng() % 5 - 2);
            }
            const std::size_t removed = std::min(next.size() - at, std::size_t(rng() % 300));
            std::string inserted = round % 5 == 0 ? std::string() : randomText(rng, true);
            if (kind == 2) {
                inserted = "\x94\xD0"; // continuation and lead bytes, to split sequences
            }
            if (kind == 7 && round % 3 == 0) {
                next = text; // the same text again
            } else if (kind == 6 && round % 50 == 6) {
                next.clear();
            } else {
                next.replace(at, removed, inserted);
            }
            if (kind == 5) {
                next += "\xE6\x97"; // ends in a cut sequence, extended by the next edit
            }
            region.update(out, text, next);
            text = std::move(next);
            QVERIFY2(check(text), std::to_string(round).c_str());
            if (text.empty()) {
                text = "a\"b";
                region.update(out, "", text);
                QVERIFY(check(text));
            }
        }
    }

    void escapedRegionChangedEverywhere() {
        // A list in which every status moves: the whole region is escaped again, both where
        // little follows it (escaped in place) and where more follows it than it holds.
        std::mt19937_64 rng(5);
        const auto list = [&rng](int turn) {
            std::string text;
            for (int i = 0; i < 3000; ++i) {
                text += "{\"Path\":\"/home/ana/f" + std::to_string(i) + "\",\"Status\":\"";
                text += turn % 2 ? "Syncing \xE6\x97\xA5" : randomText(rng, true);
                text += "\"},";
            }
            return text;
        };
        for (const std::size_t following : {std::size_t(2), std::size_t(400000)}) {
            std::string text = list(0);
            const std::string head = "{\"Data\":\"";
            const std::string tail = "\"}" + std::string(following - 2, 'x');
            json::EscapedRegion region;
            std::string out = head;
            region.write(out, text);
            out += tail;
            for (int turn = 1; turn < 6; ++turn) {
                std::string next = list(turn);
                if (turn == 3) {
                    next += next; // grown to twice its size
                } else if (turn == 4) {
                    next.resize(next.size() / 3); // shrunk, cut anywhere
                }
                region.update(out, text, next);
                text = std::move(next);
                std::string expected = head;
                json::appendEscaped(expected, text);
                const std::size_t escaped = expected.size() - head.size();
                expected += tail;
                QVERIFY2(
                    out == expected,
                    qPrintable(QStringLiteral("following %1, turn %2").arg(following).arg(turn)));
                QCOMPARE(region.size(), escaped);
                // The marks still lead to where each piece's escape starts: a small edit after
                // all this is escaped right.
                std::string edited = text;
                edited.insert(edited.size() / 2, "\"\\\n");
                region.update(out, text, edited);
                text = std::move(edited);
                expected = head;
                json::appendEscaped(expected, text);
                expected += tail;
                QVERIFY(out == expected);
            }
        }
    }

    void outputOfInvalidTextIsValidJSON() {
        // Whatever bytes a path holds, the written text decodes again.
        std::mt19937_64 rng(7);
        for (int round = 0; round < 20000; ++round) {
            const DirItem item{
                std::nullopt,         true, round, randomText(rng, true), randomText(rng, true),
                randomText(rng, true)};
            const auto text = item.toJSON();
            const auto back = DirItem::fromJSON(text);
            QCOMPARE(back.toJSON(), text);
            QVERIFY(nlohmann::json::accept(text));
        }
    }

    void integers() {
        for (const std::int64_t value :
             {std::int64_t{0}, std::int64_t{-1}, std::int64_t{42}, std::int64_t{1} << 53,
              std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()}) {
            std::string out;
            json::appendInteger(out, value);
            QCOMPARE(out, nlohmann::json(value).dump());
        }
    }

    void recordsMatchOrderedJson() {
        std::mt19937_64 rng(99);
        std::vector<DirItem> items;
        nlohmann::ordered_json expected = nlohmann::ordered_json::array();
        for (int i = 0; i < 2000; ++i) {
            DirItem item{std::nullopt,
                         i % 3 == 0,
                         static_cast<std::int64_t>(rng()),
                         randomText(rng, false),
                         randomText(rng, false),
                         randomText(rng, false)};
            if (i % 4 == 0) {
                item.error = randomText(rng, false);
            }
            nlohmann::ordered_json j;
            j["Path"] = item.path;
            if (item.error) {
                j["Error"] = *item.error;
            }
            j["Enabled"] = item.enabled;
            j["GroupID"] = item.groupID;
            j["Name"] = item.name;
            j["Status"] = item.status;
            QCOMPARE(item.toJSON(), j.dump());
            expected.push_back(j);
            items.push_back(std::move(item));
        }
        QCOMPARE(encodeDirItems(items), expected.dump());

        std::vector<GroupItem> groups;
        nlohmann::ordered_json expectedGroups = nlohmann::ordered_json::array();
        for (int i = 0; i < 500; ++i) {
            GroupItem group{static_cast<std::int64_t>(rng()), randomText(rng, false), {}, {}};
            for (int k = 0; k < i % 4; ++k) {
                group.walkPaths.push_back(randomText(rng, false));
            }
            nlohmann::ordered_json j;
            j["GroupID"] = group.groupID;
            j["Name"] = group.name;
            j["WalkPaths"] = group.walkPaths;
            if (i % 3 != 0) {
                RetentionSettings settings;
                nlohmann::ordered_json r = nlohmann::ordered_json::object();
                if (i % 2 == 0) {
                    settings.retentionDays = i;
                    r["retention_days"] = i;
                }
                if (i % 5 == 0) {
                    settings.lastRetentionTime = Date{std::chrono::seconds{1714557600 + i}};
                    r["last_retention_time"] = formatISO8601(*settings.lastRetentionTime);
                }
                if (i % 7 != 0) {
                    settings.lastRetentionFileCount = i * 3;
                    r["last_retention_file_count"] = i * 3;
                }
                if (i % 11 != 0) {
                    settings.lastRetentionByteCount = std::int64_t{i} << 40;
                    r["last_retention_byte_count"] = std::int64_t{i} << 40;
                }
                if (i % 13 == 0) {
                    settings.lastOrphanScanTime = Date{std::chrono::seconds{-86400 * i}};
                    r["last_orphan_scan_time"] = formatISO8601(*settings.lastOrphanScanTime);
                }
                if (i % 2 == 1) {
                    settings.lastOrphanScanCount = -i;
                    r["last_orphan_scan_count"] = -i;
                }
                group.retentionSettings = settings;
                j["RetentionSettings"] = r;
            }
            QCOMPARE(group.toJSON(), j.dump());
            expectedGroups.push_back(j);
            groups.push_back(std::move(group));
        }
        QCOMPARE(encodeGroupItems(groups), expectedGroups.dump());

        const TypeIDAndData envelope{"updateGroup", "", groups[1].toJSON()};
        const nlohmann::ordered_json e = {
            {"Type", envelope.type}, {"ID", envelope.id}, {"Data", envelope.data}};
        QCOMPARE(envelope.toJSON(), e.dump());
    }
};

QTEST_GUILESS_MAIN(JsonWriterTest)
#include "tst_json_writer.moc"
