#include "GroupsModel.h"

#include <QDateTime>
#include <QStringList>

#include <algorithm>

namespace tarnwick {
namespace {

QString text(const std::string &value) {
    return QString::fromUtf8(value.data(), static_cast<qsizetype>(value.size()));
}

QVariant optionalNumber(const std::optional<std::int64_t> &value) {
    return value ? QVariant(static_cast<qlonglong>(*value)) : QVariant();
}

QVariant date(const std::optional<Date> &value) {
    if (!value) {
        return {};
    }
    return QDateTime::fromSecsSinceEpoch(value->time_since_epoch().count(), Qt::UTC);
}

} // namespace

bool sameRetention(const std::optional<RetentionSettings> &a,
                   const std::optional<RetentionSettings> &b) {
    if (a.has_value() != b.has_value()) {
        return false;
    }
    if (!a) {
        return true;
    }
    return a->retentionDays == b->retentionDays && a->lastRetentionTime == b->lastRetentionTime &&
           a->lastRetentionFileCount == b->lastRetentionFileCount &&
           a->lastRetentionByteCount == b->lastRetentionByteCount &&
           a->lastOrphanScanTime == b->lastOrphanScanTime &&
           a->lastOrphanScanCount == b->lastOrphanScanCount;
}

GroupsModel::GroupsModel(QObject *parent) : QAbstractListModel(parent) {}

bool GroupsModel::sameGroup(const GroupItem &a, const GroupItem &b) {
    return a.groupID == b.groupID && a.name == b.name && a.walkPaths == b.walkPaths &&
           sameRetention(a.retentionSettings, b.retentionSettings);
}

int GroupsModel::indexOf(std::int64_t groupID) const {
    const auto found = std::find_if(items_.begin(), items_.end(),
                                    [groupID](const GroupItem &g) { return g.groupID == groupID; });
    return found == items_.end() ? -1 : static_cast<int>(found - items_.begin());
}

void GroupsModel::replace(std::vector<GroupItem> groups) {
    const bool sameShape =
        groups.size() == items_.size() &&
        std::equal(groups.begin(), groups.end(), items_.begin(),
                   [](const GroupItem &a, const GroupItem &b) { return a.groupID == b.groupID; });
    if (!sameShape) {
        const bool countChanges = groups.size() != items_.size();
        beginResetModel();
        items_ = std::move(groups);
        endResetModel();
        if (countChanges) {
            emit countChanged();
        }
        return;
    }
    for (std::size_t row = 0; row < groups.size(); ++row) {
        if (!sameGroup(items_[row], groups[row])) {
            items_[row] = std::move(groups[row]);
            emit dataChanged(index(static_cast<int>(row)), index(static_cast<int>(row)));
        }
    }
}

void GroupsModel::removeWalkPath(const std::string &path) {
    for (std::size_t row = 0; row < items_.size(); ++row) {
        auto &paths = items_[row].walkPaths;
        const auto end = std::remove(paths.begin(), paths.end(), path);
        if (end != paths.end()) {
            paths.erase(end, paths.end());
            emit dataChanged(index(static_cast<int>(row)), index(static_cast<int>(row)));
        }
    }
}

void GroupsModel::setRetentionSettings(std::int64_t groupID,
                                       const std::optional<RetentionSettings> &settings) {
    const int row = indexOf(groupID);
    if (row < 0) {
        return;
    }
    GroupItem &group = items_[static_cast<std::size_t>(row)];
    if (!sameRetention(group.retentionSettings, settings)) {
        group.retentionSettings = settings;
        emit dataChanged(index(row), index(row));
    }
}

int GroupsModel::rowCount(const QModelIndex &parent) const {
    return parent.isValid() ? 0 : count();
}

QVariant GroupsModel::data(const QModelIndex &index, int role) const {
    if (!index.isValid() || index.row() < 0 || index.row() >= count()) {
        return {};
    }
    const GroupItem &group = items_[static_cast<std::size_t>(index.row())];
    const auto &retention = group.retentionSettings;
    switch (role) {
    case Qt::DisplayRole:
    case NameRole:
        return text(group.name);
    case GroupIDRole:
        return static_cast<qlonglong>(group.groupID);
    case WalkPathsRole: {
        QStringList paths;
        paths.reserve(static_cast<qsizetype>(group.walkPaths.size()));
        for (const auto &path : group.walkPaths) {
            paths << text(path);
        }
        return paths;
    }
    case HasRetentionSettingsRole:
        return retention.has_value();
    case RetentionDaysRole:
        return retention ? optionalNumber(retention->retentionDays) : QVariant();
    case RetentionEnabledRole:
        return retention && retention->isEnabled();
    case LastRetentionTimeRole:
        return retention ? date(retention->lastRetentionTime) : QVariant();
    case LastRetentionFileCountRole:
        return retention ? optionalNumber(retention->lastRetentionFileCount) : QVariant();
    case LastRetentionByteCountRole:
        return retention ? optionalNumber(retention->lastRetentionByteCount) : QVariant();
    default:
        return {};
    }
}

QHash<int, QByteArray> GroupsModel::roleNames() const {
    return {
        {GroupIDRole, "groupID"},
        {NameRole, "name"},
        {WalkPathsRole, "walkPaths"},
        {HasRetentionSettingsRole, "hasRetentionSettings"},
        {RetentionDaysRole, "retentionDays"},
        {RetentionEnabledRole, "retentionEnabled"},
        {LastRetentionTimeRole, "lastRetentionTime"},
        {LastRetentionFileCountRole, "lastRetentionFileCount"},
        {LastRetentionByteCountRole, "lastRetentionByteCount"},
    };
}

} // namespace tarnwick
