#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QSet>
#include <QString>

namespace tarnwick::ui {

// Notifications through the desktop's notification service
// (org.freedesktop.Notifications on the session bus): the application's
// name and icon, and a default action (a click on the notification) that
// asks for the window. Calls never wait for the service.
class DesktopNotifications : public QObject {
    Q_OBJECT

public:
    static constexpr const char *serviceName = "org.freedesktop.Notifications";
    static constexpr const char *objectPath = "/org/freedesktop/Notifications";

    explicit DesktopNotifications(QObject *parent = nullptr);
    DesktopNotifications(const QDBusConnection &bus, QObject *parent = nullptr);

    // Whether the service runs on the bus, or the bus can start it.
    bool isServiceAvailable() const;
    // Sends a notification; false (nothing sent) when there is no service,
    // so that the caller can tell the user another way.
    bool notify(const QString &title, const QString &message);
    // The icon name sent with every notification (the application's id, as
    // its desktop entry and icon are named).
    static QString iconName();

signals:
    // The service took a notification and gave it this id.
    void shown(uint id);
    // The user clicked one of ours (its default action).
    void activated();

private slots:
    void actionInvoked(uint id, const QString &action);
    void notificationClosed(uint id, uint reason);

private:
    QDBusConnection bus_;
    QSet<uint> ours_;
};

} // namespace tarnwick::ui
