// kovrit-dev: the development backend. A local stand-in for the service, run by the client like
// the real backend: it prints its public key, answers sealed requests on 127.0.0.1:<port>, keeps
// its state in a folder on this computer and syncs watched folders into a local vault. It reaches
// no server.

#include "Backend.h"
#include "Channel.h"
#include "HttpFrontend.h"
#include "Log.h"
#include "Options.h"
#include "PidWatch.h"
#include "StateStore.h"
#include "SyncEngine.h"

#include <QCoreApplication>
#include <QTimer>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace kovritdev;

namespace {

constexpr const char *kBadPemBlock =
    "-----BEGIN PUBLIC KEY-----\nthis is not a public key\n-----END PUBLIC KEY-----\n";

// Lets a graceful exit take at most this long; then the process ends regardless.
constexpr int kExitGraceMs = 1200;

std::string programName(const char *argv0) {
    const std::string path = argv0 != nullptr ? argv0 : "kovrit-dev";
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

} // namespace

int main(int argc, char **argv) {
    std::signal(SIGPIPE, SIG_IGN);
    const std::string program = programName(argc > 0 ? argv[0] : nullptr);

    const auto commandLine = parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    if (commandLine.helpRequested) {
        logRaw(usageText(program));
        return 0;
    }
    if (!commandLine.commandLine) {
        errorLine(program + ": " + commandLine.error);
        writeAll(STDERR_FILENO, usageText(program));
        return 2;
    }
    const CommandLine &options = *commandLine.commandLine;

    const auto environment = settingsFromEnvironment();
    if (!environment.settings) {
        errorLine(program + ": " + environment.error);
        return 2;
    }
    const Settings &settings = *environment.settings;

    std::unique_ptr<Channel> channel;
    try {
        channel = std::make_unique<Channel>(options.token);
    } catch (const std::exception &e) {
        errorLine(program + ": invalid value for -token: not an X25519 public key (" + e.what() +
                  ")");
        return 2;
    }

    QCoreApplication app(argc, argv);

    // The port comes first: a backend that cannot listen ends before it touches its state.
    std::atomic<Backend *> backendForRequests{nullptr};
    std::unique_ptr<HttpFrontend> http;
    http = std::make_unique<HttpFrontend>(
        options.port, options.token, settings.faults, *channel,
        [&backendForRequests, &http](const std::string &envelope) -> std::optional<std::string> {
            Backend *backend = backendForRequests.load();
            if (backend == nullptr) {
                return std::nullopt;
            }
            return backend->handleFromOtherThread(envelope, [&http] { return http->stopping(); });
        });
    std::string error;
    if (!http->bind(error)) {
        errorLine(program + ": " + error);
        return 1;
    }

    StateStore store(settings.stateDir);
    if (!store.prepare(error)) {
        errorLine(program + ": " + error);
        return 1;
    }
    store.load();
    logLine(std::string("kovrit-dev ") + KOVRIT_DEV_VERSION + " starting, state in " + store.dir());
    logLine("this is a local stand-in for the service: it keeps everything on this computer "
            "and reaches no server");
    if (settings.faults.any()) {
        logLine("fault injection: " + settings.faults.describe());
    }

    SyncEngine engine(SyncSettings{store.vaultDir(), store.dir(), settings.stepMs,
                                   settings.rescanSeconds, settings.faults.unreadableNames});

    bool exiting = false;
    const auto shutdown = [&](int code, const std::string &reason) {
        if (exiting) {
            return;
        }
        exiting = true;
        logLine("kovrit-dev exiting: " + reason);
        // Whatever a worker is stuck on, the process ends in time.
        std::thread([code] {
            std::this_thread::sleep_for(std::chrono::milliseconds(kExitGraceMs));
            ::_exit(code);
        }).detach();
        http->stop();
        engine.shutdown(kExitGraceMs / 2);
        store.save();
        QCoreApplication::exit(code);
    };

    Backend backend(store, engine, settings, [&](int code) { shutdown(code, "logged out"); });
    backendForRequests = &backend;
    logLine("listening on 127.0.0.1:" + std::to_string(options.port));

    // The key is printed only once the port is bound, in one write, so a client that sees it can
    // post at once.
    if (settings.faults.badPem) {
        logRaw(kBadPemBlock);
    } else if (!settings.faults.noPem) {
        logRaw(channel->pemBlock());
    }
    http->start();

    std::unique_ptr<PidWatch> pidWatch;
    if (options.pid) {
        const auto pid = static_cast<pid_t>(*options.pid);
        pidWatch = std::make_unique<PidWatch>(pid, [&shutdown, pid] {
            shutdown(0, "client process " + std::to_string(pid) + " has ended");
        });
        logLine("watching client process " + std::to_string(pid) +
                (pidWatch->usesPidfd() ? " (pidfd)" : " (checked every 250 ms)"));
    }
    if (settings.faults.exitAfterSeconds) {
        QTimer::singleShot(static_cast<int>(*settings.faults.exitAfterSeconds * 1000),
                           [&] { shutdown(1, "fault injection exit-after"); });
    }
    QTimer::singleShot(0, &backend, [&backend] { backend.start(); });

    const int code = app.exec();
    http->stop();
    backendForRequests = nullptr;
    engine.shutdown(kExitGraceMs / 2);
    return code;
}
