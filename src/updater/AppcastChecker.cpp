#include "AppcastChecker.h"

#include "UpdateVerifier.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QFutureWatcher>
#include <QPointer>
#include <QPromise>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryFile>
#include <QThreadPool>
#include <QTimer>

#include <openssl/crypto.h>

#include <cstdio>
#include <memory>

// The build's defaults: a release build names its feed and signing key; a
// distribution package leaves both empty and never checks for updates.
#ifndef TARNWICK_DEFAULT_APPCAST_URL
#define TARNWICK_DEFAULT_APPCAST_URL ""
#endif
#ifndef TARNWICK_DEFAULT_UPDATE_PUBLIC_KEY
#define TARNWICK_DEFAULT_UPDATE_PUBLIC_KEY ""
#endif

namespace tarnwick::updater {

namespace {

const QString kChecksKey = QStringLiteral("updater/automaticallyChecksForUpdates");
const QString kDownloadsKey = QStringLiteral("updater/automaticallyDownloadsUpdates");
const QString kPartialSuffix = QStringLiteral(".part");
constexpr int kMaxRedirects = 5;

QSettings userSettings() {
    return QSettings(QStringLiteral("tarnwick"), QStringLiteral("tarnwick"));
}

void printLine(const QString &line) {
    const QByteArray bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

int effectivePort(const QUrl &url) {
    return url.port(url.scheme() == QLatin1String("https") ? 443 : 80);
}

// The name a download is kept under: the last part of its URL reduced to
// harmless characters, never hidden and never mistaken for a partial file.
QString fileNameFor(const AppcastItem &item) {
    QString name;
    for (const QChar c : item.url.fileName()) {
        const bool plain = (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') ||
                           (c >= u'0' && c <= u'9') || c == u'.' || c == u'-' || c == u'_' ||
                           c == u'+';
        name.append(plain ? c : u'_');
    }
    while (name.startsWith(u'.')) {
        name.remove(0, 1);
    }
    name.truncate(120);
    if (name.isEmpty() || name.endsWith(kPartialSuffix)) {
        name = QStringLiteral("tarnwick-%1.update").arg(item.version);
    }
    return name;
}

QString sizeText(qint64 bytes) {
    return QStringLiteral("%1 bytes").arg(bytes);
}

} // namespace

// One check and the download it may lead to. It is a child of the checker;
// ending it disconnects it and deletes it from the event loop, so that it
// may end from inside one of its own transfers' signals.
struct AppcastChecker::Session : QObject {
    explicit Session(bool interactive, QObject *parent)
        : QObject(parent), interactive(interactive) {
        deadline.setSingleShot(true);
    }
    ~Session() override { finish(); }

    // Stops whatever still runs and removes an unfinished download.
    void finish() {
        deadline.stop();
        verification.disconnect();
        if (reply) {
            QObject::disconnect(reply, nullptr, parent(), nullptr);
            reply->abort();
            reply->deleteLater();
            reply = nullptr;
        }
        if (partial) {
            partial->remove();
            partial.reset();
        }
    }

    bool interactive;
    QPointer<QNetworkReply> reply;
    // Why we ended the transfer ourselves (over a limit, a refused
    // redirect, a deadline); empty when we did not.
    QString abortReason;
    QTimer deadline;
    QByteArray feed;
    // The release being downloaded, where it is kept and its transfer.
    std::optional<AppcastItem> item;
    QString finalPath;
    bool checkingEarlierDownload = false;
    std::unique_ptr<QTemporaryFile> partial;
    qint64 received = 0;
    qint64 limit = 0;
    QFutureWatcher<QString> verification;
};

AppcastChecker::Config AppcastChecker::configFromEnvironment() {
    Config config;
    const QString feed = qEnvironmentVariableIsSet("TARNWICK_APPCAST_URL")
                             ? qEnvironmentVariable("TARNWICK_APPCAST_URL")
                             : QStringLiteral(TARNWICK_DEFAULT_APPCAST_URL);
    if (!feed.trimmed().isEmpty()) {
        config.feedURL = QUrl(feed.trimmed(), QUrl::StrictMode);
    }
    const QString key = qEnvironmentVariableIsSet("TARNWICK_UPDATE_PUBLIC_KEY")
                            ? qEnvironmentVariable("TARNWICK_UPDATE_PUBLIC_KEY")
                            : QStringLiteral(TARNWICK_DEFAULT_UPDATE_PUBLIC_KEY);
    if (!key.trimmed().isEmpty()) {
        config.publicKey = UpdateVerifier::decodePublicKey(key);
        if (config.publicKey.isEmpty()) {
            // Keep something that is visibly not a key, so that the checker
            // can say why it stays off.
            config.publicKey = QByteArrayLiteral("invalid");
        }
    }
    return config;
}

AppcastChecker::AppcastChecker(Config config, QObject *parent)
    : QObject(parent), config_(std::move(config)) {
    if (!config_.log) {
        config_.log = printLine;
    }
    if (!config_.clock) {
        config_.clock = &runwarden::Clock::system();
    }
    network_.setRedirectPolicy(QNetworkRequest::UserVerifiedRedirectPolicy);

    if (config_.feedURL.isEmpty()) {
        // No feed (a distribution package): updates come from elsewhere and
        // the checker keeps quiet.
        configured_ = false;
    } else if (!isSecureUpdateURL(config_.feedURL)) {
        log(QStringLiteral("warning: the update feed \"%1\" is not an https URL; update checks "
                           "are off")
                .arg(config_.feedURL.toString()));
    } else if (config_.publicKey.size() != UpdateVerifier::kPublicKeySize) {
        log(QStringLiteral("warning: no valid public key for update signatures; update checks "
                           "are off"));
    } else {
        configured_ = true;
    }

    QSettings settings = userSettings();
    automaticallyChecks_ = settings.value(kChecksKey, true).toBool();
    automaticallyDownloads_ = settings.value(kDownloadsKey, false).toBool();
}

AppcastChecker::~AppcastChecker() {
    // End the transfers before the network manager goes, so that nothing
    // reports back into a half-destroyed checker.
    delete session_;
    session_ = nullptr;
}

bool AppcastChecker::automaticallyChecksForUpdates() const {
    return automaticallyChecks_;
}

void AppcastChecker::setAutomaticallyChecksForUpdates(bool on) {
    if (on == automaticallyChecks_) {
        return;
    }
    automaticallyChecks_ = on;
    userSettings().setValue(kChecksKey, on);
    emit automaticallyChecksForUpdatesChanged();
}

bool AppcastChecker::automaticallyDownloadsUpdates() const {
    return automaticallyDownloads_;
}

void AppcastChecker::setAutomaticallyDownloadsUpdates(bool on) {
    if (on == automaticallyDownloads_) {
        return;
    }
    automaticallyDownloads_ = on;
    userSettings().setValue(kDownloadsKey, on);
    emit automaticallyDownloadsUpdatesChanged();
}

void AppcastChecker::startUpdater() {
    if (!configured_ || started_) {
        return;
    }
    started_ = true;
    emit isStartedChanged();
    emit canCheckForUpdatesChanged();
}

void AppcastChecker::checkForUpdates() {
    beginSession(true);
}

void AppcastChecker::checkForUpdatesInBackground() {
    beginSession(false);
}

void AppcastChecker::downloadUpdate() {
    if (!canCheckForUpdates() || !offered_ || status_ == QLatin1String("downloaded")) {
        return;
    }
    const AppcastItem item = *offered_;
    setSession(new Session(true, this));
    startDownload(item);
}

void AppcastChecker::setSession(Session *session) {
    const bool wasRunning = session_ != nullptr;
    session_ = session;
    if (wasRunning != (session_ != nullptr)) {
        emit sessionInProgressChanged();
        emit canCheckForUpdatesChanged();
    }
}

void AppcastChecker::beginSession(bool interactive) {
    if (!canCheckForUpdates()) {
        return;
    }
    setSession(new Session(interactive, this));
    if (interactive) {
        setStatus(QStringLiteral("checking"), tr("Checking for updates…"));
    }
    fetchFeed();
}

void AppcastChecker::endSession() {
    Session *session = session_;
    if (session == nullptr) {
        return;
    }
    const bool interactive = session->interactive;
    session->finish();
    session->deleteLater();
    setSession(nullptr);
    emit sessionFinished();
    if (interactive) {
        emit interactiveSessionFinished();
    }
}

QNetworkRequest AppcastChecker::requestFor(const QUrl &url) const {
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::UserVerifiedRedirectPolicy);
    request.setMaximumRedirectsAllowed(kMaxRedirects);
    request.setTransferTimeout(static_cast<int>(config_.transferTimeout.count()));
    request.setHeader(QNetworkRequest::UserAgentHeader,
                      QStringLiteral("Tarnwick/%1").arg(QCoreApplication::applicationVersion()));
    return request;
}

bool AppcastChecker::redirectAllowed(const QUrl &from, const QUrl &to) const {
    if (!to.isValid() || to.host().isEmpty()) {
        return false;
    }
    if (to.scheme() == QLatin1String("https")) {
        return true;
    }
    return to.scheme() == from.scheme() &&
           to.host().compare(from.host(), Qt::CaseInsensitive) == 0 &&
           effectivePort(to) == effectivePort(from);
}

void AppcastChecker::watchRedirects(QNetworkReply *reply, const QUrl &origin) {
    connect(reply, &QNetworkReply::redirected, this, [this, reply, origin](const QUrl &to) {
        if (session_ == nullptr || session_->reply != reply) {
            return;
        }
        if (redirectAllowed(origin, to)) {
            emit reply->redirectAllowed();
            return;
        }
        session_->abortReason =
            QStringLiteral("refused a redirect to %1").arg(to.toDisplayString());
        reply->abort();
    });
}

void AppcastChecker::fetchFeed() {
    Session *session = session_;
    QNetworkRequest request = requestFor(config_.feedURL);
    request.setRawHeader("Accept", "application/rss+xml, application/xml;q=0.9, text/xml;q=0.8");
    QNetworkReply *reply = network_.get(request);
    session->reply = reply;
    watchRedirects(reply, config_.feedURL);
    connect(reply, &QNetworkReply::readyRead, this, [this, reply] {
        if (session_ == nullptr || session_->reply != reply) {
            return;
        }
        session_->feed += reply->readAll();
        if (session_->feed.size() > config_.maxFeedBytes) {
            session_->abortReason = QStringLiteral("the update feed is larger than %1")
                                        .arg(sizeText(config_.maxFeedBytes));
            reply->abort();
        }
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] {
        if (session_ != nullptr && session_->reply == reply) {
            feedFinished();
        }
    });
    connect(&session->deadline, &QTimer::timeout, this, [this, reply] {
        if (session_ != nullptr && session_->reply == reply) {
            session_->abortReason = QStringLiteral("the update feed did not arrive within %1 s")
                                        .arg(config_.feedTimeLimit.count() / 1000.0);
            reply->abort();
        }
    });
    session->deadline.start(config_.feedTimeLimit);
}

namespace {

// Why a finished transfer failed, or an empty string when it succeeded.
QString transferFailure(QNetworkReply *reply, const QString &abortReason,
                        std::chrono::milliseconds transferTimeout) {
    if (!abortReason.isEmpty()) {
        return abortReason;
    }
    if (reply->error() == QNetworkReply::OperationCanceledError) {
        return QStringLiteral("nothing arrived for %1 s").arg(transferTimeout.count() / 1000.0);
    }
    if (reply->error() != QNetworkReply::NoError) {
        return reply->errorString();
    }
    const QVariant code = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (code.isValid() && (code.toInt() < 200 || code.toInt() > 299)) {
        return QStringLiteral("the server answered %1").arg(code.toInt());
    }
    return {};
}

} // namespace

void AppcastChecker::feedFinished() {
    Session *session = session_;
    QNetworkReply *reply = session->reply;
    session->deadline.stop();
    if (const QString failure =
            transferFailure(reply, session->abortReason, config_.transferTimeout);
        !failure.isEmpty()) {
        fail(failure);
        return;
    }
    session->feed += reply->readAll();
    if (session->feed.size() > config_.maxFeedBytes) {
        fail(QStringLiteral("the update feed is larger than %1")
                 .arg(sizeText(config_.maxFeedBytes)));
        return;
    }
    QObject::disconnect(reply, nullptr, this, nullptr);
    reply->deleteLater();
    session->reply = nullptr;

    const AppcastParseResult parsed = parseAppcast(session->feed, config_.feedURL);
    session->feed.clear();
    if (!parsed.error.isEmpty()) {
        fail(QStringLiteral("the update feed could not be read (%1)").arg(parsed.error));
        return;
    }
    for (const QString &line : parsed.skipped) {
        log(line);
    }
    lastUpdateCheckDate_ = config_.clock->currentDateTimeUtc();
    emit lastUpdateCheckDateChanged();

    const QString current = config_.currentVersion.isEmpty()
                                ? QCoreApplication::applicationVersion()
                                : config_.currentVersion;
    if (!isDottedNumericVersion(current)) {
        fail(QStringLiteral("the running version \"%1\" cannot be compared").arg(current));
        return;
    }
    const std::optional<AppcastItem> newest = newestUpdate(parsed.items, current);
    if (!newest) {
        offered_.reset();
        setAvailableVersion(QString());
        // A background check that finds nothing stays quiet unless it takes
        // back an offer shown earlier.
        if (session->interactive || status_ == QLatin1String("available") ||
            status_ == QLatin1String("downloaded")) {
            setDownloadedFile(QString());
            setStatus(QStringLiteral("upToDate"), tr("You're up to date"));
        }
        endSession();
        return;
    }

    const bool sameAsBefore = offered_ && offered_->version == newest->version &&
                              offered_->url == newest->url &&
                              offered_->edSignature == newest->edSignature;
    offered_ = newest;
    setAvailableVersion(newest->displayVersion);
    if (sameAsBefore && !downloadedFile_.isEmpty() && QFileInfo::exists(downloadedFile_)) {
        setStatus(QStringLiteral("downloaded"),
                  tr("Tarnwick %1 has been downloaded").arg(newest->displayVersion));
        endSession();
        return;
    }
    setDownloadedFile(QString());
    log(QStringLiteral("Update available: Tarnwick %1").arg(newest->displayVersion));
    if (session->interactive || automaticallyDownloads_) {
        startDownload(*newest);
        return;
    }
    setStatus(QStringLiteral("available"),
              tr("Tarnwick %1 is available").arg(newest->displayVersion));
    endSession();
}

QString AppcastChecker::downloadDirectory() const {
    if (!config_.downloadDirectory.isEmpty()) {
        return config_.downloadDirectory;
    }
    return QStandardPaths::writableLocation(QStandardPaths::CacheLocation) +
           QStringLiteral("/updates");
}

void AppcastChecker::startDownload(const AppcastItem &item) {
    Session *session = session_;
    session->item = item;
    setStatus(QStringLiteral("downloading"),
              tr("Downloading Tarnwick %1…").arg(item.displayVersion));
    if (item.length > config_.maxDownloadBytes) {
        fail(
            QStringLiteral("the update is larger than %1").arg(sizeText(config_.maxDownloadBytes)));
        return;
    }
    const QString directory = downloadDirectory();
    if (!QDir().mkpath(directory)) {
        fail(QStringLiteral("cannot create %1").arg(directory));
        return;
    }
    session->finalPath = directory + u'/' + fileNameFor(item);
    if (QFileInfo(session->finalPath).isFile()) {
        // Kept by an earlier run: keep it again if it is this release.
        session->checkingEarlierDownload = true;
        verify(session->finalPath);
        return;
    }
    startTransfer();
}

void AppcastChecker::startTransfer() {
    Session *session = session_;
    const AppcastItem &item = *session->item;
    session->checkingEarlierDownload = false;
    // Partial files left by an interrupted run are of no use.
    const QString directory = QFileInfo(session->finalPath).absolutePath();
    QDirIterator leftovers(directory, {QStringLiteral("*") + kPartialSuffix}, QDir::Files);
    while (leftovers.hasNext()) {
        QFile::remove(leftovers.next());
    }
    session->partial = std::make_unique<QTemporaryFile>(
        directory + QStringLiteral("/download-XXXXXX") + kPartialSuffix);
    if (!session->partial->open()) {
        const QString error = session->partial->errorString();
        session->partial.reset();
        fail(QStringLiteral("cannot write in %1: %2").arg(directory, error));
        return;
    }
    session->received = 0;
    session->limit = item.length > 0 ? item.length : config_.maxDownloadBytes;
    session->abortReason.clear();

    QNetworkReply *reply = network_.get(requestFor(item.url));
    session->reply = reply;
    watchRedirects(reply, item.url);
    connect(reply, &QNetworkReply::readyRead, this, [this, reply] {
        if (session_ != nullptr && session_->reply == reply) {
            downloadBytesArrived();
        }
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] {
        if (session_ != nullptr && session_->reply == reply) {
            downloadFinished();
        }
    });
}

void AppcastChecker::downloadBytesArrived() {
    Session *session = session_;
    QNetworkReply *reply = session->reply;
    const QByteArray chunk = reply->readAll();
    session->received += chunk.size();
    if (session->received > session->limit) {
        session->abortReason = session->item->length > 0
                                   ? QStringLiteral("the download is larger than the announced %1")
                                         .arg(sizeText(session->item->length))
                                   : QStringLiteral("the download is larger than %1")
                                         .arg(sizeText(config_.maxDownloadBytes));
        reply->abort();
        return;
    }
    if (session->partial->write(chunk) != chunk.size()) {
        session->abortReason =
            QStringLiteral("cannot write the download: %1").arg(session->partial->errorString());
        reply->abort();
    }
}

void AppcastChecker::downloadFinished() {
    Session *session = session_;
    QNetworkReply *reply = session->reply;
    if (const QString failure =
            transferFailure(reply, session->abortReason, config_.transferTimeout);
        !failure.isEmpty()) {
        fail(failure);
        return;
    }
    if (reply->bytesAvailable() > 0) {
        downloadBytesArrived();
        if (!session->abortReason.isEmpty()) {
            fail(session->abortReason);
            return;
        }
    }
    QObject::disconnect(reply, nullptr, this, nullptr);
    reply->deleteLater();
    session->reply = nullptr;
    if (!session->partial->flush()) {
        fail(QStringLiteral("cannot write the download: %1").arg(session->partial->errorString()));
        return;
    }
    session->partial->close();
    verify(session->partial->fileName());
}

void AppcastChecker::verify(const QString &path) {
    Session *session = session_;
    const QByteArray key = config_.publicKey;
    const QByteArray signature = session->item->edSignature;
    // The signature vouches for the version the feed offers, not only for the bytes.
    const QString version = session->item->version;
    connect(&session->verification, &QFutureWatcher<QString>::finished, this, [this, session] {
        if (session_ != session) {
            return;
        }
        const QFuture<QString> future = session->verification.future();
        verificationFinished(future.resultCount() > 0
                                 ? future.result()
                                 : QStringLiteral("the signature check did not run"));
    });
    // Checking a large file takes a while: it runs on a worker thread and
    // the result comes back through the event loop.
    auto promise = std::make_shared<QPromise<QString>>();
    session->verification.setFuture(promise->future());
    promise->start();
    QThreadPool::globalInstance()->start([promise, path, version, key, signature] {
        promise->addResult(UpdateVerifier::verifyFile(path, version, key, signature));
        // The pool's thread is not OpenSSL's: what OpenSSL keeps per thread (the error queue
        // of a failed check among it) is released here rather than left to the thread's end.
        OPENSSL_thread_stop();
        promise->finish();
    });
}

void AppcastChecker::verificationFinished(const QString &failure) {
    Session *session = session_;
    const AppcastItem &item = *session->item;
    if (session->checkingEarlierDownload) {
        if (failure.isEmpty()) {
            log(QStringLiteral("Tarnwick %1 was downloaded before: %2")
                    .arg(item.displayVersion, session->finalPath));
            setDownloadedFile(session->finalPath);
            setStatus(QStringLiteral("downloaded"),
                      tr("Tarnwick %1 has been downloaded").arg(item.displayVersion));
            endSession();
            return;
        }
        // Another release under the same name, or a damaged file.
        QFile::remove(session->finalPath);
        startTransfer();
        return;
    }
    if (!failure.isEmpty()) {
        log(QStringLiteral("warning: discarded the download of Tarnwick %1 from %2: %3")
                .arg(item.displayVersion, item.url.toDisplayString(), failure));
        session->partial->remove();
        session->partial.reset();
        fail(QStringLiteral("the download could not be verified and was discarded"));
        return;
    }
    keepDownload();
}

void AppcastChecker::keepDownload() {
    Session *session = session_;
    const AppcastItem &item = *session->item;
    QFile::remove(session->finalPath);
    if (!session->partial->rename(session->finalPath)) {
        fail(QStringLiteral("cannot keep the download as %1: %2")
                 .arg(session->finalPath, session->partial->errorString()));
        return;
    }
    session->partial->setAutoRemove(false);
    session->partial.reset();
    // Only the newest verified release is worth its space.
    const QString directory = QFileInfo(session->finalPath).absolutePath();
    QDirIterator others(directory, QDir::Files | QDir::Hidden);
    while (others.hasNext()) {
        const QString other = others.next();
        if (QFileInfo(other).fileName() != QFileInfo(session->finalPath).fileName()) {
            QFile::remove(other);
        }
    }
    log(QStringLiteral("Downloaded Tarnwick %1 to %2")
            .arg(item.displayVersion, session->finalPath));
    setDownloadedFile(session->finalPath);
    setStatus(QStringLiteral("downloaded"),
              tr("Tarnwick %1 has been downloaded").arg(item.displayVersion));
    endSession();
}

void AppcastChecker::fail(const QString &reason) {
    Session *session = session_;
    if (session == nullptr) {
        return;
    }
    if (session->item) {
        log(QStringLiteral("Update download failed: %1").arg(reason));
        setStatus(QStringLiteral("error"), tr("The download of Tarnwick %1 failed: %2")
                                               .arg(session->item->displayVersion, reason));
    } else {
        log(QStringLiteral("Update check failed: %1").arg(reason));
        // A background check that fails only says so in the log.
        if (session->interactive) {
            setStatus(QStringLiteral("error"), tr("The update check failed: %1").arg(reason));
        }
    }
    endSession();
}

void AppcastChecker::setStatus(const QString &status, const QString &text) {
    if (status == status_ && text == statusText_) {
        return;
    }
    status_ = status;
    statusText_ = text;
    emit statusChanged();
}

void AppcastChecker::setAvailableVersion(const QString &version) {
    if (version != availableVersion_) {
        availableVersion_ = version;
        emit availableVersionChanged();
    }
}

void AppcastChecker::setDownloadedFile(const QString &path) {
    if (path != downloadedFile_) {
        downloadedFile_ = path;
        emit downloadedFileChanged();
    }
}

void AppcastChecker::log(const QString &line) const {
    config_.log(line);
}

} // namespace tarnwick::updater
