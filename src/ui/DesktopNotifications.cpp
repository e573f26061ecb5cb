#include "DesktopNotifications.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QVariantMap>

namespace tarnwick::ui {

namespace {
const QString kInterface = QString::fromLatin1(DesktopNotifications::serviceName);
const QString kService = QString::fromLatin1(DesktopNotifications::serviceName);
const QString kPath = QString::fromLatin1(DesktopNotifications::objectPath);
} // namespace

DesktopNotifications::DesktopNotifications(QObject *parent)
    : DesktopNotifications(QDBusConnection::sessionBus(), parent) {}

DesktopNotifications::DesktopNotifications(const QDBusConnection &bus, QObject *parent)
    : QObject(parent), bus_(bus) {
    if (!bus_.isConnected()) {
        return;
    }
    bus_.connect(kService, kPath, kInterface, QStringLiteral("ActionInvoked"), this,
                 SLOT(actionInvoked(uint, QString)));
    bus_.connect(kService, kPath, kInterface, QStringLiteral("NotificationClosed"), this,
                 SLOT(notificationClosed(uint, uint)));
}

QString DesktopNotifications::iconName() {
    return QStringLiteral(TARNWICK_APP_ID);
}

bool DesktopNotifications::isServiceAvailable() const {
    if (!bus_.isConnected() || bus_.interface() == nullptr) {
        return false;
    }
    if (bus_.interface()->isServiceRegistered(kService).value()) {
        return true;
    }
    const QDBusReply<QStringList> activatable = bus_.interface()->activatableServiceNames();
    return activatable.isValid() && activatable.value().contains(kService);
}

bool DesktopNotifications::notify(const QString &title, const QString &message) {
    if (!isServiceAvailable()) {
        return false;
    }
    QDBusMessage call =
        QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Notify"));
    QVariantMap hints;
    hints.insert(QStringLiteral("desktop-entry"), iconName());
    call << QStringLiteral("Tarnwick") << uint(0) << iconName() << title << message
         << QStringList{QStringLiteral("default"), tr("Open Tarnwick")} << hints << int(-1);
    auto *watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *w) {
        const QDBusPendingReply<uint> reply = *w;
        if (reply.isValid()) {
            ours_.insert(reply.value());
            emit shown(reply.value());
        }
        w->deleteLater();
    });
    return true;
}

void DesktopNotifications::actionInvoked(uint id, const QString &action) {
    if (ours_.contains(id) && action == QLatin1String("default")) {
        emit activated();
    }
}

void DesktopNotifications::notificationClosed(uint id, uint reason) {
    Q_UNUSED(reason);
    ours_.remove(id);
}

} // namespace tarnwick::ui
