// The request client's local logic: errors, store factories, the reply timestamp check, the
// liveness timer, opening sealed replies and the small forwarders.

#include <Models.h>
#include <PollManager.h>
#include <lumacrypt/lumacrypt.h>
#include <runwarden/ExitAppIfAlreadyOpen.h>

#include <QJsonObject>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <sys/utsname.h>

#include <climits>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

using tidepost::Error;
using tidepost::PollManager;
using tidepost::PollManagerError;
using tidepost::PollManagerException;

namespace {

constexpr std::int64_t kNow = 1714557600123; // a fixed clock for the timestamp checks

std::string additionalDataFor(std::int64_t t) {
    return lumacrypt::base64Encode(std::to_string(t));
}

// Runs `f` and returns the PollManagerError it throws (std::nullopt when it does not throw one).
template <class F> std::optional<PollManagerError> pollErrorOf(F &&f) {
    try {
        f();
    } catch (const PollManagerException &e) {
        return e.error();
    }
    return std::nullopt;
}

template <class F> Error errorOf(F &&f) {
    try {
        f();
    } catch (...) {
        return Error::fromCurrentException();
    }
    return {"none", -1, "no exception"};
}

struct Logged {
    std::vector<std::string> lines;
    PollManager::LogSink sink() {
        return [this](const std::string &line) { lines.push_back(line); };
    }
};

// A record as the backend would produce it: sealed by `backend` for the client.
QByteArray sealedReply(const lumacrypt::KeyExchangeStore &backend,
                       const tidepost::TypeIDAndData &value, std::int64_t t) {
    const std::string ad = std::to_string(t);
    const lumacrypt::Bytes adBytes(ad.begin(), ad.end());
    return QByteArray::fromStdString(backend.encodeJSONAndEncrypt(value, adBytes).toJSON());
}

// Connects the client's store and a second store that plays the backend.
void pair(PollManager &pm, lumacrypt::KeyExchangeStore &backend) {
    pm.kes.setExternalPublicKey(backend.LocalPublicKey());
    backend.setExternalPublicKey(pm.kes.LocalPublicKey());
}

std::string withReplacedChar(std::string text, std::size_t index) {
    text[index] = text[index] == 'A' ? 'B' : 'A';
    return text;
}

} // namespace

class TestPollManager : public QObject {
    Q_OBJECT

private slots:
    // ---- errors
    void errorNamesAndIndexes();
    void errorFromEveryKnownException();
    void errorFromErrorCode();

    // ---- construction and forwarders
    void constructionUsesTheFactory();
    void factoriesMakeStoresOfTheirPreset();
    void forwarders();
    void objectAsStringIsTheDefaultEncoding();
    void exitAppIfAlreadyOpenKeepsTheGuardListening();

    // ---- reply timestamps
    void equalTimestampExpiresAndTheNextNewerSucceeds();
    void aheadOfTheClockIsInPastError();
    void olderThanTheWindowIsInFutureError();
    void invalidFormat();
    void hugeDifferenceDoesNotOverflow();
    void authTimestampPrintsAndReturnsFalse();

    // ---- liveness timer
    void noTimerWithoutPingTimeLimit();
    void timerIntervalIsAFifthOfTheLimit();
    void timeoutFiresOnTheFifthTickAndRestarts();
    void pongPostponesTheTimeout();
    void resubscribingWithoutLimitRemovesTheTimer();

    // ---- sealed replies
    void decryptRoundTrip();
    void decryptWithTimestampPredicate();
    void decryptFailures();
};

// ---------------------------------------------------------------------------------------------

void TestPollManager::errorNamesAndIndexes() {
    const std::vector<std::pair<PollManagerError, std::string>> cases = {
        {PollManagerError::urlError, "urlError"},
        {PollManagerError::publishFailure, "publishFailure"},
        {PollManagerError::timestampInvalidFormat, "timestampInvalidFormat"},
        {PollManagerError::timestampExpired, "timestampExpired"},
        {PollManagerError::timestampInPastError, "timestampInPastError"},
        {PollManagerError::timestampInFutureError, "timestampInFutureError"},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto &[error, name] = cases[i];
        QCOMPARE(std::string(tidepost::toString(error)), name);
        QCOMPARE(std::string(PollManagerException(error).what()), name);
        const Error e = Error::of(error);
        QCOMPARE(e.domain, std::string("PollManagerError"));
        QCOMPARE(e.code, int(i));
        QCOMPARE(e.description, name);
    }
}

void TestPollManager::errorFromEveryKnownException() {
    Error e = errorOf([] { throw PollManagerException(PollManagerError::timestampExpired); });
    QCOMPARE(e, (Error{"PollManagerError", 3, "timestampExpired"}));

    e = errorOf([] {
        throw lumacrypt::KeyExchangeException(lumacrypt::KeyExchangeError::invalidAdditionalData);
    });
    QCOMPARE(e, (Error{"KeyExchangeError", 5, "invalidAdditionalData"}));

    e = errorOf([] { throw lumacrypt::PEMException(lumacrypt::PEMError::doesNotExist); });
    QCOMPARE(e, (Error{"PEMError", 0, "doesNotExist"}));

    e = errorOf([] {
        throw lumacrypt::CryptoError(lumacrypt::CryptoError::Kind::authenticationFailure,
                                     "authentication failed");
    });
    QCOMPARE(e, (Error{"CryptoError", 3, "authentication failed"}));

    e = errorOf([] { throw lumacrypt::DecodingError("not a sealed record"); });
    QCOMPARE(e, (Error{"DecodingError", 0, "not a sealed record"}));

    e = errorOf(
        [] { throw tarnwick::TarnwickException(tarnwick::TarnwickError::unknownRequestType); });
    QCOMPARE(e, (Error{"TarnwickError", 1, "unknownRequestType"}));

    e = errorOf([] { throw tarnwick::DecodingError("missing key GroupID"); });
    QCOMPARE(e, (Error{"DecodingError", 0, "missing key GroupID"}));

    e = errorOf([] { throw std::system_error(ENOENT, std::system_category()); });
    QCOMPARE(e.domain, std::string("POSIXError"));
    QCOMPARE(e.code, ENOENT);
    QCOMPARE(e.description, std::system_category().message(ENOENT));

    e = errorOf([] { throw std::runtime_error("something else"); });
    QCOMPARE(e, (Error{"unknown", 0, "something else"}));

    e = errorOf([] { throw 42; });
    QCOMPARE(e, (Error{"unknown", 0, "unknown"}));

    // Outside a catch block there is nothing to map; it must not end the program.
    QCOMPARE(Error::fromCurrentException().domain, std::string("unknown"));
}

void TestPollManager::errorFromErrorCode() {
    const Error notFound =
        Error::fromErrorCode(make_error_code(runwarden::ProcessManagerError::executableNotFound));
    QCOMPARE(notFound, (Error{"ProcessManagerError", 0, "executableNotFound"}));
    const Error denied = Error::fromErrorCode(std::error_code(EACCES, std::system_category()));
    QCOMPARE(denied.domain, std::string("POSIXError"));
    QCOMPARE(denied.code, EACCES);
    QCOMPARE(denied.description, std::system_category().message(EACCES));
}

// ---------------------------------------------------------------------------------------------

void TestPollManager::constructionUsesTheFactory() {
    int calls = 0;
    const std::int64_t before = lumacrypt::KeyExchangeCurrentTimestamp();
    PollManager pm([&calls] {
        ++calls;
        return tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM();
    });
    const std::int64_t after = lumacrypt::KeyExchangeCurrentTimestamp();
    QCOMPARE(calls, 1);
    QCOMPARE(pm.kes.curve(), lumacrypt::KeyExchangeCurve::curve25519);
    QCOMPARE(pm.bearerToken, pm.kes.LocalPublicKey());
    QCOMPARE(pm.bearerToken.size(), std::size_t(44));
    QVERIFY(pm.kes.externalPublicKey().empty());
    QCOMPARE(pm.pingCount, std::int64_t(0));
    QVERIFY(pm.timer() == nullptr);
    QVERIFY(pm.timestamp >= before && pm.timestamp <= after);
    QVERIFY(!pm.isBackendRunning());
    QVERIFY(!pm.processManager().isLoopRunning());

    // Two clients never share keys.
    PollManager other(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    QVERIFY(other.bearerToken != pm.bearerToken);
}

void TestPollManager::factoriesMakeStoresOfTheirPreset() {
    const lumacrypt::KeyExchangeStore s256 = tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM();
    const lumacrypt::KeyExchangeStore s384 = tidepost::KeyExchange_Curve25519_SHA384_HKDF_AESGCM();
    const lumacrypt::KeyExchangeStore s512 = tidepost::KeyExchange_Curve25519_SHA512_HKDF_AESGCM();
    QCOMPARE(s256.hashFunction(), lumacrypt::HashFunction::sha256);
    QCOMPARE(s384.hashFunction(), lumacrypt::HashFunction::sha384);
    QCOMPARE(s512.hashFunction(), lumacrypt::HashFunction::sha512);
    for (const auto *s : {&s256, &s384, &s512}) {
        QCOMPARE(s->curve(), lumacrypt::KeyExchangeCurve::curve25519);
        QCOMPARE(s->kdf(), lumacrypt::KeyExchangeKDF::hkdf);
        QCOMPARE(s->aead(), lumacrypt::KeyExchangeAEAD::aesgcm);
        QCOMPARE(s->LocalPublicKey().size(), std::size_t(44));
        QVERIFY(s->externalPublicKey().empty());
    }
}

void TestPollManager::forwarders() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);

    const std::int64_t before = lumacrypt::KeyExchangeCurrentTimestamp();
    const lumacrypt::Bytes data = pm.keyExchangeCurrentTimestampData();
    const std::int64_t after = lumacrypt::KeyExchangeCurrentTimestamp();
    const std::string text(data.begin(), data.end());
    bool ok = false;
    const qint64 parsed = QString::fromStdString(text).toLongLong(&ok);
    QVERIFY(ok);
    QVERIFY(parsed >= before && parsed <= after);
    QCOMPARE(QString::number(parsed).toStdString(), text); // plain decimal text

    for (int i = 0; i < 20; ++i) {
        const int port = pm.randomOpenPort(8001, 9000);
        QVERIFY(port >= 8001 && port < 9000);
    }
    QCOMPARE(pm.randomOpenPort(20123, 20124), 20123);

    struct ::utsname names {};
    QCOMPARE(::uname(&names), 0);
    QCOMPARE(pm.systemArchitecture(), std::string(names.machine));

    pm.pingCount = 4;
    pm.pong();
    QCOMPARE(pm.pingCount, std::int64_t(0));
}

void TestPollManager::objectAsStringIsTheDefaultEncoding() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    const tidepost::TypeIDAndData envelope{"addWatchDir", "Personal", "/home/u/Docs/é"};
    QCOMPARE(pm.objectAsString(envelope),
             std::string(R"({"Type":"addWatchDir","ID":"Personal","Data":"/home/u/Docs/é"})"));
}

void TestPollManager::exitAppIfAlreadyOpenKeepsTheGuardListening() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    runwarden::InstanceGuard &guard = pm.instanceGuard();
    QCOMPARE(&pm.instanceGuard(), &guard); // one guard, owned by the client
    QCOMPARE(guard.outcome(), runwarden::InstanceGuard::Outcome::NotTried);
    pm.exitAppIfAlreadyOpen(); // the first instance: returns
    QCOMPARE(guard.outcome(), runwarden::InstanceGuard::Outcome::Listening);

    // A later start asks this instance to show itself, through the guard the client owns.
    QSignalSpy shown(&guard, &runwarden::InstanceGuard::showRequested);
    auto reply = std::async(std::launch::async, [] {
        return runwarden::sendInstanceRequest(QJsonObject{{"command", "show"}}, 5000);
    });
    QTRY_COMPARE_WITH_TIMEOUT(shown.count(), 1, 5000);
    QTRY_VERIFY_WITH_TIMEOUT(reply.wait_for(std::chrono::seconds(0)) == std::future_status::ready,
                             5000);
    QVERIFY(reply.get().connected);
}

// ---------------------------------------------------------------------------------------------

void TestPollManager::equalTimestampExpiresAndTheNextNewerSucceeds() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    pm.setClock([] { return kNow; });
    pm.timestamp = kNow - 10;

    pm.authTimestampThrows(additionalDataFor(kNow - 5));
    QCOMPARE(pm.timestamp, kNow - 5);

    QCOMPARE(pollErrorOf([&] { pm.authTimestampThrows(additionalDataFor(kNow - 5)); }),
             std::optional(PollManagerError::timestampExpired));
    QCOMPARE(pollErrorOf([&] { pm.authTimestampThrows(additionalDataFor(kNow - 6)); }),
             std::optional(PollManagerError::timestampExpired));
    QCOMPARE(pm.timestamp, kNow - 5);

    pm.authTimestampThrows(additionalDataFor(kNow - 4));
    QCOMPARE(pm.timestamp, kNow - 4);
}

void TestPollManager::aheadOfTheClockIsInPastError() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    pm.setClock([] { return kNow; });
    pm.timestamp = kNow - 1000;

    QCOMPARE(pollErrorOf([&] { pm.authTimestampThrows(additionalDataFor(kNow + 51)); }),
             std::optional(PollManagerError::timestampInPastError));
    QCOMPARE(pollErrorOf([&] { pm.authTimestampThrows(additionalDataFor(kNow + 100000)); }),
             std::optional(PollManagerError::timestampInPastError));
    QCOMPARE(pm.timestamp, kNow - 1000);

    pm.authTimestampThrows(additionalDataFor(kNow + 50)); // the edge of the window is inside
    QCOMPARE(pm.timestamp, kNow + 50);
}

void TestPollManager::olderThanTheWindowIsInFutureError() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    pm.setClock([] { return kNow; });
    pm.timestamp = kNow - 1000;

    QCOMPARE(pollErrorOf([&] { pm.authTimestampThrows(additionalDataFor(kNow - 51)); }),
             std::optional(PollManagerError::timestampInFutureError));
    QCOMPARE(pollErrorOf([&] { pm.authTimestampThrows(additionalDataFor(kNow - 999)); }),
             std::optional(PollManagerError::timestampInFutureError));
    QCOMPARE(pm.timestamp, kNow - 1000);

    pm.authTimestampThrows(additionalDataFor(kNow - 50));
    QCOMPARE(pm.timestamp, kNow - 50);
    pm.authTimestampThrows(additionalDataFor(kNow));
    QCOMPARE(pm.timestamp, kNow);
}

void TestPollManager::invalidFormat() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    pm.setClock([] { return kNow; });
    pm.timestamp = kNow - 1000;
    const std::vector<std::string> bad = {
        "",                                                         // nothing
        "not base64!",                                              // not base64
        std::to_string(kNow),                                       // the decimal text itself
        lumacrypt::base64Encode(std::string_view("17145576001x3")), // a non-digit
        lumacrypt::base64Encode(std::string_view("")),              // an empty text
        lumacrypt::base64Encode(std::string_view("99999999999999999999")), // beyond 64 bits
        lumacrypt::base64Encode(std::string_view("\xff\xfe")),             // not UTF-8
    };
    for (const std::string &s : bad) {
        QCOMPARE(pollErrorOf([&] { pm.authTimestampThrows(s); }),
                 std::optional(PollManagerError::timestampInvalidFormat));
    }
    QCOMPARE(pm.timestamp, kNow - 1000);
}

void TestPollManager::hugeDifferenceDoesNotOverflow() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    pm.timestamp = 0;
    // now - t does not fit in 64 bits either way: still an ordinary out-of-window answer.
    pm.setClock([] { return std::int64_t(-10); });
    QCOMPARE(pollErrorOf([&] { pm.authTimestampThrows(additionalDataFor(LLONG_MAX)); }),
             std::optional(PollManagerError::timestampInPastError));
    pm.timestamp = LLONG_MIN;
    pm.setClock([] { return LLONG_MAX; });
    QCOMPARE(pollErrorOf([&] { pm.authTimestampThrows(additionalDataFor(-10)); }),
             std::optional(PollManagerError::timestampInFutureError));
    QCOMPARE(pm.timestamp, LLONG_MIN);
}

void TestPollManager::authTimestampPrintsAndReturnsFalse() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    Logged logged;
    pm.setLogSink(logged.sink());
    pm.setClock([] { return kNow; });
    pm.timestamp = kNow - 1000;

    QVERIFY(pm.authTimestamp(additionalDataFor(kNow)));
    QVERIFY(logged.lines.empty());
    QVERIFY(!pm.authTimestamp(additionalDataFor(kNow)));
    QVERIFY(!pm.authTimestamp("%%%"));
    QVERIFY(!pm.authTimestamp(additionalDataFor(kNow + 51)));
    QVERIFY(!pm.authTimestamp(additionalDataFor(kNow - 51)));
    const std::vector<std::string> expected = {
        "authTimestamp error: timestampExpired", "authTimestamp error: timestampInvalidFormat",
        "authTimestamp error: timestampInPastError",
        "authTimestamp error: timestampExpired", // kNow - 51 is older than the accepted kNow
    };
    QCOMPARE(logged.lines, expected);
    QCOMPARE(pm.timestamp, kNow);
}

// ---------------------------------------------------------------------------------------------
// The timer is set up by subscribeWithBinary. These tests start an executable that does not
// exist, without retry: the runner reports it once and ends, and the timer keeps ticking.

namespace {
const QString kMissing = QStringLiteral("/nonexistent/tidepost-test/backend");
}

void TestPollManager::noTimerWithoutPingTimeLimit() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    // The exit handler runs on the runner's thread; the test reads what it saw on this one.
    std::mutex mutex;
    std::optional<std::error_code> reported;
    bool called = false;
    pm.subscribeWithBinary(
        kMissing, false, true, 0.0, [] {}, {},
        [&](const std::optional<std::error_code> &error) {
            const std::lock_guard lock(mutex);
            reported = error;
            called = true;
        });
    QVERIFY(pm.timer() == nullptr);
    const auto wasCalled = [&] {
        const std::lock_guard lock(mutex);
        return called;
    };
    QTRY_VERIFY(wasCalled());
    {
        const std::lock_guard lock(mutex);
        QVERIFY(reported.has_value()); // a start that failed arrives with its error
    }
    QVERIFY(pm.timer() == nullptr);
    QCOMPARE(pm.pingCount, std::int64_t(0));
}

void TestPollManager::timerIntervalIsAFifthOfTheLimit() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    pm.subscribeWithBinary(kMissing, false, false, 10.0, [] {}, {}, {});
    QVERIFY(pm.timer() != nullptr);
    QCOMPARE(pm.timer()->interval(), 2000);
    QVERIFY(pm.timer()->isActive());
    QVERIFY(!pm.timer()->isSingleShot());
    QTRY_VERIFY(!pm.processManager().isLoopRunning());

    PollManager fast(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    fast.subscribeWithBinary(kMissing, false, false, 0.5, [] {}, {}, {});
    QCOMPARE(fast.timer()->interval(), 100);
    QTRY_VERIFY(!fast.processManager().isLoopRunning());
}

void TestPollManager::timeoutFiresOnTheFifthTickAndRestarts() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    std::vector<std::int64_t> seen; // pingCount after each tick
    std::vector<std::size_t> firedAtTick;
    std::vector<std::int64_t> countInCallback;
    pm.subscribeWithBinary(kMissing, false, false, 0.25,
                           [&] {
                               firedAtTick.push_back(seen.size() + 1);
                               countInCallback.push_back(pm.pingCount);
                           },
                           {}, {});
    QVERIFY(pm.timer() != nullptr);
    QCOMPARE(pm.timer()->interval(), 50);
    // Connected after the client's own slot, so it sees the count the tick left behind.
    connect(pm.timer(), &QTimer::timeout, this, [&] { seen.push_back(pm.pingCount); });
    QTRY_VERIFY_WITH_TIMEOUT(seen.size() >= 11, 10000);
    pm.timer()->stop();

    const std::vector<std::int64_t> expected = {1, 2, 3, 4, 0, 1, 2, 3, 4, 0, 1};
    QCOMPARE(std::vector<std::int64_t>(seen.begin(), seen.begin() + 11), expected);
    QVERIFY(firedAtTick.size() >= 2);
    QCOMPARE(firedAtTick[0], std::size_t(5));
    QCOMPARE(firedAtTick[1], std::size_t(10));
    QCOMPARE(countInCallback[0], std::int64_t(0));
}

void TestPollManager::pongPostponesTheTimeout() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    std::size_t ticks = 0;
    std::vector<std::size_t> firedAtTick;
    pm.subscribeWithBinary(kMissing, false, false, 0.25, [&] { firedAtTick.push_back(ticks + 1); },
                           {}, {});
    // Heard from the backend just before the fifth silent tick, for 12 ticks; then silence.
    connect(pm.timer(), &QTimer::timeout, this, [&] {
        ++ticks;
        if (ticks <= 12 && pm.pingCount == 4) {
            pm.pong();
        }
    });
    QTRY_VERIFY_WITH_TIMEOUT(ticks >= 20, 10000);
    pm.timer()->stop();
    // Pongs after ticks 4, 8 and 12: the count restarts each time, so the first timeout comes on
    // the fifth tick after the last pong, tick 17.
    QVERIFY(!firedAtTick.empty());
    QCOMPARE(firedAtTick.front(), std::size_t(17));
}

void TestPollManager::resubscribingWithoutLimitRemovesTheTimer() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    pm.subscribeWithBinary(kMissing, false, false, 1.0, [] {}, {}, {});
    QVERIFY(pm.timer() != nullptr);
    QTRY_VERIFY(!pm.processManager().isLoopRunning());
    QTimer *first = pm.timer();
    // A later subscription with a limit reuses the one timer.
    pm.subscribeWithBinary(kMissing, false, false, 2.0, [] {}, {}, {});
    QCOMPARE(pm.timer(), first);
    QCOMPARE(pm.timer()->interval(), 400);
    QTRY_VERIFY(!pm.processManager().isLoopRunning());
    pm.subscribeWithBinary(kMissing, false, false, 0.0, [] {}, {}, {});
    QVERIFY(pm.timer() == nullptr);
    QTRY_VERIFY(!pm.processManager().isLoopRunning());
}

// ---------------------------------------------------------------------------------------------

void TestPollManager::decryptRoundTrip() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    lumacrypt::KeyExchangeStore backend = tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM();
    pair(pm, backend);

    const tidepost::TypeIDAndData sent{"ping", "", R"([{"Path":"/tmp/x"}])"};
    const QByteArray body = sealedReply(backend, sent, kNow);
    std::string seenAdditionalData;
    const auto opened =
        pm.decryptAndDecodeJSON<tidepost::TypeIDAndData>(body, pm.kes, [&](const std::string &ad) {
            seenAdditionalData = ad;
            return true;
        });
    QCOMPARE(opened, sent);
    QCOMPARE(seenAdditionalData, additionalDataFor(kNow));

    // Without a predicate every additional data is accepted.
    QCOMPARE(pm.decryptAndDecodeJSON<tidepost::TypeIDAndData>(body, pm.kes), sent);
}

void TestPollManager::decryptWithTimestampPredicate() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    lumacrypt::KeyExchangeStore backend = tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM();
    pair(pm, backend);
    Logged logged;
    pm.setLogSink(logged.sink());
    pm.setClock([] { return kNow; });
    pm.timestamp = kNow - 100;
    const auto predicate = [&pm](const std::string &ad) { return pm.authTimestamp(ad); };

    const tidepost::TypeIDAndData value{"ping", "", ""};
    const QByteArray first = sealedReply(backend, value, kNow - 3);
    QCOMPARE(pm.decryptAndDecodeJSON<tidepost::TypeIDAndData>(first, pm.kes, predicate), value);
    QCOMPARE(pm.timestamp, kNow - 3);

    // The same reply again is a replay: the predicate says no.
    try {
        pm.decryptAndDecodeJSON<tidepost::TypeIDAndData>(first, pm.kes, predicate);
        QFAIL("a replayed reply was accepted");
    } catch (const lumacrypt::KeyExchangeException &e) {
        QCOMPARE(e.error(), lumacrypt::KeyExchangeError::invalidAdditionalData);
    }
    QCOMPARE(logged.lines, std::vector<std::string>{"authTimestamp error: timestampExpired"});

    // A predicate that throws passes its error through.
    const auto throwing = [&pm](const std::string &ad) {
        pm.authTimestampThrows(ad);
        return true;
    };
    QCOMPARE(pollErrorOf([&] {
                 pm.decryptAndDecodeJSON<tidepost::TypeIDAndData>(
                     sealedReply(backend, value, kNow + 60), pm.kes, throwing);
             }),
             std::optional(PollManagerError::timestampInPastError));
    QCOMPARE(pm.timestamp, kNow - 3);
}

void TestPollManager::decryptFailures() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    lumacrypt::KeyExchangeStore backend = tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM();
    pair(pm, backend);
    const tidepost::TypeIDAndData value{"ping", "", ""};
    const std::string ad = std::to_string(kNow);
    const lumacrypt::Bytes adBytes(ad.begin(), ad.end());
    const lumacrypt::KeyExchangeAEADStore record = backend.encodeJSONAndEncrypt(value, adBytes);
    using T = tidepost::TypeIDAndData;
    auto open = [&](const QByteArray &body) { return pm.decryptAndDecodeJSON<T>(body, pm.kes); };
    auto bodyOf = [](const lumacrypt::KeyExchangeAEADStore &r) {
        return QByteArray::fromStdString(r.toJSON());
    };

    // Not a sealed record.
    for (const char *garbage :
         {"", "garbage", "{}", "[1,2]", R"({"KDFNonce":1})", "{\"KDFNonce\":\"", "\xff\xfe\x00"}) {
        QCOMPARE(errorOf([&] { open(QByteArray(garbage)); }).domain, std::string("DecodingError"));
    }

    // Tampered ciphertext, salt or additional data: authentication fails.
    lumacrypt::KeyExchangeAEADStore tampered = record;
    tampered.ciphertext = withReplacedChar(tampered.ciphertext, 20);
    {
        const Error e = errorOf([&] { open(bodyOf(tampered)); });
        QCOMPARE(e.domain, std::string("CryptoError"));
        QCOMPARE(e.code, int(lumacrypt::CryptoError::Kind::authenticationFailure));
    }
    tampered = record;
    tampered.kdfNonce = withReplacedChar(tampered.kdfNonce, 3);
    QCOMPARE(errorOf([&] { open(bodyOf(tampered)); }).code,
             int(lumacrypt::CryptoError::Kind::authenticationFailure));
    tampered = record;
    tampered.additionalData = additionalDataFor(kNow + 1);
    QCOMPARE(errorOf([&] { open(bodyOf(tampered)); }).domain, std::string("CryptoError"));

    // Malformed base64 from outside is an error, never a crash.
    for (auto field :
         {&lumacrypt::KeyExchangeAEADStore::kdfNonce, &lumacrypt::KeyExchangeAEADStore::ciphertext,
          &lumacrypt::KeyExchangeAEADStore::additionalData}) {
        tampered = record;
        tampered.*field = "**not base64**";
        QCOMPARE(errorOf([&] { open(bodyOf(tampered)); }),
                 (Error{"KeyExchangeError", int(lumacrypt::KeyExchangeError::invalidFormat),
                        "invalidFormat"}));
    }

    // A store with another key cannot open it.
    PollManager stranger(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    stranger.kes.setExternalPublicKey(backend.LocalPublicKey());
    QCOMPARE(
        errorOf([&] { stranger.decryptAndDecodeJSON<T>(bodyOf(record), stranger.kes); }).domain,
        std::string("CryptoError"));

    // A store without a peer key.
    PollManager unpaired(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    QCOMPARE(errorOf([&] { unpaired.decryptAndDecodeJSON<T>(bodyOf(record), unpaired.kes); }),
             (Error{"KeyExchangeError", int(lumacrypt::KeyExchangeError::publicKeyNotSet),
                    "publicKeyNotSet"}));

    // A plaintext that is not the requested type: that type's decoding error.
    const std::string notAnEnvelope = R"({"status":"success"})";
    const lumacrypt::KeyExchangeAEADStore other =
        backend.encrypt(std::span(reinterpret_cast<const std::uint8_t *>(notAnEnvelope.data()),
                                  notAnEnvelope.size()),
                        adBytes);
    QCOMPARE(errorOf([&] { open(bodyOf(other)); }).domain, std::string("DecodingError"));
    // ... and the same plaintext decodes as the record it is.
    const auto response = pm.decryptAndDecodeJSON<tarnwick::ServerResponse>(bodyOf(other), pm.kes);
    QCOMPARE(response.status, std::optional<std::string>("success"));

    // The predicate says no.
    QCOMPARE(errorOf([&] {
                 pm.decryptAndDecodeJSON<T>(bodyOf(record), pm.kes,
                                            [](const std::string &) { return false; });
             }),
             (Error{"KeyExchangeError", int(lumacrypt::KeyExchangeError::invalidAdditionalData),
                    "invalidAdditionalData"}));
}

QTEST_GUILESS_MAIN(TestPollManager)
#include "tst_poll_manager.moc"
