// Notifications through the desktop's notification service: the test starts
// a private session bus (dbus-daemon with a configuration of its own) and a
// small org.freedesktop.Notifications service on it, and sees what the
// client sends: the application's name and icon, the title and text, and a
// default action whose click asks for the window. Without the service the
// client says so (and the caller falls back to the tray), and while the
// window is open and visible nothing is sent at all.
#include "DesktopNotifications.h"
#include "Notifier.h"
#include "UiHarness.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

using tarnwick::ui::DesktopNotifications;
using tarnwick::ui::Notifier;
using tarnwick::ui::test::UiHarness;

namespace {

struct Received {
    QString appName;
    uint replacesId = 0;
    QString appIcon;
    QString summary;
    QString body;
    QStringList actions;
    QVariantMap hints;
    int timeout = 0;
};

// The service's side: remembers every notification and answers with ids
// from 1 up.
class NotificationService : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    QList<Received> received;

public slots:
    uint Notify(const QString &appName, uint replacesId, const QString &appIcon,
                const QString &summary, const QString &body, const QStringList &actions,
                const QVariantMap &hints, int timeout) {
        received.append({appName, replacesId, appIcon, summary, body, actions, hints, timeout});
        return uint(received.size());
    }
    QStringList GetCapabilities() { return {QStringLiteral("actions"), QStringLiteral("body")}; }
    void CloseNotification(uint id) { emit NotificationClosed(id, 3); }

signals:
    void ActionInvoked(uint id, const QString &actionKey);
    void NotificationClosed(uint id, uint reason);
};

// A session bus of the test's own.
class PrivateBus {
public:
    bool start() {
        if (!dir_.isValid()) {
            return false;
        }
        const QString daemon = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
        if (daemon.isEmpty()) {
            qWarning() << "dbus-daemon is not installed";
            return false;
        }
        const QString config = dir_.filePath(QStringLiteral("session.conf"));
        QFile file(config);
        if (!file.open(QIODevice::WriteOnly)) {
            return false;
        }
        // A session bus that lets everyone own names and talk to everyone.
        file.write(QStringLiteral("<busconfig>\n"
                                  "  <type>session</type>\n"
                                  "  <listen>unix:dir=%1</listen>\n"
                                  "  <auth>EXTERNAL</auth>\n"
                                  "  <policy context=\"default\">\n"
                                  "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                                  "    <allow eavesdrop=\"true\"/>\n"
                                  "    <allow own=\"*\"/>\n"
                                  "  </policy>\n"
                                  "</busconfig>\n")
                       .arg(dir_.path())
                       .toUtf8());
        file.close();
        process_.setProgram(daemon);
        process_.setArguments({QStringLiteral("--config-file=") + config,
                               QStringLiteral("--print-address=1"), QStringLiteral("--nofork")});
        process_.start();
        if (!process_.waitForStarted(10000)) {
            return false;
        }
        while (!process_.canReadLine()) {
            if (!process_.waitForReadyRead(10000)) {
                return false;
            }
        }
        address_ = QString::fromUtf8(process_.readLine()).trimmed();
        return !address_.isEmpty();
    }
    ~PrivateBus() {
        process_.terminate();
        process_.waitForFinished(5000);
    }
    QDBusConnection connect(const QString &name) const {
        return QDBusConnection::connectToBus(address_, name);
    }

private:
    QTemporaryDir dir_;
    QProcess process_;
    QString address_;
};

} // namespace

class NotificationsTest : public QObject {
    Q_OBJECT
    PrivateBus bus_;
    NotificationService service_;

    QDBusConnection serviceBus() const {
        return QDBusConnection(QStringLiteral("notification-service"));
    }

private slots:
    void initTestCase() {
        UiHarness::prepareApplication();
        QVERIFY2(bus_.start(), "the private session bus did not start");
        QDBusConnection serviceBus = bus_.connect(QStringLiteral("notification-service"));
        QVERIFY(serviceBus.isConnected());
        QVERIFY(serviceBus.registerObject(
            QString::fromLatin1(DesktopNotifications::objectPath), &service_,
            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals));
        QVERIFY(serviceBus.registerService(QString::fromLatin1(DesktopNotifications::serviceName)));
    }

    void aNotificationReachesTheServiceAndItsClickOpensTheWindow() {
        QDBusConnection client = bus_.connect(QStringLiteral("client"));
        QVERIFY(client.isConnected());
        DesktopNotifications notifications(client);
        QVERIFY(notifications.isServiceAvailable());
        QSignalSpy shown(&notifications, &DesktopNotifications::shown);
        QSignalSpy activated(&notifications, &DesktopNotifications::activated);

        service_.received.clear();
        QVERIFY(notifications.notify(Notifier::signInTitle(), Notifier::signInMessage()));
        QTRY_COMPARE_WITH_TIMEOUT(service_.received.size(), 1, 10000);
        const Received &r = service_.received.first();
        QCOMPARE(r.appName, "Tarnwick");
        QCOMPARE(r.appIcon, DesktopNotifications::iconName());
        QCOMPARE(r.appIcon, "app.tarnwick.Tarnwick");
        QCOMPARE(r.summary, "Sign in to Tarnwick");
        QCOMPARE(r.body, Notifier::signInMessage());
        QCOMPARE(r.replacesId, 0u);
        QVERIFY(r.actions.size() >= 2);
        QCOMPARE(r.actions.at(0), "default");
        QCOMPARE(r.hints.value(QStringLiteral("desktop-entry")).toString(),
                 "app.tarnwick.Tarnwick");
        QTRY_COMPARE_WITH_TIMEOUT(shown.count(), 1, 10000);
        const uint id = shown.first().first().toUInt();

        // Another notification's click, or another action, is not ours.
        emit service_.ActionInvoked(id + 100, QStringLiteral("default"));
        emit service_.ActionInvoked(id, QStringLiteral("other"));
        // The click on ours asks for the window.
        emit service_.ActionInvoked(id, QStringLiteral("default"));
        QTRY_COMPARE_WITH_TIMEOUT(activated.count(), 1, 10000);
        // A second click: the bus keeps one sender's signals in order, so
        // once it has arrived the two strangers above have been seen too.
        emit service_.ActionInvoked(id, QStringLiteral("default"));
        QTRY_COMPARE_WITH_TIMEOUT(activated.count(), 2, 10000);
        QCOMPARE(activated.count(), 2);
    }

    void theNotifierSendsNothingWhileTheWindowIsVisible() {
        QDBusConnection client = bus_.connect(QStringLiteral("notifier-client"));
        DesktopNotifications notifications(client);
        UiHarness h;
        bool windowVisible = true;
        Notifier notifier(
            h.model(), [&] { return windowVisible; },
            [&](const QString &title, const QString &message) {
                QVERIFY(notifications.notify(title, message));
            });
        service_.received.clear();
        h.model().setIsLoggedIn(true);
        h.model().setIsLoggedIn(false);
        // A marker sent afterwards on the same connection arrives after
        // anything sent before it: it arrives alone.
        QVERIFY(notifications.notify(QStringLiteral("marker"), QString()));
        QTRY_COMPARE_WITH_TIMEOUT(service_.received.size(), 1, 10000);
        QCOMPARE(service_.received.first().summary, "marker");
        service_.received.clear();

        // With the window closed the same change is told.
        windowVisible = false;
        h.model().setIsLoggedIn(true);
        h.model().setIsLoggedIn(false);
        QTRY_COMPARE_WITH_TIMEOUT(service_.received.size(), 1, 10000);
        QCOMPARE(service_.received.first().summary, "Sign in to Tarnwick");
    }

    void withoutTheServiceTheCallerFallsBack() {
        QVERIFY(
            serviceBus().unregisterService(QString::fromLatin1(DesktopNotifications::serviceName)));
        QDBusConnection client = bus_.connect(QStringLiteral("client-without-service"));
        DesktopNotifications notifications(client);
        QVERIFY(!notifications.isServiceAvailable());
        service_.received.clear();
        QVERIFY(!notifications.notify(QStringLiteral("t"), QStringLiteral("m")));
        QCOMPARE(service_.received.size(), 0);
        // And with no bus at all.
        DesktopNotifications disconnected(QDBusConnection(QStringLiteral("no-such-connection")));
        QVERIFY(!disconnected.isServiceAvailable());
        QVERIFY(!disconnected.notify(QStringLiteral("t"), QStringLiteral("m")));
        QVERIFY(
            serviceBus().registerService(QString::fromLatin1(DesktopNotifications::serviceName)));
    }
};

QTEST_MAIN(NotificationsTest)
#include "tst_notifications.moc"
