#include "SyncEngine.h"

#include "Log.h"

#include <QFileSystemWatcher>
#include <QString>
#include <QStringList>

#include <filesystem>

namespace kovritdev {

namespace {
// Enough notifications for ordinary folders; deeper trees rely on the periodic rescan.
constexpr int kMaxWatchedFoldersPerFolder = 1000;
constexpr int kDebounceMs = 300;

std::string folderName(const std::string &path) {
    if (path == "/") {
        return path;
    }
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}
} // namespace

struct SyncEngine::Folder {
    std::uint64_t key = 0;
    std::int64_t groupID = 0;
    std::string path;
    std::string status;
    std::string error;
    bool firstPassDone = false;
    std::set<std::string> failures;
    bool running = false;
    bool rerun = false;
    std::uint64_t passID = 0;
    qint64 lastPassEndMs = 0;
    qint64 lastScanMs = 0;
    std::shared_ptr<std::atomic<bool>> cancelled;
    std::unique_ptr<QFileSystemWatcher> watcher;
    std::unique_ptr<QTimer> debounce;
};

SyncEngine::SyncEngine(SyncSettings settings, QObject *parent)
    : QObject(parent), settings_(std::move(settings)) {
    cleanTemporaryFiles();
    rescanTimer_.setInterval(static_cast<int>(settings_.rescanSeconds * 1000));
    connect(&rescanTimer_, &QTimer::timeout, this, [this] {
        // A folder whose scan takes long is rescanned less often (at most about 5% of the time
        // goes to rescanning it); notifications still start a pass at once.
        const qint64 now = clock_.elapsed();
        for (auto &folder : folders_) {
            if (!folder->running && now - folder->lastPassEndMs >= 20 * folder->lastScanMs) {
                schedule(*folder);
            }
        }
    });
    clock_.start();
    rescanTimer_.start();
}

SyncEngine::~SyncEngine() {
    shutdown(-1);
}

void SyncEngine::cleanTemporaryFiles() {
    // Copies that a killed backend left half-written.
    std::error_code ec;
    for (std::filesystem::directory_iterator it(settings_.vaultDir, ec), end; !ec && it != end;
         it.increment(ec)) {
        std::error_code removeError;
        std::filesystem::remove_all(it->path() / "tmp", removeError);
    }
}

GroupVault SyncEngine::vaultOf(std::int64_t groupID) const {
    return GroupVault{settings_.vaultDir + "/" + std::to_string(groupID)};
}

std::shared_ptr<std::mutex> SyncEngine::groupMutex(std::int64_t groupID) {
    auto &mutex = groupMutexes_[groupID];
    if (!mutex) {
        mutex = std::make_shared<std::mutex>();
    }
    return mutex;
}

SyncEngine::Folder *SyncEngine::find(std::uint64_t key) const {
    for (const auto &folder : folders_) {
        if (folder->key == key) {
            return folder.get();
        }
    }
    return nullptr;
}

void SyncEngine::setActive(bool active) {
    if (active_ == active) {
        return;
    }
    active_ = active;
    if (active_) {
        for (auto &folder : folders_) {
            schedule(*folder);
        }
    }
}

void SyncEngine::watch(std::int64_t groupID, const std::string &path) {
    for (const auto &folder : folders_) {
        if (folder->groupID == groupID && folder->path == path) {
            return;
        }
    }
    auto folder = std::make_unique<Folder>();
    folder->key = nextKey_++;
    folder->groupID = groupID;
    folder->path = path;
    folder->status = "1 of 6 - Scanning files (0)";
    folder->watcher = std::make_unique<QFileSystemWatcher>();
    folder->debounce = std::make_unique<QTimer>();
    folder->debounce->setSingleShot(true);
    folder->debounce->setInterval(kDebounceMs);
    const std::uint64_t key = folder->key;
    connect(folder->debounce.get(), &QTimer::timeout, this, [this, key] {
        if (Folder *f = find(key)) {
            schedule(*f);
        }
    });
    const auto changed = [this, key](const QString &) {
        if (Folder *f = find(key)) {
            f->debounce->start();
        }
    };
    connect(folder->watcher.get(), &QFileSystemWatcher::directoryChanged, this, changed);
    connect(folder->watcher.get(), &QFileSystemWatcher::fileChanged, this, changed);
    updateWatcher(*folder, {});
    folders_.push_back(std::move(folder));
    schedule(*folders_.back());
}

void SyncEngine::unwatch(const std::string &path) {
    for (auto it = folders_.begin(); it != folders_.end();) {
        if ((*it)->path == path) {
            if ((*it)->cancelled) {
                (*it)->cancelled->store(true);
            }
            it = folders_.erase(it);
        } else {
            ++it;
        }
    }
}

std::vector<tarnwick::DirItem> SyncEngine::report() const {
    std::vector<tarnwick::DirItem> items;
    items.reserve(folders_.size());
    for (const auto &folder : folders_) {
        tarnwick::DirItem item;
        if (!folder->error.empty()) {
            item.error = folder->error;
        }
        item.enabled = true;
        item.groupID = folder->groupID;
        item.name = displayText(folderName(folder->path));
        item.path = folder->path;
        item.status = folder->status;
        items.push_back(std::move(item));
    }
    return items;
}

void SyncEngine::schedule(Folder &folder) {
    if (!active_ || shuttingDown_) {
        return;
    }
    if (folder.running) {
        folder.rerun = true;
        return;
    }
    startPass(folder);
}

void SyncEngine::startPass(Folder &folder) {
    folder.running = true;
    folder.rerun = false;
    folder.passID = nextPassID_++;
    folder.cancelled = std::make_shared<std::atomic<bool>>(false);

    SyncPassInput input;
    input.folder = folder.path;
    input.vault = vaultOf(folder.groupID);
    input.excludedFolders = {settings_.stateDir};
    input.unreadableNames = settings_.unreadableNames;
    input.previousFailures = folder.failures;
    input.firstPass = !folder.firstPassDone;
    input.stepMs = settings_.stepMs;
    input.cancelled = folder.cancelled;
    input.groupMutex = groupMutex(folder.groupID);
    const std::uint64_t key = folder.key;
    const std::uint64_t passID = folder.passID;
    // The engine outlives every worker (its destructor waits for them), so the workers may
    // post to it; tasks still queued when it goes are dropped with it.
    input.reportStatus = [this, key, passID](const std::string &status) {
        queue_.post([this, key, passID, status] { statusReported(key, passID, status); });
    };
    pool_.start([this, key, input = std::move(input)] {
        SyncPassResult result;
        try {
            result = runSyncPass(input);
        } catch (const std::exception &e) {
            result.problems.push_back(std::string("sync pass (") + e.what() + ")");
        }
        queue_.post([this, key, result = std::move(result)] { passFinished(key, result); });
    });
}

void SyncEngine::statusReported(std::uint64_t key, std::uint64_t passID,
                                const std::string &status) {
    Folder *folder = find(key);
    if (folder == nullptr || folder->passID != passID || !folder->running) {
        return;
    }
    folder->status = status;
}

void SyncEngine::passFinished(std::uint64_t key, const SyncPassResult &result) {
    Folder *folder = find(key);
    if (folder == nullptr) {
        return; // no longer watched
    }
    folder->running = false;
    folder->lastPassEndMs = clock_.elapsed();
    folder->lastScanMs = result.scanMs;
    if (!result.cancelled) {
        folder->firstPassDone = true;
        folder->failures = result.failures;
        const std::string error = result.errorText(folder->path);
        if (error != folder->error) {
            if (!error.empty()) {
                logLine("sync of " + displayText(folder->path) + ": " + error);
            }
            folder->error = error;
        }
        folder->status = "Up to date";
        if (result.visible) {
            logLine("sync of " + displayText(folder->path) +
                    " done: " + std::to_string(result.fileCount) + " files, " +
                    std::to_string(result.uploaded) + " uploaded, " +
                    std::to_string(result.deleted) + " deleted");
        }
        updateWatcher(*folder, result.folders);
    }
    if (folder->rerun) {
        schedule(*folder);
    }
}

void SyncEngine::updateWatcher(Folder &folder, const std::vector<std::string> &subfolders) {
    QStringList wanted;
    wanted.append(QString::fromStdString(folder.path));
    for (const auto &rel : subfolders) {
        if (wanted.size() >= kMaxWatchedFoldersPerFolder) {
            break;
        }
        wanted.append(QString::fromStdString(folder.path + "/" + rel));
    }
    const QStringList current = folder.watcher->directories();
    QStringList added;
    for (const auto &path : wanted) {
        if (!current.contains(path)) {
            added.append(path);
        }
    }
    QStringList removed;
    for (const auto &path : current) {
        if (!wanted.contains(path)) {
            removed.append(path);
        }
    }
    if (!removed.isEmpty()) {
        folder.watcher->removePaths(removed);
    }
    if (!added.isEmpty()) {
        folder.watcher->addPaths(added); // paths that vanished meanwhile are simply not watched
    }
}

void SyncEngine::runRetention(std::int64_t groupID, std::int64_t cutoffMs,
                              std::function<void(const RetentionPassResult &)> done) {
    if (shuttingDown_) {
        return;
    }
    const GroupVault vault = vaultOf(groupID);
    auto mutex = groupMutex(groupID);
    pool_.start([this, vault, mutex, cutoffMs, done = std::move(done)] {
        RetentionPassResult result;
        try {
            result = runRetentionPass(vault, cutoffMs, *mutex);
        } catch (const std::exception &e) {
            result.problems.push_back(std::string("retention pass (") + e.what() + ")");
        }
        queue_.post([done, result] { done(result); });
    });
}

void SyncEngine::shutdown(int waitMs) {
    shuttingDown_ = true;
    rescanTimer_.stop();
    for (auto &folder : folders_) {
        if (folder->cancelled) {
            folder->cancelled->store(true);
        }
    }
    pool_.waitForDone(waitMs);
}

} // namespace kovritdev
