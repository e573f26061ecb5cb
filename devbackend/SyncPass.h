// One sync pass of one watched folder into the vault, run on a worker thread: scan the folder,
// copy new and changed files into the vault, check the copies, write the folder's index, move
// files that disappeared from the folder into the group's deleted area. Also the retention pass
// that removes deleted files for good once they are old enough.
//
// Vault layout, per group:
//   <vault>/<group id>/files/<folder path>/<relative path>       the synced copies
//   <vault>/<group id>/deleted/<ms since epoch>/<folder path>/...  files deleted at that time
//   <vault>/<group id>/index/<sha-256 of folder path>.json          the folder's last index
//   <vault>/<group id>/tmp/                                        copies being written
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace kovritdev {

struct GroupVault {
    std::string root; // <vault>/<group id>
    std::string filesRoot() const { return root + "/files"; }
    std::string deletedRoot() const { return root + "/deleted"; }
    std::string indexRoot() const { return root + "/index"; }
    std::string tmpRoot() const { return root + "/tmp"; }
    // Where the copies of `folder` (an absolute path) live.
    std::string filesOf(const std::string &folder) const { return filesRoot() + folder; }
    std::string indexOf(const std::string &folder) const;
};

struct SyncPassInput {
    std::string folder; // absolute, without a trailing slash
    GroupVault vault;
    // Folders that are never synced (the backend's own state folder: syncing the vault into
    // itself would never end).
    std::vector<std::string> excludedFolders;
    // Files with one of these names fail to open as if unreadable (fault injection for tests).
    std::vector<std::string> unreadableNames;
    // Files that failed in the previous pass ("<relative path>\n<size>\n<mtime ns>"): retrying
    // them alone does not show the steps again.
    std::set<std::string> previousFailures;
    bool firstPass = true;
    int stepMs = 150; // how long each visible step shows at least
    std::shared_ptr<std::atomic<bool>> cancelled;
    // Serialises changes to the group's deleted area (sync passes and retention passes).
    std::shared_ptr<std::mutex> groupMutex;
    // Receives each new status line; called on the worker thread.
    std::function<void(const std::string &status)> reportStatus;
};

struct SyncPassResult {
    bool cancelled = false;
    bool folderMissing = false;
    bool visible = false; // the steps were shown
    std::size_t fileCount = 0;
    std::size_t uploaded = 0;
    std::size_t deleted = 0;
    std::int64_t scanMs = 0;           // time spent looking at the folder and its copy
    std::vector<std::string> problems; // "<relative path> (<reason>)"
    std::set<std::string> failures;    // as SyncPassInput::previousFailures
    std::vector<std::string> folders;  // the sub-folders seen, relative

    // The folder's "Error" text: empty when the pass had no problems.
    std::string errorText(const std::string &folder) const;
};

SyncPassResult runSyncPass(const SyncPassInput &input);

struct RetentionPassResult {
    std::int64_t fileCount = 0;
    std::int64_t byteCount = 0;
    std::vector<std::string> problems;
};

// Removes every entry of the group's deleted area that was deleted at or before `cutoffMs`.
RetentionPassResult runRetentionPass(const GroupVault &vault, std::int64_t cutoffMs,
                                     std::mutex &groupMutex);

// Text fit for a status line: valid UTF-8 (invalid bytes become U+FFFD) without control
// characters (they become '?').
std::string displayText(const std::string &bytes);

// Moves `path` (file or folder, inside `vault`'s files tree) into the deleted area under
// `deletedAtMs`, keeping its place in the tree. Call with the group mutex held.
bool moveToDeleted(const GroupVault &vault, const std::string &path, std::int64_t deletedAtMs,
                   std::string &error);

} // namespace kovritdev
