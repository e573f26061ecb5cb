#include "DirItemsModel.h"

#include <algorithm>

namespace tarnwick {
namespace {

constexpr std::string_view kUploadStep = "2 of 6 - ";
constexpr std::string_view kUploadLine = "2 of 6 - Uploading file (";

QString text(const std::string &value) {
    return QString::fromUtf8(value.data(), static_cast<qsizetype>(value.size()));
}

} // namespace

DirItemsModel::DirItemsModel(QObject *parent) : QAbstractListModel(parent) {}

int DirItemsModel::indexOf(const std::string &path) const {
    const auto found = rowOfPath_.find(path);
    return found == rowOfPath_.end() ? -1 : found->second;
}

bool DirItemsModel::isUploadProgress(std::string_view existing, std::string_view incoming) {
    return existing.starts_with(kUploadStep) && incoming.starts_with(kUploadLine);
}

DirItem DirItemsModel::merged(const DirItem &existing, const DirItemView &incoming) {
    if (!isUploadProgress(existing.status, incoming.status)) {
        return incoming.toItem();
    }
    // While the backend uploads, its step headline stays on the first line and
    // the upload progress shows under it instead of replacing it.
    DirItem result = existing;
    result.status = existing.status.substr(0, existing.status.find('\n'));
    result.status.push_back('\n');
    result.status.append(incoming.status.substr(kUploadStep.size()));
    return result;
}

bool DirItemsModel::sameRecord(const DirItem &a, const DirItem &b) {
    return a.path == b.path && a.status == b.status && a.name == b.name && a.groupID == b.groupID &&
           a.enabled == b.enabled && a.error == b.error;
}

void DirItemsModel::merge(const std::vector<DirItem> &report) {
    std::vector<DirItemView> views;
    views.reserve(report.size());
    for (const DirItem &item : report) {
        views.push_back(DirItemView::of(item));
    }
    merge(views);
}

void DirItemsModel::merge(std::span<const DirItemView> report, std::vector<std::uint32_t> *rows) {
    std::vector<bool> changed(items_.size(), false);
    std::vector<bool> touched(items_.size(), false);
    std::vector<DirItem> appended;
    std::unordered_map<std::string, std::size_t, PathHash, std::equal_to<>> appendedIndex;
    bool settled = true;
    if (rows) {
        rows->clear();
        rows->reserve(report.size());
    }
    const auto placed = [rows](std::size_t row) {
        if (rows) {
            rows->push_back(static_cast<std::uint32_t>(row));
        }
    };
    // Only an upload line can merge into something other than itself.
    const auto settles = [](const DirItem &row, const DirItemView &incoming) {
        return !incoming.status.starts_with(kUploadLine) || sameRecord(row, merged(row, incoming));
    };

    for (std::size_t i = 0; i < report.size(); ++i) {
        const DirItemView &incoming = report[i];
        // The rows' texts lie apart from the rows, wherever each was allocated: those a few
        // rows ahead are fetched while this one is compared.
        if (constexpr std::size_t ahead = 8; i + ahead < items_.size()) {
            prefetchTexts(items_[i + ahead]);
        }
        // A report lists the folders in the order of the last one as a rule, so the row at the
        // same place is tried before the index (paths are unique in the list).
        int row = -1;
        if (i < items_.size() && items_[i].path == incoming.path) {
            row = static_cast<int>(i);
        } else if (const auto found = rowOfPath_.find(incoming.path); found != rowOfPath_.end()) {
            row = found->second;
        }
        if (row >= 0) {
            const auto at = static_cast<std::size_t>(row);
            placed(at);
            DirItem &existing = items_[at];
            if (touched[at]) {
                settled = false; // named twice
            }
            touched[at] = true;
            if (!isUploadProgress(existing.status, incoming.status)) {
                // merged() would be the incoming record itself: compared and written in place.
                if (incoming.assignTo(existing)) {
                    changed[at] = true;
                    rowRevisions_[at] = ++revision_;
                }
            } else if (DirItem next = merged(existing, incoming); !sameRecord(existing, next)) {
                existing = std::move(next);
                changed[at] = true;
                rowRevisions_[at] = ++revision_;
            }
            settled = settled && settles(existing, incoming);
        } else if (const auto pending = appendedIndex.find(incoming.path);
                   pending != appendedIndex.end()) {
            // The same path twice in one report: the later entry merges into
            // the one appended a moment ago.
            placed(items_.size() + pending->second);
            DirItem &existing = appended[pending->second];
            existing = merged(existing, incoming);
            settled = false;
        } else {
            placed(items_.size() + appended.size());
            appendedIndex.emplace(incoming.path, appended.size());
            appended.push_back(incoming.toItem());
            settled = settled && settles(appended.back(), incoming);
        }
    }
    lastMergeSettled_ = settled;

    // One dataChanged per run of adjacent changed rows.
    for (std::size_t row = 0; row < changed.size();) {
        if (!changed[row]) {
            ++row;
            continue;
        }
        std::size_t last = row;
        while (last + 1 < changed.size() && changed[last + 1]) {
            ++last;
        }
        emit dataChanged(index(static_cast<int>(row)), index(static_cast<int>(last)));
        row = last + 1;
    }

    if (!appended.empty()) {
        ++revision_;
        const int first = count();
        beginInsertRows({}, first, first + static_cast<int>(appended.size()) - 1);
        for (DirItem &item : appended) {
            rowOfPath_.emplace(item.path, count());
            items_.push_back(std::move(item));
            rowRevisions_.push_back(revision_);
        }
        layoutRevision_ = revision_;
        endInsertRows();
        emit countChanged();
    }
}

void DirItemsModel::removePath(const std::string &path) {
    bool removed = false;
    for (int row = count() - 1; row >= 0; --row) {
        if (items_[static_cast<std::size_t>(row)].path == path) {
            beginRemoveRows({}, row, row);
            items_.erase(items_.begin() + row);
            rowRevisions_.erase(rowRevisions_.begin() + row);
            endRemoveRows();
            removed = true;
        }
    }
    if (removed) {
        ++revision_;
        layoutRevision_ = revision_;
        rebuildIndex();
        emit countChanged();
    }
}

void DirItemsModel::rebuildIndex() {
    rowOfPath_.clear();
    for (std::size_t row = 0; row < items_.size(); ++row) {
        rowOfPath_.emplace(items_[row].path, static_cast<int>(row));
    }
}

int DirItemsModel::rowCount(const QModelIndex &parent) const {
    return parent.isValid() ? 0 : count();
}

QVariant DirItemsModel::data(const QModelIndex &index, int role) const {
    if (!index.isValid() || index.row() < 0 || index.row() >= count()) {
        return {};
    }
    const DirItem &item = items_[static_cast<std::size_t>(index.row())];
    switch (role) {
    case Qt::DisplayRole:
    case NameRole:
        return text(item.name);
    case PathRole:
        return text(item.path);
    case GroupIDRole:
        return static_cast<qlonglong>(item.groupID);
    case StatusRole:
        return text(item.status);
    case ErrorRole:
        return item.error ? QVariant(text(*item.error)) : QVariant();
    case EnabledRole:
        return item.enabled;
    case ProgressRole:
        return item.progress();
    case IconRole:
        return QString::fromLatin1(item.icon());
    default:
        return {};
    }
}

QHash<int, QByteArray> DirItemsModel::roleNames() const {
    return {
        {PathRole, "path"},         {NameRole, "name"},   {GroupIDRole, "groupID"},
        {StatusRole, "status"},     {ErrorRole, "error"}, {EnabledRole, "enabled"},
        {ProgressRole, "progress"}, {IconRole, "icon"},
    };
}

} // namespace tarnwick
