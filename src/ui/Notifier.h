#pragma once

#include <QObject>
#include <QString>

#include <functional>

namespace tarnwick {
class ItemsProvider;
}

namespace tarnwick::ui {

// Decides when the desktop should tell the user something: the client needs
// a sign-in, or the backend has failed for good, while its window is closed
// (the open window shows both itself, and nothing is drawn over it).
// Each is said once per occasion (again only after a sign-in, or after the
// backend ran again).
class Notifier : public QObject {
    Q_OBJECT

public:
    using Show = std::function<void(const QString &title, const QString &message)>;

    Notifier(ItemsProvider &model, std::function<bool()> windowVisible, Show show,
             QObject *parent = nullptr);

    static QString signInTitle();
    static QString signInMessage();
    static QString backendFailedTitle();
    static QString backendFailedMessage(const QString &error);

private:
    void loginStateChanged();
    void backendStateChanged();

    ItemsProvider &model_;
    std::function<bool()> windowVisible_;
    Show show_;
    bool signInNotified_ = false;
    bool failureNotified_ = false;
};

} // namespace tarnwick::ui
