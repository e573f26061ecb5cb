#pragma once

// Every command the client sends to its backend, with its arguments: the one place where the
// wire names live. Each function builds the envelope that goes on the wire ("Type", "ID",
// "Data"; a field the command does not use is empty).

#include "Error.h"
#include "Models.h"

#include <QString>

#include <optional>
#include <string>
#include <string_view>

namespace tarnwick::commands {

/// Asks the backend to mail a 6-digit sign-in code to the address.
TypeIDAndData requestCode(const QString &email);
/// Signs in with the code the user typed.
TypeIDAndData auth(const QString &email, const QString &code);
/// The user's sync groups (answered with the group list).
TypeIDAndData getGroups();
/// Starts watching an absolute folder path in the named group.
TypeIDAndData addWatchDir(const QString &groupName, const QString &path);
/// Stops watching a folder, in whichever group it is.
TypeIDAndData stopWatching(const QString &path);
/// Stores a group's retention settings (the whole group as JSON).
TypeIDAndData updateGroup(const GroupItem &group);
/// Opens a group's page on the service's web site (the group ID as decimal text).
TypeIDAndData openWeb(const QString &groupID);
/// Opens a folder in the file manager (answered with nothing to decode).
TypeIDAndData openDirPath(const QString &path);
/// Signs out; the backend exits shortly after.
TypeIDAndData logoutAndExit();
/// The liveness request, carrying the current folder list as JSON text (answered with the
/// folder reports, or a "ping" message when no folder is watched).
TypeIDAndData ping(std::string folderListJSON);

/// Whether an envelope is the background ping.
bool isPing(const TypeIDAndData &envelope);
/// Whether a command's reply carries nothing to decode.
bool expectsEmptyReply(const TypeIDAndData &envelope);

/// Messages the backend sends back as an envelope.
inline constexpr std::string_view authRequestMessage = "auth request";
inline constexpr std::string_view pingMessage = "ping";

} // namespace tarnwick::commands

namespace tarnwick {

/// What became of a command: nothing when it succeeded, else why it failed - the backend's own
/// refusal (domain "ServerError", its text as the description) or the transport's error.
using CommandOutcome = std::optional<tidepost::Error>;

/// The failure as a user reads it: the backend's text for a refusal, else the error's own
/// description.
QString failureText(const tidepost::Error &error);

} // namespace tarnwick
