// The development backend's pieces that need no process of their own: the command line and the
// fault switches, the state file, the channel's freshness and replay checks and answer timestamps,
// the sync pass and the retention pass, and the watch on the client's process.

#include "Backend.h"
#include "Channel.h"
#include "Options.h"
#include "PidWatch.h"
#include "StateStore.h"
#include "SyncPass.h"

#include <lumacrypt/Base64.h>
#include <lumacrypt/KeyExchangeStore.h>
#include <lumacrypt/Timestamp.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <optional>

#include <sys/stat.h>
#include <unistd.h>

using namespace kovritdev;

namespace {

bool writeFile(const QString &path, const QByteArray &content) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(content) == content.size();
}

QByteArray readFile(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

std::span<const std::uint8_t> bytesOf(const std::string &text) {
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

struct PassFixture {
    QTemporaryDir dir;
    std::string folder;
    GroupVault vault;
    std::vector<std::string> statuses;

    PassFixture() {
        folder = (dir.path() + QStringLiteral("/folder")).toStdString();
        vault.root = (dir.path() + QStringLiteral("/vault/1")).toStdString();
        QDir().mkpath(QString::fromStdString(folder));
    }
    QString source(const QString &rel) const {
        return QString::fromStdString(folder) + QLatin1Char('/') + rel;
    }
    QString copy(const QString &rel) const {
        return QString::fromStdString(vault.filesOf(folder)) + QLatin1Char('/') + rel;
    }
    SyncPassInput input(bool firstPass = true) {
        SyncPassInput in;
        in.folder = folder;
        in.vault = vault;
        in.firstPass = firstPass;
        in.stepMs = 0;
        in.cancelled = std::make_shared<std::atomic<bool>>(false);
        in.groupMutex = std::make_shared<std::mutex>();
        in.reportStatus = [this](const std::string &status) { statuses.push_back(status); };
        return in;
    }
};

} // namespace

class UnitsTest : public QObject {
    Q_OBJECT

private slots:
    void commandLineForms();
    void commandLineErrors();
    void faultSwitches();
    void faultSwitchErrors();
    void stateFolderFromTheEnvironment();
    void environmentNumbersAreChecked();
    void desktopSwitchesFollowTheSession();

    void stateRoundTrip();
    void stateDecodeRefusesOtherFiles();
    void corruptStateFileIsMovedAside();
    void atomicWriteLeavesNoTemporaryFile();
    void stateFolderIsMadeAbsolute();

    void channelOpensFreshRecordsOnce();
    void channelForgetsPairsOlderThanTheWindow();
    void channelRefusesItsOwnAnswerSentBack();
    void channelAnswerTimestampsStrictlyIncrease();

    void firstPassCopiesRegularFilesOnly();
    void unchangedFolderPassesQuietly();
    void typeChangesBetweenFileAndFolder();
    void excludedFolderIsNotSynced();
    void missingFolderIsReported();
    void cancelledPassStops();
    void unreadableNamesFailWithoutStoppingTheRest();
    void retentionPassRemovesOnlyExpiredEntries();

    void displayTextIsSafeForAStatusLine();
    void addressesThatMayNameAFile();
    void answerTexts();

    void pidWatchNoticesTheEnd_data();
    void pidWatchNoticesTheEnd();
};

void UnitsTest::commandLineForms() {
    auto result = parseCommandLine({"-pid=42", "-token=abc", "-port=8001"});
    QVERIFY(result.commandLine.has_value());
    QCOMPARE(result.commandLine->pid, std::optional<std::int64_t>(42));
    QCOMPARE(result.commandLine->token, std::string("abc"));
    QCOMPARE(result.commandLine->port, 8001);

    result = parseCommandLine({"--token", "xyz", "-port", "9000"});
    QVERIFY(result.commandLine.has_value());
    QVERIFY(!result.commandLine->pid);
    QCOMPARE(result.commandLine->token, std::string("xyz"));
    QCOMPARE(result.commandLine->port, 9000);

    QVERIFY(parseCommandLine({"-h"}).helpRequested);
    QVERIFY(parseCommandLine({"--help"}).helpRequested);
}

void UnitsTest::commandLineErrors() {
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"-token=a"},
        {"-port=1"},
        {"-token=a", "-port=0"},
        {"-token=a", "-port=65536"},
        {"-token=a", "-port=+80"},
        {"-token=a", "-port=80 "},
        {"-token=", "-port=80"},
        {"-token=a", "-port=80", "-pid=0"},
        {"-token=a", "-port=80", "-pid=-5"},
        {"-token=a", "-port=80", "-pid=99999999999"},
        {"-token=a", "-port=80", "-other=1"},
        {"-token=a", "-port=80", "stray"},
        {"-token=a", "-port"},
        {"---token=a", "-port=80"},
        {"-=x", "-token=a", "-port=80"},
        {"-", "-token=a", "-port=80"},
    };
    for (const auto &args : bad) {
        const auto result = parseCommandLine(args);
        QVERIFY(!result.commandLine);
        QVERIFY(!result.helpRequested);
        QVERIFY(!result.error.empty());
    }
}

void UnitsTest::faultSwitches() {
    const auto result = parseFaults(
        "exit-after=2.5,no-pem,bad-pem,hang,garbage,slow=250,stale-timestamp,status=503,"
        "unreadable=x.txt");
    QVERIFY2(result.faults.has_value(), result.error.c_str());
    const Faults &f = *result.faults;
    QCOMPARE(f.exitAfterSeconds, std::optional<double>(2.5));
    QVERIFY(f.noPem && f.badPem && f.hang && f.garbage && f.staleTimestamp);
    QCOMPARE(f.slowMs, std::optional<int>(250));
    QCOMPARE(f.status, std::optional<int>(503));
    QCOMPARE(f.unreadableNames, std::vector<std::string>{"x.txt"});
    QVERIFY(f.any());
    QCOMPARE(f.describe(), std::string("exit-after=2.5,no-pem,bad-pem,hang,garbage,slow=250,"
                                       "stale-timestamp,status=503,unreadable=x.txt"));

    const auto empty = parseFaults(" , ");
    QVERIFY(empty.faults.has_value());
    QVERIFY(!empty.faults->any());
}

void UnitsTest::faultSwitchErrors() {
    for (const char *text : {"boom", "slow", "slow=", "slow=-1", "slow=1.5", "status=abc",
                             "status=1000", "status=199", "exit-after=", "exit-after=x",
                             "exit-after=-1", "no-pem=1", "unreadable=", "unreadable=a/b"}) {
        const auto result = parseFaults(text);
        QVERIFY2(!result.faults, text);
        QVERIFY(result.error.starts_with("KOVRIT_DEV_FAULT: bad switch"));
    }
}

void UnitsTest::stateFolderFromTheEnvironment() {
    qputenv("KOVRIT_DEV_STATE", "/explicit/state");
    QCOMPARE(settingsFromEnvironment().settings->stateDir, std::string("/explicit/state"));
    qunsetenv("KOVRIT_DEV_STATE");
    qputenv("XDG_STATE_HOME", "/xdg/state");
    QCOMPARE(settingsFromEnvironment().settings->stateDir, std::string("/xdg/state/kovrit-dev"));
    qputenv("XDG_STATE_HOME", "relative/is/ignored");
    qputenv("HOME", "/home/tester");
    QCOMPARE(settingsFromEnvironment().settings->stateDir,
             std::string("/home/tester/.local/state/kovrit-dev"));
    qunsetenv("XDG_STATE_HOME");
    QCOMPARE(settingsFromEnvironment().settings->stateDir,
             std::string("/home/tester/.local/state/kovrit-dev"));
}

void UnitsTest::desktopSwitchesFollowTheSession() {
    // The environment as the test found it, put back at the end.
    const QList<QByteArray> names = {
        "DISPLAY",         "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS",
        "XDG_RUNTIME_DIR", "KOVRIT_DEV_OPEN", "KOVRIT_DEV_NOTIFY"};
    QHash<QByteArray, std::optional<QByteArray>> saved;
    for (const QByteArray &name : names) {
        saved.insert(name, qEnvironmentVariableIsSet(name.constData())
                               ? std::optional<QByteArray>(qgetenv(name.constData()))
                               : std::nullopt);
        qunsetenv(name.constData());
    }
    QTemporaryDir runtime;
    QVERIFY(runtime.isValid());
    qputenv("XDG_RUNTIME_DIR", runtime.path().toUtf8());

    // No display: nothing opens, nothing pops up.
    auto settings = settingsFromEnvironment().settings;
    QVERIFY(settings && !settings->openEnabled && !settings->notifyEnabled);
    // A display but no session bus: the opener works, notifications cannot.
    qputenv("DISPLAY", ":7");
    settings = settingsFromEnvironment().settings;
    QVERIFY(settings && settings->openEnabled && !settings->notifyEnabled);
    // A Wayland desktop with its session bus socket in the runtime folder.
    qunsetenv("DISPLAY");
    qputenv("WAYLAND_DISPLAY", "wayland-0");
    QFile bus(runtime.filePath("bus"));
    QVERIFY(bus.open(QIODevice::WriteOnly));
    bus.close();
    settings = settingsFromEnvironment().settings;
    QVERIFY(settings && settings->openEnabled && settings->notifyEnabled);
    // "0" turns either off on a desktop; "1" forces either without one.
    qputenv("KOVRIT_DEV_OPEN", "0");
    qputenv("KOVRIT_DEV_NOTIFY", "0");
    settings = settingsFromEnvironment().settings;
    QVERIFY(settings && !settings->openEnabled && !settings->notifyEnabled);
    qunsetenv("WAYLAND_DISPLAY");
    qputenv("KOVRIT_DEV_OPEN", "1");
    qputenv("KOVRIT_DEV_NOTIFY", "1");
    settings = settingsFromEnvironment().settings;
    QVERIFY(settings && settings->openEnabled && settings->notifyEnabled);

    for (const QByteArray &name : names) {
        if (const auto value = saved.value(name)) {
            qputenv(name.constData(), *value);
        } else {
            qunsetenv(name.constData());
        }
    }
}

void UnitsTest::environmentNumbersAreChecked() {
    const auto defaults = settingsFromEnvironment();
    QVERIFY(defaults.settings.has_value());
    QCOMPARE(defaults.settings->retentionDaySeconds, 86400.0);
    QVERIFY(!defaults.settings->openEnabled);
    QVERIFY(!defaults.settings->fixedCode);

    qputenv("KOVRIT_DEV_RETENTION_DAY_SECONDS", "0.5");
    qputenv("KOVRIT_DEV_OPEN", "1");
    qputenv("KOVRIT_DEV_CODE", "123456");
    auto settings = settingsFromEnvironment();
    QVERIFY(settings.settings.has_value());
    QCOMPARE(settings.settings->retentionDaySeconds, 0.5);
    QVERIFY(settings.settings->openEnabled);
    QCOMPARE(settings.settings->fixedCode, std::optional<std::string>("123456"));

    for (const char *value : {"abc", "-1", "0", "1e3"}) {
        qputenv("KOVRIT_DEV_RETENTION_DAY_SECONDS", value);
        settings = settingsFromEnvironment();
        QVERIFY2(!settings.settings, value);
        QVERIFY(settings.error.starts_with("KOVRIT_DEV_RETENTION_DAY_SECONDS"));
    }
    qunsetenv("KOVRIT_DEV_RETENTION_DAY_SECONDS");
    qputenv("KOVRIT_DEV_STEP_MS", "fast");
    QVERIFY(!settingsFromEnvironment().settings);
    qunsetenv("KOVRIT_DEV_STEP_MS");
    qputenv("KOVRIT_DEV_CODE", "12 34");
    QVERIFY(!settingsFromEnvironment().settings);
    qunsetenv("KOVRIT_DEV_CODE");
    qputenv("KOVRIT_DEV_FAULT", "nonsense");
    QVERIFY(!settingsFromEnvironment().settings);
    qunsetenv("KOVRIT_DEV_FAULT");
    qunsetenv("KOVRIT_DEV_OPEN");
}

void UnitsTest::stateRoundTrip() {
    State state = StateStore::defaultState();
    QCOMPARE(state.groups.size(), std::size_t(2));
    QCOMPARE(state.groups[0].name, std::string("Personal"));
    QCOMPARE(state.groups[1].name, std::string("Family"));
    QVERIFY(state.account.empty());

    state.account = "me@example.org";
    state.codes.push_back(PendingCode{"me@example.org", "123456", 1700000000000});
    state.groups[0].walkPaths = {"/home/me/Documents", "/home/me/Bilder ünï"};
    state.groups[1].retention = RetentionState{7, 1700000000, 3, 4096};
    std::string error;
    const auto decoded = StateStore::decode(StateStore::encode(state), error);
    QVERIFY2(decoded.has_value(), error.c_str());
    QCOMPARE(decoded->account, state.account);
    QCOMPARE(decoded->codes.size(), std::size_t(1));
    QCOMPARE(decoded->codes[0].code, std::string("123456"));
    QCOMPARE(decoded->codes[0].expiresMs, 1700000000000);
    QCOMPARE(decoded->groups[0].walkPaths, state.groups[0].walkPaths);
    QCOMPARE(decoded->groups[1].retention.days, std::optional<std::int64_t>(7));
    QCOMPARE(decoded->groups[1].retention.lastTime, std::optional<std::int64_t>(1700000000));
    QCOMPARE(decoded->groups[1].retention.lastFileCount, std::optional<std::int64_t>(3));
    QCOMPARE(decoded->groups[1].retention.lastByteCount, std::optional<std::int64_t>(4096));
    QVERIFY(!decoded->groups[0].retention.days);
    QCOMPARE(decoded->nextGroupID, state.nextGroupID);
}

void UnitsTest::stateDecodeRefusesOtherFiles() {
    State state = StateStore::defaultState();
    const std::string good = StateStore::encode(state);
    std::string error;
    QVERIFY(StateStore::decode(good, error).has_value());
    for (std::size_t cut = 0; cut < good.size(); cut += 7) {
        QVERIFY(!StateStore::decode(good.substr(0, cut), error));
    }
    for (
        const char *text :
        {"", "[]", "null", "{}", R"({"version":2})",
         R"({"version":1,"account":5,"codes":[],"next_group_id":1,"groups":[]})",
         R"({"version":1,"account":"","codes":[],"next_group_id":1,"groups":[{"id":1}]})",
         R"({"version":1,"account":"","codes":[],"next_group_id":1,"groups":[{"id":1,"name":"a","walk_paths":[],"retention":{}},{"id":1,"name":"b","walk_paths":[],"retention":{}}]})",
         R"({"version":1,"account":"","codes":[],"next_group_id":1,"groups":[{"id":1,"name":"a","walk_paths":[3],"retention":{}}]})"}) {
        QVERIFY2(!StateStore::decode(text, error), text);
    }
}

void UnitsTest::corruptStateFileIsMovedAside() {
    QTemporaryDir dir;
    const QString stateDir = dir.path() + QStringLiteral("/state");
    StateStore store(stateDir.toStdString());
    std::string error;
    QVERIFY(store.prepare(error));
    QVERIFY(QFileInfo(stateDir + QStringLiteral("/outbox")).isDir());
    QVERIFY(QFileInfo(stateDir + QStringLiteral("/vault")).isDir());
    QCOMPARE(QFileInfo(stateDir).permissions() & (QFileDevice::ReadOther | QFileDevice::ReadGroup),
             QFileDevice::Permissions());

    QVERIFY(writeFile(stateDir + QStringLiteral("/state.json"), "{ half a state"));
    store.load();
    QVERIFY(store.state().account.empty());
    QCOMPARE(store.state().groups.size(), std::size_t(2));
    const QStringList aside =
        QDir(stateDir).entryList({QStringLiteral("state.json.corrupt-*")}, QDir::Files);
    QCOMPARE(aside.size(), 1);
    QCOMPARE(readFile(stateDir + QLatin1Char('/') + aside[0]), QByteArray("{ half a state"));

    store.state().account = "x@y.z";
    QVERIFY(store.save());
    StateStore again(stateDir.toStdString());
    again.load();
    QCOMPARE(again.state().account, std::string("x@y.z"));
}

void UnitsTest::atomicWriteLeavesNoTemporaryFile() {
    QTemporaryDir dir;
    const std::string path = (dir.path() + QStringLiteral("/file.txt")).toStdString();
    std::string error;
    QVERIFY(writeFileAtomically(path, "one", error));
    QVERIFY(writeFileAtomically(path, "two", error));
    QCOMPARE(readFile(QString::fromStdString(path)), QByteArray("two"));
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden),
             QStringList{QStringLiteral("file.txt")});
    QVERIFY(!writeFileAtomically((dir.path() + QStringLiteral("/no/such/dir/f")).toStdString(), "x",
                                 error));
    QVERIFY(!error.empty());
}

void UnitsTest::stateFolderIsMadeAbsolute() {
    const StateStore relative("some/state/");
    QCOMPARE(QString::fromStdString(relative.dir()),
             QDir::current().absoluteFilePath(QStringLiteral("some/state")));
    QCOMPARE(StateStore("/a/./b//c/").dir(), std::string("/a/b/c"));
    QCOMPARE(StateStore("/a/b/").vaultDir(), std::string("/a/b/vault"));
}

void UnitsTest::channelOpensFreshRecordsOnce() {
    auto client = lumacrypt::KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(std::string());
    Channel channel(client.LocalPublicKey());
    client.setExternalPublicKey(channel.localPublicKey());
    QCOMPARE(channel.pemBlock(), "-----BEGIN PUBLIC KEY-----\n" + channel.localPublicKey() +
                                     "\n-----END PUBLIC KEY-----\n");

    const std::int64_t now = currentTimeMs();
    const std::string timestamp = std::to_string(now);
    const std::string record =
        client.encodeJSONAndEncrypt("ping", "", "", bytesOf(timestamp)).toJSON();

    auto opened = channel.open(record, now + 10);
    QVERIFY(std::holds_alternative<Channel::Opened>(opened));
    QCOMPARE(std::get<Channel::Opened>(opened).plaintext,
             std::string(R"({"Type":"ping","ID":"","Data":""})"));
    QCOMPARE(std::get<Channel::Opened>(opened).timestamp, now);

    opened = channel.open(record, now + 20);
    QVERIFY(std::holds_alternative<Channel::Refused>(opened));
    QCOMPARE(std::get<Channel::Refused>(opened).reason, std::string("replayed record"));

    // A copy whose salt is written with other (unused) padding bits is the same request.
    auto variant = lumacrypt::KeyExchangeAEADStore::fromJSON(record);
    QCOMPARE(variant.kdfNonce.size(), std::size_t(44));
    QCOMPARE(variant.kdfNonce.back(), '=');
    const char last = variant.kdfNonce[42];
    static const std::string alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto index = alphabet.find(last);
    variant.kdfNonce[42] = alphabet[index ^ 1]; // the lowest of the two spare bits
    const auto decoded = lumacrypt::base64Decode(variant.kdfNonce);
    if (decoded && *decoded == *lumacrypt::base64Decode(
                                   lumacrypt::KeyExchangeAEADStore::fromJSON(record).kdfNonce)) {
        opened = channel.open(variant.toJSON(), now + 30);
        QVERIFY(std::holds_alternative<Channel::Refused>(opened));
        QCOMPARE(std::get<Channel::Refused>(opened).reason, std::string("replayed record"));
    } else {
        qInfo("the base64 decoder refuses non-zero padding bits; nothing to replay that way");
    }

    // Freshness: 5 s either way.
    const std::string stale = std::to_string(now - 5001);
    opened =
        channel.open(client.encodeJSONAndEncrypt("ping", "", "", bytesOf(stale)).toJSON(), now);
    QVERIFY(std::holds_alternative<Channel::Refused>(opened));
    const std::string edge = std::to_string(now - 5000);
    opened = channel.open(client.encodeJSONAndEncrypt("ping", "", "", bytesOf(edge)).toJSON(), now);
    QVERIFY(std::holds_alternative<Channel::Opened>(opened));
    const std::string future = std::to_string(now + 5001);
    opened =
        channel.open(client.encodeJSONAndEncrypt("ping", "", "", bytesOf(future)).toJSON(), now);
    QVERIFY(std::holds_alternative<Channel::Refused>(opened));
    const std::string huge = "9223372036854775807";
    opened = channel.open(client.encodeJSONAndEncrypt("ping", "", "", bytesOf(huge)).toJSON(), now);
    QVERIFY(std::holds_alternative<Channel::Refused>(opened));
    const std::string negative = "-9223372036854775807";
    opened =
        channel.open(client.encodeJSONAndEncrypt("ping", "", "", bytesOf(negative)).toJSON(), now);
    QVERIFY(std::holds_alternative<Channel::Refused>(opened));

    // Another client's record does not open.
    auto stranger = lumacrypt::KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(std::string());
    stranger.setExternalPublicKey(channel.localPublicKey());
    opened = channel.open(
        stranger.encodeJSONAndEncrypt("ping", "", "", bytesOf(timestamp)).toJSON(), now);
    QVERIFY(std::holds_alternative<Channel::Refused>(opened));
}

void UnitsTest::channelRefusesItsOwnAnswerSentBack() {
    auto client = lumacrypt::KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(std::string());
    Channel channel(client.LocalPublicKey());
    client.setExternalPublicKey(channel.localPublicKey());
    // An answer opens with the same key as a request, and its timestamp is fresh...
    const std::string answer = channel.seal(R"({"Type":"getGroups","ID":"","Data":""})");
    QVERIFY(client.decryptAEADStore(lumacrypt::KeyExchangeAEADStore::fromJSON(answer)).size() > 0);
    // ...but sent back as a request it is refused.
    const auto opened = channel.open(answer, currentTimeMs());
    QVERIFY(std::holds_alternative<Channel::Refused>(opened));
    QCOMPARE(std::get<Channel::Refused>(opened).reason,
             std::string("an answer of ours sent back as a request"));
    // A request of the client's own still opens.
    const std::string timestamp = std::to_string(currentTimeMs());
    QVERIFY(std::holds_alternative<Channel::Opened>(
        channel.open(client.encodeJSONAndEncrypt("ping", "", "", bytesOf(timestamp)).toJSON(),
                     currentTimeMs())));
}

void UnitsTest::channelForgetsPairsOlderThanTheWindow() {
    auto client = lumacrypt::KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(std::string());
    Channel channel(client.LocalPublicKey());
    client.setExternalPublicKey(channel.localPublicKey());
    const std::int64_t now = currentTimeMs();
    for (int i = 0; i < 20; ++i) {
        const std::string timestamp = std::to_string(now + i);
        QVERIFY(std::holds_alternative<Channel::Opened>(channel.open(
            client.encodeJSONAndEncrypt("ping", "", "", bytesOf(timestamp)).toJSON(), now)));
    }
    QCOMPARE(channel.rememberedCount(), std::size_t(20));
    // Six seconds later those pairs are outside the window and forgotten.
    const std::string later = std::to_string(now + 6000);
    QVERIFY(std::holds_alternative<Channel::Opened>(channel.open(
        client.encodeJSONAndEncrypt("ping", "", "", bytesOf(later)).toJSON(), now + 6000)));
    QCOMPARE(channel.rememberedCount(), std::size_t(1));
}

void UnitsTest::channelAnswerTimestampsStrictlyIncrease() {
    auto client = lumacrypt::KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(std::string());
    Channel channel(client.LocalPublicKey());
    client.setExternalPublicKey(channel.localPublicKey());
    std::int64_t last = 0;
    for (int i = 0; i < 300; ++i) {
        const bool stale = i >= 200;
        const auto record = lumacrypt::KeyExchangeAEADStore::fromJSON(channel.seal("{}", stale));
        const auto plaintext = client.decryptAEADStore(record);
        QCOMPARE(std::string(plaintext.begin(), plaintext.end()), std::string("{}"));
        const auto timestamp = lumacrypt::KeyExchangeTimestamp(record.additionalData);
        QVERIFY(timestamp.has_value());
        QVERIFY2(*timestamp > last, qPrintable(QString::number(i)));
        if (!stale) {
            QVERIFY(std::llabs(*timestamp - currentTimeMs()) < 500);
        }
        last = *timestamp;
    }
    // Answers sealed faster than one a millisecond run ahead of the clock by one per answer;
    // once the clock has passed them by more than a second, stale answers are a second behind.
    QTest::qWait(static_cast<int>(std::max<std::int64_t>(0, last - currentTimeMs())) + 1200);
    const auto record = lumacrypt::KeyExchangeAEADStore::fromJSON(channel.seal("{}", true));
    const auto timestamp = *lumacrypt::KeyExchangeTimestamp(record.additionalData);
    QVERIFY(currentTimeMs() - timestamp >= 990);
    QVERIFY(timestamp > last);
}

void UnitsTest::firstPassCopiesRegularFilesOnly() {
    PassFixture f;
    QVERIFY(writeFile(f.source(QStringLiteral("a.txt")), "alpha"));
    QVERIFY(writeFile(f.source(QStringLiteral("dir/b.txt")), "beta"));
    QVERIFY(writeFile(f.source(QStringLiteral("dir/empty.txt")), QByteArray()));
    QVERIFY(writeFile(f.source(QStringLiteral("line\nbreak.txt")), "odd name"));
    QVERIFY(QFile::link(f.source(QStringLiteral("a.txt")), f.source(QStringLiteral("link.txt"))));
    QVERIFY(QFile::link(f.source(QStringLiteral("dir")), f.source(QStringLiteral("dirlink"))));
    QCOMPARE(::mkfifo(f.source(QStringLiteral("pipe")).toLocal8Bit().constData(), 0600), 0);

    const auto result = runSyncPass(f.input());
    QVERIFY(!result.cancelled && !result.folderMissing);
    QVERIFY(result.visible);
    QCOMPARE(result.fileCount, std::size_t(4));
    QCOMPARE(result.uploaded, std::size_t(4));
    QVERIFY(result.problems.empty());
    QCOMPARE(readFile(f.copy(QStringLiteral("a.txt"))), QByteArray("alpha"));
    QCOMPARE(readFile(f.copy(QStringLiteral("dir/b.txt"))), QByteArray("beta"));
    QCOMPARE(readFile(f.copy(QStringLiteral("dir/empty.txt"))), QByteArray());
    QCOMPARE(readFile(f.copy(QStringLiteral("line\nbreak.txt"))), QByteArray("odd name"));
    QVERIFY(!QFileInfo::exists(f.copy(QStringLiteral("link.txt"))));
    QVERIFY(!QFileInfo::exists(f.copy(QStringLiteral("dirlink"))));
    QVERIFY(!QFileInfo::exists(f.copy(QStringLiteral("pipe"))));
    QVERIFY(QFileInfo::exists(QString::fromStdString(f.vault.indexOf(f.folder))));

    // The six steps, in order; the odd name shows without its line break.
    std::vector<char> steps;
    for (const auto &status : f.statuses) {
        QVERIFY2(status.size() > 9 && status.substr(1, 8) == " of 6 - ", status.c_str());
        QVERIFY(status.find('\n') == std::string::npos);
        if (steps.empty() || steps.back() != status[0]) {
            steps.push_back(status[0]);
        }
    }
    QCOMPARE(steps, (std::vector<char>{'1', '2', '3', '4', '5', '6'}));
    QVERIFY(std::find(f.statuses.begin(), f.statuses.end(),
                      "2 of 6 - Uploading file (line?break.txt) ...") != f.statuses.end());
    QVERIFY(std::find(f.statuses.begin(), f.statuses.end(),
                      "2 of 6 - Uploading file (dir/b.txt) ...") != f.statuses.end());
}

void UnitsTest::unchangedFolderPassesQuietly() {
    PassFixture f;
    QVERIFY(writeFile(f.source(QStringLiteral("a.txt")), "alpha"));
    QVERIFY(runSyncPass(f.input()).visible);
    f.statuses.clear();
    auto result = runSyncPass(f.input(false));
    QVERIFY(!result.visible);
    QVERIFY(f.statuses.empty());
    QCOMPARE(result.uploaded, std::size_t(0));

    // A change of content with a new modification time is uploaded, with the steps shown.
    QVERIFY(writeFile(f.source(QStringLiteral("a.txt")), "ALPHA, longer"));
    result = runSyncPass(f.input(false));
    QVERIFY(result.visible);
    QCOMPARE(result.uploaded, std::size_t(1));
    QCOMPARE(readFile(f.copy(QStringLiteral("a.txt"))), QByteArray("ALPHA, longer"));
    QVERIFY(!f.statuses.empty());
}

void UnitsTest::typeChangesBetweenFileAndFolder() {
    PassFixture f;
    QVERIFY(writeFile(f.source(QStringLiteral("x")), "x was a file"));
    QVERIFY(writeFile(f.source(QStringLiteral("y/inner.txt")), "y was a folder"));
    QVERIFY(runSyncPass(f.input()).problems.empty());

    QVERIFY(QFile::remove(f.source(QStringLiteral("x"))));
    QVERIFY(writeFile(f.source(QStringLiteral("x/now.txt")), "x is a folder"));
    QVERIFY(QDir(f.source(QStringLiteral("y"))).removeRecursively());
    QVERIFY(writeFile(f.source(QStringLiteral("y")), "y is a file"));

    const auto result = runSyncPass(f.input(false));
    QVERIFY2(result.problems.empty(), result.errorText(f.folder).c_str());
    QCOMPARE(readFile(f.copy(QStringLiteral("x/now.txt"))), QByteArray("x is a folder"));
    QCOMPARE(readFile(f.copy(QStringLiteral("y"))), QByteArray("y is a file"));

    // The replaced versions went to the deleted area.
    const QString deleted = QString::fromStdString(f.vault.deletedRoot());
    QStringList kept;
    for (const auto &entry : QDir(deleted).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString base = deleted + QLatin1Char('/') + entry + QString::fromStdString(f.folder);
        if (QFileInfo(base + QStringLiteral("/x")).isFile()) {
            kept << readFile(base + QStringLiteral("/x"));
        }
        if (QFileInfo(base + QStringLiteral("/y/inner.txt")).isFile()) {
            kept << readFile(base + QStringLiteral("/y/inner.txt"));
        }
    }
    kept.sort();
    QCOMPARE(kept, (QStringList{QStringLiteral("x was a file"), QStringLiteral("y was a folder")}));
}

void UnitsTest::excludedFolderIsNotSynced() {
    PassFixture f;
    QVERIFY(writeFile(f.source(QStringLiteral("keep.txt")), "keep"));
    QVERIFY(writeFile(f.source(QStringLiteral("state/state.json")), "{}"));
    auto input = f.input();
    input.excludedFolders = {f.source(QStringLiteral("state")).toStdString()};
    const auto result = runSyncPass(input);
    QCOMPARE(result.fileCount, std::size_t(1));
    QVERIFY(QFileInfo::exists(f.copy(QStringLiteral("keep.txt"))));
    QVERIFY(!QFileInfo::exists(f.copy(QStringLiteral("state"))));
}

void UnitsTest::missingFolderIsReported() {
    PassFixture f;
    QVERIFY(writeFile(f.source(QStringLiteral("a.txt")), "alpha"));
    QVERIFY(runSyncPass(f.input()).problems.empty());
    QVERIFY(QDir(QString::fromStdString(f.folder)).removeRecursively());
    const auto result = runSyncPass(f.input(false));
    QVERIFY(result.folderMissing);
    QCOMPARE(result.errorText(f.folder), "Folder not found: " + f.folder);
    // A folder that went away is not taken as all its files deleted.
    QCOMPARE(readFile(f.copy(QStringLiteral("a.txt"))), QByteArray("alpha"));
}

void UnitsTest::cancelledPassStops() {
    PassFixture f;
    for (int i = 0; i < 20; ++i) {
        QVERIFY(writeFile(f.source(QStringLiteral("f%1.txt").arg(i)), "data"));
    }
    auto input = f.input();
    input.reportStatus = [&input](const std::string &status) {
        if (status.starts_with("2 of 6 - Uploading file")) {
            input.cancelled->store(true);
        }
    };
    const auto result = runSyncPass(input);
    QVERIFY(result.cancelled);
    QVERIFY(result.uploaded < 20);
}

void UnitsTest::unreadableNamesFailWithoutStoppingTheRest() {
    PassFixture f;
    QVERIFY(writeFile(f.source(QStringLiteral("a.txt")), "alpha"));
    QVERIFY(writeFile(f.source(QStringLiteral("sub/secret.txt")), "hidden"));
    QVERIFY(writeFile(f.source(QStringLiteral("z.txt")), "zulu"));
    auto input = f.input();
    input.unreadableNames = {"secret.txt"};
    const auto result = runSyncPass(input);
    QCOMPARE(result.uploaded, std::size_t(2));
    QCOMPARE(result.problems.size(), std::size_t(1));
    QCOMPARE(result.errorText(f.folder),
             std::string("1 item was not synced: sub/secret.txt (cannot read: Permission denied)"));
    QCOMPARE(result.failures.size(), std::size_t(1));
    QVERIFY(QFileInfo::exists(f.copy(QStringLiteral("z.txt"))));

    // Retrying only the failed file does not show the steps again.
    f.statuses.clear();
    input.previousFailures = result.failures;
    input.firstPass = false;
    const auto again = runSyncPass(input);
    QVERIFY(!again.visible);
    QVERIFY(f.statuses.empty());
    QCOMPARE(again.problems.size(), std::size_t(1));

    SyncPassResult many;
    many.problems = {"a (x)", "b (x)", "c (x)", "d (x)", "e (x)"};
    QCOMPARE(many.errorText("/f"),
             std::string("5 items were not synced: a (x), b (x), c (x) and 2 more"));
}

void UnitsTest::retentionPassRemovesOnlyExpiredEntries() {
    QTemporaryDir dir;
    GroupVault vault{(dir.path() + QStringLiteral("/vault/2")).toStdString()};
    const QString deleted = QString::fromStdString(vault.deletedRoot());
    QVERIFY(writeFile(deleted + QStringLiteral("/1000/home/a/one.txt"), "12345"));
    QVERIFY(writeFile(deleted + QStringLiteral("/1000/home/a/sub/two.txt"), "1234567"));
    QVERIFY(writeFile(deleted + QStringLiteral("/2000/home/a/three.txt"), "123"));
    QVERIFY(writeFile(deleted + QStringLiteral("/3000/home/a/four.txt"), "1"));
    QVERIFY(writeFile(deleted + QStringLiteral("/notes/keep.txt"), "not an entry"));
    std::mutex mutex;

    auto result = runRetentionPass(vault, 2000, mutex);
    QCOMPARE(result.fileCount, 3);
    QCOMPARE(result.byteCount, 15);
    QVERIFY(result.problems.empty());
    QStringList left = QDir(deleted).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    left.sort();
    QCOMPARE(left, (QStringList{QStringLiteral("3000"), QStringLiteral("notes")}));

    result = runRetentionPass(vault, 2000, mutex);
    QCOMPARE(result.fileCount, 0);
    QCOMPARE(result.byteCount, 0);

    GroupVault empty{(dir.path() + QStringLiteral("/vault/9")).toStdString()};
    result = runRetentionPass(empty, 5000, mutex);
    QCOMPARE(result.fileCount, 0);
}

void UnitsTest::displayTextIsSafeForAStatusLine() {
    QCOMPARE(displayText("plain.txt"), std::string("plain.txt"));
    QCOMPARE(displayText("a\nb\tc\x7f"), std::string("a?b?c?"));
    QCOMPARE(displayText("ünï ✓"), std::string("ünï ✓"));
    const std::string invalid = displayText(std::string("bad\xff\xfe", 5));
    QVERIFY(invalid.starts_with("bad"));
    QVERIFY(QString::fromUtf8(invalid.c_str()).toUtf8().toStdString() == invalid);
}

void UnitsTest::addressesThatMayNameAFile() {
    QVERIFY(validAddress("someone@example.org"));
    QVERIFY(validAddress("first.last+tag@sub.example.org"));
    for (const char *address : {"", "@", "a@", "@b", "no-at", "../x@y", "a/b@c", "a@b/c",
                                ".hidden@x", "sp ace@x", "a\\b@c", "tab\t@x"}) {
        QVERIFY2(!validAddress(address), address);
    }
    QVERIFY(!validAddress(std::string(250, 'a') + "@b.cd"));
}

void UnitsTest::answerTexts() {
    QCOMPARE(successResponse(), std::string(R"({"status":"success"})"));
    QCOMPARE(errorResponse("Invalid or expired code"),
             std::string(R"({"status":"error","error":"Invalid or expired code"})"));
    QCOMPARE(backendMessage("auth request"),
             std::string(R"({"Type":"auth request","ID":"","Data":""})"));
}

void UnitsTest::pidWatchNoticesTheEnd_data() {
    QTest::addColumn<bool>("polling");
    QTest::newRow("automatic") << false;
    QTest::newRow("polling") << true;
}

void UnitsTest::pidWatchNoticesTheEnd() {
    QFETCH(bool, polling);
    QProcess sleeper;
    sleeper.start(QStringLiteral("sleep"), {QStringLiteral("30")});
    QVERIFY(sleeper.waitForStarted(5000));
    int calls = 0;
    PidWatch watch(
        static_cast<pid_t>(sleeper.processId()), [&calls] { ++calls; },
        polling ? PidWatch::Method::polling : PidWatch::Method::automatic);
    if (polling) {
        QVERIFY(!watch.usesPidfd());
    } else {
        qInfo("automatic watch uses %s", watch.usesPidfd() ? "a pidfd" : "polling");
    }
    QTest::qWait(300);
    QCOMPARE(calls, 0);
    sleeper.kill();
    QVERIFY(sleeper.waitForFinished(5000));
    QTRY_COMPARE_WITH_TIMEOUT(calls, 1, 2000);
    QTest::qWait(600);
    QCOMPARE(calls, 1); // once only

    int gone = 0;
    PidWatch missing(
        static_cast<pid_t>(0x7ffffff0), [&gone] { ++gone; },
        polling ? PidWatch::Method::polling : PidWatch::Method::automatic);
    QTRY_COMPARE_WITH_TIMEOUT(gone, 1, 2000);
}

QTEST_GUILESS_MAIN(UnitsTest)
#include "tst_units.moc"
