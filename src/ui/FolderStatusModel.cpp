#include "FolderStatusModel.h"

#include "DirItemsModel.h"
#include "GroupsModel.h"

#include <algorithm>
#include <utility>

namespace tarnwick::ui {

namespace {

QStringList parentFolders(const QString &path) {
    QStringList parts = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (!parts.isEmpty()) {
        parts.removeLast();
    }
    return parts;
}

// The last `count` names of `folders`; all of them, from the root, when
// there are no more than that.
QString lastFolders(const QStringList &folders, qsizetype count) {
    if (count >= folders.size()) {
        return QLatin1Char('/') + folders.join(QLatin1Char('/'));
    }
    return folders.sliced(folders.size() - count).join(QLatin1Char('/'));
}

} // namespace

FolderStatusModel::FolderStatusModel(QObject *parent) : QIdentityProxyModel(parent) {}

void FolderStatusModel::setSourceModel(QAbstractItemModel *source) {
    for (const QMetaObject::Connection &connection : std::as_const(sourceConnections_)) {
        disconnect(connection);
    }
    sourceConnections_.clear();

    // The caches are read again before the proxy passes a change on, so the
    // views that hear of it read the new locations; the rows whose location
    // changed with it are announced after.
    if (source != nullptr) {
        const auto structure = [this] { rebuild(); };
        sourceConnections_ << connect(source, &QAbstractItemModel::rowsInserted, this, structure)
                           << connect(source, &QAbstractItemModel::rowsRemoved, this, structure)
                           << connect(source, &QAbstractItemModel::rowsMoved, this, structure)
                           << connect(source, &QAbstractItemModel::modelReset, this, structure)
                           << connect(source, &QAbstractItemModel::layoutChanged, this, structure)
                           << connect(source, &QAbstractItemModel::dataChanged, this,
                                      &FolderStatusModel::sourceDataChanged);
    }
    QIdentityProxyModel::setSourceModel(source);
    if (source != nullptr) {
        const auto announce = [this] { announceLocations(); };
        sourceConnections_ << connect(source, &QAbstractItemModel::rowsInserted, this, announce)
                           << connect(source, &QAbstractItemModel::rowsRemoved, this, announce)
                           << connect(source, &QAbstractItemModel::rowsMoved, this, announce)
                           << connect(source, &QAbstractItemModel::modelReset, this, announce)
                           << connect(source, &QAbstractItemModel::layoutChanged, this, announce)
                           << connect(source, &QAbstractItemModel::dataChanged, this, announce);
    }
    rebuild();
    announceLocations();
}

QAbstractItemModel *FolderStatusModel::groups() const {
    return groups_.data();
}

void FolderStatusModel::setGroups(QAbstractItemModel *groups) {
    auto *model = qobject_cast<GroupsModel *>(groups);
    if (model == groups_) {
        return;
    }
    for (const QMetaObject::Connection &connection : std::as_const(groupConnections_)) {
        disconnect(connection);
    }
    groupConnections_.clear();
    groups_ = model;
    if (model != nullptr) {
        const auto changed = [this] { announceGroupNames(); };
        groupConnections_ << connect(model, &QAbstractItemModel::rowsInserted, this, changed)
                          << connect(model, &QAbstractItemModel::rowsRemoved, this, changed)
                          << connect(model, &QAbstractItemModel::modelReset, this, changed)
                          << connect(model, &QAbstractItemModel::dataChanged, this, changed);
    }
    announceGroupNames();
    emit groupsChanged();
}

QString FolderStatusModel::nameAt(int row) const {
    return sourceModel()->index(row, 0).data(DirItemsModel::NameRole).toString();
}

QString FolderStatusModel::pathAt(int row) const {
    return sourceModel()->index(row, 0).data(DirItemsModel::PathRole).toString();
}

void FolderStatusModel::rebuild() {
    const QHash<QString, QStringList> before = std::exchange(pathsByName_, {});
    names_.clear();
    paths_.clear();
    const int rows = sourceModel() != nullptr ? sourceModel()->rowCount() : 0;
    names_.reserve(static_cast<std::size_t>(rows));
    paths_.reserve(static_cast<std::size_t>(rows));
    for (int row = 0; row < rows; ++row) {
        names_.push_back(nameAt(row));
        paths_.push_back(pathAt(row));
        pathsByName_[names_.back()].append(paths_.back());
    }
    // Only names that more than one folder has give a location.
    const auto shared = [](const QHash<QString, QStringList> &byName) {
        QHash<QString, QStringList> out;
        for (auto it = byName.cbegin(); it != byName.cend(); ++it) {
            if (it.value().size() > 1) {
                out.insert(it.key(), it.value());
            }
        }
        return out;
    };
    if (shared(before) != shared(pathsByName_)) {
        locationsChanged_ = true;
    }
}

void FolderStatusModel::sourceDataChanged(const QModelIndex &topLeft,
                                          const QModelIndex &bottomRight, const QList<int> &roles) {
    if (!roles.isEmpty() && !roles.contains(DirItemsModel::NameRole) &&
        !roles.contains(DirItemsModel::PathRole)) {
        return;
    }
    const int last = std::min(bottomRight.row(), static_cast<int>(names_.size()) - 1);
    for (int row = std::max(topLeft.row(), 0); row <= last; ++row) {
        const auto at = static_cast<std::size_t>(row);
        const QString name = nameAt(row);
        const QString path = pathAt(row);
        if (name == names_[at] && path == paths_[at]) {
            continue;
        }
        // A folder renamed (rare): every location may move.
        rebuild();
        return;
    }
}

void FolderStatusModel::announceLocations() {
    if (!locationsChanged_) {
        return;
    }
    locationsChanged_ = false;
    if (rowCount() > 0) {
        emit dataChanged(index(0, 0), index(rowCount() - 1, 0), {LocationRole});
    }
}

void FolderStatusModel::announceGroupNames() {
    if (sourceModel() != nullptr && rowCount() > 0) {
        emit dataChanged(index(0, 0), index(rowCount() - 1, 0), {GroupNameRole});
    }
}

QVariant FolderStatusModel::data(const QModelIndex &index, int role) const {
    if (!index.isValid() || index.model() != this) {
        return {};
    }
    switch (role) {
    case LocationRole: {
        const QModelIndex source = mapToSource(index);
        const QStringList &sameName =
            pathsByName_.value(source.data(DirItemsModel::NameRole).toString());
        if (sameName.size() < 2) {
            return QString();
        }
        return distinguishingParent(source.data(DirItemsModel::PathRole).toString(), sameName);
    }
    case GroupNameRole: {
        if (groups_ == nullptr) {
            return QString();
        }
        const qint64 groupID = mapToSource(index).data(DirItemsModel::GroupIDRole).toLongLong();
        const int row = groups_->indexOf(groupID);
        if (row < 0) {
            return QString();
        }
        return QString::fromStdString(groups_->items()[static_cast<std::size_t>(row)].name);
    }
    case DirItemsModel::ErrorRole:
        // No error is an empty text to the cards.
        return QIdentityProxyModel::data(index, role).toString();
    default:
        return QIdentityProxyModel::data(index, role);
    }
}

QHash<int, QByteArray> FolderStatusModel::roleNames() const {
    QHash<int, QByteArray> names = QIdentityProxyModel::roleNames();
    names.insert(LocationRole, "location");
    names.insert(GroupNameRole, "groupName");
    return names;
}

QString FolderStatusModel::distinguishingParent(const QString &path, const QStringList &others) {
    const QStringList mine = parentFolders(path);
    QList<QStringList> theirs;
    for (const QString &other : others) {
        if (other != path) {
            theirs.append(parentFolders(other));
        }
    }
    if (theirs.isEmpty()) {
        return QString();
    }
    // The last `count` parent names of two paths match only when both have
    // that many.
    const auto sameEnd = [](const QStringList &a, const QStringList &b, qsizetype count) {
        return a.size() >= count && b.size() >= count &&
               a.sliced(a.size() - count) == b.sliced(b.size() - count);
    };
    // (A folder at the root has no parent names: it starts with the root.)
    for (qsizetype count = std::min<qsizetype>(1, mine.size()); count <= mine.size(); ++count) {
        bool apart = true;
        for (const QStringList &other : std::as_const(theirs)) {
            // All of them are shown from the root: only the same parent
            // reads the same then.
            const bool same = count == mine.size() ? other == mine : sameEnd(mine, other, count);
            if (same) {
                apart = false;
                break;
            }
        }
        if (apart) {
            return lastFolders(mine, count);
        }
    }
    // Another folder of that name sits in the same folder (the backend names
    // folders itself): only the folder's own path tells them apart.
    return QLatin1Char('/') +
           path.split(QLatin1Char('/'), Qt::SkipEmptyParts).join(QLatin1Char('/'));
}

} // namespace tarnwick::ui
