#pragma once

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

    // Sends "addWatchDir" and refreshes the group list (now and 0.5 s later).
    Q_INVOKABLE void addFolderToSync(const QString &path, const QString &groupName);
    // "stopWatching", the folder dropped locally at once, then the refreshes.
    Q_INVOKABLE void removeFolder(const QString &path);
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

private:
    void refreshGroupsTwice();

    ItemsProvider &model_;
};

} // namespace tarnwick
