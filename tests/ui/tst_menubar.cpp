// The window's content: the login screen in place of the tabs when signed
// out, the two tabs when signed in, and the footer on modern and older
// systems, with and without an update feed; Logout (disabled while a request
// is under way; closes the window, then "logoutAndExit") and Quit (nothing
// sent).
#include "ScreenTestSupport.h"

#include "UpdaterViewModel.h"

#include <QCoreApplication>
#include <QSignalSpy>
#include <QTest>
#include <QtMath>

using namespace tarnwick::ui::test;
using tarnwick::ui::UpdaterViewModel;

namespace {

// An updater with a feed on a closed loopback port (so it counts as set up
// and its checks fail at once), or with none.
std::unique_ptr<UpdaterViewModel> makeUpdater(bool configured, bool isMacOS13 = true) {
    UpdaterViewModel::Options options;
    options.isMacOS13 = isMacOS13;
    options.checker = {};
    if (configured) {
        options.checker.feedURL = QUrl(QStringLiteral("http://127.0.0.1:9/appcast.xml"));
        options.checker.publicKey = QByteArray(32, '\x11');
    }
    options.checker.log = [](const QString &) {};
    options.print = [](const QString &) {};
    return std::make_unique<UpdaterViewModel>(std::move(options));
}

QQuickItem *shown(UiHarness &h, const char *name) {
    return h.findVisible(QString::fromLatin1(name));
}

} // namespace

class MenuBarTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { UiHarness::prepareApplication(); }

    void signedOutShowsTheLoginScreen() {
        auto updater = makeUpdater(true);
        UiHarness h;
        h.setUpdater(updater.get());
        h.model().setIsLoggedIn(false);
        QVERIFY2(h.load(QStringLiteral("MenuBarView")), qPrintable(h.errors().join('\n')));
        QVERIFY(shown(h, "loginView"));
        QVERIFY(!shown(h, "tabBar"));
        QVERIFY(!shown(h, "contentView"));
        QVERIFY(shown(h, "footer"));
        QVERIFY(shown(h, "logoutButton"));

        // Signing in replaces it with the tabs.
        h.model().setIsLoggedIn(true);
        QVERIFY(!shown(h, "loginView"));
        QVERIFY(shown(h, "tabBar"));
        QVERIFY(shown(h, "contentView"));
    }

    void signedInShowsTheTwoTabs() {
        auto updater = makeUpdater(true);
        UiHarness h;
        h.setUpdater(updater.get());
        h.model().setIsLoggedIn(true);
        QQuickItem *view = h.load(QStringLiteral("MenuBarView"));
        QVERIFY(view);
        QQuickItem *status = shown(h, "statusTabButton");
        QQuickItem *settings = shown(h, "settingsTabButton");
        QVERIFY(status && settings);
        QCOMPARE(status->property("text").toString(), "Status");
        QCOMPARE(status->property("symbol").toString(), "arrow.triangle.2.circlepath");
        QCOMPARE(settings->property("text").toString(), "Settings");
        QCOMPARE(settings->property("symbol").toString(), "gearshape");
        QVERIFY(status->mapToScene({0, 0}).x() < settings->mapToScene({0, 0}).x());
        QCOMPARE(view->property("currentTab").toInt(), 0);
        QVERIFY(shown(h, "contentView"));

        // The settings screen is made when its tab is first opened.
        auto *loader = h.find<QQuickItem>("settingsLoader");
        QVERIFY(loader);
        QVERIFY(!loader->property("active").toBool());
        h.click(settings);
        QCOMPARE(view->property("currentTab").toInt(), 1);
        QTRY_COMPARE(loader->property("status").toInt(), 1); // Loader.Ready
        QVERIFY(!shown(h, "contentView"));
        QVERIFY(shown(h, "settingsView"));
        QVERIFY(!shown(h, "settingsUnavailable"));
        h.click(status);
        QVERIFY(shown(h, "contentView"));
    }

    void footerOnModernSystems() {
        auto updater = makeUpdater(true);
        UiHarness h;
        h.setUpdater(updater.get());
        // At the size the window gives it: the view's own width.
        QQuickItem *probe = h.load(QStringLiteral("MenuBarView"));
        QVERIFY(probe);
        const int width = qCeil(probe->implicitWidth());
        QVERIFY(h.load(QStringLiteral("MenuBarView"), QSize(width, 650)));
        QQuickItem *toggle = shown(h, "launchAtLoginToggle");
        QQuickItem *update = shown(h, "checkForUpdatesButton");
        QQuickItem *logout = shown(h, "logoutButton");
        QQuickItem *version = shown(h, "versionText");
        QQuickItem *quit = shown(h, "quitButton");
        QVERIFY(toggle && update && logout && version && quit);
        QCOMPARE(toggle->property("text").toString(), "Launch at login");
        QCOMPARE(update->property("text").toString(), "Check for Updates");
        QCOMPARE(update->property("symbol").toString(), "arrow.down.circle");
        QCOMPARE(update->property("helpText").toString(), "Check for app updates");
        QCOMPARE(logout->property("text").toString(), "Logout");
        QCOMPARE(logout->property("symbol").toString(), "rectangle.portrait.and.arrow.right");
        QCOMPARE(logout->property("helpText").toString(), "Logout and quit");
        QCOMPARE(version->property("text").toString(),
                 "v" + QCoreApplication::applicationVersion());
        QVERIFY(!QCoreApplication::applicationVersion().isEmpty());
        // The caption size: smaller than the body text of the footer's buttons.
        QVERIFY(version->property("font").value<QFont>().pointSizeF() > 0);
        QVERIFY(version->property("font").value<QFont>().pointSizeF() <
                logout->property("font").value<QFont>().pointSizeF());
        QCOMPARE(quit->property("text").toString(), "Quit");
        // Left to right in the footer's order.
        const auto x = [](QQuickItem *item) { return item->mapToScene({0, 0}).x(); };
        QVERIFY(x(toggle) < x(update));
        QVERIFY(x(update) < x(logout));
        QVERIFY(x(logout) < x(version));
        QVERIFY(x(version) < x(quit));
        // Everything fits in the window.
        QVERIFY(x(quit) + quit->width() <= h.window()->width());

        // The button asks the updater for an interactive check.
        QTRY_VERIFY_WITH_TIMEOUT(updater->updaterController()->canCheckForUpdates(), 10000);
        const QDateTime before = updater->updaterController()->lastUpdateCheckDate();
        QSignalSpy started(updater->updaterController(),
                           &tarnwick::updater::AppcastChecker::canCheckForUpdatesChanged);
        h.click(update);
        QTRY_VERIFY(started.size() >= 1);
        QTRY_VERIFY_WITH_TIMEOUT(updater->updaterController()->canCheckForUpdates(), 10000);
        QVERIFY(updater->updaterController()->lastUpdateCheckDate() != before ||
                started.size() >= 2);

        // The user sees what the check found, and the update settings.
        QTRY_VERIFY(shown(h, "updateStatusText"));
        QCOMPARE(shown(h, "updateStatusText")->property("text").toString(),
                 updater->updaterController()->statusText());
        QVERIFY(!updater->updaterController()->statusText().isEmpty());
        QVERIFY(shown(h, "automaticallyChecksToggle"));
        QVERIFY(shown(h, "automaticallyDownloadsToggle"));
        h.grab(QStringLiteral("footer-update-check"));
    }

    // Each engine binds to the objects installed in it: two windows open at
    // once show their own models.
    void twoWindowsShowTheirOwnModels() {
        UiHarness signedIn;
        UiHarness signedOut;
        signedIn.model().setIsLoggedIn(true);
        signedOut.model().setIsLoggedIn(false);
        QVERIFY2(signedIn.load(QStringLiteral("MenuBarView")),
                 qPrintable(signedIn.errors().join('\n')));
        QVERIFY2(signedOut.load(QStringLiteral("MenuBarView")),
                 qPrintable(signedOut.errors().join('\n')));
        QVERIFY(shown(signedIn, "tabBar"));
        QVERIFY(!shown(signedIn, "loginView"));
        QVERIFY(!shown(signedOut, "tabBar"));
        QVERIFY(shown(signedOut, "loginView"));

        // A change to one model shows in its own window only.
        signedOut.model().setIsLoggedIn(true);
        QVERIFY(shown(signedOut, "tabBar"));
        signedIn.model().setIsWaiting(true);
        QVERIFY(!shown(signedIn, "logoutButton")->isEnabled());
        QVERIFY(shown(signedOut, "logoutButton")->isEnabled());
    }

    void footerWithoutAnUpdateFeed() {
        auto updater = makeUpdater(false);
        UiHarness h;
        h.setUpdater(updater.get());
        QVERIFY(h.load(QStringLiteral("MenuBarView")));
        QVERIFY(shown(h, "launchAtLoginToggle"));
        QVERIFY(!shown(h, "checkForUpdatesButton"));
        QVERIFY(shown(h, "logoutButton"));
        QVERIFY(shown(h, "quitButton"));
    }

    void footerWithoutAnUpdaterObject() {
        UiHarness h;
        QVERIFY(h.load(QStringLiteral("MenuBarView")));
        QVERIFY(!shown(h, "checkForUpdatesButton"));
        QVERIFY(shown(h, "quitButton"));
        QVERIFY2(h.errors().isEmpty(), qPrintable(h.errors().join('\n')));
    }

    void footerOnOlderSystems() {
        auto updater = makeUpdater(true, false);
        UiHarness h(UiHarness::Options{false, {}});
        h.setUpdater(updater.get());
        QVERIFY(h.load(QStringLiteral("MenuBarView")));
        QVERIFY(!shown(h, "launchAtLoginToggle"));
        QVERIFY(!shown(h, "checkForUpdatesButton"));
        QVERIFY(shown(h, "logoutButton"));
        QVERIFY(shown(h, "versionText"));
        QVERIFY(shown(h, "quitButton"));
    }

    void logoutIsDisabledExactlyWhileWaiting() {
        UiHarness h;
        QVERIFY(h.load(QStringLiteral("MenuBarView")));
        QQuickItem *logout = shown(h, "logoutButton");
        QQuickItem *quit = shown(h, "quitButton");
        QVERIFY(logout->isEnabled());
        h.model().setIsWaiting(true);
        QVERIFY(!logout->isEnabled());
        QVERIFY(quit->isEnabled());
        QSignalSpy closed(&h.app(), &tarnwick::ui::AppController::closeWindowRequested);
        h.click(logout);
        QCOMPARE(closed.size(), 0);
        h.model().setIsWaiting(false);
        QVERIFY(logout->isEnabled());
    }

    void logoutClosesTheWindowThenSendsLogoutAndExit() {
        ScreenWithBackend screen;
        UiHarness &h = screen.h;
        QVERIFY(h.load(QStringLiteral("MenuBarView")));
        QSignalSpy closed(&h.app(), &tarnwick::ui::AppController::closeWindowRequested);
        QSignalSpy ended(&h.model(), &tarnwick::ItemsProvider::quitRequested);
        QSignalSpy quit(&h.app(), &tarnwick::ui::AppController::quitRequested);
        h.click(shown(h, "logoutButton"));
        // The window closes at once; the request follows shortly after.
        QCOMPARE(closed.size(), 1);
        QCOMPARE(screen.requests("logoutAndExit").size(), std::size_t(0));
        QTRY_COMPARE(screen.requests("logoutAndExit").size(), std::size_t(1));
        QCOMPARE(screen.requests("logoutAndExit")[0].id, "");
        QCOMPARE(screen.requests("logoutAndExit")[0].data, "");
        // Once answered, the model asks the application to end.
        QTRY_COMPARE(ended.size(), 1);
        QCOMPARE(quit.size(), 0);
    }

    void quitSendsNothing() {
        ScreenWithBackend screen;
        UiHarness &h = screen.h;
        QVERIFY(h.load(QStringLiteral("MenuBarView")));
        QSignalSpy quit(&h.app(), &tarnwick::ui::AppController::quitRequested);
        h.model().setIsWaiting(true);
        h.click(shown(h, "quitButton"));
        QCOMPARE(quit.size(), 1);
        h.settle(300);
        QCOMPARE(screen.backend().requests().size(), std::size_t(0));
    }
};

QTEST_MAIN(MenuBarTest)
#include "tst_menubar.moc"
