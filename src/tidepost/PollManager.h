#pragma once

// The request client: starts the backend through the child-process runner, watches its output
// for the backend's public key, keeps a liveness counter, posts JSON bodies to the backend's
// local HTTP endpoint and opens the sealed replies (with a strict freshness check on the
// millisecond timestamp they carry).
//
// Threads. A PollManager and everything it owns live on the main thread: the key store, the
// liveness timer, the HTTP manager and the runner. Only the backend's output handler runs on the
// runner's reader thread; it calls the caller's output handler there and hops to the main thread
// for everything else (the pong, setting the peer key). Reply callbacks run on the main thread.

#include "Error.h"
#include "LoopbackHttpClient.h"

#include <lumacrypt/KeyExchangeStore.h>
#include <lumacrypt/Message.h>
#include <lumacrypt/Types.h>
#include <runwarden/ExitAppIfAlreadyOpen.h>
#include <runwarden/ProcessManager.h>

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QUrl>

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

class QTimer;

namespace tidepost {

using TypeIDAndData = lumacrypt::KeyExchangeTypeIDAndData;
using KeyExchangeStoreFunction = std::function<lumacrypt::KeyExchangeStore()>;

/// Stores on Curve25519 with HKDF and AES-GCM, without a peer key. A failure to make the key
/// pair is fatal.
lumacrypt::KeyExchangeStore KeyExchange_Curve25519_SHA256_HKDF_AESGCM();
lumacrypt::KeyExchangeStore KeyExchange_Curve25519_SHA384_HKDF_AESGCM();
lumacrypt::KeyExchangeStore KeyExchange_Curve25519_SHA512_HKDF_AESGCM();

class PollManager : public QObject {
    Q_OBJECT

public:
    /// Milliseconds since the Unix epoch (lumacrypt::KeyExchangeCurrentTimestamp by default).
    using Clock = std::function<std::int64_t()>;
    /// Receives each log line, without its line break (standard output by default).
    using LogSink = std::function<void(const std::string &line)>;
    /// Runs on the main thread exactly once per request while the PollManager lives: with the
    /// body of a 200 reply, or with the error. Callbacks of requests still under way when the
    /// PollManager is destroyed are dropped.
    using ReplyCallback =
        std::function<void(std::optional<QByteArray> body, std::optional<Error> error)>;
    /// The same, with the clock's time at which the reply's status line and headers arrived (0
    /// when no reply arrived): the moment a reply's freshness is judged against.
    using TimedReplyCallback = std::function<void(
        std::optional<QByteArray> body, std::optional<Error> error, std::int64_t headersAt)>;

    /// A request without a complete answer after this long fails.
    static constexpr std::chrono::milliseconds defaultRequestTimeout{30000};
    /// A reply body larger than this is refused.
    static constexpr qint64 defaultMaxReplyBytes = qint64(64) * 1024 * 1024;

    explicit PollManager(KeyExchangeStoreFunction factory, QObject *parent = nullptr);
    /// The public key a chunk of the backend's output shows: the PEM block's key text, or nothing
    /// when the chunk holds no well-formed block.
    static std::optional<std::string> keyInOutput(const QString &chunk);

    /// Stops the timer, cancels the runner and waits for its loop to end; pending requests are
    /// aborted without calling their callbacks.
    ~PollManager() override;

    PollManager(const PollManager &) = delete;
    PollManager &operator=(const PollManager &) = delete;

    /// Sent as "Authorization: Bearer <token>"; the store's LocalPublicKey() after construction.
    std::string bearerToken;
    /// The current runner (replaced by a fresh one carrying the same arguments when a cancelled
    /// runner is asked to start again).
    runwarden::ProcessManager &processManager();
    const runwarden::ProcessManager &processManager() const;
    /// The liveness timer: nullptr unless the last subscription had pingTimeLimit > 0.
    QTimer *timer() const;
    /// Ticks of the liveness timer since the backend was last heard from.
    std::int64_t pingCount = 0;
    lumacrypt::KeyExchangeStore kes;
    /// The newest accepted reply timestamp in milliseconds (the clock's time at construction).
    std::int64_t timestamp = 0;

    // ---- Settings (for tests and tuning; the defaults are what the app uses).
    void setClock(Clock clock);
    void setLogSink(LogSink sink);
    /// Writes one line to the log sink.
    void log(const std::string &line) const;
    void setRequestTimeout(std::chrono::milliseconds timeout);
    std::chrono::milliseconds requestTimeout() const;
    void setMaxReplyBytes(qint64 bytes);
    qint64 maxReplyBytes() const;

    /// Resets the liveness counter (any output of the backend counts as a sign of life).
    void pong();
    /// The current timestamp as decimal text bytes: the additional data requests are sealed with.
    lumacrypt::Bytes keyExchangeCurrentTimestampData() const;
    /// A free TCP port from [lower, upperExclusive).
    int randomOpenPort(int lower, int upperExclusive) const;
    /// Ends the application when another instance is already running: runs the single-instance
    /// guard (see runwarden::ExitAppIfAlreadyOpen), which then keeps listening for as long as
    /// this object lives.
    void exitAppIfAlreadyOpen();
    /// The single-instance guard (made on first use, for QCoreApplication::applicationName()).
    /// Command-line control handlers are registered on it.
    runwarden::InstanceGuard &instanceGuard();
    /// The kernel's machine name, e.g. "x86_64".
    std::string systemArchitecture() const;

    /// The value's JSON text (UTF-8). Encoding errors propagate.
    template <lumacrypt::JSONEncodable T> std::string objectAsString(const T &value) const {
        std::string json = lumacrypt::encodeJSON(value);
        requireUTF8(json);
        return json;
    }

    /// authTimestampThrows(); on an error prints "authTimestamp error: <error>" and returns false.
    bool authTimestamp(const std::string &additionalData);
    /// authTimestamp() that tells why it refused: the error it logged, or nothing when the
    /// timestamp was accepted.
    std::optional<Error> checkTimestamp(const std::string &additionalData);
    /// The same, judged against `at` (the clock's time when the reply's headers arrived)
    /// instead of the clock's time now.
    std::optional<Error> checkTimestamp(const std::string &additionalData, std::int64_t at);
    /// The freshness check of a reply's additional data (base64 of a decimal millisecond
    /// timestamp): it must decode (else timestampInvalidFormat), be strictly newer than the last
    /// accepted one (else timestampExpired) and lie within 50 ms of the clock: more than 50 ms
    /// ahead of it throws timestampInPastError, more than 50 ms behind it throws
    /// timestampInFutureError. Only an accepted timestamp updates `timestamp`.
    void authTimestampThrows(const std::string &additionalData);
    /// The same check against `at` instead of the clock's time now.
    void authTimestampThrows(const std::string &additionalData, std::int64_t at);

    /// Opens a reply: the sealed record's JSON, then kes.decryptAEADStore, then T::fromJSON on
    /// the plaintext, then auth on the record's additional data (its error propagates; false
    /// throws invalidAdditionalData; an empty predicate accepts everything). Every failure is an
    /// exception of the library that found it: DecodingError for a body that is not a record,
    /// KeyExchangeError invalidFormat for malformed base64, CryptoError for a record that does
    /// not open, T's own error for a plaintext that does not decode.
    template <lumacrypt::JSONDecodable T>
    T decryptAndDecodeJSON(const QByteArray &data, const lumacrypt::KeyExchangeStore &kes,
                           const lumacrypt::AuthPredicate &auth = {}) const {
        const lumacrypt::KeyExchangeAEADStore record = lumacrypt::KeyExchangeAEADStore::fromJSON(
            std::string_view(data.constData(), data.size()));
        const lumacrypt::Bytes plain = kes.decryptAEADStore(record);
        T value = T::fromJSON(
            std::string_view(reinterpret_cast<const char *>(plain.data()), plain.size()));
        if (auth && !auth(record.additionalData)) {
            throw lumacrypt::KeyExchangeException(
                lumacrypt::KeyExchangeError::invalidAdditionalData);
        }
        return value;
    }

    /// POST jsonBody to http://127.0.0.1:<port><path>. A URL that cannot be built fails with
    /// urlError (still through the callback, after this call has returned).
    void publishLocal(const std::string &jsonBody, int port, const QString &path,
                      const std::string &bearerToken, ReplyCallback done);
    /// POST jsonBody to url with "Content-Type: application/json" and, when bearerToken is not
    /// empty, "Authorization: Bearer <token>". Only status 200 succeeds (any other status:
    /// publishFailure, the body discarded). Transport failures, a request without a complete
    /// answer within requestTimeout() and a body over maxReplyBytes() fail with domain
    /// "NetworkError".
    void publishWithURL(const std::string &jsonBody, const QUrl &url,
                        const std::string &bearerToken, ReplyCallback done);
    /// publishLocal and publishWithURL that also tell when the reply's headers arrived.
    void publishLocalTimed(std::string_view jsonBody, int port, const QString &path,
                           const std::string &bearerToken, TimedReplyCallback done);
    void publishWithURLTimed(std::string_view jsonBody, const QUrl &url,
                             const std::string &bearerToken, TimedReplyCallback done);
    /// publishLocalTimed with a body of bodySize bytes that `write` puts straight into the
    /// request's buffer (called once, before this returns, unless the URL cannot be built). An
    /// exception from `write` leaves this call and nothing is sent.
    void publishLocalWritten(std::size_t bodySize, const LoopbackHttpClient::BodyWriter &write,
                             int port, const QString &path, const std::string &bearerToken,
                             TimedReplyCallback done);
    /// The HTTP client underneath (tests watch its buffers and connections).
    LoopbackHttpClient &http() { return *http_; }
    /// Encodes value (objectAsString), then as publishLocal above; an encoding error goes to the
    /// callback.
    template <lumacrypt::JSONEncodable T>
    void publishLocal(const T &value, int port, const QString &path, const std::string &bearerToken,
                      ReplyCallback done) {
        std::string body;
        try {
            body = objectAsString(value);
        } catch (...) {
            failLater(std::move(done), Error::fromCurrentException());
            return;
        }
        publishLocal(body, port, path, bearerToken, std::move(done));
    }

    /// Starts the backend binURL (a file path) through the runner, with the runner's arguments.
    ///
    /// - pingTimeLimit > 0 runs the liveness timer: every pingTimeLimit / 5 seconds pingCount
    ///   grows by one; on the fifth tick without output or pong() it restarts at 0 and
    ///   pingTimeout is called (main thread). pingTimeLimit <= 0 runs no timer.
    /// - Each chunk of output goes to standardOutput on the runner's reader thread, then counts
    ///   as a pong (main thread). With withPEMWatcher, a chunk holding a public-key PEM block
    ///   sets the store's peer key on the main thread (peerKeyChanged()); a key the store
    ///   rejects is logged as "pem search parse error - reset: <error>" and the current child is
    ///   terminated, so that a retrying runner starts a fresh backend.
    /// - taskExitNotification is called as the runner reports each run's end.
    ///
    /// One loop per runner: while the runner's loop is alive and held for a relaunch (its exit
    /// handler called holdForRelaunch()), the new handlers replace the old ones and the held
    /// loop relaunches binURL. While the loop is alive and not held the call is refused (a log
    /// line, nothing changes). A cancelled runner is replaced by a fresh one with the same
    /// arguments, which starts a new loop.
    void subscribeWithBinary(const QString &binURL, bool withRetry, bool withPEMWatcher,
                             double pingTimeLimit, std::function<void()> pingTimeout,
                             runwarden::StandardOutputHandler standardOutput,
                             runwarden::TaskExitHandler taskExitNotification);

    /// Cancels the runner: the current child is terminated and nothing is started again until
    /// the next subscribeWithBinary.
    void stopBackend();
    /// Whether a backend child is alive.
    bool isBackendRunning() const;

signals:
    /// Emitted on the main thread after a key from the backend's output was accepted.
    void peerKeyChanged();

private:
    struct Subscription;

    void requireUTF8(const std::string &json) const;
    void failLater(ReplyCallback done, Error error);
    void setUpTimer(double pingTimeLimit, std::function<void()> pingTimeout);
    void tick();
    void acceptPeerKey(const std::string &key);
    runwarden::StandardOutputHandler outputHandler(std::shared_ptr<Subscription> subscription);
    runwarden::TaskExitHandler exitHandler(std::shared_ptr<Subscription> subscription);
    void failLater(TimedReplyCallback done, Error error);

    void watchRunner();

    KeyExchangeStoreFunction keyExchangeStoreFunction_;
    // Whether the current run of the backend has shown its key: later key blocks in the same
    // run's output are ignored (a folder name can hold one).
    bool keyOfThisRun_ = false;
    bool laterKeyLogged_ = false;
    runwarden::ProcessManager *processManager_ = nullptr;
    QTimer *timer_ = nullptr;
    std::function<void()> pingTimeout_;
    std::shared_ptr<Subscription> subscription_;
    LoopbackHttpClient *http_ = nullptr;
    // The address and headers of the last local request written in place.
    struct LocalRequest {
        int port = 0;
        QString path;
        std::string token;
        std::optional<QUrl> url;
        QByteArray headers;
    };
    std::optional<LocalRequest> localRequest_;
    runwarden::InstanceGuard *instanceGuard_ = nullptr;
    Clock clock_;
    LogSink logSink_;
    std::chrono::milliseconds requestTimeout_ = defaultRequestTimeout;
    qint64 maxReplyBytes_ = defaultMaxReplyBytes;
};

} // namespace tidepost
