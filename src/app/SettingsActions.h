#pragma once

#include "Commands.h"
#include "Models.h"

#include <QObject>
#include <QString>

#include <functional>
#include <optional>

namespace tarnwick {

class ItemsProvider;

// What the settings screen does to the user's folders and groups: adding a
// folder or a Photos library (with the iCloud and library checks), stopping a
// folder, and saving a group's retention. The screen and the command line
// both go through here, so they behave the same.
class SettingsActions : public QObject {
    Q_OBJECT

public:
    explicit SettingsActions(ItemsProvider &model, QObject *parent = nullptr);

    // The outcome of checking a path chosen for a group.
    struct AddCheck {
        enum class Verdict { add, needsConfirmation, invalid };
        Verdict verdict = Verdict::invalid;
        QString path;    // what would be watched (a library's originals folder)
        QString message; // the iCloud warning, or why the path cannot be added
    };

    // A folder: iCloud locations need the user's confirmation.
    static AddCheck checkFolder(const QString &path);
    // A Photos library: its originals folder is watched, after the library's
    // own validation.
    static AddCheck checkPhotoLibrary(const QString &libraryPath);

    using Completion = std::function<void(const CommandOutcome &outcome)>;

    // Sends "addWatchDir" and refreshes the group list (now and 0.5 s later).
    // A refresh that the one-request gate turns away while the command is
    // still under way is made up for by one refresh when the command ends.
    // done hears the command's outcome. False when the gate turned the
    // command itself away (nothing was sent; done is not called).
    Q_INVOKABLE void addFolderToSync(const QString &path, const QString &groupName);
    bool addFolderToSync(const QString &path, const QString &groupName, Completion done);
    // "stopWatching", the folder dropped locally at once, then the refreshes
    // as above.
    Q_INVOKABLE void removeFolder(const QString &path);
    bool removeFolder(const QString &path, Completion done);
    // The retention save: the edit shows at once and is kept while the
    // request is under way. done (when given) hears the request's outcome.
    // False when the group is no longer in the model's list: nothing is sent
    // (done has then already heard "Group not found").
    bool saveRetention(const GroupItem &edited,
                       std::function<void(std::optional<QString> error)> done = {});

    static constexpr int refreshDelayMs = 500;

signals:
    void retentionUpdateStarted(qint64 groupID);
    void retentionUpdateFinished(qint64 groupID);
    // An add, a removal or a retention save failed: the backend's reason,
    // or what went wrong on the way.
    void actionFailed(const QString &message);
    // One of them succeeded.
    void actionSucceeded();

private:
    // Sends a change of the group list, runs beforeRefresh, then the
    // refreshes.
    bool changeGroups(const TypeIDAndData &command, Completion done,
                      const std::function<void()> &beforeRefresh = {});
    void report(const CommandOutcome &outcome);

    ItemsProvider &model_;
};

} // namespace tarnwick
