#include "SyncPass.h"

#include "StateStore.h"

#include <QString>

#include <nlohmann/json.hpp>
#include <openssl/evp.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <optional>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace kovritdev {

namespace {

struct FileInfo {
    std::int64_t size = 0;
    std::int64_t mtimeNs = 0;
};

struct ScanResult {
    bool missing = false;
    std::map<std::string, FileInfo> files;
    std::vector<std::string> folders;
    std::vector<std::string> unreadableDirs; // relative, "" for the folder itself
    std::vector<std::string> problems;
};

std::string joinPath(const std::string &base, const std::string &rel) {
    return rel.empty() ? base : base + "/" + rel;
}

std::int64_t mtimeOf(const struct stat &st) {
    return static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
}

std::string failureKey(const std::string &rel, const FileInfo &info) {
    return rel + "\n" + std::to_string(info.size) + "\n" + std::to_string(info.mtimeNs);
}

std::string errnoText(int error) {
    return std::strerror(error);
}

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string baseName(const std::string &rel) {
    const auto slash = rel.rfind('/');
    return slash == std::string::npos ? rel : rel.substr(slash + 1);
}

bool isUnder(const std::string &rel, const std::string &dir) {
    return dir.empty() || rel == dir ||
           (rel.size() > dir.size() && rel.starts_with(dir) && rel[dir.size()] == '/');
}

std::string hexOf(const unsigned char *data, std::size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(size * 2);
    for (std::size_t i = 0; i < size; ++i) {
        text.push_back(digits[data[i] >> 4]);
        text.push_back(digits[data[i] & 0xf]);
    }
    return text;
}

// SHA-256 through EVP, fed in pieces.
class Sha256 {
public:
    Sha256() : ctx_(EVP_MD_CTX_new()) {
        if (ctx_ == nullptr || EVP_DigestInit_ex(ctx_, EVP_sha256(), nullptr) != 1) {
            throw std::runtime_error("SHA-256 unavailable");
        }
    }
    ~Sha256() { EVP_MD_CTX_free(ctx_); }
    Sha256(const Sha256 &) = delete;
    Sha256 &operator=(const Sha256 &) = delete;
    void update(const void *data, std::size_t size) {
        if (EVP_DigestUpdate(ctx_, data, size) != 1) {
            throw std::runtime_error("SHA-256 failed");
        }
    }
    std::string hex() {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        if (EVP_DigestFinal_ex(ctx_, digest, &length) != 1) {
            throw std::runtime_error("SHA-256 failed");
        }
        return hexOf(digest, length);
    }

private:
    EVP_MD_CTX *ctx_;
};

class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : fd_(fd) {}
    ~FileDescriptor() { reset(); }
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    int get() const { return fd_; }
    void reset() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = -1;
    }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

// Shows steps for at least a short while, so that a person watching the status can follow them.
class Pacer {
public:
    Pacer(const SyncPassInput &input, bool visible) : input_(input), visible_(visible) {}

    bool cancelled() const { return input_.cancelled && input_.cancelled->load(); }

    void report(const std::string &status) const {
        if (visible_ && input_.reportStatus) {
            input_.reportStatus(status);
        }
    }

    void dwell(int ms) const {
        if (!visible_ || ms <= 0) {
            return;
        }
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (!cancelled() && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

private:
    const SyncPassInput &input_;
    bool visible_;
};

bool makeDirectories(const std::string &path, std::string &error) {
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
    if (ec) {
        error = path + ": " + ec.message();
        return false;
    }
    return true;
}

ScanResult scanFolder(const SyncPassInput &input, const Pacer &pacer) {
    ScanResult result;
    struct stat rootStat {};
    if (::stat(input.folder.c_str(), &rootStat) != 0 || !S_ISDIR(rootStat.st_mode)) {
        result.missing = true;
        return result;
    }
    std::set<std::pair<dev_t, ino_t>> excluded;
    for (const auto &folder : input.excludedFolders) {
        struct stat st {};
        if (::stat(folder.c_str(), &st) == 0) {
            excluded.insert({st.st_dev, st.st_ino});
        }
    }

    std::vector<std::string> pending{std::string()};
    std::size_t lastReported = 0;
    while (!pending.empty() && !pacer.cancelled()) {
        const std::string rel = std::move(pending.back());
        pending.pop_back();
        const std::string path = joinPath(input.folder, rel);
        DIR *dir = ::opendir(path.c_str());
        if (dir == nullptr) {
            const int error = errno;
            result.unreadableDirs.push_back(rel);
            result.problems.push_back((rel.empty() ? std::string(".") : rel) + "/ (" +
                                      errnoText(error) + ")");
            continue;
        }
        while (const dirent *entry = ::readdir(dir)) {
            const std::string name = entry->d_name;
            if (name == "." || name == "..") {
                continue;
            }
            struct stat st {};
            if (::fstatat(::dirfd(dir), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
                continue; // gone since the listing
            }
            const std::string childRel = rel.empty() ? name : rel + "/" + name;
            if (S_ISDIR(st.st_mode)) {
                if (!excluded.contains({st.st_dev, st.st_ino})) {
                    pending.push_back(childRel);
                    result.folders.push_back(childRel);
                }
            } else if (S_ISREG(st.st_mode)) {
                result.files[childRel] =
                    FileInfo{static_cast<std::int64_t>(st.st_size), mtimeOf(st)};
                if (input.firstPass && result.files.size() >= lastReported + 500) {
                    lastReported = result.files.size();
                    pacer.report("1 of 6 - Scanning files (" + std::to_string(lastReported) + ")");
                }
            }
            // Symbolic links, devices, pipes and sockets are not synced.
        }
        ::closedir(dir);
    }
    return result;
}

// Calls visit(relative path, is a folder) for everything below `root`, links
// not followed, descending into every folder.
template <class Visit> void walkTree(const std::string &root, Visit visit) {
    std::vector<std::string> pending{std::string()};
    while (!pending.empty()) {
        const std::string rel = std::move(pending.back());
        pending.pop_back();
        DIR *dir = ::opendir(joinPath(root, rel).c_str());
        if (dir == nullptr) {
            continue;
        }
        while (const dirent *entry = ::readdir(dir)) {
            const std::string name = entry->d_name;
            if (name == "." || name == "..") {
                continue;
            }
            struct stat st {};
            if (::fstatat(::dirfd(dir), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
                continue;
            }
            const std::string childRel = rel.empty() ? name : rel + "/" + name;
            const bool folder = S_ISDIR(st.st_mode);
            if (folder) {
                pending.push_back(childRel);
            }
            visit(childRel, folder);
        }
        ::closedir(dir);
    }
}

// Regular files of the folder's copy in the vault, relative to it.
std::set<std::string> listVault(const std::string &root) {
    std::set<std::string> files;
    walkTree(root, [&files](const std::string &rel, bool folder) {
        if (!folder) {
            files.insert(rel);
        }
    });
    return files;
}

// Removes empty folders below `root` (not `root` itself), deepest first.
void removeEmptyFolders(const std::string &root) {
    std::vector<std::string> dirs;
    walkTree(root, [&dirs](const std::string &rel, bool folder) {
        if (folder) {
            dirs.push_back(rel);
        }
    });
    std::sort(dirs.begin(), dirs.end(),
              [](const std::string &a, const std::string &b) { return a.size() > b.size(); });
    for (const auto &rel : dirs) {
        ::rmdir(joinPath(root, rel).c_str()); // fails harmlessly when not empty
    }
}

// Makes every folder on the way to `rel` inside `root`; a file standing where a folder belongs
// (the folder was a file in an earlier pass) goes to the deleted area first.
bool prepareParents(const SyncPassInput &input, const std::string &root, const std::string &rel,
                    std::string &error) {
    if (!makeDirectories(root, error)) {
        return false;
    }
    std::size_t slash = rel.find('/');
    while (slash != std::string::npos) {
        const std::string path = root + "/" + rel.substr(0, slash);
        struct stat st {};
        if (::lstat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) {
            const std::lock_guard lock(*input.groupMutex);
            if (!moveToDeleted(input.vault, path, nowMs(), error)) {
                return false;
            }
        }
        if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
            error = path + ": " + errnoText(errno);
            return false;
        }
        slash = rel.find('/', slash + 1);
    }
    return true;
}

struct CopyResult {
    bool ok = false;
    bool skipped = false; // no longer a regular file
    std::string sha256;
    std::string error;
};

CopyResult copyIntoVault(const SyncPassInput &input, const std::string &rel) {
    CopyResult result;
    const std::string source = joinPath(input.folder, rel);
    const std::string root = input.vault.filesOf(input.folder);
    const std::string target = root + "/" + rel;

    const auto &names = input.unreadableNames;
    if (std::find(names.begin(), names.end(), baseName(rel)) != names.end()) {
        result.error = "cannot read: " + errnoText(EACCES);
        return result;
    }
    FileDescriptor in(::open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (in.get() < 0) {
        const int error = errno;
        if (error == ENOENT || error == ELOOP) {
            result.skipped = true;
            return result;
        }
        result.error = "cannot read: " + errnoText(error);
        return result;
    }
    struct stat st {};
    if (::fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        result.skipped = true;
        return result;
    }

    std::string error;
    if (!makeDirectories(input.vault.tmpRoot(), error) ||
        !prepareParents(input, root, rel, error)) {
        result.error = "cannot store: " + error;
        return result;
    }
    std::string tmpName = input.vault.tmpRoot() + "/upload-XXXXXX";
    FileDescriptor out(::mkostemp(tmpName.data(), O_CLOEXEC));
    if (out.get() < 0) {
        result.error = "cannot store: " + errnoText(errno);
        return result;
    }
    bool ok = true;
    Sha256 hash;
    std::vector<char> buffer(256 * 1024);
    while (ok) {
        const ssize_t n = ::read(in.get(), buffer.data(), buffer.size());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            result.error = "cannot read: " + errnoText(errno);
            ok = false;
            break;
        }
        if (n == 0) {
            break;
        }
        hash.update(buffer.data(), static_cast<std::size_t>(n));
        std::size_t written = 0;
        while (written < static_cast<std::size_t>(n)) {
            const ssize_t w =
                ::write(out.get(), buffer.data() + written, static_cast<std::size_t>(n) - written);
            if (w < 0) {
                if (errno == EINTR) {
                    continue;
                }
                result.error = "cannot store: " + errnoText(errno);
                ok = false;
                break;
            }
            written += static_cast<std::size_t>(w);
        }
        if (input.cancelled && input.cancelled->load()) {
            ok = false;
            result.error = "cancelled";
        }
    }
    if (ok) {
        // The copy carries the modification time seen before reading, so a file that changed
        // while it was copied differs from its copy and is copied again by the next pass.
        const timespec times[2] = {st.st_atim, st.st_mtim};
        ::fchmod(out.get(), (st.st_mode & 0777) | 0600);
        if (::futimens(out.get(), times) != 0) {
            result.error = "cannot store: " + errnoText(errno);
            ok = false;
        }
    }
    if (::close(out.release()) != 0 && ok) {
        result.error = "cannot store: " + errnoText(errno);
        ok = false;
    }
    if (ok) {
        struct stat targetStat {};
        if (::lstat(target.c_str(), &targetStat) == 0 && S_ISDIR(targetStat.st_mode)) {
            // A folder of that name was synced before; it now is a file.
            const std::lock_guard lock(*input.groupMutex);
            if (!moveToDeleted(input.vault, target, nowMs(), error)) {
                result.error = "cannot store: " + error;
                ok = false;
            }
        }
    }
    if (ok && ::rename(tmpName.c_str(), target.c_str()) != 0) {
        result.error = "cannot store: " + errnoText(errno);
        ok = false;
    }
    if (!ok) {
        ::unlink(tmpName.c_str());
        return result;
    }
    result.ok = true;
    result.sha256 = hash.hex();
    return result;
}

std::optional<std::string> hashFile(const std::string &path) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (fd.get() < 0) {
        return std::nullopt;
    }
    Sha256 hash;
    std::vector<char> buffer(256 * 1024);
    for (;;) {
        const ssize_t n = ::read(fd.get(), buffer.data(), buffer.size());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return std::nullopt;
        }
        if (n == 0) {
            break;
        }
        hash.update(buffer.data(), static_cast<std::size_t>(n));
    }
    return hash.hex();
}

std::string sizeText(std::int64_t bytes) {
    const char *units[] = {"B", "KB", "MB", "GB", "TB"};
    double value = static_cast<double>(bytes);
    int unit = 0;
    while (value >= 1000 && unit < 4) {
        value /= 1000;
        ++unit;
    }
    char text[32];
    if (unit == 0) {
        std::snprintf(text, sizeof text, "%lld B", static_cast<long long>(bytes));
    } else {
        std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
    }
    return text;
}

bool writeIndex(const SyncPassInput &input, const ScanResult &scan, std::string &error) {
    using Json = nlohmann::ordered_json;
    Json files = Json::array();
    for (const auto &[rel, info] : scan.files) {
        files.push_back(Json{{"path", rel}, {"size", info.size}, {"mtime_ns", info.mtimeNs}});
    }
    const Json index{{"folder", input.folder}, {"written_ms", nowMs()}, {"files", files}};
    if (!makeDirectories(input.vault.indexRoot(), error)) {
        return false;
    }
    return writeFileAtomically(input.vault.indexOf(input.folder),
                               index.dump(-1, ' ', false, Json::error_handler_t::replace), error);
}

} // namespace

std::string GroupVault::indexOf(const std::string &folder) const {
    Sha256 hash;
    hash.update(folder.data(), folder.size());
    return indexRoot() + "/" + hash.hex() + ".json";
}

std::string displayText(const std::string &bytes) {
    QString text = QString::fromUtf8(bytes.data(), static_cast<qsizetype>(bytes.size()));
    for (auto &c : text) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f) {
            c = QLatin1Char('?');
        }
    }
    return text.toStdString();
}

bool moveToDeleted(const GroupVault &vault, const std::string &path, std::int64_t deletedAtMs,
                   std::string &error) {
    const std::string filesRoot = vault.filesRoot();
    if (!path.starts_with(filesRoot + "/")) {
        error = path + ": not in the vault";
        return false;
    }
    const std::string base =
        vault.deletedRoot() + "/" + std::to_string(deletedAtMs) + path.substr(filesRoot.size());
    const auto slash = base.rfind('/');
    if (!makeDirectories(base.substr(0, slash), error)) {
        return false;
    }
    std::string target = base;
    for (int attempt = 1; attempt < 100; ++attempt) {
        struct stat st {};
        if (::lstat(target.c_str(), &st) != 0) {
            break;
        }
        target = base + "." + std::to_string(attempt);
    }
    if (::rename(path.c_str(), target.c_str()) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) {
            // Already moved: with the folder that held it (now a file), or by another folder
            // of the group that overlaps this one.
            return true;
        }
        error = path + ": " + errnoText(errno);
        return false;
    }
    return true;
}

std::string SyncPassResult::errorText(const std::string &folder) const {
    if (folderMissing) {
        return "Folder not found: " + folder;
    }
    if (problems.empty()) {
        return std::string();
    }
    std::string text = problems.size() == 1
                           ? std::string("1 item was not synced: ")
                           : std::to_string(problems.size()) + " items were not synced: ";
    for (std::size_t i = 0; i < problems.size() && i < 3; ++i) {
        text += (i > 0 ? ", " : "") + displayText(problems[i]);
    }
    if (problems.size() > 3) {
        text += " and " + std::to_string(problems.size() - 3) + " more";
    }
    return text;
}

SyncPassResult runSyncPass(const SyncPassInput &input) {
    SyncPassResult result;
    const auto scanStart = std::chrono::steady_clock::now();
    const Pacer quiet(input, input.firstPass);
    const ScanResult scan = scanFolder(input, quiet);
    if (quiet.cancelled()) {
        result.cancelled = true;
        return result;
    }
    if (scan.missing) {
        result.folderMissing = true;
        return result;
    }
    result.fileCount = scan.files.size();
    result.problems = scan.problems;
    result.folders = scan.folders;

    const std::string root = input.vault.filesOf(input.folder);
    std::vector<std::string> uploads;
    bool newWork = input.firstPass;
    for (const auto &[rel, info] : scan.files) {
        struct stat st {};
        const std::string copy = root + "/" + rel;
        if (::lstat(copy.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
            static_cast<std::int64_t>(st.st_size) == info.size && mtimeOf(st) == info.mtimeNs) {
            continue;
        }
        uploads.push_back(rel);
        newWork = newWork || !input.previousFailures.contains(failureKey(rel, info));
    }
    std::vector<std::string> deletions;
    for (const auto &rel : listVault(root)) {
        if (scan.files.contains(rel)) {
            continue;
        }
        const bool hidden =
            std::any_of(scan.unreadableDirs.begin(), scan.unreadableDirs.end(),
                        [&rel](const std::string &dir) { return isUnder(rel, dir); });
        if (!hidden) {
            deletions.push_back(rel);
        }
    }
    newWork = newWork || !deletions.empty();
    result.scanMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - scanStart)
                        .count();
    if (!newWork && uploads.empty()) {
        return result;
    }

    // Work that only retries files that failed before runs without showing the steps again.
    result.visible = newWork;
    const Pacer pacer(input, newWork);

    // 1: scanning
    pacer.report("1 of 6 - Scanning files (" + std::to_string(scan.files.size()) + ")");
    pacer.dwell(input.stepMs);

    // 2: uploading
    std::int64_t uploadBytes = 0;
    for (const auto &rel : uploads) {
        uploadBytes += scan.files.at(rel).size;
    }
    pacer.report("2 of 6 - Uploading " + std::to_string(uploads.size()) + " changed " +
                 (uploads.size() == 1 ? "file" : "files") + " (" + sizeText(uploadBytes) + ")");
    pacer.dwell(input.stepMs / 2);
    std::vector<std::pair<std::string, std::string>> uploaded; // rel, sha-256
    int fileDwellBudget = 1500;
    for (const auto &rel : uploads) {
        if (pacer.cancelled()) {
            result.cancelled = true;
            return result;
        }
        pacer.report("2 of 6 - Uploading file (" + displayText(rel) + ") ...");
        const CopyResult copy = copyIntoVault(input, rel);
        if (copy.ok) {
            uploaded.emplace_back(rel, copy.sha256);
        } else if (!copy.skipped) {
            result.problems.push_back(rel + " (" + copy.error + ")");
            result.failures.insert(failureKey(rel, scan.files.at(rel)));
        }
        const int fileDwell = std::min(input.stepMs / 3, fileDwellBudget);
        fileDwellBudget -= fileDwell;
        pacer.dwell(fileDwell);
    }
    result.uploaded = uploaded.size();

    // 3: checking the copies against what was read
    pacer.report("3 of 6 - Checking uploaded files (" + std::to_string(uploaded.size()) + ")");
    for (const auto &[rel, sha256] : uploaded) {
        if (pacer.cancelled()) {
            result.cancelled = true;
            return result;
        }
        const auto copyHash = hashFile(root + "/" + rel);
        if (!copyHash || *copyHash != sha256) {
            ::unlink((root + "/" + rel).c_str());
            result.problems.push_back(rel + " (the stored copy does not match)");
            result.failures.insert(failureKey(rel, scan.files.at(rel)));
            --result.uploaded;
        }
    }
    pacer.dwell(input.stepMs);

    // 4: indexing
    pacer.report("4 of 6 - Indexing files (" + std::to_string(scan.files.size()) + ")");
    std::string error;
    if (!writeIndex(input, scan, error)) {
        result.problems.push_back("index (" + error + ")");
    }
    pacer.dwell(input.stepMs);

    // 5: files gone from the folder move to the deleted area
    pacer.report("5 of 6 - Cleaning up (" + std::to_string(deletions.size()) + " deleted)");
    if (!deletions.empty()) {
        const std::lock_guard lock(*input.groupMutex);
        const std::int64_t deletedAt = nowMs();
        for (const auto &rel : deletions) {
            struct stat st {};
            if (::lstat((root + "/" + rel).c_str(), &st) != 0 || S_ISDIR(st.st_mode)) {
                // Gone already, or a folder of that name took the file's place in this pass
                // (the file went to the deleted area then).
                ++result.deleted;
                continue;
            }
            if (moveToDeleted(input.vault, root + "/" + rel, deletedAt, error)) {
                ++result.deleted;
            } else {
                result.problems.push_back(rel + " (" + error + ")");
            }
        }
        removeEmptyFolders(root);
    }
    pacer.dwell(input.stepMs);

    // 6: done
    pacer.report("6 of 6 - Finishing (" + std::to_string(result.uploaded) + " uploaded, " +
                 std::to_string(result.deleted) + " deleted)");
    pacer.dwell(input.stepMs);
    result.cancelled = pacer.cancelled();
    return result;
}

RetentionPassResult runRetentionPass(const GroupVault &vault, std::int64_t cutoffMs,
                                     std::mutex &groupMutex) {
    namespace fs = std::filesystem;
    RetentionPassResult result;
    const std::lock_guard lock(groupMutex);
    std::error_code ec;
    fs::directory_iterator it(vault.deletedRoot(), ec);
    if (ec) {
        return result; // nothing deleted yet
    }
    std::vector<fs::path> expired;
    for (; it != fs::directory_iterator(); it.increment(ec)) {
        if (ec) {
            break;
        }
        const std::string name = it->path().filename().string();
        std::int64_t deletedAt = 0;
        const auto [ptr, parseError] =
            std::from_chars(name.data(), name.data() + name.size(), deletedAt);
        if (parseError != std::errc() || ptr != name.data() + name.size()) {
            continue;
        }
        if (deletedAt <= cutoffMs) {
            expired.push_back(it->path());
        }
    }
    for (const auto &entry : expired) {
        std::int64_t files = 0;
        std::int64_t bytes = 0;
        std::error_code walkError;
        for (fs::recursive_directory_iterator walk(entry, walkError), end;
             !walkError && walk != end; walk.increment(walkError)) {
            const auto status = walk->symlink_status(walkError);
            if (!walkError && !fs::is_directory(status)) {
                ++files;
                struct stat st {};
                if (::lstat(walk->path().c_str(), &st) == 0) {
                    bytes += st.st_size;
                }
            }
        }
        std::error_code removeError;
        fs::remove_all(entry, removeError);
        if (removeError) {
            result.problems.push_back(entry.string() + " (" + removeError.message() + ")");
            continue;
        }
        result.fileCount += files;
        result.byteCount += bytes;
    }
    return result;
}

} // namespace kovritdev
