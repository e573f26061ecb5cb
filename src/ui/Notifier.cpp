#include "Notifier.h"

#include "ItemsProvider.h"

namespace tarnwick::ui {

Notifier::Notifier(ItemsProvider &model, std::function<bool()> windowVisible, Show show,
                   QObject *parent)
    : QObject(parent), model_(model), windowVisible_(std::move(windowVisible)),
      show_(std::move(show)) {
    connect(&model_, &ItemsProvider::isLoggedInChanged, this, &Notifier::loginStateChanged);
    // The failure's text is set just after the state changes: read both once
    // the change has settled.
    connect(&model_, &ItemsProvider::backendFailedChanged, this, &Notifier::backendStateChanged,
            Qt::QueuedConnection);
}

QString Notifier::signInTitle() {
    return tr("Sign in to Tarnwick");
}

QString Notifier::signInMessage() {
    return tr("Your folders are not syncing until you sign in. Open Tarnwick from its tray "
              "icon to sign in.");
}

QString Notifier::backendFailedTitle() {
    return tr("Tarnwick has stopped syncing");
}

QString Notifier::backendFailedMessage(const QString &error) {
    QString message = error.isEmpty() ? tr("The sync engine stopped.") : error;
    return tr("%1 Open Tarnwick and choose \"Restart backend\" to try again.").arg(message);
}

void Notifier::loginStateChanged() {
    if (model_.isLoggedIn()) {
        signInNotified_ = false;
        return;
    }
    // A user looking at the window sees the login screen already.
    if (signInNotified_ || (windowVisible_ && windowVisible_())) {
        return;
    }
    signInNotified_ = true;
    show_(signInTitle(), signInMessage());
}

void Notifier::backendStateChanged() {
    if (!model_.backendFailed()) {
        failureNotified_ = false;
        return;
    }
    // Nothing is drawn over the open window, which shows the failure itself.
    if (failureNotified_ || (windowVisible_ && windowVisible_())) {
        return;
    }
    failureNotified_ = true;
    show_(backendFailedTitle(), backendFailedMessage(model_.error()));
}

} // namespace tarnwick::ui
