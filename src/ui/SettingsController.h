#pragma once

#include "Models.h"
#include "Pickers.h"

#include <QObject>
#include <QPointer>
#include <QSortFilterProxyModel>
#include <QString>
#include <QVariant>
#include <QtQml/qqmlregistration.h>

#include <optional>

namespace tarnwick {
class ItemsProvider;
class SettingsActions;
} // namespace tarnwick

namespace tarnwick::ui {

// The groups as the settings screen lists them: by group ID, ascending,
// whatever order the backend reported them in. Besides the model's roles it
// gives "groupIDText" (the ID in decimal, exact beyond what a script number
// holds) and "sortedWalkPaths" (the paths in ascending code-point order).
class GroupsByID : public QSortFilterProxyModel {
    Q_OBJECT
    QML_ANONYMOUS

public:
    enum Role { GroupIDTextRole = Qt::UserRole + 100, SortedWalkPathsRole };

    explicit GroupsByID(QObject *parent = nullptr);

    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

protected:
    bool lessThan(const QModelIndex &left, const QModelIndex &right) const override;
};

// The state and the actions of the settings tab: the group list, adding a
// folder or a Photos library (with the iCloud confirmation), stopping a
// folder, and editing a group's retention. One lives in each settings
// screen, so the state is the screen's own; the screen binds to it and calls
// its actions.
class SettingsController : public QObject {
    Q_OBJECT
    QML_ELEMENT

    // Wiring: the model (`ip`), the settings actions and the pickers.
    Q_PROPERTY(QObject *model READ model WRITE setModel NOTIFY modelChanged)
    Q_PROPERTY(QObject *actions READ actions WRITE setActions NOTIFY actionsChanged)
    Q_PROPERTY(tarnwick::ui::Pickers *pickers READ pickers WRITE setPickers NOTIFY pickersChanged)
    // How long after appearing the list asks again and stops saying
    // "Loading..." for an empty list (5 s; tests shorten it).
    Q_PROPERTY(int initialRefreshDelay READ initialRefreshDelay WRITE setInitialRefreshDelay NOTIFY
                   initialRefreshDelayChanged)

    Q_PROPERTY(QAbstractItemModel *groups READ groups CONSTANT)
    Q_PROPERTY(int groupCount READ groupCount NOTIFY groupCountChanged)
    Q_PROPERTY(QString groupCountText READ groupCountText NOTIFY groupCountChanged)

    Q_PROPERTY(bool hasTimeElapsed READ hasTimeElapsed NOTIFY hasTimeElapsedChanged)
    Q_PROPERTY(bool showPhotoLibraryInstructions READ showPhotoLibraryInstructions NOTIFY
                   showPhotoLibraryInstructionsChanged)
    Q_PROPERTY(bool showICloudWarning READ showICloudWarning NOTIFY showICloudWarningChanged)
    // null when nothing is pending.
    Q_PROPERTY(QVariant pendingICloudPath READ pendingICloudPathValue NOTIFY pendingChanged)
    Q_PROPERTY(
        QVariant pendingICloudGroupName READ pendingICloudGroupNameValue NOTIFY pendingChanged)
    Q_PROPERTY(
        QString iCloudWarningMessage READ iCloudWarningMessage NOTIFY iCloudWarningMessageChanged)
    Q_PROPERTY(
        bool showRetentionSettings READ showRetentionSettings NOTIFY showRetentionSettingsChanged)
    // The group being edited: groupID, groupIDText, name, walkPaths and the retention
    // fields (absent ones left out); an empty map when none.
    Q_PROPERTY(QVariantMap selectedGroup READ selectedGroupValue NOTIFY selectedGroupChanged)
    Q_PROPERTY(bool hasSelectedGroup READ hasSelectedGroup NOTIFY selectedGroupChanged)
    Q_PROPERTY(bool isUpdatingRetention READ isUpdatingRetention NOTIFY isUpdatingRetentionChanged)
    // Why the last add, removal or retention save failed (the backend's own
    // text); empty again after the next one that succeeds.
    Q_PROPERTY(QString errorText READ errorText NOTIFY errorTextChanged)

public:
    explicit SettingsController(QObject *parent = nullptr);
    ~SettingsController() override;

    static constexpr int defaultInitialRefreshDelayMs = 5000;

    QObject *model() const;
    void setModel(QObject *model);
    QObject *actions() const;
    void setActions(QObject *actions);
    Pickers *pickers() const { return pickers_; }
    void setPickers(Pickers *pickers);
    int initialRefreshDelay() const { return initialRefreshDelay_; }
    void setInitialRefreshDelay(int ms);

    QAbstractItemModel *groups() const { return sorted_; }
    int groupCount() const;
    QString groupCountText() const;

    bool hasTimeElapsed() const { return hasTimeElapsed_; }
    bool showPhotoLibraryInstructions() const { return showPhotoLibraryInstructions_; }
    bool showICloudWarning() const { return showICloudWarning_; }
    const std::optional<QString> &pendingICloudPath() const { return pendingICloudPath_; }
    const std::optional<QString> &pendingICloudGroupName() const { return pendingICloudGroupName_; }
    QVariant pendingICloudPathValue() const;
    QVariant pendingICloudGroupNameValue() const;
    QString iCloudWarningMessage() const { return iCloudWarningMessage_; }
    bool showRetentionSettings() const { return showRetentionSettings_; }
    const std::optional<GroupItem> &selectedGroup() const { return selectedGroup_; }
    QVariantMap selectedGroupValue() const;
    bool hasSelectedGroup() const { return selectedGroup_.has_value(); }
    bool isUpdatingRetention() const { return isUpdatingRetention_; }
    QString errorText() const { return errorText_; }

    // The screen has appeared: ask for the groups now and once more after
    // the initial delay.
    Q_INVOKABLE void appeared();

    // A group card's "Folder" button.
    Q_INVOKABLE void handleAddFolder(const QString &groupName);
    // A group card's "Photos" button: the instructions come first.
    Q_INVOKABLE void addPhotoLibrary(const QString &groupName);
    // The instructions' "Back".
    Q_INVOKABLE void cancelPhotoLibraryInstructions();
    // The instructions' "I Have Downloaded Originals".
    Q_INVOKABLE void continuePhotoLibraryInstructions();
    // Picks a library and adds its originals folder to the group.
    Q_INVOKABLE void handleAddPhotoLibrary(const QString &groupName);
    // The iCloud alert's buttons.
    Q_INVOKABLE void cancelICloudWarning();
    Q_INVOKABLE void confirmICloudWarning();
    // Sends the folder to the backend and refreshes the groups.
    Q_INVOKABLE void addFolderToSync(const QString &path, const QString &groupName);

    // A folder row's actions.
    Q_INVOKABLE void openFolder(const QString &path);
    Q_INVOKABLE void removeFolder(const QString &path);

    // Retention: open the screen for a group of the list, leave it, save.
    // groupID: a number or its decimal text.
    Q_INVOKABLE void openRetentionSettings(const QVariant &groupID);
    Q_INVOKABLE void cancelRetentionSettings();
    // days: the edited number of days, or null to leave it absent.
    Q_INVOKABLE void saveRetention(const QVariant &groupID, const QVariant &days);
    // The same with the whole edited group.
    void saveRetention(const GroupItem &edited);

    // What a folder row shows.
    Q_INVOKABLE static bool isICloudSyncedPath(const QString &path);
    Q_INVOKABLE static QString folderSymbol(const QString &path);
    // Paths in ascending code-point order.
    Q_INVOKABLE static QStringList sortedPaths(const QStringList &paths);

    // A group as the screens see it (see selectedGroup).
    static QVariantMap groupToVariant(const GroupItem &group);

signals:
    void modelChanged();
    void actionsChanged();
    void pickersChanged();
    void initialRefreshDelayChanged();
    void groupCountChanged();
    void hasTimeElapsedChanged();
    void showPhotoLibraryInstructionsChanged();
    void showICloudWarningChanged();
    void pendingChanged();
    void iCloudWarningMessageChanged();
    void showRetentionSettingsChanged();
    void selectedGroupChanged();
    void isUpdatingRetentionChanged();
    void errorTextChanged();

private:
    ItemsProvider *provider() const;
    SettingsActions *settingsActions() const;
    void publishGetGroups();
    void setShowPhotoLibraryInstructions(bool value);
    void setShowICloudWarning(bool value);
    void setPending(std::optional<QString> path, std::optional<QString> groupName);
    void setICloudWarningMessage(const QString &message);
    void setShowRetentionSettings(bool value);
    void setSelectedGroup(std::optional<GroupItem> group);
    void raiseICloudWarning(const QString &path, const QString &groupName, const QString &message);
    void retentionUpdateEnded();
    void setErrorText(const QString &text);

    QPointer<ItemsProvider> model_;
    QPointer<SettingsActions> actions_;
    QPointer<Pickers> pickers_;
    GroupsByID *sorted_;
    int initialRefreshDelay_ = defaultInitialRefreshDelayMs;

    bool hasTimeElapsed_ = false;
    bool showPhotoLibraryInstructions_ = false;
    bool showICloudWarning_ = false;
    std::optional<QString> pendingICloudPath_;
    std::optional<QString> pendingICloudGroupName_;
    QString iCloudWarningMessage_;
    bool showRetentionSettings_ = false;
    std::optional<GroupItem> selectedGroup_;
    bool isUpdatingRetention_ = false;
    int retentionUpdatesInFlight_ = 0;
    QString errorText_;
    QMetaObject::Connection failedConnection_;
    QMetaObject::Connection succeededConnection_;
};

} // namespace tarnwick::ui
