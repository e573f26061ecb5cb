#include "PollManager.h"

#include <Models.h>
#include <lumacrypt/PEM.h>
#include <lumacrypt/Timestamp.h>
#include <runwarden/Port.h>
#include <runwarden/SystemArchitecture.h>

#include <QMetaObject>
#include <QTimer>
#include <QtGlobal>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <limits>
#include <mutex>
#include <string_view>
#include <utility>

namespace tidepost {

// ---------------------------------------------------------------------------------------------
// Errors

const char *toString(PollManagerError error) noexcept {
    switch (error) {
    case PollManagerError::urlError:
        return "urlError";
    case PollManagerError::publishFailure:
        return "publishFailure";
    case PollManagerError::timestampInvalidFormat:
        return "timestampInvalidFormat";
    case PollManagerError::timestampExpired:
        return "timestampExpired";
    case PollManagerError::timestampInPastError:
        return "timestampInPastError";
    case PollManagerError::timestampInFutureError:
        return "timestampInFutureError";
    }
    return "unknown";
}

Error Error::of(PollManagerError error) {
    return {"PollManagerError", int(error), toString(error)};
}

Error Error::fromErrorCode(const std::error_code &error) {
    if (error.category() == runwarden::processManagerErrorCategory()) {
        // The runner's enumeration starts at 1 (0 means "no error" for error codes); the index
        // of its case is one less.
        if (error == runwarden::ProcessManagerError::executableNotFound) {
            return {"ProcessManagerError", 0, "executableNotFound"};
        }
        return {"ProcessManagerError", error.value() - 1, error.message()};
    }
    if (error.category() == std::system_category() || error.category() == std::generic_category()) {
        return {"POSIXError", error.value(), error.message()};
    }
    return {error.category().name(), error.value(), error.message()};
}

Error Error::fromCurrentException() {
    if (!std::current_exception()) {
        return {"unknown", 0, "unknown"};
    }
    try {
        throw;
    } catch (const PollManagerException &e) {
        return of(e.error());
    } catch (const lumacrypt::KeyExchangeException &e) {
        return {"KeyExchangeError", int(e.error()), lumacrypt::toString(e.error())};
    } catch (const lumacrypt::PEMException &e) {
        return {"PEMError", int(e.error()), lumacrypt::toString(e.error())};
    } catch (const lumacrypt::CryptoError &e) {
        return {"CryptoError", int(e.kind()), e.what()};
    } catch (const lumacrypt::DecodingError &e) {
        return {"DecodingError", 0, e.what()};
    } catch (const tarnwick::TarnwickException &e) {
        return {"TarnwickError", int(e.error()), tarnwick::toString(e.error())};
    } catch (const std::system_error &e) {
        return fromErrorCode(e.code());
    } catch (const std::exception &e) {
        return {"unknown", 0, e.what()};
    } catch (...) {
        return {"unknown", 0, "unknown"};
    }
}

// ---------------------------------------------------------------------------------------------
// Store factories

namespace {

[[noreturn]] void fatal(const std::string &message) {
    qFatal("%s", message.c_str());
    std::abort(); // qFatal does not return; this keeps [[noreturn]] honest for the compiler
}

template <class Preset> lumacrypt::KeyExchangeStore makeStore(const char *name, Preset preset) {
    try {
        return preset(std::string());
    } catch (...) {
        fatal(std::string(name) + ": " + Error::fromCurrentException().description);
    }
}

} // namespace

lumacrypt::KeyExchangeStore KeyExchange_Curve25519_SHA256_HKDF_AESGCM() {
    return makeStore("KeyExchange_Curve25519_SHA256_HKDF_AESGCM",
                     &lumacrypt::KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store);
}

lumacrypt::KeyExchangeStore KeyExchange_Curve25519_SHA384_HKDF_AESGCM() {
    return makeStore("KeyExchange_Curve25519_SHA384_HKDF_AESGCM",
                     &lumacrypt::KeyExchange_Curve25519_SHA384_HKDF_AESGCM_Store);
}

lumacrypt::KeyExchangeStore KeyExchange_Curve25519_SHA512_HKDF_AESGCM() {
    return makeStore("KeyExchange_Curve25519_SHA512_HKDF_AESGCM",
                     &lumacrypt::KeyExchange_Curve25519_SHA512_HKDF_AESGCM_Store);
}

// ---------------------------------------------------------------------------------------------
// Private state

// The handlers of one run loop. A relaunch of a held loop replaces them in place (the loop's
// wrappers read them on every call); a new loop gets a new Subscription, so late reports of an
// old loop never reach the handlers of a new one.
struct PollManager::Subscription {
    std::mutex mutex;
    runwarden::StandardOutputHandler standardOutput;
    runwarden::TaskExitHandler taskExitNotification;
    bool withPEMWatcher = false;
    // The end of the output so far when it stopped inside a key block: the pipe may cut a
    // block anywhere, and the rest comes with the next chunk. Only the reader thread and the
    // exit of a run touch it.
    std::string unfinishedKey;

    void install(runwarden::StandardOutputHandler output, runwarden::TaskExitHandler exit,
                 bool pemWatcher) {
        const std::lock_guard lock(mutex);
        standardOutput = std::move(output);
        taskExitNotification = std::move(exit);
        withPEMWatcher = pemWatcher;
    }
};

namespace {

// The headers of a request: its JSON body, and the bearer token when there is one.
QByteArray requestHeaders(const std::string &bearerToken) {
    QByteArray headers = "Content-Type: application/json\r\n";
    if (!bearerToken.empty()) {
        headers += "Authorization: Bearer " + QByteArray::fromStdString(bearerToken) + "\r\n";
    }
    return headers;
}

// http://127.0.0.1:<port><path>, or nothing when that is not a valid address.
std::optional<QUrl> localURL(int port, const QString &path) {
    if (port < 0 || port > 65535) {
        return std::nullopt;
    }
    QUrl url;
    url.setScheme(QStringLiteral("http"));
    url.setHost(QStringLiteral("127.0.0.1"));
    url.setPort(port);
    url.setPath(path);
    return url.isValid() ? std::optional<QUrl>(url) : std::nullopt;
}

constexpr std::int64_t timestampWindowMs = 50;
constexpr int pingTicksPerLimit = 5;
} // namespace

// ---------------------------------------------------------------------------------------------
// Construction

PollManager::PollManager(KeyExchangeStoreFunction factory, QObject *parent)
    : QObject(parent), keyExchangeStoreFunction_(std::move(factory)) {
    // kes starts as the unconfigured placeholder; the factory makes the real store.
    kes = keyExchangeStoreFunction_();
    bearerToken = kes.LocalPublicKey();
    clock_ = &lumacrypt::KeyExchangeCurrentTimestamp;
    timestamp = clock_();
    processManager_ = new runwarden::ProcessManager(this);
    watchRunner();
    http_ = new LoopbackHttpClient(this);
    http_->setClock([this] { return clock_(); });
}

PollManager::~PollManager() {
    if (timer_) {
        timer_->stop();
    }
    // Requests under way end without their callbacks: their owner is going away with us.
    delete http_;
    http_ = nullptr;
    // The runners (the current one and any cancelled one still winding down) go first, while
    // everything their output handlers may post to is still alive. Cancelling all before
    // waiting for any lets their children end together.
    const auto runners = findChildren<runwarden::ProcessManager *>(Qt::FindDirectChildrenOnly);
    for (runwarden::ProcessManager *runner : runners) {
        runner->cancel();
    }
    for (runwarden::ProcessManager *runner : runners) {
        delete runner;
    }
    processManager_ = nullptr;
}

runwarden::ProcessManager &PollManager::processManager() {
    return *processManager_;
}
const runwarden::ProcessManager &PollManager::processManager() const {
    return *processManager_;
}
QTimer *PollManager::timer() const {
    return timer_;
}

void PollManager::setClock(Clock clock) {
    clock_ = clock ? std::move(clock) : Clock(&lumacrypt::KeyExchangeCurrentTimestamp);
}

void PollManager::setLogSink(LogSink sink) {
    logSink_ = std::move(sink);
}

void PollManager::setRequestTimeout(std::chrono::milliseconds timeout) {
    requestTimeout_ = std::clamp(timeout, std::chrono::milliseconds(1),
                                 std::chrono::milliseconds(std::numeric_limits<int>::max()));
    http_->setRequestTimeout(requestTimeout_);
}

std::chrono::milliseconds PollManager::requestTimeout() const {
    return requestTimeout_;
}

void PollManager::setMaxReplyBytes(qint64 bytes) {
    maxReplyBytes_ = std::max<qint64>(bytes, 0);
    http_->setMaxReplyBytes(maxReplyBytes_);
}

qint64 PollManager::maxReplyBytes() const {
    return maxReplyBytes_;
}

void PollManager::log(const std::string &line) const {
    if (logSink_) {
        logSink_(line);
        return;
    }
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// ---------------------------------------------------------------------------------------------
// Small forwarders

void PollManager::pong() {
    pingCount = 0;
}

lumacrypt::Bytes PollManager::keyExchangeCurrentTimestampData() const {
    return lumacrypt::KeyExchangeCurrentTimestampData();
}

int PollManager::randomOpenPort(int lower, int upperExclusive) const {
    return runwarden::RandomOpenPort(lower, upperExclusive);
}

runwarden::InstanceGuard &PollManager::instanceGuard() {
    if (!instanceGuard_) {
        instanceGuard_ = new runwarden::InstanceGuard(this);
    }
    return *instanceGuard_;
}

void PollManager::exitAppIfAlreadyOpen() {
    runwarden::ExitAppIfAlreadyOpen(instanceGuard());
}

std::string PollManager::systemArchitecture() const {
    return runwarden::SystemArchitecture().toStdString();
}

void PollManager::requireUTF8(const std::string &json) const {
    // Our encoders write valid UTF-8 (invalid input text becomes U+FFFD); anything else is a bug.
    if (!lumacrypt::isValidUTF8(json)) {
        fatal("objectAsString: the encoded JSON is not valid UTF-8");
    }
}

// ---------------------------------------------------------------------------------------------
// Reply timestamps

bool PollManager::authTimestamp(const std::string &additionalData) {
    return !checkTimestamp(additionalData);
}

std::optional<Error> PollManager::checkTimestamp(const std::string &additionalData) {
    return checkTimestamp(additionalData, clock_());
}

std::optional<Error> PollManager::checkTimestamp(const std::string &additionalData,
                                                 std::int64_t at) {
    try {
        authTimestampThrows(additionalData, at);
        return std::nullopt;
    } catch (...) {
        Error error = Error::fromCurrentException();
        log("authTimestamp error: " + error.description);
        return error;
    }
}

void PollManager::authTimestampThrows(const std::string &additionalData) {
    authTimestampThrows(additionalData, clock_());
}

void PollManager::authTimestampThrows(const std::string &additionalData, std::int64_t now) {
    const std::optional<std::int64_t> t = lumacrypt::KeyExchangeTimestamp(additionalData);
    if (!t) {
        throw PollManagerException(PollManagerError::timestampInvalidFormat);
    }
    // Every accepted reply carries a strictly newer timestamp than the one before: a repeated
    // or older one is a replay.
    if (*t <= timestamp) {
        throw PollManagerException(PollManagerError::timestampExpired);
    }
    std::int64_t age = 0;
    if (__builtin_sub_overflow(now, *t, &age)) {
        // So far off that the difference does not fit: out of the window on the side it lies.
        throw PollManagerException(*t > now ? PollManagerError::timestampInPastError
                                            : PollManagerError::timestampInFutureError);
    }
    // The case names read reversed, and stay as they are: a timestamp ahead of our clock is
    // "in past", one that is too old is "in future".
    if (age < -timestampWindowMs) {
        throw PollManagerException(PollManagerError::timestampInPastError);
    }
    if (age > timestampWindowMs) {
        throw PollManagerException(PollManagerError::timestampInFutureError);
    }
    timestamp = *t;
}

// ---------------------------------------------------------------------------------------------
// HTTP

void PollManager::failLater(ReplyCallback done, Error error) {
    if (!done) {
        return;
    }
    QMetaObject::invokeMethod(
        this, [done = std::move(done), error = std::move(error)] { done(std::nullopt, error); },
        Qt::QueuedConnection);
}

void PollManager::failLater(TimedReplyCallback done, Error error) {
    if (!done) {
        return;
    }
    QMetaObject::invokeMethod(
        this, [done = std::move(done), error = std::move(error)] { done(std::nullopt, error, 0); },
        Qt::QueuedConnection);
}

void PollManager::publishLocal(const std::string &jsonBody, int port, const QString &path,
                               const std::string &bearerToken, ReplyCallback done) {
    publishLocalTimed(jsonBody, port, path, bearerToken,
                      [done = std::move(done)](std::optional<QByteArray> body,
                                               std::optional<Error> error, std::int64_t) {
                          if (done) {
                              done(std::move(body), std::move(error));
                          }
                      });
}

void PollManager::publishLocalTimed(std::string_view jsonBody, int port, const QString &path,
                                    const std::string &bearerToken, TimedReplyCallback done) {
    const std::optional<QUrl> url = localURL(port, path);
    if (!url) {
        failLater(std::move(done), Error::of(PollManagerError::urlError));
        return;
    }
    publishWithURLTimed(jsonBody, *url, bearerToken, std::move(done));
}

void PollManager::publishLocalWritten(std::size_t bodySize,
                                      const LoopbackHttpClient::BodyWriter &write, int port,
                                      const QString &path, const std::string &bearerToken,
                                      TimedReplyCallback done) {
    // The ping asks the same address with the same token ten times a second: both are built
    // once and kept while they stay the same.
    if (!localRequest_ || localRequest_->port != port || localRequest_->path != path ||
        localRequest_->token != bearerToken) {
        localRequest_ = LocalRequest{port, path, bearerToken, localURL(port, path),
                                     requestHeaders(bearerToken)};
    }
    if (!localRequest_->url) {
        failLater(std::move(done), Error::of(PollManagerError::urlError));
        return;
    }
    const QByteArray &headers = localRequest_->headers;
    http_->post(*localRequest_->url, headers, bodySize, write,
                [done = std::move(done)](HttpReply reply) {
                    if (done) {
                        done(std::move(reply.body), std::move(reply.error), reply.headersAt);
                    }
                });
}

void PollManager::publishWithURL(const std::string &jsonBody, const QUrl &url,
                                 const std::string &bearerToken, ReplyCallback done) {
    publishWithURLTimed(jsonBody, url, bearerToken,
                        [done = std::move(done)](std::optional<QByteArray> body,
                                                 std::optional<Error> error, std::int64_t) {
                            if (done) {
                                done(std::move(body), std::move(error));
                            }
                        });
}

void PollManager::publishWithURLTimed(std::string_view jsonBody, const QUrl &url,
                                      const std::string &bearerToken, TimedReplyCallback done) {
    if (!url.isValid() || url.isRelative() || url.host().isEmpty()) {
        failLater(std::move(done), Error::of(PollManagerError::urlError));
        return;
    }
    const QByteArray headers = requestHeaders(bearerToken);
    // Only a 200 succeeds: a redirect is an answer like any other, never followed.
    http_->post(url, headers, QByteArray::fromRawData(jsonBody.data(), qsizetype(jsonBody.size())),
                [done = std::move(done)](HttpReply reply) {
                    if (done) {
                        done(std::move(reply.body), std::move(reply.error), reply.headersAt);
                    }
                });
}

// ---------------------------------------------------------------------------------------------
// Backend

void PollManager::setUpTimer(double pingTimeLimit, std::function<void()> pingTimeout) {
    if (!(pingTimeLimit > 0)) { // also NaN
        if (timer_) {
            timer_->stop();
            delete timer_;
            timer_ = nullptr;
        }
        pingTimeout_ = nullptr;
        return;
    }
    const double intervalMs = pingTimeLimit * 1000.0 / pingTicksPerLimit;
    const int interval =
        intervalMs >= double(INT_MAX) ? INT_MAX : std::max(1, int(std::lround(intervalMs)));
    if (!timer_) {
        timer_ = new QTimer(this);
        timer_->setTimerType(Qt::PreciseTimer);
        connect(timer_, &QTimer::timeout, this, &PollManager::tick);
    }
    pingTimeout_ = std::move(pingTimeout);
    timer_->start(interval);
}

void PollManager::tick() {
    std::int64_t next = 0;
    if (__builtin_add_overflow(pingCount, std::int64_t(1), &next)) {
        next = std::numeric_limits<std::int64_t>::max();
    }
    pingCount = next;
    if (pingCount >= pingTicksPerLimit) {
        pingCount = 0;
        if (pingTimeout_) {
            const std::function<void()> timeout = pingTimeout_; // it may resubscribe
            timeout();
        }
    }
}

void PollManager::watchRunner() {
    // Each start of the child begins a run whose first key block counts. The runner posts its
    // start to the main thread before it reads any of the run's output, so this comes first.
    connect(processManager_, &runwarden::ProcessManager::taskStarted, this, [this] {
        keyOfThisRun_ = false;
        laterKeyLogged_ = false;
    });
}

void PollManager::acceptPeerKey(const std::string &key) {
    if (keyOfThisRun_) {
        if (!laterKeyLogged_) {
            laterKeyLogged_ = true;
            log("warning: ignored a further key block in the backend's output; the key it "
                "showed at start stays");
        }
        return;
    }
    try {
        kes.setExternalPublicKey(key);
    } catch (...) {
        log("pem search parse error - reset: " + Error::fromCurrentException().description);
        // A retrying runner starts a fresh backend, which prints a fresh key.
        processManager_->terminateCurrentTask();
        return;
    }
    keyOfThisRun_ = true;
    emit peerKeyChanged();
}

namespace {

constexpr std::string_view kKeyBeginLine = "-----BEGIN PUBLIC KEY-----\n";
// An unfinished key block longer than this is no key; it is searched as it is.
constexpr std::size_t kMaxUnfinishedKey = 4096;

// The tail of `text` to hold back for the next chunk: a begin line cut short, or a key block
// whose key line has no end yet. Empty when the text ends outside a key block.
std::size_t unfinishedKeyLength(std::string_view text) {
    for (std::size_t n = std::min(text.size(), kKeyBeginLine.size() - 1); n > 0; --n) {
        if (text.ends_with(kKeyBeginLine.substr(0, n))) {
            return n;
        }
    }
    const std::size_t begin = text.rfind(kKeyBeginLine);
    if (begin == std::string_view::npos) {
        return 0;
    }
    const std::string_view body = text.substr(begin + kKeyBeginLine.size());
    return body.find('\n') == std::string_view::npos ? text.size() - begin : 0;
}

} // namespace

std::optional<std::string> PollManager::keyInOutput(const QString &chunk) {
    try {
        return lumacrypt::PEMSearchString(chunk.toStdString());
    } catch (...) {
        return std::nullopt; // malformed output is no key
    }
}

runwarden::StandardOutputHandler
PollManager::outputHandler(std::shared_ptr<Subscription> subscription) {
    // Runs on the runner's reader thread. Only the caller's handler runs here; the PollManager's
    // own state is touched on the main thread, in the order the chunks arrived, so that a
    // request made on the main thread after a key line sees that key.
    return [this, subscription = std::move(subscription)](const QString &chunk) {
        runwarden::StandardOutputHandler standardOutput;
        bool withPEMWatcher = false;
        {
            const std::lock_guard lock(subscription->mutex);
            standardOutput = subscription->standardOutput;
            withPEMWatcher = subscription->withPEMWatcher;
        }
        if (standardOutput) {
            try {
                standardOutput(chunk);
            } catch (...) {
                const std::string text = Error::fromCurrentException().description;
                QMetaObject::invokeMethod(
                    this, [this, text] { log("warning: " + text); }, Qt::QueuedConnection);
            }
        }
        QMetaObject::invokeMethod(
            this, [this] { pong(); }, Qt::QueuedConnection);
        if (withPEMWatcher) {
            std::string text;
            {
                const std::lock_guard lock(subscription->mutex);
                text = std::exchange(subscription->unfinishedKey, std::string());
            }
            text += chunk.toStdString();
            const std::size_t held = unfinishedKeyLength(text);
            if (held > 0 && held <= kMaxUnfinishedKey) {
                const std::lock_guard lock(subscription->mutex);
                subscription->unfinishedKey = text.substr(text.size() - held);
                text.resize(text.size() - held);
            }
            std::optional<std::string> key = keyInOutput(QString::fromStdString(text));
            if (key) {
                QMetaObject::invokeMethod(
                    this, [this, key = std::move(*key)] { acceptPeerKey(key); },
                    Qt::QueuedConnection);
            }
        }
    };
}

runwarden::TaskExitHandler PollManager::exitHandler(std::shared_ptr<Subscription> subscription) {
    return [subscription = std::move(subscription)](const std::optional<std::error_code> &error) {
        runwarden::TaskExitHandler taskExitNotification;
        {
            const std::lock_guard lock(subscription->mutex);
            // A block the run left unfinished is not the start of the next run's key.
            subscription->unfinishedKey.clear();
            taskExitNotification = subscription->taskExitNotification;
        }
        if (taskExitNotification) {
            taskExitNotification(error);
        }
    };
}

namespace {

std::optional<QString> executablePath(const QString &binURL) {
    if (binURL.isEmpty()) {
        return std::nullopt;
    }
    if (binURL.startsWith(QLatin1String("file:"))) {
        const QString local = QUrl(binURL).toLocalFile();
        return local.isEmpty() ? std::nullopt : std::optional<QString>(local);
    }
    return binURL;
}

} // namespace

void PollManager::subscribeWithBinary(const QString &binURL, bool withRetry, bool withPEMWatcher,
                                      double pingTimeLimit, std::function<void()> pingTimeout,
                                      runwarden::StandardOutputHandler standardOutput,
                                      runwarden::TaskExitHandler taskExitNotification) {
    runwarden::ProcessManager *runner = processManager_;
    const std::optional<QString> path = executablePath(binURL);

    if (!runner->isCancelled() && runner->isLoopRunning()) {
        // One loop per runner. A loop held after an exit takes the next launch itself.
        if (runner->isHeld() && subscription_) {
            subscription_->install(std::move(standardOutput), std::move(taskExitNotification),
                                   withPEMWatcher);
            setUpTimer(pingTimeLimit, std::move(pingTimeout));
            if (!runner->relaunch(path)) {
                log("warning: subscribeWithBinary: the held backend could not be relaunched");
            }
            return;
        }
        log("warning: subscribeWithBinary ignored: the backend is already running");
        return;
    }

    if (runner->isCancelled()) {
        // A cancelled runner never runs again: start over with a fresh one and the same
        // arguments. The old one finishes winding down on its own.
        auto *fresh = new runwarden::ProcessManager(runner->arguments(), this);
        if (runner->isLoopRunning()) {
            connect(runner, &runwarden::ProcessManager::loopFinished, runner,
                    &QObject::deleteLater);
        } else {
            runner->deleteLater();
        }
        processManager_ = fresh;
        watchRunner();
        runner = fresh;
    }

    auto subscription = std::make_shared<Subscription>();
    subscription->install(std::move(standardOutput), std::move(taskExitNotification),
                          withPEMWatcher);
    subscription_ = subscription;
    setUpTimer(pingTimeLimit, std::move(pingTimeout));
    if (!runner->RunProces(path, withRetry, outputHandler(subscription),
                           exitHandler(subscription))) {
        log("warning: subscribeWithBinary ignored: the backend is already running");
    }
}

void PollManager::stopBackend() {
    processManager_->cancel();
}

bool PollManager::isBackendRunning() const {
    return processManager_->currentTaskPid() != 0;
}

} // namespace tidepost
