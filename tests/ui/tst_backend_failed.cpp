// A backend that keeps dying (the development backend with its exit fault):
// after the last recovery the window shows the failure text with "Restart
// backend" (in the status tab, the settings tab, or in the login screen's
// place when nobody is signed in), the desktop is told once, and the button
// starts a healthy backend again. The tray icon is marked, its tooltip tells
// why, and its menu's "Restart backend" starts the backend too.
#include "DevBackendEnvironment.h"
#include "ScreenTestSupport.h"

#include "Notifier.h"
#include "PollManager.h"
#include "TrayController.h"

#include <QAction>
#include <QDir>
#include <QFileInfo>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTemporaryDir>
#include <QTest>

using namespace tarnwick::ui::test;
using tarnwick::ui::Notifier;
using tarnwick::ui::TrayController;

namespace {
const QString kCrashed = QStringLiteral("Binary crashed repeatedly. Please reinstall the app.");
}

class BackendFailedTest : public QObject {
    Q_OBJECT
    QTemporaryDir state_;

private slots:
    void initTestCase() {
        UiHarness::prepareApplication();
        QVERIFY2(tarnwick::test::developmentBackendBuilt(),
                 "the development backend must be built into the resources directory");
        QVERIFY(state_.isValid());
        tarnwick::test::useFreshHome(state_);
        qputenv("KOVRIT_DEV_STATE", state_.filePath("backend").toUtf8());
    }

    void failureViewNotificationAndRestart() {
        qputenv("KOVRIT_DEV_FAULT", "exit-after=1");
        UiHarness h(UiHarness::Options{true, [](tarnwick::ItemsProvider::Options &options) {
                                           options.launchBackend = true;
                                           options.relaunchDelay = std::chrono::milliseconds(200);
                                       }});
        bool windowVisible = false;
        QList<QPair<QString, QString>> shown;
        Notifier notifier(
            h.model(), [&] { return windowVisible; },
            [&](const QString &title, const QString &message) {
                shown.append({title, message});
            });
        QVERIFY2(h.load(QStringLiteral("MainWindow"), QSize(460, 640)),
                 qPrintable(h.errors().join('\n')));
        QVERIFY(!h.findVisible("restartBackendButton"));

        QTRY_VERIFY_WITH_TIMEOUT(h.model().backendFailed(), 40000);
        qunsetenv("KOVRIT_DEV_FAULT");
        QTRY_COMPARE(h.model().error(), kCrashed);

        // Wherever the window is (status tab or signed out), the failure and
        // the restart button show.
        QQuickItem *panel = h.findVisible("backendFailedPanel");
        QVERIFY(panel);
        QCOMPARE(panel->property("message").toString(), kCrashed);
        QCOMPARE(panel->property("type").toString(), "error");
        QVERIFY(h.findVisible("restartBackendButton"));
        QVERIFY(!h.findVisible("loginButton"));
        QVERIFY(!h.findVisible("sendCodeButton"));
        h.grab(QStringLiteral("backend-failed"));

        // Told once, with the text (besides, perhaps, the sign-in the
        // short-lived backend asked for).
        const auto failures = [&] {
            QList<QString> out;
            for (const auto &[title, message] : shown) {
                if (title == Notifier::backendFailedTitle()) {
                    out.append(message);
                }
            }
            return out;
        };
        QTRY_COMPARE(failures().size(), 1);
        QVERIFY(failures()[0].contains(kCrashed));
        QVERIFY(failures()[0].contains("Restart backend"));
        h.settle(500);
        QCOMPARE(failures().size(), 1);

        // The status tab of a signed-in user shows it too.
        h.model().setIsLoggedIn(true);
        QVERIFY(h.findVisible("contentView"));
        QVERIFY(h.findVisible("restartBackendButton"));
        QCOMPARE(h.findVisible("backendFailedPanel")->property("message").toString(), kCrashed);

        // The button starts the backend again.
        h.click(h.findVisible("restartBackendButton"));
        QVERIFY(h.model().error().isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(h.model().pm().isBackendRunning(), 15000);
        QTRY_VERIFY_WITH_TIMEOUT(!h.model().backendFailed(), 15000);
        QVERIFY(!h.findVisible("restartBackendButton"));
        // It answers again: it says nobody is signed in.
        QTRY_VERIFY_WITH_TIMEOUT(!h.model().isLoggedIn(), 15000);
        QVERIFY(h.findVisible("loginView"));
        QCOMPARE(failures().size(), 1);
    }

    void theSettingsTabShowsTheFailureToo() {
        qputenv("KOVRIT_DEV_FAULT", "exit-after=1");
        UiHarness h(UiHarness::Options{true, [](tarnwick::ItemsProvider::Options &options) {
                                           options.launchBackend = true;
                                           options.relaunchDelay = std::chrono::milliseconds(200);
                                       }});
        QVERIFY2(h.load(QStringLiteral("MainWindow"), QSize(460, 640)),
                 qPrintable(h.errors().join('\n')));
        QQuickItem *menuBar = h.find<QQuickItem>("menuBarView");
        QVERIFY(menuBar);

        QTRY_VERIFY_WITH_TIMEOUT(h.model().backendFailed(), 40000);
        qunsetenv("KOVRIT_DEV_FAULT");
        QTRY_COMPARE(h.model().error(), kCrashed);

        // A signed-in user on the settings tab: not a list that loads for
        // ever, but the failure and the restart button.
        h.model().setIsLoggedIn(true);
        menuBar->setProperty("currentTab", 1);
        QTRY_VERIFY(h.findVisible("settingsView"));
        QVERIFY(!h.findVisible("contentView"));
        QQuickItem *settings = h.findVisible("settingsView");
        QQuickItem *panel = h.findVisible("backendFailedPanel");
        QVERIFY(panel);
        QVERIFY(settings->isAncestorOf(panel));
        QCOMPARE(panel->property("message").toString(), kCrashed);
        QVERIFY(!h.findVisible("groupsEmptyState"));
        QVERIFY(!h.findVisible("groupList"));
        QQuickItem *restart = h.findVisible("restartBackendButton");
        QVERIFY(restart);
        QVERIFY(settings->isAncestorOf(restart));
        h.grab(QStringLiteral("backend-failed-settings"));

        // Restarted from the settings tab, the backend runs again and the
        // tab's own content comes back (the backend then says nobody is
        // signed in, and the login screen follows).
        h.click(restart);
        QVERIFY(h.model().error().isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(!h.model().backendFailed(), 15000);
        QVERIFY(!settings->property("showsFailure").toBool());
        QVERIFY(settings->property("showsList").toBool());
        QTRY_VERIFY_WITH_TIMEOUT(h.model().pm().isBackendRunning(), 15000);
        QTRY_VERIFY_WITH_TIMEOUT(!h.model().isLoggedIn(), 15000);
        QVERIFY(h.findVisible("loginView"));
        QVERIFY(!h.findVisible("restartBackendButton"));
    }

    void theTrayTellsAndRestarts() {
        qputenv("KOVRIT_DEV_FAULT", "exit-after=1");
        UiHarness h(UiHarness::Options{true, [](tarnwick::ItemsProvider::Options &options) {
                                           options.launchBackend = true;
                                           options.relaunchDelay = std::chrono::milliseconds(200);
                                       }});
        TrayController tray(h.model(), true);
        QAction *restart = nullptr;
        for (QAction *action : tray.trayIcon()->contextMenu()->actions()) {
            if (action->text() == "Restart backend") {
                restart = action;
            }
        }
        QVERIFY(restart);
        QVERIFY(!restart->isVisible());

        QTRY_VERIFY_WITH_TIMEOUT(h.model().backendFailed(), 40000);
        qunsetenv("KOVRIT_DEV_FAULT");
        QTRY_COMPARE(h.model().error(), kCrashed);
        QCOMPARE(tray.mark(), TrayController::Mark::backendFailed);
        QCOMPARE(tray.toolTip(), "Backend stopped: " + kCrashed);
        QCOMPARE(tray.trayIcon()->toolTip(), tray.toolTip());
        QVERIFY(restart->isVisible());
        QVERIFY(restart->isEnabled());
        // The icon carries the failure's mark over the model's symbol.
        QCOMPARE(tray.symbol(), h.model().menuBarString());
        const QRect mark = TrayController::markRect(32);
        const QImage icon =
            tray.trayIcon()->icon().pixmap(32, 32).toImage().convertToFormat(QImage::Format_ARGB32);
        QCOMPARE(icon.pixelColor(mark.left() + mark.width() / 4, mark.top() + mark.height() / 4 + 1)
                     .rgb(),
                 TrayController::markColor(TrayController::Mark::backendFailed).rgb());

        // The menu's restart starts the backend again.
        restart->trigger();
        QVERIFY(h.model().error().isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(!h.model().backendFailed(), 15000);
        QVERIFY(tray.mark() != TrayController::Mark::backendFailed);
        QVERIFY(!restart->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(h.model().pm().isBackendRunning(), 15000);
        // It answers: nobody is signed in.
        QTRY_VERIFY_WITH_TIMEOUT(h.model().backendAnswered(), 15000);
        QVERIFY(!h.model().isLoggedIn());
        QCOMPARE(tray.mark(), TrayController::Mark::signedOut);
        QCOMPARE(tray.toolTip(), "Not signed in");
    }
};

QTEST_MAIN(BackendFailedTest)
#include "tst_backend_failed.moc"
