#include "Backend.h"

#include <algorithm>

#include "Channel.h"
#include "Log.h"

#include <QProcess>
#include <QString>
#include <QUrl>

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <future>
#include <limits>
#include <memory>
#include <sys/stat.h>

namespace kovritdev {

namespace {

constexpr std::int64_t kCodeLifetimeMs = 10 * 60 * 1000;
constexpr std::int64_t kPingLogIntervalMs = 10000;

std::string randomCode() {
    // Uniform over 000000..999999: draws at or above the largest multiple of 10^6 that fits
    // are drawn again.
    constexpr std::uint32_t limit = 4294000000u;
    for (;;) {
        std::uint32_t value = 0;
        if (RAND_bytes(reinterpret_cast<unsigned char *>(&value), sizeof value) != 1) {
            throw std::runtime_error("no random bytes");
        }
        if (value < limit) {
            char text[8];
            std::snprintf(text, sizeof text, "%06u", static_cast<unsigned>(value % 1000000u));
            return text;
        }
    }
}

bool sameText(const std::string &a, const std::string &b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

// An absolute path without ".", ".." or empty components and without a trailing slash; ".."
// at the root stays at the root.
std::string cleanPath(const std::string &path) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start <= path.size()) {
        const auto slash = std::min(path.find('/', start), path.size());
        const std::string part = path.substr(start, slash - start);
        if (part == "..") {
            if (!parts.empty()) {
                parts.pop_back();
            }
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        start = slash + 1;
    }
    std::string clean;
    for (const auto &part : parts) {
        clean += "/" + part;
    }
    return clean.empty() ? std::string("/") : clean;
}

// The path with every symbolic link resolved, or the path itself when that fails.
std::string realPath(const std::string &path) {
    char resolved[PATH_MAX];
    return ::realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : path;
}

bool isInside(const std::string &path, const std::string &folder) {
    return path == folder || (path.size() > folder.size() && path.starts_with(folder) &&
                              (folder == "/" || path[folder.size()] == '/'));
}

tarnwick::GroupItem groupItem(const GroupState &group) {
    tarnwick::RetentionSettings retention;
    retention.retentionDays = group.retention.days;
    if (group.retention.lastTime) {
        retention.lastRetentionTime =
            tarnwick::Date(std::chrono::seconds(*group.retention.lastTime));
    }
    retention.lastRetentionFileCount = group.retention.lastFileCount;
    retention.lastRetentionByteCount = group.retention.lastByteCount;
    return tarnwick::GroupItem{group.id, group.name, group.walkPaths, retention};
}

} // namespace

std::string successResponse() {
    return tarnwick::ServerResponse{"success", std::nullopt}.toJSON();
}

std::string errorResponse(const std::string &error) {
    return tarnwick::ServerResponse{"error", error}.toJSON();
}

std::string backendMessage(const std::string &type) {
    return tarnwick::TypeIDAndData{type, "", ""}.toJSON();
}

bool validAddress(const std::string &address) {
    if (address.empty() || address.size() > 254 || address == "." || address == ".." ||
        address.front() == '.') {
        return false;
    }
    const auto at = address.find('@');
    if (at == std::string::npos || at == 0 || at + 1 == address.size()) {
        return false;
    }
    for (const unsigned char c : address) {
        if (c < 0x21 || c == 0x7f || c == '/' || c == '\\') {
            return false;
        }
    }
    return true;
}

Backend::Backend(StateStore &store, SyncEngine &engine, Settings settings,
                 std::function<void(int)> requestExit, QObject *parent)
    : QObject(parent), store_(store), engine_(engine), settings_(std::move(settings)),
      requestExit_(std::move(requestExit)) {
    retentionTimer_.setInterval(
        static_cast<int>(std::min(settings_.retentionIntervalSeconds * 1000.0,
                                  static_cast<double>(std::numeric_limits<int>::max()))));
    connect(&retentionTimer_, &QTimer::timeout, this, &Backend::runRetentionPasses);
}

void Backend::start() {
    for (const auto &group : store_.state().groups) {
        for (const auto &path : group.walkPaths) {
            engine_.watch(group.id, path);
        }
    }
    const std::string &account = store_.state().account;
    if (!account.empty()) {
        logLine("signed in as " + account);
    } else {
        logLine("no user signed in");
    }
    engine_.setActive(!account.empty());
    retentionTimer_.start();
    runRetentionPasses();
}

std::optional<std::string> Backend::handleFromOtherThread(const std::string &envelope,
                                                          const std::function<bool()> &stopping) {
    auto promise = std::make_shared<std::promise<std::string>>();
    auto future = promise->get_future();
    queue_.post([this, promise, envelope] {
        try {
            promise->set_value(handle(envelope));
        } catch (...) {
            promise->set_exception(std::current_exception());
        }
    });
    while (future.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
        if (stopping()) {
            return std::nullopt;
        }
    }
    return future.get();
}

std::string Backend::handle(const std::string &envelope) {
    tarnwick::TypeIDAndData request;
    try {
        request = tarnwick::TypeIDAndData::fromJSON(envelope);
    } catch (const std::exception &) {
        logLine("handled a request that is not an envelope");
        return errorResponse("Malformed request");
    }
    const std::string &type = request.type;
    if (exiting_) {
        logLine("handled " + type + " while exiting");
        return errorResponse("Shutting down");
    }
    if (store_.state().account.empty() && type != "requestCode" && type != "auth") {
        if (type == "ping") {
            logPing();
        } else {
            logLine("handled " + type + ": no user signed in, asked for authentication");
        }
        return backendMessage("auth request");
    }
    const auto &refused = settings_.faults.refusedTypes;
    if (std::find(refused.begin(), refused.end(), type) != refused.end()) {
        logLine("handled " + type + ": refused (fault injection)");
        return errorResponse("Refused on purpose: " + type + " (KOVRIT_DEV_FAULT)");
    }
    if (type == "requestCode") {
        return requestCode(request.id);
    }
    if (type == "auth") {
        return auth(request.id, request.data);
    }
    if (type == "ping") {
        logPing();
        return ping();
    }
    if (type == "getGroups") {
        logLine("handled getGroups");
        return getGroups();
    }
    if (type == "addWatchDir") {
        return addWatchDir(request.id, request.data);
    }
    if (type == "stopWatching") {
        return stopWatching(request.id);
    }
    if (type == "updateGroup") {
        return updateGroup(request.data);
    }
    if (type == "openWeb") {
        return openWeb(request.id);
    }
    if (type == "openDirPath") {
        return openDirPath(request.id);
    }
    if (type == "logoutAndExit") {
        return logoutAndExit();
    }
    logLine("handled unknown request type \"" + displayText(type) + "\"");
    return errorResponse("Unknown request type: " + type);
}

void Backend::logPing() {
    // The client pings ten times a second: one line per ping would drown every other line, so
    // pings are summed up.
    ++pingsSinceLog_;
    const std::int64_t now = currentTimeMs();
    if (now - lastPingLogMs_ >= kPingLogIntervalMs) {
        logLine("handled ping (" + std::to_string(pingsSinceLog_) + " since the last ping line)");
        pingsSinceLog_ = 0;
        lastPingLogMs_ = now;
    }
}

std::string Backend::requestCode(const std::string &address) {
    if (!validAddress(address)) {
        logLine("handled requestCode: invalid address \"" + displayText(address) + "\"");
        return errorResponse("Invalid e-mail address");
    }
    const std::string code = settings_.fixedCode ? *settings_.fixedCode : randomCode();
    State &state = store_.state();
    const std::int64_t now = currentTimeMs();
    std::erase_if(state.codes, [&](const PendingCode &pending) {
        return pending.address == address || pending.expiresMs <= now;
    });
    state.codes.push_back(PendingCode{address, code, now + kCodeLifetimeMs});
    store_.save();
    logLine("sign-in code for " + address + ": " + code);
    store_.writeOutbox(address, code + "\n");
    notifyCode(address, code);
    logLine("handled requestCode for " + address);
    return successResponse();
}

std::string Backend::auth(const std::string &address, const std::string &code) {
    State &state = store_.state();
    const std::int64_t now = currentTimeMs();
    std::erase_if(state.codes,
                  [now](const PendingCode &pending) { return pending.expiresMs <= now; });
    for (auto it = state.codes.begin(); it != state.codes.end(); ++it) {
        if (it->address == address && sameText(it->code, code)) {
            state.codes.erase(it);
            state.account = address;
            store_.save();
            engine_.setActive(true);
            logLine("handled auth: signed in as " + address);
            return successResponse();
        }
    }
    logLine("handled auth for " + displayText(address) + ": Invalid or expired code");
    return errorResponse("Invalid or expired code");
}

std::string Backend::ping() {
    if (engine_.hasFolders()) {
        return tarnwick::encodeDirItems(engine_.report());
    }
    return backendMessage("ping");
}

std::string Backend::getGroups() {
    std::vector<tarnwick::GroupItem> items;
    for (const auto &group : store_.state().groups) {
        items.push_back(groupItem(group));
    }
    return tarnwick::encodeGroupItems(items);
}

std::string Backend::addWatchDir(const std::string &groupName, const std::string &rawPath) {
    const auto refuse = [&](const std::string &reason) {
        logLine("handled addWatchDir: " + displayText(reason));
        return errorResponse(reason);
    };
    GroupState *group = store_.state().groupByName(groupName);
    if (group == nullptr) {
        return refuse("Unknown group: " + groupName);
    }
    if (rawPath.empty()) {
        return refuse("No folder given");
    }
    if (rawPath.find('\0') != std::string::npos) {
        return refuse("Invalid path");
    }
    if (rawPath.front() != '/') {
        return refuse("Path is not absolute: " + rawPath);
    }
    const std::string path = cleanPath(rawPath);
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        return refuse("Folder does not exist: " + path);
    }
    if (!S_ISDIR(st.st_mode)) {
        return refuse("Not a folder: " + path);
    }
    const std::string real = realPath(path);
    if (real == "/") {
        return refuse("Refusing to sync the whole file system");
    }
    if (isInside(path, cleanPath(store_.dir())) || isInside(real, realPath(store_.dir()))) {
        return refuse("Folder is inside the backend's state folder: " + path);
    }
    for (const auto &other : store_.state().groups) {
        if (other.id == group->id) {
            continue;
        }
        for (const auto &watched : other.walkPaths) {
            if (watched == path) {
                return refuse("Folder is already watched in group " + other.name + ": " + path);
            }
        }
    }
    if (std::find(group->walkPaths.begin(), group->walkPaths.end(), path) ==
        group->walkPaths.end()) {
        group->walkPaths.push_back(path);
        store_.save();
    }
    engine_.watch(group->id, path);
    logLine("handled addWatchDir: " + path + " in group " + group->name);
    return successResponse();
}

std::string Backend::stopWatching(const std::string &rawPath) {
    const std::string path = rawPath.empty() ? rawPath : cleanPath(rawPath);
    bool changed = false;
    for (auto &group : store_.state().groups) {
        changed |= std::erase_if(group.walkPaths, [&](const std::string &watched) {
                       return watched == rawPath || watched == path;
                   }) > 0;
    }
    if (changed) {
        store_.save();
    }
    engine_.unwatch(path);
    if (path != rawPath) {
        engine_.unwatch(rawPath);
    }
    logLine("handled stopWatching: " + displayText(path) +
            (changed ? std::string() : std::string(" (was not watched)")));
    return successResponse();
}

std::string Backend::updateGroup(const std::string &data) {
    tarnwick::GroupItem item;
    try {
        item = tarnwick::GroupItem::fromJSON(data);
    } catch (const std::exception &e) {
        logLine(std::string("handled updateGroup: malformed group (") + e.what() + ")");
        return errorResponse("Malformed group");
    }
    GroupState *group = store_.state().groupByID(item.groupID);
    if (group == nullptr) {
        logLine("handled updateGroup: unknown group " + std::to_string(item.groupID));
        return errorResponse("Unknown group: " + std::to_string(item.groupID));
    }
    std::optional<std::int64_t> days;
    if (item.retentionSettings) {
        days = item.retentionSettings->retentionDays;
    }
    if (days && *days < 0) {
        logLine("handled updateGroup: negative retention for group " + std::to_string(group->id));
        return errorResponse("retention_days must not be negative");
    }
    group->retention.days = days;
    store_.save();
    logLine("handled updateGroup: group " + std::to_string(group->id) + " keeps deleted files " +
            (days && *days > 0 ? std::to_string(*days) + " days" : std::string("forever")));
    runRetentionPass(group->id);
    return successResponse();
}

void Backend::open(const std::string &what, const std::string &url) {
    if (settings_.openEnabled) {
        const bool started =
            QProcess::startDetached(QStringLiteral("xdg-open"), {QString::fromStdString(url)});
        logLine(what + ": opening " + url + (started ? "" : " failed (no xdg-open)"));
    } else {
        logLine(what + ": would open " + url +
                " (no display; KOVRIT_DEV_OPEN=1 opens it with xdg-open)");
    }
}

// The stand-in for the e-mail: on a desktop the code also pops up, so a user
// who just typed an address need not look for the outbox file.
void Backend::notifyCode(const std::string &address, const std::string &code) {
    if (!settings_.notifyEnabled) {
        return;
    }
    const QString summary =
        QStringLiteral("Your Tarnwick sign-in code: %1").arg(QString::fromStdString(code));
    const QString body = QStringLiteral("Sent to %1 by the development backend. It works once, "
                                        "within 10 minutes.")
                             .arg(QString::fromStdString(address));
    const bool started =
        QProcess::startDetached(QStringLiteral("notify-send"),
                                {QStringLiteral("--app-name=Tarnwick"),
                                 QStringLiteral("--icon=app.tarnwick.Tarnwick"), summary, body});
    logLine("sign-in code for " + address +
            (started ? std::string(": shown as a desktop notification")
                     : std::string(": no desktop notification (notify-send is missing; "
                                   "Debian package libnotify-bin)")));
}

std::string Backend::openWeb(const std::string &groupID) {
    const auto id = parseInteger(groupID);
    GroupState *group = id ? store_.state().groupByID(*id) : nullptr;
    if (group == nullptr) {
        logLine("handled openWeb: unknown group \"" + displayText(groupID) + "\"");
        return errorResponse("Unknown group: " + groupID);
    }
    // The local stand-in of the group's page is its folder in the vault.
    const std::string url =
        QUrl::fromLocalFile(QString::fromStdString(engine_.vaultOf(group->id).filesRoot()))
            .toString()
            .toStdString();
    open("handled openWeb", url);
    return successResponse();
}

std::string Backend::openDirPath(const std::string &path) {
    struct stat st {};
    if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos ||
        ::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        logLine("handled openDirPath: not a folder: " + displayText(path));
    } else {
        open("handled openDirPath",
             QUrl::fromLocalFile(QString::fromStdString(path)).toString().toStdString());
    }
    return std::string(); // this command's answer carries nothing
}

std::string Backend::logoutAndExit() {
    logLine("handled logoutAndExit: signed out " + store_.state().account + ", exiting");
    store_.state().account.clear();
    store_.save();
    engine_.setActive(false);
    exiting_ = true;
    // Time for the answer to reach the client before the process ends.
    QTimer::singleShot(300, this, [this] { requestExit_(0); });
    return successResponse();
}

void Backend::runRetentionPasses() {
    for (const auto &group : store_.state().groups) {
        if (group.retention.days && *group.retention.days > 0) {
            runRetentionPass(group.id);
        }
    }
}

void Backend::runRetentionPass(std::int64_t groupID) {
    GroupState *group = store_.state().groupByID(groupID);
    if (group == nullptr || !group->retention.days || *group->retention.days <= 0 ||
        retentionRunning_.contains(groupID)) {
        return;
    }
    const double keepMs =
        static_cast<double>(*group->retention.days) * settings_.retentionDaySeconds * 1000.0;
    const std::int64_t now = currentTimeMs();
    const std::int64_t cutoff = keepMs >= static_cast<double>(now)
                                    ? 0
                                    : now - static_cast<std::int64_t>(std::llround(keepMs));
    if (cutoff <= 0) {
        return;
    }
    retentionRunning_.insert(groupID);
    engine_.runRetention(groupID, cutoff, [this, groupID](const RetentionPassResult &result) {
        retentionRunning_.erase(groupID);
        GroupState *g = store_.state().groupByID(groupID);
        if (g == nullptr) {
            return;
        }
        g->retention.lastTime = currentTimeMs() / 1000;
        g->retention.lastFileCount = result.fileCount;
        g->retention.lastByteCount = result.byteCount;
        store_.save();
        logLine("retention pass for group " + std::to_string(groupID) + ": removed " +
                std::to_string(result.fileCount) + " files (" + std::to_string(result.byteCount) +
                " bytes)");
        for (const auto &problem : result.problems) {
            logLine("warning: retention: " + problem);
        }
    });
}

} // namespace kovritdev
