#pragma once

#include <QObject>

namespace tarnwick::ui {

class AppcastChecker;

// What the "Check for Updates…" button needs: whether a check may start now.
// Kept equal to the checker's own canCheckForUpdates.
class CheckForUpdatesViewModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool canCheckForUpdates READ canCheckForUpdates NOTIFY canCheckForUpdatesChanged)

public:
    explicit CheckForUpdatesViewModel(AppcastChecker *updater, QObject *parent = nullptr);

    bool canCheckForUpdates() const { return canCheckForUpdates_; }

signals:
    void canCheckForUpdatesChanged();

private:
    void refresh();

    AppcastChecker *updater_;
    bool canCheckForUpdates_ = false;
};

} // namespace tarnwick::ui
