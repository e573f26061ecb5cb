#include "CheckForUpdatesViewModel.h"

#include "AppcastChecker.h"

namespace tarnwick::ui {

CheckForUpdatesViewModel::CheckForUpdatesViewModel(updater::AppcastChecker *checker,
                                                   QObject *parent)
    : QObject(parent), updater_(checker) {
    if (updater_ != nullptr) {
        connect(updater_, &updater::AppcastChecker::canCheckForUpdatesChanged, this,
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
