// A backend that keeps dying (the development backend with its exit fault):
// after the last recovery the window shows the failure text with "Restart
// backend" (in the status tab, the settings tab, or in the login screen's
// place when nobody is signed in), the desktop is told once, and the button
// starts a healthy backend again.
#include "DevBackendEnvironment.h"
#include "ScreenTestSupport.h"

#include "Notifier.h"
#include "PollManager.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

using namespace tarnwick::ui::test;
using tarnwick::ui::Notifier;

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
};

QTEST_MAIN(BackendFailedTest)
#include "tst_backend_failed.moc"
