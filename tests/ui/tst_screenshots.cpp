// Each state of the window rendered offscreen into
// $TARNWICK_BUILD_DIR/screenshots/<state>.png for people to look at: the
// login screen empty and with its status box, the status tab loading, empty,
// with one folder and with many, and the older systems' footer; then every
// screen in the desktop's light and dark palettes (<screen>-light.png,
// <screen>-dark.png).
#include "RecordBuilders.h"
#include "ScreenTestSupport.h"

#include "Models.h"
#include "Pickers.h"
#include "UpdaterViewModel.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <QFileInfo>
#include <QSet>
#include <QTest>

using namespace tarnwick::ui::test;
using tarnwick::DirItem;
using tarnwick::test::folder;
using tarnwick::test::group;

namespace {

// Saves the window and checks that something was drawn: the right size and
// more than a handful of colours.
void shoot(UiHarness &h, const QString &name) {
    const QImage image = h.grab(name);
    QVERIFY2(!image.isNull(), qPrintable(name));
    QCOMPARE(image.size(), h.window()->size() * h.window()->devicePixelRatio());
    QSet<QRgb> colours;
    for (int y = 0; y < image.height(); y += 3) {
        for (int x = 0; x < image.width(); x += 3) {
            colours.insert(image.pixel(x, y));
        }
    }
    QVERIFY2(colours.size() > 8, qPrintable(name));
    QVERIFY(QFileInfo::exists(UiHarness::screenshotDirectory() + "/" + name + ".png"));
}

const QSize kWindow(460, 640);

} // namespace

class ScreenshotTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { UiHarness::prepareApplication(); }

    void loginEmpty() {
        UiHarness h;
        h.model().setIsLoggedIn(false);
        QVERIFY(h.load(QStringLiteral("MainWindow"), kWindow));
        QVERIFY(h.findVisible("loginView"));
        shoot(h, QStringLiteral("login-empty"));
    }

    void loginWithStatusBox() {
        UiHarness h;
        h.model().setIsLoggedIn(false);
        h.model().setUserName(QStringLiteral("alex@tarnwick.app"));
        h.model().setError(
            QStringLiteral("6-digit code sent to alex@tarnwick.app. Check your email."));
        QVERIFY(h.load(QStringLiteral("MainWindow"), kWindow));
        QVERIFY(h.findVisible("statusBox"));
        shoot(h, QStringLiteral("login-status-box"));
        h.model().setError(QStringLiteral("Authentication failed. Please retry ..."));
        shoot(h, QStringLiteral("login-failed"));
        h.model().setError(QStringLiteral("Authenticating ..."));
        h.model().setIsWaiting(true);
        shoot(h, QStringLiteral("login-waiting"));
    }

    void statusLoading() {
        UiHarness h;
        h.model().setIsLoading(true);
        QVERIFY(h.load(QStringLiteral("MainWindow"), kWindow));
        QVERIFY(h.findVisible("loadingState"));
        shoot(h, QStringLiteral("status-loading"));
    }

    void statusEmpty() {
        UiHarness h;
        h.model().setIsLoading(false);
        QQuickItem *root = h.load(QStringLiteral("MainWindow"), kWindow);
        QVERIFY(root);
        shoot(h, QStringLiteral("status-empty-grace"));
        // After the grace period.
        auto *content = h.find<QQuickItem>("contentView");
        content->setProperty("hasTimeElapsed", true);
        QTRY_COMPARE(h.findVisible("emptyStateTitle")->property("text").toString(),
                     "No Folders Syncing");
        shoot(h, QStringLiteral("status-empty"));
    }

    void statusOneFolder() {
        UiHarness h;
        h.model().update({folder("/home/alex/Documents", "Up to date")});
        QVERIFY(h.load(QStringLiteral("MainWindow"), kWindow));
        QVERIFY(h.findVisible("listState"));
        shoot(h, QStringLiteral("status-one-folder"));
    }

    void statusManyFolders() {
        UiHarness h;
        std::vector<DirItem> items;
        const char *statuses[] = {"Up to date", "2 of 6 - Uploading file (report.pdf) ...",
                                  "Waiting", "5 of 6 - Cleaning up"};
        for (int i = 0; i < 40; ++i) {
            items.push_back(
                folder("/home/alex/Projects/project-" + std::to_string(i), statuses[i % 4]));
        }
        h.model().update(items);
        QVERIFY(h.load(QStringLiteral("MainWindow"), kWindow));
        // The pointer over the second card.
        auto *list = h.find<QQuickItem>("folderList");
        QTest::mouseMove(h.window(), list->mapToScene({200, 90}).toPoint());
        h.settle(300);
        shoot(h, QStringLiteral("status-many-folders"));
    }

    void olderSystemFooter() {
        UiHarness h(UiHarness::Options{false, {}});
        h.model().update({folder("/home/alex/Documents", "Up to date")});
        QVERIFY(h.load(QStringLiteral("MainWindow"), kWindow));
        QVERIFY(!h.findVisible("launchAtLoginToggle"));
        shoot(h, QStringLiteral("status-older-system"));
    }

    void everyScreenLightAndDark_data() {
        QTest::addColumn<bool>("dark");
        QTest::newRow("light") << false;
        QTest::newRow("dark") << true;
    }
    void everyScreenLightAndDark() {
        QFETCH(bool, dark);
        const QPalette before = QGuiApplication::palette();
        QGuiApplication::setPalette(desktopPalette(dark));
        const QString scheme = dark ? QStringLiteral("-dark") : QStringLiteral("-light");
        UiHarness::Options options;
        options.manualClock = true;
        {
            UiHarness h(options);
            h.model().setIsLoggedIn(false);
            h.model().setUserName(QStringLiteral("alex@tarnwick.app"));
            h.model().setError(
                QStringLiteral("6-digit code sent to alex@tarnwick.app. Check your email."));
            QVERIFY(h.load(QStringLiteral("MainWindow"), kWindow));
            shoot(h, QStringLiteral("login") + scheme);
        }
        {
            UiHarness h(options);
            h.model().setIsLoggedIn(true);
            DirItem failing = folder("/home/alex/Notes", "Up to date");
            failing.error = "permission denied";
            h.model().update({folder("/home/alex/Documents", "Up to date"),
                              folder("/home/alex/Music", "3 of 6 - Checking uploaded files (12)"),
                              folder("/home/alex/Pictures", ""), failing});
            QVERIFY(h.load(QStringLiteral("MainWindow"), kWindow));
            shoot(h, QStringLiteral("status") + scheme);
            // The keyboard focus on the first card.
            h.window()->requestActivate();
            QTRY_VERIFY(h.window()->isActive());
            QTest::keyClick(h.window(), Qt::Key_Tab);
            QTest::keyClick(h.window(), Qt::Key_Tab);
            QTest::keyClick(h.window(), Qt::Key_Tab);
            shoot(h, QStringLiteral("status-focus") + scheme);
        }
        {
            ScreenWithBackend s(options);
            UiHarness &h = s.h;
            h.model().setIsLoggedIn(true);
            h.model().groupsModel()->replace(
                {group(1, "Personal", {"/home/alex/Documents", "/home/alex/Pictures/originals"}),
                 group(2, "Family photos and videos", {}, 30)});
            QVERIFY(h.load(QStringLiteral("MainWindow"), kWindow));
            h.click(h.findVisible(QStringLiteral("settingsTabButton")));
            QTRY_VERIFY(h.findVisible(QStringLiteral("groupCard2")));
            QTRY_VERIFY_WITH_TIMEOUT(!h.model().isWaiting(), 10000);
            shoot(h, QStringLiteral("settings") + scheme);
            h.click(h.findVisible(QStringLiteral("retentionButton")));
            QTRY_VERIFY(h.findVisible(QStringLiteral("retentionSettingsView")));
            shoot(h, QStringLiteral("retention") + scheme);
            h.click(h.findVisible(QStringLiteral("retentionCancelButton")));
            QTRY_VERIFY(h.findVisible(QStringLiteral("groupCard1")));
            h.click(h.findVisible(QStringLiteral("photosButton")));
            QTRY_VERIFY(h.findVisible(QStringLiteral("photoLibraryInstructionsView")));
            shoot(h, QStringLiteral("photos-instructions") + scheme);
        }
        {
            // The iCloud alert: the picker chooses a folder with an iCloud
            // placeholder beside it.
            QTemporaryDir dir;
            QVERIFY(dir.isValid());
            const QString folder = dir.filePath(QStringLiteral("placeholder/Reports"));
            QVERIFY(QDir().mkpath(folder));
            QFile placeholder(dir.filePath(QStringLiteral("placeholder/.budget.xlsx.icloud")));
            QVERIFY(placeholder.open(QIODevice::WriteOnly));
            placeholder.write("x");
            placeholder.close();
            tarnwick::ui::Pickers pickers;
            pickers.setRunner([folder](const tarnwick::ui::Pickers::Request &) {
                return std::optional<QString>(folder);
            });
            ScreenWithBackend s(options);
            UiHarness &h = s.h;
            h.setPickers(&pickers);
            h.model().setIsLoggedIn(true);
            h.model().groupsModel()->replace({group(1, "Personal")});
            QVERIFY(h.load(QStringLiteral("MainWindow"), kWindow));
            h.click(h.findVisible(QStringLiteral("settingsTabButton")));
            QTRY_VERIFY(h.findVisible(QStringLiteral("groupCard1")));
            QTRY_VERIFY_WITH_TIMEOUT(!h.model().isWaiting(), 10000);
            h.click(h.findVisible(QStringLiteral("folderButton")));
            QTRY_VERIFY(h.findVisible(QStringLiteral("iCloudAlertMessage")));
            h.settle(300);
            shoot(h, QStringLiteral("icloud-alert") + scheme);
        }
        {
            // The update panel of a build with an update feed.
            tarnwick::ui::UpdaterViewModel::Options updaterOptions = unansweredFeedUpdater();
            tarnwick::ui::UpdaterViewModel updater(std::move(updaterOptions));
            UiHarness h(options);
            h.setUpdater(&updater);
            h.model().setIsLoggedIn(true);
            QVERIFY(h.load(QStringLiteral("MainWindow"), QSize(550, 640)));
            h.click(h.findVisible(QStringLiteral("checkForUpdatesButton")));
            QTRY_VERIFY(h.find(QStringLiteral("updatesPanel"))->property("opened").toBool());
            h.settle(300);
            shoot(h, QStringLiteral("update-panel") + scheme);
        }
        {
            UiHarness h(options);
            QVERIFY(h.load(QStringLiteral("BackendFailedView"), kWindow));
            // On the window's background, as the window shows it.
            h.window()->setColor(QGuiApplication::palette().color(QPalette::Window));
            shoot(h, QStringLiteral("backend-failed") + scheme);
        }
        QGuiApplication::setPalette(before);
    }
};

QTEST_MAIN(ScreenshotTest)
#include "tst_screenshots.moc"
