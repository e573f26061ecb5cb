#pragma once

#include "AppcastFeed.h"

#include <QDateTime>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <runwarden/Clock.h>

#include <QObject>
#include <QString>
#include <QUrl>

#include <chrono>
#include <functional>
#include <optional>

namespace tarnwick::updater {

// The software-update checker: fetches the appcast feed, offers the newest
// release that is strictly newer than the running version, downloads it into
// the cache and keeps it only when its Ed25519 signature verifies. It keeps
// the two automatic-update settings. One check (and the download it may lead
// to) is one session; while a session runs no other starts.
//
// Everything here lives on the main thread; only the signature check of a
// finished download runs on a worker thread and reports back through the
// event loop.
class AppcastChecker : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isConfigured READ isConfigured CONSTANT)
    Q_PROPERTY(bool isStarted READ isStarted NOTIFY isStartedChanged)
    Q_PROPERTY(bool sessionInProgress READ sessionInProgress NOTIFY sessionInProgressChanged)
    Q_PROPERTY(bool canCheckForUpdates READ canCheckForUpdates NOTIFY canCheckForUpdatesChanged)
    Q_PROPERTY(bool automaticallyChecksForUpdates READ automaticallyChecksForUpdates WRITE
                   setAutomaticallyChecksForUpdates NOTIFY automaticallyChecksForUpdatesChanged)
    Q_PROPERTY(bool automaticallyDownloadsUpdates READ automaticallyDownloadsUpdates WRITE
                   setAutomaticallyDownloadsUpdates NOTIFY automaticallyDownloadsUpdatesChanged)
    Q_PROPERTY(QString status READ status NOTIFY statusChanged)
    Q_PROPERTY(QString statusText READ statusText NOTIFY statusChanged)
    Q_PROPERTY(QString availableVersion READ availableVersion NOTIFY availableVersionChanged)
    Q_PROPERTY(QString downloadedFile READ downloadedFile NOTIFY downloadedFileChanged)
    Q_PROPERTY(
        QDateTime lastUpdateCheckDate READ lastUpdateCheckDate NOTIFY lastUpdateCheckDateChanged)

public:
    // Where updates come from and the limits of every transfer.
    struct Config {
        // The appcast feed (http or https). Empty: no feed, nothing is ever
        // requested and isConfigured is false.
        QUrl feedURL;
        // The Ed25519 public key (32 raw bytes) releases are signed with.
        // Without a valid key no download could be kept, so the checker
        // counts as not configured.
        QByteArray publicKey;
        // The running version; empty: QCoreApplication::applicationVersion().
        QString currentVersion;
        // Where downloads go; empty: <cache location>/updates.
        QString downloadDirectory;
        // Largest feed and largest download accepted, in bytes.
        qint64 maxFeedBytes = 4 * 1024 * 1024;
        qint64 maxDownloadBytes = qint64(1024) * 1024 * 1024;
        // A transfer that receives nothing for this long is ended.
        std::chrono::milliseconds transferTimeout{30'000};
        // A feed fetch ends after this long whatever it receives.
        std::chrono::milliseconds feedTimeLimit{60'000};
        // Lines of the log (default: standard output).
        std::function<void(const QString &)> log;
        // The client's time source, for the last check's date (the
        // system's when null).
        runwarden::Clock *clock = nullptr;
    };

    // The feed URL from TARNWICK_APPCAST_URL (set, even empty, it wins) else
    // the build's default; the public key from TARNWICK_UPDATE_PUBLIC_KEY
    // (base64 of the 32 raw bytes) else the build's default.
    static Config configFromEnvironment();

    explicit AppcastChecker(Config config, QObject *parent = nullptr);
    ~AppcastChecker() override;

    bool isConfigured() const { return configured_; }
    // Checks run only once the checker has been started.
    bool isStarted() const { return started_; }
    bool sessionInProgress() const { return session_ != nullptr; }
    // Configured, started and no session in progress.
    bool canCheckForUpdates() const { return configured_ && started_ && !session_; }

    // Kept in QSettings (organisation and application "tarnwick").
    bool automaticallyChecksForUpdates() const;
    void setAutomaticallyChecksForUpdates(bool on);
    bool automaticallyDownloadsUpdates() const;
    void setAutomaticallyDownloadsUpdates(bool on);

    // Where the last session stands: "idle", "checking", "upToDate",
    // "available", "downloading", "downloaded" or "error"; and a sentence
    // about it for the user.
    QString status() const { return status_; }
    QString statusText() const { return statusText_; }
    // The version on offer ("" when none), and the verified download of it
    // ("" until there is one).
    QString availableVersion() const { return availableVersion_; }
    QString downloadedFile() const { return downloadedFile_; }
    QDateTime lastUpdateCheckDate() const { return lastUpdateCheckDate_; }

    // The feed URL and key in use.
    const Config &config() const { return config_; }

    // Allows checks from now on (a checker that is never started never
    // checks). Does nothing when not configured.
    void startUpdater();

    // The interactive check: its outcome, good or bad, is shown in
    // status/statusText, and a newer release is downloaded at once.
    Q_INVOKABLE void checkForUpdates();
    // The background check: nothing is shown unless a newer release is found;
    // that release is downloaded only when automatic downloads are on.
    Q_INVOKABLE void checkForUpdatesInBackground();
    // Downloads the release on offer (after a background check that did not
    // download it).
    Q_INVOKABLE void downloadUpdate();

signals:
    void isStartedChanged();
    void sessionInProgressChanged();
    void canCheckForUpdatesChanged();
    void automaticallyChecksForUpdatesChanged();
    void automaticallyDownloadsUpdatesChanged();
    void statusChanged();
    void availableVersionChanged();
    void downloadedFileChanged();
    void lastUpdateCheckDateChanged();
    // A session ended (whatever its outcome).
    void sessionFinished();
    // A session the user started (checkForUpdates, downloadUpdate) ended;
    // status and statusText say how.
    void interactiveSessionFinished();

private:
    struct Session;

    void beginSession(bool interactive);
    void endSession();
    void fetchFeed();
    void feedFinished();
    void startDownload(const AppcastItem &item);
    void downloadFinished();
    void startTransfer();
    void downloadBytesArrived();
    void verify(const QString &path);
    void verificationFinished(const QString &failure);
    void keepDownload();
    void setSession(Session *session);
    QNetworkRequest requestFor(const QUrl &url) const;
    void watchRedirects(QNetworkReply *reply, const QUrl &origin);
    void fail(const QString &reason);
    void setStatus(const QString &status, const QString &text);
    void setAvailableVersion(const QString &version);
    void setDownloadedFile(const QString &path);
    void log(const QString &line) const;
    QString downloadDirectory() const;
    bool redirectAllowed(const QUrl &from, const QUrl &to) const;

    Config config_;
    bool configured_ = false;
    bool started_ = false;
    QNetworkAccessManager network_;
    // The session in progress, a child of this object; nullptr when none.
    Session *session_ = nullptr;
    // The release on offer after the last check that found one.
    std::optional<AppcastItem> offered_;
    QString status_ = QStringLiteral("idle");
    QString statusText_;
    QString availableVersion_;
    QString downloadedFile_;
    QDateTime lastUpdateCheckDate_;
    bool automaticallyChecks_ = true;
    bool automaticallyDownloads_ = false;
};

} // namespace tarnwick::updater
