#pragma once

#include "AppcastChecker.h"
#include "CheckForUpdatesViewModel.h"

#include <QObject>
#include <QString>
#include <QTimer>

#include <chrono>
#include <functional>

namespace tarnwick::ui {

// The updater as the screens see it (the singleton UpdaterViewModel): the
// checker itself ("updaterController", whose settings and state the screens
// read and write directly) and the interactive check. Constructing it starts
// the updater:
//  - on the modern path (isMacOS13) with a feed configured: both automatic
//    settings are switched on whatever was chosen before, a background check
//    starts at once, and every checkInterval (4 hours) a tick prints
//    "Check for sparkle update" and, when no session is in progress and
//    automatic checks are on, checks in the background;
//  - on the older path the checker exists but is never started: no check
//    ever runs;
//  - with no feed configured (a distribution package) nothing runs and
//    nothing is printed, and the checker's isConfigured is false so the
//    controls hide.
class UpdaterViewModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isMacOS13 READ isMacOS13 CONSTANT)
    Q_PROPERTY(tarnwick::updater::AppcastChecker *updaterController READ updaterController CONSTANT)
    Q_PROPERTY(tarnwick::ui::CheckForUpdatesViewModel *checkForUpdatesViewModel READ
                   checkForUpdatesViewModel CONSTANT)

public:
    struct Options {
        // Modern behaviour; false selects the older-system path.
        bool isMacOS13 = true;
        // Feed, key, limits, log and clock of the checker.
        updater::AppcastChecker::Config checker = updater::AppcastChecker::configFromEnvironment();
        // The background schedule.
        std::chrono::milliseconds checkInterval{std::chrono::hours(4)};
        // Where the tick's line goes (default: standard output).
        std::function<void(const QString &)> print;
    };

    // The product: feed and key from the environment or the build.
    explicit UpdaterViewModel(bool isMacOS13 = true, QObject *parent = nullptr);
    explicit UpdaterViewModel(Options options, QObject *parent = nullptr);
    ~UpdaterViewModel() override;

    bool isMacOS13() const { return isMacOS13_; }
    updater::AppcastChecker *updaterController() const { return updater_; }
    CheckForUpdatesViewModel *checkForUpdatesViewModel() const { return checkViewModel_; }

    // The interactive check ("Check for Updates" in the footer, "Check for
    // Updates…" in CheckForUpdatesView). Does nothing while
    // canCheckForUpdates is false.
    Q_INVOKABLE void checkForUpdates();
    // Downloads the release on offer when a background check did not.
    Q_INVOKABLE void downloadUpdate();
    // Opens the folder holding the verified download in the file manager.
    Q_INVOKABLE void showDownloadedFile() const;

    // What one tick of the background schedule does (the timer calls it).
    void checkTimerFired();
    // The background schedule's timer; inactive when nothing is scheduled.
    const QTimer &checkTimer() const { return timer_; }

private:
    bool isMacOS13_;
    std::function<void(const QString &)> print_;
    updater::AppcastChecker *updater_;
    CheckForUpdatesViewModel *checkViewModel_;
    QTimer timer_;
};

} // namespace tarnwick::ui
