#include "SettingsController.h"

#include "FileSystemUtils.h"
#include "GroupsModel.h"
#include "ItemsProvider.h"
#include "Pickers.h"
#include "SettingsActions.h"

#include <QDateTime>
#include <QFileInfo>

#include <algorithm>
#include <memory>

namespace tarnwick::ui {
namespace {

QString text(const std::string &value) {
    return QString::fromUtf8(value.data(), static_cast<qsizetype>(value.size()));
}

QVariant dateValue(const std::optional<Date> &date) {
    if (!date) {
        return {};
    }
    return QDateTime::fromSecsSinceEpoch(date->time_since_epoch().count(), Qt::UTC);
}

// A group ID from the screen: a number, or its decimal text (exact for any
// 64-bit ID).
std::optional<qint64> groupIDOf(const QVariant &value) {
    bool ok = false;
    const qint64 id = value.typeId() == QMetaType::QString ? value.toString().toLongLong(&ok)
                                                           : value.toLongLong(&ok);
    return ok ? std::optional<qint64>(id) : std::nullopt;
}

// A path the pickers gave, made absolute the way the backend expects it.
QString absolutePath(const QString &path) {
    return QFileInfo(path).absoluteFilePath();
}

} // namespace

GroupsByID::GroupsByID(QObject *parent) : QSortFilterProxyModel(parent) {
    setSortRole(GroupsModel::GroupIDRole);
    setDynamicSortFilter(true);
}

QVariant GroupsByID::data(const QModelIndex &index, int role) const {
    switch (role) {
    case GroupIDTextRole:
        return QString::number(
            QSortFilterProxyModel::data(index, GroupsModel::GroupIDRole).toLongLong());
    case SortedWalkPathsRole:
        return SettingsController::sortedPaths(
            QSortFilterProxyModel::data(index, GroupsModel::WalkPathsRole).toStringList());
    default:
        return QSortFilterProxyModel::data(index, role);
    }
}

QHash<int, QByteArray> GroupsByID::roleNames() const {
    QHash<int, QByteArray> names = QSortFilterProxyModel::roleNames();
    names.insert(GroupIDTextRole, "groupIDText");
    names.insert(SortedWalkPathsRole, "sortedWalkPaths");
    return names;
}

bool GroupsByID::lessThan(const QModelIndex &left, const QModelIndex &right) const {
    return left.data(GroupsModel::GroupIDRole).toLongLong() <
           right.data(GroupsModel::GroupIDRole).toLongLong();
}

SettingsController::SettingsController(QObject *parent)
    : QObject(parent), sorted_(new GroupsByID(this)) {
    connect(sorted_, &QAbstractItemModel::rowsInserted, this,
            &SettingsController::groupCountChanged);
    connect(sorted_, &QAbstractItemModel::rowsRemoved, this,
            &SettingsController::groupCountChanged);
    connect(sorted_, &QAbstractItemModel::modelReset, this, &SettingsController::groupCountChanged);
}

SettingsController::~SettingsController() = default;

QObject *SettingsController::model() const {
    return model_.data();
}

void SettingsController::setModel(QObject *model) {
    auto *provider = qobject_cast<ItemsProvider *>(model);
    if (provider == model_) {
        return;
    }
    model_ = provider;
    sorted_->setSourceModel(provider ? provider->groupsModel() : nullptr);
    sorted_->sort(0, Qt::AscendingOrder);
    emit modelChanged();
    emit groupCountChanged();
}

QObject *SettingsController::actions() const {
    return actions_.data();
}

void SettingsController::setActions(QObject *actions) {
    auto *settings = qobject_cast<SettingsActions *>(actions);
    if (settings == actions_) {
        return;
    }
    QObject::disconnect(failedConnection_);
    QObject::disconnect(succeededConnection_);
    actions_ = settings;
    if (settings) {
        failedConnection_ = connect(settings, &SettingsActions::actionFailed, this,
                                    &SettingsController::setErrorText);
        succeededConnection_ = connect(settings, &SettingsActions::actionSucceeded, this,
                                       [this] { setErrorText(QString()); });
    }
    emit actionsChanged();
}

void SettingsController::setErrorText(const QString &text) {
    if (text != errorText_) {
        errorText_ = text;
        emit errorTextChanged();
    }
}

void SettingsController::setPickers(Pickers *pickers) {
    if (pickers == pickers_) {
        return;
    }
    pickers_ = pickers;
    emit pickersChanged();
}

void SettingsController::setInitialRefreshDelay(int ms) {
    if (ms == initialRefreshDelay_) {
        return;
    }
    initialRefreshDelay_ = std::max(0, ms);
    emit initialRefreshDelayChanged();
}

ItemsProvider *SettingsController::provider() const {
    return model_.data();
}

SettingsActions *SettingsController::settingsActions() const {
    return actions_.data();
}

int SettingsController::groupCount() const {
    return sorted_->rowCount();
}

QString SettingsController::groupCountText() const {
    const int count = groupCount();
    return (count == 1 ? tr("%1 group") : tr("%1 groups")).arg(count);
}

QVariant SettingsController::pendingICloudPathValue() const {
    return pendingICloudPath_ ? QVariant(*pendingICloudPath_) : QVariant();
}

QVariant SettingsController::pendingICloudGroupNameValue() const {
    return pendingICloudGroupName_ ? QVariant(*pendingICloudGroupName_) : QVariant();
}

QVariantMap SettingsController::selectedGroupValue() const {
    return selectedGroup_ ? groupToVariant(*selectedGroup_) : QVariantMap();
}

QVariantMap SettingsController::groupToVariant(const GroupItem &group) {
    QVariantMap map;
    map.insert(QStringLiteral("groupID"), static_cast<qlonglong>(group.groupID));
    map.insert(QStringLiteral("groupIDText"), QString::number(group.groupID));
    map.insert(QStringLiteral("name"), text(group.name));
    QStringList paths;
    for (const auto &path : group.walkPaths) {
        paths << text(path);
    }
    map.insert(QStringLiteral("walkPaths"), paths);
    map.insert(QStringLiteral("hasRetentionSettings"), group.retentionSettings.has_value());
    if (const auto &settings = group.retentionSettings) {
        const auto number = [&map](const char *key, const std::optional<std::int64_t> &value) {
            if (value) {
                map.insert(QLatin1String(key), static_cast<qlonglong>(*value));
            }
        };
        const auto date = [&map](const char *key, const std::optional<Date> &value) {
            if (value) {
                map.insert(QLatin1String(key), dateValue(value));
            }
        };
        number("retentionDays", settings->retentionDays);
        date("lastRetentionTime", settings->lastRetentionTime);
        number("lastRetentionFileCount", settings->lastRetentionFileCount);
        number("lastRetentionByteCount", settings->lastRetentionByteCount);
        date("lastOrphanScanTime", settings->lastOrphanScanTime);
        number("lastOrphanScanCount", settings->lastOrphanScanCount);
    }
    return map;
}

void SettingsController::publishGetGroups() {
    if (auto *model = provider()) {
        model->publish(commands::getGroups());
    }
}

void SettingsController::appeared() {
    publishGetGroups();
    runwarden::Clock &clock = provider() ? provider()->clock() : runwarden::Clock::system();
    clock.singleShot(std::chrono::milliseconds(initialRefreshDelay_), this, [this] {
        publishGetGroups();
        if (!hasTimeElapsed_) {
            hasTimeElapsed_ = true;
            emit hasTimeElapsedChanged();
        }
    });
}

void SettingsController::setShowPhotoLibraryInstructions(bool value) {
    if (value != showPhotoLibraryInstructions_) {
        showPhotoLibraryInstructions_ = value;
        emit showPhotoLibraryInstructionsChanged();
    }
}

void SettingsController::setShowICloudWarning(bool value) {
    if (value != showICloudWarning_) {
        showICloudWarning_ = value;
        emit showICloudWarningChanged();
    }
}

void SettingsController::setPending(std::optional<QString> path, std::optional<QString> groupName) {
    if (path == pendingICloudPath_ && groupName == pendingICloudGroupName_) {
        return;
    }
    pendingICloudPath_ = std::move(path);
    pendingICloudGroupName_ = std::move(groupName);
    emit pendingChanged();
}

void SettingsController::setICloudWarningMessage(const QString &message) {
    if (message != iCloudWarningMessage_) {
        iCloudWarningMessage_ = message;
        emit iCloudWarningMessageChanged();
    }
}

void SettingsController::setShowRetentionSettings(bool value) {
    if (value != showRetentionSettings_) {
        showRetentionSettings_ = value;
        emit showRetentionSettingsChanged();
    }
}

void SettingsController::setSelectedGroup(std::optional<GroupItem> group) {
    selectedGroup_ = std::move(group);
    emit selectedGroupChanged();
}

void SettingsController::raiseICloudWarning(const QString &path, const QString &groupName,
                                            const QString &message) {
    setPending(path, groupName);
    setICloudWarningMessage(message);
    setShowICloudWarning(true);
}

void SettingsController::handleAddFolder(const QString &groupName) {
    if (!pickers_) {
        return;
    }
    // The picker puts the tray's popup out of its way itself.
    const QString chosen = pickers_->selectDir();
    if (chosen.isEmpty()) {
        return;
    }
    const auto check = SettingsActions::checkFolder(absolutePath(chosen));
    if (check.verdict == SettingsActions::AddCheck::Verdict::needsConfirmation) {
        raiseICloudWarning(check.path, groupName, check.message);
        return;
    }
    addFolderToSync(check.path, groupName);
}

void SettingsController::addPhotoLibrary(const QString &groupName) {
    setPending(pendingICloudPath_, groupName);
    setShowPhotoLibraryInstructions(true);
}

void SettingsController::cancelPhotoLibraryInstructions() {
    setShowPhotoLibraryInstructions(false);
    setPending(pendingICloudPath_, std::nullopt);
}

void SettingsController::continuePhotoLibraryInstructions() {
    setShowPhotoLibraryInstructions(false);
    if (pendingICloudGroupName_) {
        const QString groupName = *pendingICloudGroupName_;
        handleAddPhotoLibrary(groupName);
        // Cleared after the library flow has run, whatever it left pending:
        // a library inside iCloud raises the alert, but "Add Anyway" then has
        // no group to add it to, so such a library can only be added from a
        // location outside iCloud.
        setPending(pendingICloudPath_, std::nullopt);
    }
}

void SettingsController::handleAddPhotoLibrary(const QString &groupName) {
    if (!pickers_) {
        return;
    }
    const QString chosen = pickers_->selectPhotoLibrary(QStringLiteral("~/Pictures"));
    if (chosen.isEmpty()) {
        return;
    }
    // The library's originals folder is what is watched. A library that
    // fails its checks is dropped without a word, and a warning on a valid
    // one is not shown either: the instructions said what to do.
    const auto check = SettingsActions::checkPhotoLibrary(absolutePath(chosen));
    switch (check.verdict) {
    case SettingsActions::AddCheck::Verdict::invalid:
        return;
    case SettingsActions::AddCheck::Verdict::needsConfirmation:
        raiseICloudWarning(check.path, groupName, check.message);
        return;
    case SettingsActions::AddCheck::Verdict::add:
        addFolderToSync(check.path, groupName);
        return;
    }
}

void SettingsController::cancelICloudWarning() {
    setPending(std::nullopt, std::nullopt);
    setShowICloudWarning(false);
}

void SettingsController::confirmICloudWarning() {
    if (pendingICloudPath_ && pendingICloudGroupName_) {
        addFolderToSync(*pendingICloudPath_, *pendingICloudGroupName_);
    }
    setShowICloudWarning(false);
}

void SettingsController::addFolderToSync(const QString &path, const QString &groupName) {
    if (auto *actions = settingsActions()) {
        actions->addFolderToSync(path, groupName);
    }
    setPending(std::nullopt, std::nullopt);
}

void SettingsController::openFolder(const QString &path) {
    if (auto *model = provider()) {
        model->openDirPath(path);
    }
}

void SettingsController::removeFolder(const QString &path) {
    if (auto *actions = settingsActions()) {
        actions->removeFolder(path);
    }
}

void SettingsController::openRetentionSettings(const QVariant &groupIDValue) {
    auto *model = provider();
    const auto groupID = groupIDOf(groupIDValue);
    if (!model || !groupID) {
        return;
    }
    const int row = model->groupsModel()->indexOf(*groupID);
    if (row < 0) {
        return;
    }
    setSelectedGroup(model->groups()[static_cast<std::size_t>(row)]);
    setShowRetentionSettings(true);
}

void SettingsController::cancelRetentionSettings() {
    setShowRetentionSettings(false);
}

void SettingsController::saveRetention(const QVariant &groupIDValue, const QVariant &days) {
    const auto groupID = groupIDOf(groupIDValue);
    if (!groupID) {
        return;
    }
    // The edited group is the copy taken when the screen opened, with the
    // edited number of days.
    GroupItem edited;
    if (selectedGroup_ && selectedGroup_->groupID == *groupID) {
        edited = *selectedGroup_;
    } else {
        edited.groupID = *groupID;
    }
    RetentionSettings settings =
        edited.retentionSettings.value_or(RetentionSettings::defaultSettings());
    bool ok = false;
    const qlonglong value = days.toLongLong(&ok);
    settings.retentionDays =
        days.isValid() && !days.isNull() && ok ? std::optional<std::int64_t>(value) : std::nullopt;
    edited.retentionSettings = settings;
    saveRetention(edited);
}

void SettingsController::saveRetention(const GroupItem &edited) {
    auto *actions = settingsActions();
    if (!actions) {
        return;
    }
    // The update runs on; the list comes back at once, already showing the
    // new value, which the model keeps while the request is open.
    auto counted = std::make_shared<bool>(false);
    auto ended = std::make_shared<bool>(false);
    QPointer<SettingsController> self(this);
    const bool started =
        actions->saveRetention(edited, [self, counted, ended](const std::optional<QString> &) {
            *ended = true;
            if (self && *counted) {
                self->retentionUpdateEnded();
            }
        });
    if (started && !*ended) {
        *counted = true;
        ++retentionUpdatesInFlight_;
        if (!isUpdatingRetention_) {
            isUpdatingRetention_ = true;
            emit isUpdatingRetentionChanged();
        }
    }
    setShowRetentionSettings(false);
    setSelectedGroup(std::nullopt);
}

void SettingsController::retentionUpdateEnded() {
    retentionUpdatesInFlight_ = std::max(0, retentionUpdatesInFlight_ - 1);
    if (retentionUpdatesInFlight_ == 0 && isUpdatingRetention_) {
        isUpdatingRetention_ = false;
        emit isUpdatingRetentionChanged();
    }
}

bool SettingsController::isICloudSyncedPath(const QString &path) {
    return pathcheck::FileSystemUtils::isICloudSyncedPath(path);
}

QString SettingsController::folderSymbol(const QString &path) {
    return path.contains(QLatin1String("/originals")) ? QStringLiteral("photo.on.rectangle")
                                                      : QStringLiteral("folder.fill");
}

QStringList SettingsController::sortedPaths(const QStringList &paths) {
    // UTF-8 byte order is code-point order.
    std::vector<std::pair<QByteArray, QString>> keyed;
    keyed.reserve(static_cast<std::size_t>(paths.size()));
    for (const QString &path : paths) {
        keyed.emplace_back(path.toUtf8(), path);
    }
    std::stable_sort(keyed.begin(), keyed.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    QStringList sorted;
    sorted.reserve(paths.size());
    for (auto &entry : keyed) {
        sorted << std::move(entry.second);
    }
    return sorted;
}

} // namespace tarnwick::ui
