#pragma once

#include "Models.h"

#include <QAbstractListModel>

#include <vector>

namespace tarnwick {

// The sync groups as last reported, as a list model. A new group list that
// keeps the same groups in the same order only signals the rows that differ.
class GroupsModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    enum Role {
        GroupIDRole = Qt::UserRole + 1,
        NameRole,
        WalkPathsRole,
        HasRetentionSettingsRole,
        RetentionDaysRole,
        RetentionEnabledRole,
        LastRetentionTimeRole,
        LastRetentionFileCountRole,
        LastRetentionByteCountRole,
    };
    Q_ENUM(Role)

    explicit GroupsModel(QObject *parent = nullptr);

    const std::vector<GroupItem> &items() const { return items_; }
    int count() const { return static_cast<int>(items_.size()); }
    // Row of the group with this ID, or -1.
    int indexOf(std::int64_t groupID) const;

    void replace(std::vector<GroupItem> groups);
    // Removes the path from every group's folder list.
    void removeWalkPath(const std::string &path);
    void setRetentionSettings(std::int64_t groupID,
                              const std::optional<RetentionSettings> &settings);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    static bool sameGroup(const GroupItem &a, const GroupItem &b);

signals:
    void countChanged();

private:
    std::vector<GroupItem> items_;
};

bool sameRetention(const std::optional<RetentionSettings> &a,
                   const std::optional<RetentionSettings> &b);

} // namespace tarnwick
