#include <runwarden/LogLine.h>
#include <runwarden/ProcessManager.h>
#include <runwarden/Resources.h>

#include <QCoreApplication>
#include <QEvent>
#include <QFile>
#include <QStringDecoder>

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

namespace runwarden {

namespace {

using Clock = std::chrono::steady_clock;

class ProcessManagerErrorCategory final : public std::error_category {
public:
    const char *name() const noexcept override { return "runwarden.ProcessManager"; }
    std::string message(int code) const override {
        switch (static_cast<ProcessManagerError>(code)) {
        case ProcessManagerError::executableNotFound:
            return "executable not found";
        }
        return "unknown process manager error " + std::to_string(code);
    }
};

std::error_code systemError(int error) {
    return {error, std::system_category()};
}

// A pipe whose two ends are closed on exec, so no other child inherits them.
bool makePipe(int fds[2]) {
#if defined(__linux__) || defined(__FreeBSD__) || defined(__OpenBSD__) || defined(__NetBSD__)
    return ::pipe2(fds, O_CLOEXEC) == 0;
#else
    if (::pipe(fds) != 0)
        return false;
    ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
    return true;
#endif
}

void setNonBlocking(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0)
        ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

void closeQuietly(int &fd) {
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

void printLine(const std::string &line) {
    writeLine(line);
}

// Between fork and exec only async-signal-safe calls are allowed: the parent has other threads,
// whose locks (malloc's among them) may be held at the moment of the fork.
[[noreturn]] void reportExecFailure(int errorPipe) {
    const int error = errno;
    ssize_t written;
    do {
        written = ::write(errorPipe, &error, sizeof error);
    } while (written < 0 && errno == EINTR);
    ::_exit(127);
}

[[noreturn]] void execChild(const char *file, char *const argv[], int outputPipe, int errorPipe,
                            pid_t parent) {
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    struct sigaction defaultAction {};
    defaultAction.sa_handler = SIG_DFL;
    sigemptyset(&defaultAction.sa_mask);
    ::sigaction(SIGPIPE, &defaultAction, nullptr);
#ifdef __linux__
    // The child must not outlive the client: it gets SIGTERM when the thread that forked it
    // ends, which happens at the latest when the client dies. If the client died before the
    // request was in place, the signal will never come, so leave now.
    if (::prctl(PR_SET_PDEATHSIG, SIGTERM) != 0)
        reportExecFailure(errorPipe);
    if (::getppid() != parent)
        ::_exit(127);
#else
    (void)parent;
#endif
    if (outputPipe == STDOUT_FILENO) {
        ::fcntl(STDOUT_FILENO, F_SETFD, 0);
    } else if (::dup2(outputPipe, STDOUT_FILENO) < 0) {
        reportExecFailure(errorPipe);
    }
#ifdef __linux__
    // Descriptors the client opened without close-on-exec stay out of the child (best effort:
    // older kernels lack the call). Standard input and error stay inherited.
    ::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
#endif
    ::execv(file, argv);
    reportExecFailure(errorPipe);
}

// A call carried to the main thread. The event loop owns and deletes it there, so once posted
// nothing on the posting thread touches it again.
class MainThreadCall final : public QEvent {
public:
    explicit MainThreadCall(std::function<void()> call) : QEvent(type()), m_call(std::move(call)) {
        // The event reaches the main thread through Qt's queue, whose lock a thread checker
        // cannot see when Qt is not built for it: this release and the acquire in run() state
        // the hand-off in our own code.
        m_ready.store(true, std::memory_order_release);
    }
    static QEvent::Type type() {
        static const auto registered = static_cast<QEvent::Type>(QEvent::registerEventType());
        return registered;
    }
    void run() const {
        if (m_ready.load(std::memory_order_acquire) && m_call)
            m_call();
    }

private:
    std::function<void()> m_call;
    std::atomic<bool> m_ready{false};
};

} // namespace

const std::error_category &processManagerErrorCategory() noexcept {
    static const ProcessManagerErrorCategory category;
    return category;
}

std::error_code make_error_code(ProcessManagerError error) noexcept {
    return {static_cast<int>(error), processManagerErrorCategory()};
}

QString errorText(const std::error_code &error) {
    return QString::fromStdString(error.message());
}

std::optional<QString> decodeOutputChunk(QByteArrayView bytes) {
    // Stateless: a character cut at the end of this chunk is an error here, not something kept
    // for the next chunk. The byte-order mark, if any, is kept as part of the text.
    QStringDecoder decoder(QStringDecoder::Utf8, QStringConverter::Flag::Stateless |
                                                     QStringConverter::Flag::ConvertInitialBom);
    QString text = decoder.decode(bytes);
    if (decoder.hasError())
        return std::nullopt;
    return text;
}

struct ProcessManager::Private {
    mutable std::mutex mutex;
    // Signalled on cancel, on a returned exit handler and on a released hold.
    std::condition_variable changed;

    QStringList arguments;
    bool cancelled = false;

    std::thread loopThread;
    bool loopRunning = false;
    bool retrying = false;
    bool held = false;
    bool relaunchRequested = false;
    std::optional<QString> relaunchURL;
    quint64 exitReportsPosted = 0;
    quint64 exitReportsDone = 0;

    // The current child. Once `childExited` is set the child is a zombie about to be reaped,
    // and no signal may be sent to its id any more (it could be reused after the reap).
    pid_t pid = 0;
    bool childExited = false;
    std::optional<Clock::time_point> killDeadline;
    // The output thread of the current run: woken through this pipe, stopped by the flag.
    int wakeWrite = -1;
    bool stopOutput = false;
    // Whether the run's start has been posted to the main thread. The run's output waits for
    // it, so that a listener hears of the start before any of the new child's output.
    bool startPosted = false;

    void wakeOutputThread() const {
        if (wakeWrite < 0)
            return;
        const char byte = 1;
        ssize_t written;
        do {
            written = ::write(wakeWrite, &byte, 1);
        } while (written < 0 && errno == EINTR);
    }

    // Called with the mutex held.
    void terminateLocked() {
        if (pid <= 0 || childExited)
            return;
        ::kill(pid, SIGTERM);
        if (!killDeadline) {
            killDeadline = Clock::now() + terminateGracePeriod;
            wakeOutputThread();
        }
    }

    // Blocks until the child has ended, then reaps it.
    void waitForExit(pid_t child) {
        siginfo_t info;
        for (;;) {
            std::memset(&info, 0, sizeof info);
            if (::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) == 0)
                break;
            if (errno != EINTR)
                break; // ECHILD: already reaped elsewhere; nothing to wait for
        }
        {
            std::lock_guard lock(mutex);
            childExited = true;
        }
        int status = 0;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        std::lock_guard lock(mutex);
        pid = 0;
        childExited = false;
        killDeadline.reset();
    }

    // Reads the child's output as it comes and passes it on; enforces the SIGKILL deadline.
    void outputLoop(int readFd, int wakeRead, const StandardOutputHandler &standardOutput) {
        std::vector<char> buffer(64 * 1024);
        bool outputOpen = true;
        auto deliver = [&](ssize_t size) {
            {
                std::unique_lock lock(mutex);
                changed.wait(lock, [this] { return startPosted || stopOutput; });
            }
            const auto text = decodeOutputChunk(QByteArrayView(buffer.data(), size));
            if (text && standardOutput) {
                try {
                    standardOutput(*text);
                } catch (const std::exception &e) {
                    printLine(std::string("warning: output handler: ") + e.what());
                } catch (...) {
                    printLine("warning: output handler failed");
                }
            }
        };
        for (;;) {
            int timeout = -1;
            {
                std::lock_guard lock(mutex);
                if (stopOutput)
                    break;
                if (killDeadline && pid > 0 && !childExited) {
                    const auto left =
                        std::chrono::ceil<std::chrono::milliseconds>(*killDeadline - Clock::now());
                    timeout = static_cast<int>(std::max<qint64>(0, left.count()));
                }
            }
            std::array<pollfd, 2> fds{
                {{wakeRead, POLLIN, 0}, {outputOpen ? readFd : -1, POLLIN, 0}}};
            const int ready = ::poll(fds.data(), fds.size(), timeout);
            if ((ready < 0 && errno != EINTR) || (fds[0].revents & (POLLNVAL | POLLERR)))
                break;
            if (ready > 0 && (fds[0].revents & POLLIN)) {
                char drain[64];
                while (::read(wakeRead, drain, sizeof drain) > 0) {
                }
            }
            {
                std::lock_guard lock(mutex);
                if (killDeadline && Clock::now() >= *killDeadline) {
                    if (pid > 0 && !childExited)
                        ::kill(pid, SIGKILL);
                    killDeadline.reset();
                }
            }
            if (ready > 0 && outputOpen &&
                (fds[1].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL))) {
                const ssize_t size = ::read(readFd, buffer.data(), buffer.size());
                if (size > 0)
                    deliver(size);
                else if (size == 0 || (errno != EINTR && errno != EAGAIN))
                    outputOpen = false;
            }
        }
        // The child has ended: pass on what it wrote before, without waiting for an end of
        // file that a grandchild holding the pipe might never give.
        for (int reads = 0; outputOpen && reads < 64; ++reads) {
            pollfd fd{readFd, POLLIN, 0};
            if (::poll(&fd, 1, 0) <= 0)
                break;
            const ssize_t size = ::read(readFd, buffer.data(), buffer.size());
            if (size <= 0)
                break;
            deliver(size);
        }
    }
};

ProcessManager::ProcessManager(QObject *parent) : QObject(parent), d(std::make_unique<Private>()) {}

ProcessManager::ProcessManager(const QStringList &arguments, QObject *parent)
    : ProcessManager(parent) {
    d->arguments = arguments;
}

ProcessManager::~ProcessManager() {
    cancel();
    std::thread loop;
    {
        std::lock_guard lock(d->mutex);
        loop = std::move(d->loopThread);
    }
    if (!loop.joinable())
        return;
    if (loop.get_id() == std::this_thread::get_id())
        loop.detach(); // deleted from its own exit handler: nothing left to wait for here
    else
        loop.join();
}

bool ProcessManager::event(QEvent *event) {
    if (event->type() == MainThreadCall::type()) {
        static_cast<MainThreadCall *>(event)->run();
        return true;
    }
    return QObject::event(event);
}

void ProcessManager::postToMainThread(std::function<void()> call) {
    QCoreApplication::postEvent(this, new MainThreadCall(std::move(call)));
}

QStringList ProcessManager::arguments() const {
    std::lock_guard lock(d->mutex);
    return d->arguments;
}

void ProcessManager::setArguments(const QStringList &arguments) {
    std::lock_guard lock(d->mutex);
    d->arguments = arguments;
}

void ProcessManager::appendArgument(const QString &text) {
    std::lock_guard lock(d->mutex);
    d->arguments.append(text);
}

void ProcessManager::addPIDAsArgument(const QString &key) {
    addArgument(key, static_cast<qint32>(::getpid()));
}

bool ProcessManager::RunProces(const QString &binName, bool withRetry,
                               StandardOutputHandler standardOutput,
                               TaskExitHandler taskExitNotification) {
    return startLoop(bundleResourcePath(binName), withRetry, std::move(standardOutput),
                     std::move(taskExitNotification));
}

bool ProcessManager::RunProces(const char *binName, bool withRetry,
                               StandardOutputHandler standardOutput,
                               TaskExitHandler taskExitNotification) {
    return RunProces(QString::fromUtf8(binName), withRetry, std::move(standardOutput),
                     std::move(taskExitNotification));
}

bool ProcessManager::RunProces(const std::optional<QString> &binURL, bool withRetry,
                               StandardOutputHandler standardOutput,
                               TaskExitHandler taskExitNotification) {
    return startLoop(binURL, withRetry, std::move(standardOutput), std::move(taskExitNotification));
}

void ProcessManager::cancel() {
    std::lock_guard lock(d->mutex);
    d->cancelled = true;
    d->held = false;
    d->terminateLocked();
    d->changed.notify_all();
}

void ProcessManager::terminateCurrentTask() {
    std::lock_guard lock(d->mutex);
    d->terminateLocked();
}

bool ProcessManager::isCancelled() const {
    std::lock_guard lock(d->mutex);
    return d->cancelled;
}

bool ProcessManager::isLoopRunning() const {
    std::lock_guard lock(d->mutex);
    return d->loopRunning;
}

bool ProcessManager::holdForRelaunch() {
    std::lock_guard lock(d->mutex);
    if (!d->loopRunning || !d->retrying || d->cancelled)
        return false;
    d->held = true;
    return true;
}

bool ProcessManager::isHeld() const {
    std::lock_guard lock(d->mutex);
    return d->held;
}

bool ProcessManager::relaunch(const std::optional<QString> &binURL) {
    std::lock_guard lock(d->mutex);
    if (!d->held)
        return false;
    d->held = false;
    d->relaunchRequested = true;
    d->relaunchURL = binURL;
    d->changed.notify_all();
    return true;
}

qint64 ProcessManager::currentTaskPid() const {
    std::lock_guard lock(d->mutex);
    return d->childExited ? 0 : d->pid;
}

bool ProcessManager::startLoop(std::optional<QString> binURL, bool withRetry,
                               StandardOutputHandler standardOutput,
                               TaskExitHandler taskExitNotification) {
    std::thread finished;
    {
        std::lock_guard lock(d->mutex);
        if (d->loopRunning)
            return false;
        d->loopRunning = true;
        d->retrying = withRetry;
        d->held = false;
        d->relaunchRequested = false;
        d->relaunchURL.reset();
        finished = std::move(d->loopThread);
    }
    // An earlier loop that has already ended: its thread only has to return.
    if (finished.joinable())
        finished.join();
    try {
        std::thread loop([this, binURL = std::move(binURL), withRetry,
                          standardOutput = std::move(standardOutput),
                          taskExitNotification = std::move(taskExitNotification)]() mutable {
            runLoop(std::move(binURL), withRetry, standardOutput, taskExitNotification);
        });
        std::lock_guard lock(d->mutex);
        d->loopThread = std::move(loop);
    } catch (const std::system_error &e) {
        printLine(std::string("warning: cannot start the run loop: ") + e.what());
        std::lock_guard lock(d->mutex);
        d->loopRunning = false;
        return false;
    }
    return true;
}

void ProcessManager::runLoop(std::optional<QString> binURL, bool withRetry,
                             const StandardOutputHandler &standardOutput,
                             const TaskExitHandler &taskExitNotification) {
    try {
        bool done = false;
        while (!done) {
            {
                std::lock_guard lock(d->mutex);
                if (d->cancelled)
                    break;
            }
            if (!withRetry)
                done = true; // this is the last run
            runTask(binURL, standardOutput, taskExitNotification);

            // Let the exit handler run on the main thread and return before deciding what
            // comes next: it may ask to hold the loop for a relaunch. The last run waits too,
            // so the loop is alive exactly until its last exit has been reported.
            std::unique_lock lock(d->mutex);
            d->changed.wait(lock, [this] {
                return d->cancelled || d->exitReportsDone >= d->exitReportsPosted;
            });
            if (done)
                break;
            d->changed.wait(lock, [this] { return d->cancelled || !d->held; });
            if (d->relaunchRequested) {
                binURL = std::move(d->relaunchURL);
                d->relaunchURL.reset();
                d->relaunchRequested = false;
            }
        }
    } catch (const std::exception &e) {
        printLine(std::string("warning: run loop ended: ") + e.what());
    } catch (...) {
        printLine("warning: run loop ended by an unknown error");
    }
    {
        std::lock_guard lock(d->mutex);
        d->loopRunning = false;
        d->held = false;
        d->relaunchRequested = false;
        d->relaunchURL.reset();
    }
    postToMainThread([this] { emit loopFinished(); });
}

void ProcessManager::runTask(const std::optional<QString> &binURL,
                             const StandardOutputHandler &standardOutput,
                             const TaskExitHandler &taskExitNotification) {
    auto reportDirectly = [&](std::error_code error) {
        if (taskExitNotification)
            taskExitNotification(error);
    };

    // The pipe for the child's standard output.
    int outputPipe[2] = {-1, -1};
    if (!makePipe(outputPipe)) {
        reportDirectly(systemError(errno));
        return;
    }
    int outputRead = outputPipe[0];
    int outputWrite = outputPipe[1];
    int wakeRead = -1;
    std::thread outputThread;

    // What happens on every way out of this run, in this order: the child is terminated
    // (SIGTERM, SIGKILL after the grace period) and reaped if it still runs, then the reading
    // end of the pipe is closed.
    struct Deferred {
        Private *d;
        int &outputRead;
        int &outputWrite;
        int &wakeRead;
        std::thread &outputThread;
        ~Deferred() {
            pid_t running = 0;
            {
                std::lock_guard lock(d->mutex);
                if (d->pid > 0 && !d->childExited) {
                    running = d->pid;
                    d->terminateLocked();
                }
            }
            if (running > 0)
                d->waitForExit(running);
            closeQuietly(outputWrite);
            if (outputThread.joinable()) {
                {
                    std::lock_guard lock(d->mutex);
                    d->stopOutput = true;
                    d->wakeOutputThread();
                }
                d->changed.notify_all();
                outputThread.join();
            }
            {
                std::lock_guard lock(d->mutex);
                if (d->wakeWrite >= 0)
                    ::close(d->wakeWrite);
                d->wakeWrite = -1;
                d->stopOutput = false;
            }
            closeQuietly(wakeRead);
            if (outputRead >= 0 && ::close(outputRead) != 0)
                printLine(std::string("task pipe exit error: ") + std::strerror(errno));
            outputRead = -1;
        }
    } deferred{d.get(), outputRead, outputWrite, wakeRead, outputThread};

    if (!binURL) {
        reportDirectly(ProcessManagerError::executableNotFound);
        return;
    }

    // The command line, prepared before the fork: the child may not allocate.
    const std::string file = QFile::encodeName(*binURL).toStdString();
    std::vector<std::string> argumentStrings{file};
    for (const QString &argument : arguments())
        argumentStrings.push_back(argument.toStdString());
    std::vector<char *> argv;
    argv.reserve(argumentStrings.size() + 1);
    for (std::string &argument : argumentStrings)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    // The output thread runs before the child exists, so that the child's output and the
    // SIGKILL deadline are looked after from its first moment.
    int wakePipe[2] = {-1, -1};
    if (!makePipe(wakePipe)) {
        reportDirectly(systemError(errno));
        return;
    }
    wakeRead = wakePipe[0];
    setNonBlocking(wakePipe[0]);
    setNonBlocking(wakePipe[1]);
    {
        std::lock_guard lock(d->mutex);
        d->wakeWrite = wakePipe[1];
        d->stopOutput = false;
        d->startPosted = false;
    }
    outputThread = std::thread([this, outputRead, wakeRead, &standardOutput] {
        d->outputLoop(outputRead, wakeRead, standardOutput);
    });

    int errorPipe[2] = {-1, -1};
    if (!makePipe(errorPipe)) {
        reportDirectly(systemError(errno));
        return;
    }
    const pid_t parent = ::getpid();
    // Forked from this thread, which lives until the child has been reaped: the child's
    // parent-death signal is tied to the thread that forked it.
    const pid_t child = ::fork();
    if (child == 0)
        execChild(file.c_str(), argv.data(), outputWrite, errorPipe[1], parent);
    const int forkError = errno;
    ::close(errorPipe[1]);
    closeQuietly(outputWrite);
    if (child < 0) {
        ::close(errorPipe[0]);
        reportDirectly(systemError(forkError));
        return;
    }
    {
        std::lock_guard lock(d->mutex);
        d->pid = child;
        d->childExited = false;
        d->killDeadline.reset();
        if (d->cancelled)
            d->terminateLocked(); // cancelled while starting: the child does not get to stay
    }

    // The error pipe stays empty and closes at a successful exec; a failed one sends errno.
    int execError = 0;
    ssize_t received;
    do {
        received = ::read(errorPipe[0], &execError, sizeof execError);
    } while (received < 0 && errno == EINTR);
    ::close(errorPipe[0]);
    if (received == static_cast<ssize_t>(sizeof execError)) {
        d->waitForExit(child);
        reportDirectly(systemError(execError));
        return;
    }

    postToMainThread([this, child] { emit taskStarted(child); });
    {
        std::lock_guard lock(d->mutex);
        d->startPosted = true;
    }
    d->changed.notify_all();

    d->waitForExit(child);

    // All output the child wrote is passed on before its exit is reported.
    {
        std::lock_guard lock(d->mutex);
        d->stopOutput = true;
        d->wakeOutputThread();
    }
    outputThread.join();

    quint64 report;
    {
        std::lock_guard lock(d->mutex);
        report = ++d->exitReportsPosted;
    }
    postToMainThread([this, report, taskExitNotification] {
        struct MarkDone {
            Private *d;
            quint64 report;
            ~MarkDone() {
                std::lock_guard lock(d->mutex);
                d->exitReportsDone = std::max(d->exitReportsDone, report);
                d->changed.notify_all();
            }
        } markDone{d.get(), report};
        if (taskExitNotification)
            taskExitNotification(std::nullopt);
    });
}

} // namespace runwarden
