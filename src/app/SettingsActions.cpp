#include "SettingsActions.h"

#include "FileSystemUtils.h"
#include "ItemsProvider.h"
#include "PollManager.h"

#include <QDir>
#include <QPointer>

#include <memory>

namespace tarnwick {

using pathcheck::FileSystemUtils;

SettingsActions::SettingsActions(ItemsProvider &model, QObject *parent)
    : QObject(parent), model_(model) {}

SettingsActions::AddCheck SettingsActions::checkFolder(const QString &path) {
    if (FileSystemUtils::isICloudSyncedPath(path)) {
        return {AddCheck::Verdict::needsConfirmation, path,
                FileSystemUtils::getICloudStatusMessage(path).value_or(tr(
                    "This folder appears to be synced with iCloud Drive. Files may not sync "
                    "properly as they could be stored only in iCloud and not downloaded locally. "
                    "This may cause conflicts with tarnwick sync."))};
    }
    return {AddCheck::Verdict::add, path, QString()};
}

SettingsActions::AddCheck SettingsActions::checkPhotoLibrary(const QString &libraryPath) {
    const QString originals = QDir::cleanPath(libraryPath) + QStringLiteral("/originals");
    const auto validation = FileSystemUtils::validatePhotosLibrary(libraryPath);
    if (!validation.isValid) {
        return {AddCheck::Verdict::invalid, originals, validation.message.value_or(QString())};
    }
    if (FileSystemUtils::isICloudSyncedPath(originals)) {
        return {AddCheck::Verdict::needsConfirmation, originals,
                FileSystemUtils::getICloudStatusMessage(originals).value_or(
                    tr("This Photos library appears to be synced with iCloud. This may cause sync "
                       "conflicts with tarnwick."))};
    }
    return {AddCheck::Verdict::add, originals, QString()};
}

bool SettingsActions::changeGroups(const TypeIDAndData &command, Completion done,
                                   const std::function<void()> &beforeRefresh) {
    // Whether a refresh was turned away while the command was still under
    // way: its reply may then be the first to show the change.
    struct State {
        bool commandEnded = false;
        bool refreshMissed = false;
    };
    auto state = std::make_shared<State>();
    QPointer<SettingsActions> self(this);
    const bool sent = model_.publish(
        command, [self, state, done = std::move(done)](const CommandOutcome &outcome) {
            state->commandEnded = true;
            if (!self) {
                return;
            }
            if (state->refreshMissed) {
                state->refreshMissed = false;
                self->model_.publish(commands::getGroups());
            }
            self->report(outcome);
            if (done) {
                done(outcome);
            }
        });
    if (beforeRefresh) {
        beforeRefresh();
    }
    const auto refresh = [self, state] {
        if (self && !self->model_.publish(commands::getGroups()) && !state->commandEnded) {
            state->refreshMissed = true;
        }
    };
    refresh();
    // The backend applies changes asynchronously: ask again shortly after.
    model_.clock().singleShot(std::chrono::milliseconds(refreshDelayMs), this, refresh);
    return sent;
}

void SettingsActions::report(const CommandOutcome &outcome) {
    if (outcome) {
        emit actionFailed(failureText(*outcome));
    } else {
        emit actionSucceeded();
    }
}

void SettingsActions::addFolderToSync(const QString &path, const QString &groupName) {
    addFolderToSync(path, groupName, {});
}

bool SettingsActions::addFolderToSync(const QString &path, const QString &groupName,
                                      Completion done) {
    const QString absolute = QDir(path).absolutePath();
    model_.log(absolute);
    return changeGroups(commands::addWatchDir(groupName, absolute), std::move(done));
}

void SettingsActions::removeFolder(const QString &path) {
    removeFolder(path, {});
}

bool SettingsActions::removeFolder(const QString &path, Completion done) {
    return changeGroups(commands::stopWatching(path), std::move(done),
                        [this, path] { model_.deleteItem(path); });
}

bool SettingsActions::saveRetention(const GroupItem &edited,
                                    std::function<void(std::optional<QString> error)> done) {
    if (model_.groupsModel()->indexOf(edited.groupID) < 0) {
        model_.log(QStringLiteral("Error: Group not found in ip.groups"));
        if (done) {
            done(tr("Group not found"));
        }
        return false;
    }
    const std::int64_t days = edited.retentionSettings && edited.retentionSettings->retentionDays
                                  ? *edited.retentionSettings->retentionDays
                                  : 0;
    model_.log(
        QStringLiteral("Updating retention for group %1: %2 days").arg(edited.groupID).arg(days));
    model_.groupsModel()->setRetentionSettings(edited.groupID, edited.retentionSettings);
    model_.markRetentionUpdatePending(edited.groupID);
    emit retentionUpdateStarted(edited.groupID);
    const qint64 id = edited.groupID;
    model_.updateGroupRetentionSettings(
        edited, [this, id, done = std::move(done)](const CommandOutcome &outcome) {
            std::optional<QString> failure;
            if (outcome) {
                failure = failureText(*outcome);
                model_.log(QStringLiteral("Error updating retention settings: %1")
                               .arg(QString::fromStdString(outcome->description)));
            }
            model_.clearRetentionUpdatePending(id);
            emit retentionUpdateFinished(id);
            report(outcome);
            if (done) {
                done(failure);
            }
        });
    return true;
}

} // namespace tarnwick
