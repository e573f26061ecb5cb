// The commands of the protocol, answered on the main thread: sign-in with an e-mailed code, the
// groups and their folders, the status report, retention settings, opening pages and folders,
// and logging out. Also schedules the retention passes.
#pragma once

#include "MainThreadQueue.h"
#include "Options.h"
#include "StateStore.h"
#include "SyncEngine.h"

#include <QObject>
#include <QTimer>

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>

namespace kovritdev {

class Backend : public QObject {
    Q_OBJECT
public:
    // `requestExit` ends the process with the given code (called on the main thread).
    Backend(StateStore &store, SyncEngine &engine, Settings settings,
            std::function<void(int code)> requestExit, QObject *parent = nullptr);

    // Resumes syncing for a signed-in account and starts the retention schedule.
    void start();

    // Answers one request: `envelope` is the opened JSON text of {"Type","ID","Data"}; the
    // result is the plaintext of the answer. Main thread only.
    std::string handle(const std::string &envelope);

    // The same, from any other thread: hands the request to the main thread and waits for the
    // answer. nullopt when `stopping` becomes true first.
    std::optional<std::string> handleFromOtherThread(const std::string &envelope,
                                                     const std::function<bool()> &stopping);

    // Runs a retention pass over every group whose retention is on.
    void runRetentionPasses();

private:
    std::string requestCode(const std::string &address);
    std::string auth(const std::string &address, const std::string &code);
    std::string ping();
    std::string getGroups();
    std::string addWatchDir(const std::string &groupName, const std::string &path);
    std::string stopWatching(const std::string &path);
    std::string updateGroup(const std::string &data);
    std::string openWeb(const std::string &groupID);
    std::string openDirPath(const std::string &path);
    std::string logoutAndExit();

    void runRetentionPass(std::int64_t groupID);
    void open(const std::string &what, const std::string &url);
    void notifyCode(const std::string &address, const std::string &code);
    void logPing();

    StateStore &store_;
    SyncEngine &engine_;
    MainThreadQueue queue_;
    Settings settings_;
    std::function<void(int)> requestExit_;
    QTimer retentionTimer_;
    std::set<std::int64_t> retentionRunning_;
    std::int64_t pingsSinceLog_ = 0;
    std::int64_t lastPingLogMs_ = 0;
    bool exiting_ = false;
};

// The answers' JSON texts.
std::string successResponse();
std::string errorResponse(const std::string &error);
std::string backendMessage(const std::string &type);

// Whether `address` may name a file in the outbox and be signed in with.
bool validAddress(const std::string &address);

} // namespace kovritdev
