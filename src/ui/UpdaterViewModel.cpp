#include "UpdaterViewModel.h"
#include "ClientLog.h"

#include <QDesktopServices>
#include <QFileInfo>
#include <QUrl>

#include <cstdio>

namespace tarnwick::ui {

namespace {

void printLine(const QString &line) {
    ClientLog::line(line);
}

// The checker's lines go where every other line of the client goes.
updater::AppcastChecker::Config withClientLog(updater::AppcastChecker::Config config) {
    if (!config.log) {
        config.log = printLine;
    }
    return config;
}

UpdaterViewModel::Options productOptions(bool isMacOS13) {
    UpdaterViewModel::Options options;
    options.isMacOS13 = isMacOS13;
    return options;
}

} // namespace

UpdaterViewModel::UpdaterViewModel(bool isMacOS13, QObject *parent)
    : UpdaterViewModel(productOptions(isMacOS13), parent) {}

UpdaterViewModel::UpdaterViewModel(Options options, QObject *parent)
    : QObject(parent), isMacOS13_(options.isMacOS13), print_(std::move(options.print)),
      updater_(new updater::AppcastChecker(withClientLog(std::move(options.checker)), this)),
      checkViewModel_(new CheckForUpdatesViewModel(updater_, this)) {
    if (!print_) {
        print_ = printLine;
    }
    // On older systems the checker exists but is never started, so no check
    // ever runs. Without a feed (a distribution package) there is nothing to
    // check against; the schedule is not set up either, so its line is not
    // printed every four hours about checks that never happen.
    if (!isMacOS13_ || !updater_->isConfigured()) {
        return;
    }
    updater_->startUpdater();
    // Every launch switches both on again, whatever was chosen in an earlier
    // run.
    updater_->setAutomaticallyDownloadsUpdates(true);
    updater_->setAutomaticallyChecksForUpdates(true);
    updater_->checkForUpdatesInBackground();

    timer_.setInterval(options.checkInterval);
    timer_.setSingleShot(false);
    connect(&timer_, &QTimer::timeout, this, &UpdaterViewModel::checkTimerFired);
    timer_.start();
}

UpdaterViewModel::~UpdaterViewModel() = default;

void UpdaterViewModel::checkTimerFired() {
    print_(QStringLiteral("Check for sparkle update"));
    // A session in progress (a check or its download) is left alone. Turning
    // automatic checks off in the settings stops the background checks.
    if (updater_->sessionInProgress() || !updater_->automaticallyChecksForUpdates()) {
        return;
    }
    updater_->checkForUpdatesInBackground();
}

void UpdaterViewModel::checkForUpdates() {
    updater_->checkForUpdates();
}

void UpdaterViewModel::downloadUpdate() {
    updater_->downloadUpdate();
}

void UpdaterViewModel::showDownloadedFile() const {
    const QString file = updater_->downloadedFile();
    if (file.isEmpty()) {
        return;
    }
    QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(file).absolutePath()));
}

} // namespace tarnwick::ui
