#pragma once

#include "Models.h"

#include <QAbstractListModel>

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tarnwick {

// The watched folders in the order first reported, as a list model. A status
// report changes only the rows whose records changed: views of a 10,000-folder
// list redraw the one folder whose status moved, not the whole list.
class DirItemsModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    enum Role {
        PathRole = Qt::UserRole + 1,
        NameRole,
        GroupIDRole,
        StatusRole,
        ErrorRole,
        EnabledRole,
        ProgressRole,
        IconRole,
    };
    Q_ENUM(Role)

    explicit DirItemsModel(QObject *parent = nullptr);

    const std::vector<DirItem> &items() const { return items_; }
    int count() const { return static_cast<int>(items_.size()); }
    // Row of the folder with this path, or -1.
    int indexOf(const std::string &path) const;

    // Merges a status report: a known path is updated in place (keeping the
    // step-2 headline above an upload line), a new one is appended, and
    // folders missing from the report stay.
    void merge(const std::vector<DirItem> &report);
    // The same for a report read as views. Neither form may be given this model's own rows. With
    // `rows`, it is given the row each element of the report went to, in order.
    void merge(std::span<const DirItemView> report, std::vector<std::uint32_t> *rows = nullptr);
    // Whether merging the last report once more would leave the list as it is. It would not
    // when an upload line met a row that was not yet uploading (the second merge keeps the
    // first line as the headline) or when the report named a folder twice.
    bool lastMergeSettled() const { return lastMergeSettled_; }
    // Drops every row with this path.
    void removePath(const std::string &path);
    // Grows whenever the list changes (a row added, changed or removed): what was derived from
    // the list at one revision holds while the revision stays.
    std::uint64_t revision() const { return revision_; }
    // The revision at which this row's record last changed (or the row came).
    std::uint64_t rowRevision(std::size_t row) const { return rowRevisions_[row]; }
    // The revision at which rows were last added or removed: while it stays, row i is the same
    // folder.
    std::uint64_t layoutRevision() const { return layoutRevision_; }

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    // A known folder after an incoming record for the same path.
    static DirItem merged(const DirItem &existing, const DirItemView &incoming);
    static bool isUploadProgress(std::string_view existing, std::string_view incoming);
    static bool sameRecord(const DirItem &a, const DirItem &b);

signals:
    void countChanged();

private:
    void rebuildIndex();

    std::vector<DirItem> items_;
    // Looked up by the views of a report too, without making a string of them.
    struct PathHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view path) const noexcept {
            return std::hash<std::string_view>{}(path);
        }
    };
    std::unordered_map<std::string, int, PathHash, std::equal_to<>> rowOfPath_;
    std::uint64_t revision_ = 0;
    std::vector<std::uint64_t> rowRevisions_;
    std::uint64_t layoutRevision_ = 0;
    bool lastMergeSettled_ = false;
};

} // namespace tarnwick
