#pragma once

// The child-process runner: runs one executable at a time with a fixed argument list, streams
// its standard output as text, reports each exit, and can run it again in a loop until
// cancelled.
//
// Threads. A ProcessManager lives on the main thread. RunProces() starts a background thread
// (the run loop) that forks the child and blocks on it; a second background thread per run
// reads the child's standard output and calls the output handler there, chunk by chunk. The
// exit of a started child is reported on the main thread (the ProcessManager's thread), through
// its event loop. A child that could not be started is reported at once on the run-loop thread.
// Handlers must not assume the thread they run on beyond this.

#include <QByteArrayView>
#include <QLocale>
#include <QObject>
#include <QString>
#include <QStringList>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>
#include <type_traits>

namespace runwarden {

/// The runner's own failures. They reach the exit handler as std::error_code values of
/// processManagerErrorCategory(). Failures of the operating system (fork, pipe, exec: a missing
/// file, a file that is not executable, ...) arrive unchanged as std::system_category() codes
/// carrying errno, so their message() is the system's own text.
enum class ProcessManagerError {
    executableNotFound = 1, ///< no executable path was given (or the named resource is absent)
};

const std::error_category &processManagerErrorCategory() noexcept;
std::error_code make_error_code(ProcessManagerError error) noexcept;

/// The readable text of an error handed to the exit handler.
QString errorText(const std::error_code &error);

/// Receives each chunk of the child's standard output as it was read (not split into lines).
using StandardOutputHandler = std::function<void(const QString &chunk)>;

/// Receives the end of each run: std::nullopt when a started child exited, whatever its exit
/// status or signal; an error when the child could not be started.
using TaskExitHandler = std::function<void(const std::optional<std::error_code> &error)>;

/// A chunk of output as text: the bytes decoded as UTF-8, or std::nullopt when they are not
/// valid UTF-8 on their own (which includes a multi-byte character cut at either end).
std::optional<QString> decodeOutputChunk(QByteArrayView bytes);

/// The text form of a value given to ProcessManager::addArgument(): text as it is, Booleans as
/// "true"/"false", a single char as that character, integers in decimal, floating-point numbers
/// in their shortest round-trip form, anything else through its operator<<.
template <typename T> QString argumentText(const T &value) {
    using D = std::remove_cvref_t<T>;
    if constexpr (std::is_same_v<D, bool>) {
        return value ? QStringLiteral("true") : QStringLiteral("false");
    } else if constexpr (std::is_same_v<D, char>) {
        return QString::fromUtf8(&value, 1);
    } else if constexpr (std::is_integral_v<D>) {
        return QString::number(value);
    } else if constexpr (std::is_floating_point_v<D>) {
        return QString::number(double(value), 'g', QLocale::FloatingPointShortest);
    } else if constexpr (std::is_convertible_v<const T &, QString>) {
        return QString(value);
    } else if constexpr (std::is_convertible_v<const T &, std::string_view>) {
        const std::string_view text = value;
        return QString::fromUtf8(text.data(), qsizetype(text.size()));
    } else {
        std::ostringstream stream;
        stream << value;
        return QString::fromStdString(stream.str());
    }
}

class ProcessManager : public QObject {
    Q_OBJECT

public:
    /// How long a child has to end after SIGTERM before it gets SIGKILL.
    static constexpr std::chrono::milliseconds terminateGracePeriod{3000};

    explicit ProcessManager(QObject *parent = nullptr);
    /// Starts with a copy of another runner's arguments (QStringList copies are cheap): this is
    /// how a caller starts over after cancel(), which is final.
    explicit ProcessManager(const QStringList &arguments, QObject *parent = nullptr);
    /// Cancels (terminating the current child, SIGKILL after the grace period) and waits for
    /// the run loop to end.
    ~ProcessManager() override;

    ProcessManager(const ProcessManager &) = delete;
    ProcessManager &operator=(const ProcessManager &) = delete;

    // ---- Arguments: passed to every run, in insertion order. A copy is taken at each start.

    QStringList arguments() const;
    void setArguments(const QStringList &arguments);

    /// Appends the value's text form (see argumentText()).
    template <typename T> void addArgument(const T &value) { appendArgument(argumentText(value)); }
    /// Appends "-" + key + "=" + the value's text form, e.g. addArgument("port", 8123) gives
    /// -port=8123.
    template <typename T> void addArgument(const QString &key, const T &value) {
        appendArgument(QLatin1Char('-') + key + QLatin1Char('=') + argumentText(value));
    }
    /// addArgument(key, <this process's id>), e.g. -pid=4711.
    void addPIDAsArgument(const QString &key);

    // ---- Running. Both forms return at once; the loop runs on its own thread until it ends
    // (loopFinished()). Only one loop exists per runner: while one is alive another RunProces
    // is refused and returns false without starting anything. A cancelled runner starts a loop
    // that ends at once, running nothing.
    //
    // The loop: while not cancelled, run the child once (the last time when withRetry is
    // false). One run: start the child with the current arguments, standard output to a pipe
    // (standard input and error inherited), pass each chunk of output to standardOutput, wait
    // for the child to end, then report it. A missing path or a failed start is reported to
    // taskExitNotification directly on the loop thread, with an error; an exit (any status) is
    // reported later on the main thread, without error.
    //
    // After each run the loop waits until the exit handler has returned on the main thread (or
    // the runner is cancelled). With withRetry set, if during the handler holdForRelaunch() was
    // called, the loop then waits for relaunch() or cancel(); otherwise it runs again at once.
    // The exit handler of a failed start runs on the loop thread: a caller that wants to hold
    // after a failed start calls holdForRelaunch() right there (it is safe on any thread).

    /// Runs the resource `binName` of the resources directory (see bundleResourcePath()). An
    /// absent resource is run as an absent path (executableNotFound).
    bool RunProces(const QString &binName, bool withRetry = false,
                   StandardOutputHandler standardOutput = {},
                   TaskExitHandler taskExitNotification = {});
    bool RunProces(const char *binName, bool withRetry = false,
                   StandardOutputHandler standardOutput = {},
                   TaskExitHandler taskExitNotification = {});
    /// Runs the executable at binURL (a file path); std::nullopt reports executableNotFound.
    bool RunProces(const std::optional<QString> &binURL, bool withRetry = false,
                   StandardOutputHandler standardOutput = {},
                   TaskExitHandler taskExitNotification = {});

    /// Sets the cancelled flag (never cleared) and terminates the current child. The loop ends
    /// before the next start; a loop waiting for its exit handler or held for a relaunch ends
    /// at once. Safe on any thread.
    void cancel();
    /// Sends SIGTERM to the current child when one is running, and SIGKILL when it is still
    /// running after terminateGracePeriod. Safe on any thread.
    void terminateCurrentTask();
    bool isCancelled() const;

    /// True from a successful RunProces until the loop has ended: its last exit has been
    /// reported (the exit handler has returned) and nothing more will run. So a RunProces from
    /// inside an exit handler is always refused, and one from loopFinished() on always starts.
    bool isLoopRunning() const;
    /// Asks a retrying loop to wait after the current (or next) exit until relaunch() or
    /// cancel() instead of running the same path again at once. Returns false (and does
    /// nothing) when no retrying loop is alive or the runner is cancelled. Safe on any thread.
    bool holdForRelaunch();
    /// True while a hold is pending or the loop waits in it.
    bool isHeld() const;
    /// Releases a hold: the loop's next run uses binURL (std::nullopt reports
    /// executableNotFound), in the same loop. Returns false when nothing is held.
    bool relaunch(const std::optional<QString> &binURL);

    /// The process id of the running child, or 0 when none runs.
    qint64 currentTaskPid() const;

signals:
    /// A child was started (emitted on the main thread).
    void taskStarted(qint64 pid);
    /// The run loop has ended (emitted on the main thread, after the last exit report).
    void loopFinished();

protected:
    bool event(QEvent *event) override;

private:
    void appendArgument(const QString &text);
    // Runs `call` on the main thread (this object's thread) through its event loop. The call is
    // dropped unrun if this object is destroyed first.
    void postToMainThread(std::function<void()> call);
    bool startLoop(std::optional<QString> binURL, bool withRetry,
                   StandardOutputHandler standardOutput, TaskExitHandler taskExitNotification);
    void runLoop(std::optional<QString> binURL, bool withRetry,
                 const StandardOutputHandler &standardOutput,
                 const TaskExitHandler &taskExitNotification);
    void runTask(const std::optional<QString> &binURL, const StandardOutputHandler &standardOutput,
                 const TaskExitHandler &taskExitNotification);

    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace runwarden

template <> struct std::is_error_code_enum<runwarden::ProcessManagerError> : std::true_type {};
