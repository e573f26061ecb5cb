#pragma once

#include <QHash>
#include <QIdentityProxyModel>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QtQml/qqmlregistration.h>

#include <vector>

namespace tarnwick {
class GroupsModel;
}

namespace tarnwick::ui {

// The watched folders as the status list shows them: the folder model's rows
// and roles, plus what a card needs to tell folders apart and explain itself.
//
// - "location": for a folder whose name another folder also has, the name of
//   the folder it sits in ("Work" for /home/ana/Work/Documents beside
//   /home/ana/Documents); when the parents' names are the same too, as many
//   of the last parent folders as it takes ("a/Work", "b/Work"), up to the
//   whole path of the parent; the folder's own path when another folder of
//   that name has the same parent. Empty for a name of its own.
// - "groupName": the name of the folder's sync group, once the groups are
//   known; empty before.
// - "error" is empty text, not nothing, for a folder without an error.
//
// Large lists stay cheap: a status report that changes no name touches only
// the rows it changed.
class FolderStatusModel : public QIdentityProxyModel {
    Q_OBJECT
    QML_ELEMENT
    // The group list the group names come from (the model's `groups`).
    Q_PROPERTY(QAbstractItemModel *groups READ groups WRITE setGroups NOTIFY groupsChanged)

public:
    enum Role { LocationRole = Qt::UserRole + 200, GroupNameRole };
    Q_ENUM(Role)

    explicit FolderStatusModel(QObject *parent = nullptr);

    void setSourceModel(QAbstractItemModel *source) override;
    QAbstractItemModel *groups() const;
    void setGroups(QAbstractItemModel *groups);

    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    // The shortest run of trailing parent folder names that tells `path`
    // apart from each of `others` ("" when `others` holds only `path`; `path`
    // itself when one of them has the same parent).
    static QString distinguishingParent(const QString &path, const QStringList &others);

signals:
    void groupsChanged();

private:
    QString nameAt(int row) const;
    QString pathAt(int row) const;
    // Reads every row again; announces the rows whose location changed.
    void rebuild();
    void sourceDataChanged(const QModelIndex &topLeft, const QModelIndex &bottomRight,
                           const QList<int> &roles);
    void announceLocations();
    void announceGroupNames();

    QPointer<GroupsModel> groups_;
    QList<QMetaObject::Connection> sourceConnections_;
    QList<QMetaObject::Connection> groupConnections_;
    // Per row: the name and path last read.
    std::vector<QString> names_;
    std::vector<QString> paths_;
    // The paths of every folder with a given name.
    QHash<QString, QStringList> pathsByName_;
    // Some row's location changed and is not announced yet.
    bool locationsChanged_ = false;
};

} // namespace tarnwick::ui
