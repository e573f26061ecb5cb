// Keeps every watched folder synced into the vault: runs sync passes on worker threads, one at a
// time per folder, keeps each folder's status line and error text for the status report, and
// picks changes up again through file-system notifications and a periodic rescan. Also runs the
// retention passes over the groups' deleted areas.
//
// Lives on the main thread; workers report back through the event loop.
#pragma once

#include "MainThreadQueue.h"
#include "SyncPass.h"
#include "WorkerPool.h"

#include <Models.h>

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

class QFileSystemWatcher;

namespace kovritdev {

struct SyncSettings {
    std::string vaultDir;
    std::string stateDir; // never synced
    int stepMs = 150;
    double rescanSeconds = 3;
    std::vector<std::string> unreadableNames;
};

class SyncEngine : public QObject {
    Q_OBJECT
public:
    explicit SyncEngine(SyncSettings settings, QObject *parent = nullptr);
    ~SyncEngine() override;

    // Passes run only while active (a user is signed in). Becoming active starts a pass of
    // every folder.
    void setActive(bool active);
    bool isActive() const { return active_; }

    // Starts syncing `path` (absolute, clean) into group `groupID`. Nothing happens when that
    // folder is already watched in that group.
    void watch(std::int64_t groupID, const std::string &path);
    // Stops syncing `path` in every group; a pass under way is cancelled.
    void unwatch(const std::string &path);
    bool hasFolders() const { return !folders_.empty(); }

    // The status report: one item per watched folder, in the order they were added.
    std::vector<tarnwick::DirItem> report() const;

    // Runs a retention pass of a group's deleted area on a worker thread; `done` is called on
    // the main thread with the result. Deletions older than `cutoffMs` go.
    void runRetention(std::int64_t groupID, std::int64_t cutoffMs,
                      std::function<void(const RetentionPassResult &)> done);

    GroupVault vaultOf(std::int64_t groupID) const;

    // Cancels every pass and waits (up to `waitMs`) for the workers.
    void shutdown(int waitMs);

private:
    struct Folder;
    Folder *find(std::uint64_t key) const;
    void schedule(Folder &folder);
    void startPass(Folder &folder);
    void passFinished(std::uint64_t key, const SyncPassResult &result);
    void statusReported(std::uint64_t key, std::uint64_t passID, const std::string &status);
    void updateWatcher(Folder &folder, const std::vector<std::string> &subfolders);
    void cleanTemporaryFiles();
    std::shared_ptr<std::mutex> groupMutex(std::int64_t groupID);

    SyncSettings settings_;
    bool active_ = false;
    bool shuttingDown_ = false;
    std::uint64_t nextKey_ = 1;
    std::uint64_t nextPassID_ = 1;
    std::vector<std::unique_ptr<Folder>> folders_;
    std::map<std::int64_t, std::shared_ptr<std::mutex>> groupMutexes_;
    MainThreadQueue queue_;
    WorkerPool pool_{2};
    QTimer rescanTimer_;
    QElapsedTimer clock_;
};

} // namespace kovritdev
