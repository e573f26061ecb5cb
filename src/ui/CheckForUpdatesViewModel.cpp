#include "CheckForUpdatesViewModel.h"

#include "AppcastChecker.h"

namespace tarnwick::ui {

CheckForUpdatesViewModel::CheckForUpdatesViewModel(AppcastChecker *updater, QObject *parent)
    : QObject(parent), updater_(updater) {
    if (updater_ != nullptr) {
        connect(updater_, &AppcastChecker::canCheckForUpdatesChanged, this,
                &CheckForUpdatesViewModel::refresh);
    }
    refresh();
}

void CheckForUpdatesViewModel::refresh() {
    const bool can = updater_ != nullptr && updater_->canCheckForUpdates();
    if (can != canCheckForUpdates_) {
        canCheckForUpdates_ = can;
        emit canCheckForUpdatesChanged();
    }
}

} // namespace tarnwick::ui
