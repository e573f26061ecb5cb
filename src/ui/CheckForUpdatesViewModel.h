#pragma once

#include <QObject>

namespace tarnwick::updater {
class AppcastChecker;
}

namespace tarnwick::ui {

// What the "Check for Updates…" button needs: whether a check may start now.
// Kept equal to the checker's own canCheckForUpdates.
class CheckForUpdatesViewModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool canCheckForUpdates READ canCheckForUpdates NOTIFY canCheckForUpdatesChanged)

public:
    explicit CheckForUpdatesViewModel(updater::AppcastChecker *checker, QObject *parent = nullptr);

    bool canCheckForUpdates() const { return canCheckForUpdates_; }

signals:
    void canCheckForUpdatesChanged();

private:
    void refresh();

    updater::AppcastChecker *updater_;
    bool canCheckForUpdates_ = false;
};

} // namespace tarnwick::ui
