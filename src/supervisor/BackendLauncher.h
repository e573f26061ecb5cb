#pragma once

#include "BinaryPreparation.h"

#include <runwarden/Clock.h>

#include <QObject>
#include <QString>

#include <chrono>
#include <functional>
#include <optional>
#include <system_error>

namespace tidepost {
class PollManager;
}

namespace tarnwick::supervisor {

// Chooses the shipped backend, launches it through the request client, starts
// the ping loop on its first output, and tells crashes from normal exits by
// how long the process lived: a run shorter than 5 s is a crash, and the copy
// is replaced and relaunched at most three times in a row before the user is
// told. The failed state stops the backend; restartBackend() starts over.
//
// Lives on the main thread; every handler it installs hops there.
class BackendLauncher : public QObject {
    Q_OBJECT

public:
    struct Hooks {
        std::function<void(const QString &line)> log;
        // Sends one "ping" carrying the JSON text of the current folder list (retried as every
        // command is) and calls done after.
        std::function<void(std::function<void()> done)> sendPing;
        // Shows a message to the user (the model's error text).
        std::function<void(const QString &message)> setError;
        // Asked before each launch: the port the backend is to listen on (a fresh one when
        // its port is taken, or when `fresh` because the last start could not listen), or
        // empty when every port it may use is taken. Unset: the port is never changed.
        std::function<std::optional<int>(bool fresh)> choosePort;
    };

    enum class State { notPrepared, running, recovering, exitedNormally, failed, stopped };
    Q_ENUM(State)

    static constexpr int maxCrashRetries = 3;
    static constexpr double crashThresholdSeconds = 5.0;
    static constexpr std::chrono::milliseconds relaunchDelay{1000};
    static constexpr std::chrono::milliseconds pingInterval{100};
    // How many chunks of the backend's output are logged in one second.
    static constexpr int outputChunksPerSecond = 100;
    // The text with control characters written as \xNN.
    static QString printable(const QString &text);
    // A start that has shown no key after this long is a failed start.
    static constexpr std::chrono::milliseconds keyTimeout{10000};
    // What the user is told when the backend keeps dying young.
    static constexpr const char *crashedText =
        QT_TR_NOOP("Binary crashed repeatedly. Please reinstall the app.");
    // What the user is told instead when the executable was not the cause.
    static constexpr const char *noPortText =
        QT_TR_NOOP("The backend cannot start: every local port it may use is taken by other "
                   "programs. Close some of them, then restart the backend.");
    static constexpr const char *portTakenText =
        QT_TR_NOOP("The backend could not listen on its local port: other programs kept taking "
                   "it. Restart the backend to try again.");
    static constexpr const char *noKeyText =
        QT_TR_NOOP("The backend started but never showed its key, so the client cannot talk to "
                   "it. Restart the backend to try again.");

    BackendLauncher(tidepost::PollManager &pm, BinaryPreparation preparation, Hooks hooks,
                    bool withRetry, QObject *parent = nullptr);

    // The time source for run lengths, the ping loop and the relaunch delay.
    void setClock(runwarden::Clock &clock) { clock_ = &clock; }
    // Shorter delays for tests.
    void setRelaunchDelay(std::chrono::milliseconds delay) { relaunchDelay_ = delay; }

    // The backend name for a processor and what the resources directory ships:
    // the beta build wins whenever it is present.
    struct Choice {
        QString name;
        bool beta = false;
    };
    static Choice chooseBinaryName(const QString &architecture,
                                   const BinaryPreparation::ResourceLookup &resources);

    // Start-up: choose, prepare the writable copy, launch.
    void prepareAndLaunch(const QString &architecture);
    void launchBinary(const QString &binURL, const QString &binName);
    // The user's restart after the failed (or stopped) state: resets the
    // crash count, prepares the copy again and launches it.
    void restartBackend(const QString &architecture);

    // Records a launch now (what every start of the child does).
    void markLaunched();
    // The copy and name in use (set by every launch).
    void setCurrentBinary(const QString &binURL, const QString &binName);

    // Handlers given to the request client (public for tests).
    void handleOutput(const QString &chunk);
    void handleExit(const std::optional<std::error_code> &error);

    bool isFirstRun() const { return isFirstRun_; }
    std::optional<std::chrono::steady_clock::time_point> binaryLaunchTime() const {
        return binaryLaunchTime_;
    }
    int binaryCrashCount() const { return binaryCrashCount_; }
    std::optional<QString> currentBinaryURL() const { return currentBinaryURL_; }
    std::optional<QString> currentBinaryName() const { return currentBinaryName_; }
    State state() const { return state_; }
    // The message the launcher last showed the user (empty when none).
    const QString &failureText() const { return failureText_; }
    const BinaryPreparation &preparation() const { return preparation_; }

    // Seconds in the shortest form that reads back as the same double, with
    // ".0" on whole numbers ("4.9", "5.0", "10.25").
    static QString secondsText(double seconds);

signals:
    void stateChanged(tarnwick::supervisor::BackendLauncher::State state);
    // A start of the backend (every run of the child).
    void launched();

private:
    void setState(State state);
    void schedulePing();
    void pingTick();
    void recover(const QString &binName);
    // Stops in the failed state and tells the user why.
    void fail(const QString &text);
    void tell(const QString &text);

    // Why the latest short run ended, for the words of the failed state.
    enum class Cause { crash, portTaken, noKey };

    tidepost::PollManager &pm_;
    BinaryPreparation preparation_;
    Hooks hooks_;
    bool withRetry_;
    runwarden::Clock *clock_ = &runwarden::Clock::system();
    std::chrono::milliseconds relaunchDelay_ = relaunchDelay;

    bool isFirstRun_ = true;
    std::optional<std::chrono::steady_clock::time_point> binaryLaunchTime_;
    int binaryCrashCount_ = 0;
    std::optional<QString> currentBinaryURL_;
    std::optional<QString> currentBinaryName_;
    State state_ = State::notPrepared;
    // Counts starts, so that a key timer of an earlier start does nothing.
    std::uint64_t launchNumber_ = 0;
    bool keyShown_ = false;
    bool failedStart_ = false;
    std::optional<runwarden::Clock::TimePoint> outputWindowStart_;
    int loggedOutput_ = 0;
    int droppedOutput_ = 0;
    bool pingInFlight_ = false;
    Cause lastCause_ = Cause::crash;
    // This start said it cannot listen on its port.
    bool bindFailed_ = false;
    bool freshPortNeeded_ = false;
    QString failureText_;
};

} // namespace tarnwick::supervisor
