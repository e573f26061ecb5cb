#include "BackendLauncher.h"

#include "PollManager.h"

#include <runwarden/ProcessManager.h>

#include <QLocale>
#include <QPointer>
#include <QThread>
#include <QTimer>

#include <cmath>
#include <utility>

namespace tarnwick::supervisor {

BackendLauncher::BackendLauncher(tidepost::PollManager &pm, BinaryPreparation preparation,
                                 Hooks hooks, bool withRetry, QObject *parent)
    : QObject(parent), pm_(pm), preparation_(std::move(preparation)), hooks_(std::move(hooks)),
      withRetry_(withRetry) {
    connect(&pm_, &tidepost::PollManager::peerKeyChanged, this, [this] { keyShown_ = true; });
}

QString BackendLauncher::secondsText(double seconds) {
    QString text = QString::number(seconds, 'g', QLocale::FloatingPointShortest);
    if (std::isfinite(seconds) && !text.contains(u'.') && !text.contains(u'e')) {
        text += QStringLiteral(".0");
    }
    return text;
}

BackendLauncher::Choice
BackendLauncher::chooseBinaryName(const QString &architecture,
                                  const BinaryPreparation::ResourceLookup &resources) {
#ifdef Q_OS_MACOS
    const QString os = QStringLiteral("darwin");
#else
    const QString os = QStringLiteral("linux");
#endif
    const bool arm =
        architecture == QLatin1String("arm64") || architecture == QLatin1String("aarch64");
    const QString release = QStringLiteral("kovrit-%1-%2")
                                .arg(os, arm ? QStringLiteral("arm64") : QStringLiteral("amd64"));
    const QString beta = release + QStringLiteral("-beta");
    if (resources && resources(beta)) {
        return {beta, true};
    }
    return {release, false};
}

void BackendLauncher::setState(State state) {
    if (state_ != state) {
        state_ = state;
        emit stateChanged(state);
    }
}

void BackendLauncher::prepareAndLaunch(const QString &architecture) {
    const Choice choice = chooseBinaryName(architecture, preparation_.resources());
    if (choice.beta) {
        hooks_.log(QStringLiteral("run beta: %1").arg(choice.name));
    } else {
        hooks_.log(QStringLiteral("run release %1:").arg(choice.name));
    }
    currentBinaryName_ = choice.name;
    const std::optional<QString> url = preparation_.getWritableBinaryURL(choice.name);
    if (!url) {
        hooks_.log(QStringLiteral("Fatal: Could not prepare writable binary"));
        failureText_ = preparation_.failureReason();
        setState(State::stopped);
        tell(failureText_);
        return;
    }
    currentBinaryURL_ = url;
    launchBinary(*url, choice.name);
}

void BackendLauncher::tell(const QString &text) {
    failureText_ = text;
    if (!text.isEmpty()) {
        hooks_.setError(text);
    }
}

void BackendLauncher::fail(const QString &text) {
    // Nothing relaunches from here: the runner stops until the user asks for a restart.
    pm_.stopBackend();
    failureText_ = text;
    setState(State::failed);
    tell(text);
}

void BackendLauncher::launchBinary(const QString &binURL, const QString &binName) {
    // A port another program took since the last start would make this start fail: the
    // backend gets a free one. With none left there is nothing to start.
    const bool fresh = std::exchange(freshPortNeeded_, false);
    if (hooks_.choosePort && !hooks_.choosePort(fresh)) {
        setCurrentBinary(binURL, binName);
        fail(tr(noPortText));
        return;
    }
    binaryLaunchTime_ = clock_->steadyNow();
    setCurrentBinary(binURL, binName);
    setState(State::running);

    QPointer<BackendLauncher> self(this);
    const auto log = hooks_.log;
    pm_.subscribeWithBinary(
        binURL, withRetry_, /*withPEMWatcher=*/true, /*pingTimeLimit=*/0.0,
        [log] { log(QStringLiteral("ping timeout")); },
        // Runs on the runner's thread: everything else happens on ours.
        [self, pm = &pm_](const QString &chunk) {
            QMetaObject::invokeMethod(
                pm,
                [self, chunk] {
                    if (self) {
                        self->handleOutput(chunk);
                    }
                },
                Qt::QueuedConnection);
        },
        // Normal exits arrive on our thread; a failed start arrives on the
        // runner's thread, where only the request client (which owns the
        // runner and so outlives its threads) may be touched.
        [self, pm = &pm_, home = thread()](const std::optional<std::error_code> &error) {
            if (error) {
                // A retrying runner would try a failed start again at once:
                // keep it waiting until recovery decides, as after any short run.
                pm->processManager().holdForRelaunch();
            }
            if (QThread::currentThread() == home) {
                if (self) {
                    self->handleExit(error);
                }
                return;
            }
            QMetaObject::invokeMethod(
                pm,
                [self, error] {
                    if (self) {
                        self->handleExit(error);
                    }
                },
                Qt::QueuedConnection);
        });
    // Every start of the child counts as a launch, also the runner's own
    // re-runs after a normal exit: a backend that starts dying young after a
    // long run is then recognised as crashing instead of being restarted in a
    // tight loop.
    connect(&pm_.processManager(), &runwarden::ProcessManager::taskStarted, this,
            &BackendLauncher::markLaunched, Qt::UniqueConnection);
}

void BackendLauncher::setCurrentBinary(const QString &binURL, const QString &binName) {
    currentBinaryURL_ = binURL;
    currentBinaryName_ = binName;
}

void BackendLauncher::markLaunched() {
    binaryLaunchTime_ = clock_->steadyNow();
    keyShown_ = false;
    failedStart_ = false;
    bindFailed_ = false;
    // A backend that never shows its key cannot be talked to: after a while
    // the start counts as failed, and the recovery takes over.
    clock_->singleShot(keyTimeout, this, [this, launch = ++launchNumber_] {
        if (launch != launchNumber_ || keyShown_ || state_ != State::running) {
            return;
        }
        hooks_.log(QStringLiteral("The backend showed no key within %1 seconds of its start; "
                                  "counting it as a failed start")
                       .arg(keyTimeout.count() / 1000));
        failedStart_ = true;
        pm_.processManager().terminateCurrentTask();
    });
    if (state_ != State::failed) {
        setState(State::running);
    }
    emit launched();
}

QString BackendLauncher::printable(const QString &text) {
    // Control characters (a terminal's escape sequences among them) are written as \xNN, so
    // that output the backend echoes from elsewhere cannot drive the terminal reading the log.
    QString out;
    out.reserve(text.size());
    for (const QChar c : text) {
        const char16_t u = c.unicode();
        if ((u < 0x20 && u != u'\n' && u != u'\t') || (u >= 0x7f && u < 0xa0)) {
            out += QStringLiteral("\\x%1").arg(int(u), 2, 16, QLatin1Char('0'));
        } else {
            out += c;
        }
    }
    return out;
}

void BackendLauncher::handleOutput(const QString &chunk) {
    // At most outputLinesPerSecond chunks a second reach the log; the rest are counted, and
    // the count is told when logging resumes.
    const auto now = clock_->steadyNow();
    if (!outputWindowStart_ || now - *outputWindowStart_ >= std::chrono::seconds(1)) {
        if (droppedOutput_ > 0) {
            hooks_.log(QStringLiteral("o: (%1 more chunks of backend output not logged)")
                           .arg(droppedOutput_));
        }
        outputWindowStart_ = now;
        loggedOutput_ = 0;
        droppedOutput_ = 0;
    }
    if (loggedOutput_ < outputChunksPerSecond) {
        ++loggedOutput_;
        hooks_.log(QStringLiteral("o: ") + printable(chunk));
    } else {
        ++droppedOutput_;
    }
    // A backend whose port was taken between our check and its start says so and ends.
    if (chunk.contains(QLatin1String("cannot listen on"), Qt::CaseInsensitive) ||
        chunk.contains(QLatin1String("address already in use"), Qt::CaseInsensitive)) {
        bindFailed_ = true;
    }
    if (isFirstRun_) {
        isFirstRun_ = false;
        schedulePing();
    }
}

void BackendLauncher::schedulePing() {
    clock_->singleShot(pingInterval, this, [this] { pingTick(); });
}

void BackendLauncher::pingTick() {
    // Idle while no backend runs or its key is not known yet: a ping then
    // could only fail.
    if (state_ != State::running || !pm_.isBackendRunning() || !pm_.kes.hasSharedSecret()) {
        schedulePing();
        return;
    }
    QPointer<BackendLauncher> self(this);
    hooks_.sendPing([self] {
        if (self) {
            self->schedulePing();
        }
    });
}

void BackendLauncher::handleExit(const std::optional<std::error_code> &error) {
    hooks_.log(QStringLiteral("task exited"));
    if (error) {
        hooks_.log(runwarden::errorText(*error));
    }
    if (!binaryLaunchTime_) {
        return;
    }
    const auto now = clock_->steadyNow();
    if (failedStart_) {
        lastCause_ = Cause::noKey;
    } else if (!error && bindFailed_) {
        // Only the backend's own word counts: right after its end, the closing connections of
        // the run still hold its port for a moment, taken or not.
        lastCause_ = Cause::portTaken;
        freshPortNeeded_ = true;
    } else {
        lastCause_ = Cause::crash;
    }
    if (error || failedStart_) {
        // The child never ran, or never became a backend we can talk to.
        binaryLaunchTime_ = now;
        failedStart_ = false;
    }
    const double uptime = std::chrono::duration<double>(now - *binaryLaunchTime_).count();
    const QString name = currentBinaryName_.value_or(QString());

    if (uptime < crashThresholdSeconds) {
        hooks_.log(QStringLiteral("Binary crashed after only %1 seconds - attempting recovery")
                       .arg(secondsText(uptime)));
        ++binaryCrashCount_;
        if (binaryCrashCount_ > maxCrashRetries) {
            hooks_.log(QStringLiteral("Fatal: Maximum crash recovery attempts (%1) exceeded")
                           .arg(maxCrashRetries));
            // The words of a real crash only when the executable may be at fault.
            const char *text = lastCause_ == Cause::portTaken ? portTakenText
                               : lastCause_ == Cause::noKey   ? noKeyText
                                                              : crashedText;
            fail(tr(text));
            return;
        }
        hooks_.log(QStringLiteral("Crash recovery attempt %1 of %2")
                       .arg(binaryCrashCount_)
                       .arg(maxCrashRetries));
        // The relaunch after recovery is the runner's next run.
        pm_.processManager().holdForRelaunch();
        setState(State::recovering);
        QTimer::singleShot(0, this, [this, name] { recover(name); });
        return;
    }
    binaryCrashCount_ = 0;
    hooks_.log(QStringLiteral("Binary exited normally after running for %1 seconds")
                   .arg(secondsText(uptime)));
    setState(State::exitedNormally);
}

void BackendLauncher::recover(const QString &binName) {
    const std::optional<QString> url = preparation_.forceReplaceBinaryFromBundle(binName);
    if (!url) {
        hooks_.log(QStringLiteral("Fatal: Binary recovery failed"));
        pm_.stopBackend();
        failureText_ = preparation_.failureReason();
        setState(State::stopped);
        tell(failureText_);
        return;
    }
    hooks_.log(QStringLiteral("Binary replaced successfully, relaunching..."));
    clock_->singleShot(relaunchDelay_, this, [this, url = *url, binName] {
        if (state_ == State::recovering) {
            launchBinary(url, binName);
        }
    });
}

void BackendLauncher::restartBackend(const QString &architecture) {
    if (state_ == State::running || state_ == State::recovering) {
        hooks_.log(QStringLiteral("Backend is running; restart ignored"));
        return;
    }
    binaryCrashCount_ = 0;
    failureText_.clear();
    prepareAndLaunch(architecture);
}

} // namespace tarnwick::supervisor
