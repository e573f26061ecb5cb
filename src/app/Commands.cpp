#include "Commands.h"

#include "PollManager.h"

#include <QCoreApplication>

#include <utility>

namespace tarnwick::commands {
namespace {

constexpr const char *kRequestCode = "requestCode";
constexpr const char *kAuth = "auth";
constexpr const char *kGetGroups = "getGroups";
constexpr const char *kAddWatchDir = "addWatchDir";
constexpr const char *kStopWatching = "stopWatching";
constexpr const char *kUpdateGroup = "updateGroup";
constexpr const char *kOpenWeb = "openWeb";
constexpr const char *kOpenDirPath = "openDirPath";
constexpr const char *kLogoutAndExit = "logoutAndExit";
constexpr const char *kPing = "ping";

TypeIDAndData envelope(const char *type, const QString &id = {}, std::string data = {}) {
    return {type, id.toStdString(), std::move(data)};
}

} // namespace

TypeIDAndData requestCode(const QString &email) {
    return envelope(kRequestCode, email);
}

TypeIDAndData auth(const QString &email, const QString &code) {
    return envelope(kAuth, email, code.toStdString());
}

TypeIDAndData getGroups() {
    return envelope(kGetGroups);
}

TypeIDAndData addWatchDir(const QString &groupName, const QString &path) {
    return envelope(kAddWatchDir, groupName, path.toStdString());
}

TypeIDAndData stopWatching(const QString &path) {
    return envelope(kStopWatching, path);
}

TypeIDAndData updateGroup(const GroupItem &group) {
    // Our own writer cannot fail to encode a record; the text is the group's JSON.
    return envelope(kUpdateGroup, {}, group.toJSON());
}

TypeIDAndData openWeb(const QString &groupID) {
    return envelope(kOpenWeb, groupID);
}

TypeIDAndData openDirPath(const QString &path) {
    return envelope(kOpenDirPath, path);
}

TypeIDAndData logoutAndExit() {
    return envelope(kLogoutAndExit);
}

TypeIDAndData ping(std::string folderListJSON) {
    return envelope(kPing, {}, std::move(folderListJSON));
}

bool isPing(const TypeIDAndData &envelope) {
    return envelope.type == kPing;
}

bool expectsEmptyReply(const TypeIDAndData &envelope) {
    return envelope.type == kOpenDirPath;
}

} // namespace tarnwick::commands

namespace tarnwick {

QString failureText(const tidepost::Error &error) {
    // The request client's fixed texts have translations; any other text (the backend's
    // own, or one with numbers in it) is shown as it is.
    return QCoreApplication::translate("tidepost::Error", error.description.c_str());
}

} // namespace tarnwick
