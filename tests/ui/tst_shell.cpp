// The shell's C++ parts: where the popup goes by a tray icon, the window's
// two modes (popup by the tray, ordinary without one) and its showing,
// hiding and closing, the tray icon's symbol and menu, the notifications'
// once-per-occasion rule, and when the client runs without a window.
#include "ScreenTestSupport.h"

#include "CommandLine.h"
#include "DesktopClient.h"
#include "Models.h"
#include "Notifier.h"
#include "TrayController.h"
#include "WindowController.h"

#include <QAction>
#include <QDir>
#include <QMenu>
#include <QPainter>
#include <QQuickWindow>
#include <QSignalSpy>
#include <QSystemTrayIcon>
#include <QTest>

using namespace tarnwick::ui::test;
using tarnwick::DirItem;
using tarnwick::ui::Notifier;
using tarnwick::ui::TrayController;
using tarnwick::ui::WindowController;

namespace {
DirItem folder(const std::string &path, const std::string &status) {
    DirItem item;
    item.path = path;
    item.name = path;
    item.status = status;
    item.groupID = 1;
    return item;
}

// The tray menu's shown entries, separators left out.
QStringList menuTexts(const TrayController &tray) {
    QStringList texts;
    for (QAction *action : tray.trayIcon()->contextMenu()->actions()) {
        if (!action->isSeparator() && action->isVisible()) {
            texts << action->text();
        }
    }
    return texts;
}

QAction *menuAction(const TrayController &tray, const QString &text) {
    for (QAction *action : tray.trayIcon()->contextMenu()->actions()) {
        if (action->text() == text) {
            return action;
        }
    }
    return nullptr;
}

// The colour of an icon's pixel inside its mark, off the sign in its middle.
QColor insideMark(const QIcon &icon, int size) {
    const QImage image = icon.pixmap(size, size).toImage().convertToFormat(QImage::Format_ARGB32);
    const QRectF mark = TrayController::markRect(size);
    const QPointF at = mark.center() - QPointF(mark.width() / 5, mark.width() / 5);
    return image.pixelColor(int(at.x()), int(at.y()));
}
} // namespace

class ShellTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { UiHarness::prepareApplication(); }

    void popupPosition() {
        const QRect screen(0, 0, 1280, 800);
        const QSize size(460, 640);
        // An icon in a top panel, right: under it, pulled inside the screen.
        QCOMPARE(WindowController::popupPosition(QRect(1200, 0, 24, 24), size, screen),
                 QPoint(820, 28));
        // An icon in the middle of a top panel: centred under it (QRect's
        // centre rounds down).
        QCOMPARE(WindowController::popupPosition(QRect(600, 0, 24, 24), size, screen),
                 QPoint(381, 28));
        // A bottom panel: above the icon.
        QCOMPARE(WindowController::popupPosition(QRect(600, 776, 24, 24), size, screen),
                 QPoint(381, 132));
        // A left-hand icon in a bottom panel: kept on screen at the left.
        QCOMPARE(WindowController::popupPosition(QRect(2, 776, 24, 24), size, screen),
                 QPoint(0, 132));
        // No icon position known: the top-right corner of the free area.
        QCOMPARE(WindowController::popupPosition(QRect(), size, QRect(0, 30, 1280, 770)),
                 QPoint(816, 34));
        // A screen smaller than the window: its top-left corner.
        QCOMPARE(
            WindowController::popupPosition(QRect(100, 0, 24, 24), size, QRect(0, 0, 400, 300)),
            QPoint(0, 0));
        // A second screen to the right of the first.
        QCOMPARE(WindowController::popupPosition(QRect(2500, 0, 24, 24), size,
                                                 QRect(1280, 0, 1280, 800)),
                 QPoint(2100, 28));
    }

    void windowIsCreatedOnItsFirstShowing() {
        UiHarness h;
        WindowController window(h.engine(), h.app());
        runwarden::ManualClock clock;
        window.setClock(clock);
        QVERIFY(window.prepare());
        // Checked, not created: nothing of it exists while nobody opened it.
        QVERIFY(!window.isLoaded());
        QVERIFY(!window.window());
        QVERIFY(!window.isVisible());
        window.setMode(WindowController::Mode::popup);
        window.hide();
        QVERIFY(!window.isLoaded());

        // The tray icon's click creates and shows it, as the popup asked for before.
        window.toggle(QRect(1200, 0, 24, 24));
        QVERIFY(window.isLoaded());
        QQuickWindow *w = window.window();
        QVERIFY(w);
        QVERIFY(QTest::qWaitForWindowExposed(w));
        QVERIFY(window.isVisible());
        QVERIFY(w->flags().testFlag(Qt::FramelessWindowHint));
        auto *root = qobject_cast<QQuickItem *>(w->contentItem()->childItems().value(0));
        QVERIFY(root);
        QCOMPARE(root->objectName(), "mainWindowRoot");
        window.hide();
        QVERIFY(!window.isVisible());
        // Shown again: the same window.
        clock.advance(std::chrono::milliseconds(1000));
        window.show();
        QCOMPARE(window.window(), w);
    }

    void windowModes() {
        UiHarness h;
        WindowController window(h.engine(), h.app());
        runwarden::ManualClock clock;
        window.setClock(clock);
        QVERIFY(window.load());
        QQuickWindow *w = window.window();
        QVERIFY(w);
        QCOMPARE(w->title(), "Tarnwick");
        QVERIFY(!window.isVisible());

        window.setMode(WindowController::Mode::popup);
        QVERIFY(w->flags().testFlag(Qt::FramelessWindowHint));
        QVERIFY(w->flags().testFlag(Qt::WindowStaysOnTopHint));
        QVERIFY(!h.app().framed());

        window.setMode(WindowController::Mode::ordinary);
        QVERIFY(!w->flags().testFlag(Qt::FramelessWindowHint));
        QVERIFY(h.app().framed());
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(w));
        // The content fills the window.
        auto *root = qobject_cast<QQuickItem *>(w->contentItem()->childItems().value(0));
        QVERIFY(root);
        QCOMPARE(root->objectName(), "mainWindowRoot");
        QCOMPARE(root->size(), QSizeF(w->size()));

        // The ordinary window's close button hides it and says so.
        QSignalSpy closed(&window, &WindowController::closedByUser);
        w->close();
        QCOMPARE(closed.size(), 1);
        QVERIFY(!window.isVisible());
    }

    void toggleShowHideAndClose() {
        UiHarness h;
        WindowController window(h.engine(), h.app());
        runwarden::ManualClock clock;
        window.setClock(clock);
        QVERIFY(window.load());
        window.setMode(WindowController::Mode::popup);
        const QRect icon(300, 0, 22, 22);
        window.toggle(icon);
        QVERIFY(window.isVisible());
        QVERIFY(QTest::qWaitForWindowExposed(window.window()));
        QCOMPARE(window.window()->position(),
                 WindowController::popupPosition(icon, window.window()->size(),
                                                 window.window()->screen()->availableGeometry()));
        // The same click cannot close it again at once (a notification over
        // the icon opened it and the icon got the click too)...
        window.toggle(icon);
        QVERIFY(window.isVisible());
        // ...a later click does.
        clock.advance(std::chrono::milliseconds(500));
        window.toggle(icon);
        QVERIFY(!window.isVisible());
        window.toggle(icon);
        QVERIFY(window.isVisible());

        // "Logout" closes the window through the controller.
        h.app().closeWindow();
        QVERIFY(!window.isVisible());

        // show() (a second launch, "Open Tarnwick") shows it by the last icon.
        window.show(QRect());
        QVERIFY(window.isVisible());
        QCOMPARE(window.window()->position(),
                 WindowController::popupPosition(icon, window.window()->size(),
                                                 window.window()->screen()->availableGeometry()));
    }

    void aPopupShownUnaskedStaysUntilItHasBeenUsed() {
        UiHarness h;
        WindowController window(h.engine(), h.app());
        QVERIFY(window.load());
        window.setMode(WindowController::Mode::popup);
        // The login screen the client opens by itself at start.
        window.showUnasked(QRect(300, 0, 22, 22));
        QVERIFY(QTest::qWaitForWindowActive(window.window()));
        QWindow other;
        other.resize(50, 50);
        other.show();
        other.requestActivate();
        QTRY_VERIFY(other.isActive());
        QCoreApplication::processEvents();
        QVERIFY(window.isVisible());

        // Once the user has clicked in it, it is a popup like any other.
        window.window()->requestActivate();
        QVERIFY(QTest::qWaitForWindowActive(window.window()));
        QTest::mouseClick(window.window(), Qt::LeftButton, Qt::NoModifier, QPoint(5, 5));
        other.requestActivate();
        QTRY_VERIFY(!window.isVisible());
    }

    void thePopupHidesWhenItLosesTheFocus() {
        UiHarness h;
        WindowController window(h.engine(), h.app());
        runwarden::ManualClock clock;
        window.setClock(clock);
        QVERIFY(window.load());
        window.setMode(WindowController::Mode::popup);
        window.toggle(QRect(300, 0, 22, 22));
        QVERIFY(QTest::qWaitForWindowActive(window.window()));

        // Another window takes the focus.
        QWindow other;
        other.resize(50, 50);
        other.show();
        other.requestActivate();
        QTRY_VERIFY(!window.isVisible());

        // The click on the tray icon that took the focus does not show it
        // again at once...
        window.toggle(QRect(300, 0, 22, 22));
        QVERIFY(!window.isVisible());
        // ...a later click does.
        clock.advance(std::chrono::milliseconds(500));
        window.toggle(QRect(300, 0, 22, 22));
        QVERIFY(window.isVisible());
        clock.advance(std::chrono::milliseconds(500));

        // The ordinary window does not hide on losing the focus.
        window.hide();
        window.setMode(WindowController::Mode::ordinary);
        window.show();
        QVERIFY(QTest::qWaitForWindowActive(window.window()));
        other.requestActivate();
        QTRY_VERIFY(other.isActive());
        h.settle(100);
        QVERIFY(window.isVisible());
    }

    void trayIconFollowsTheModel() {
        UiHarness h;
        TrayController tray(h.model(), true);
        QCOMPARE(tray.symbol(), "arrow.clockwise"); // the model starts loading
        QVERIFY(!tray.trayIcon()->icon().isNull());
        h.model().update({folder("/a", "Up to date")});
        QCOMPARE(h.model().menuBarString(), "internaldrive");
        QCOMPARE(tray.symbol(), "internaldrive");
        h.model().update({folder("/b", "1 of 6 - Scanning files (1)")});
        QCOMPARE(tray.symbol(), "arrow.clockwise");

        // The older-system path always shows the drive.
        TrayController older(h.model(), false);
        QCOMPARE(older.symbol(), "internaldrive");

        // The menu Linux users expect (a signed-in user whose address the
        // client does not know: no address line).
        QMenu *menu = tray.trayIcon()->contextMenu();
        QVERIFY(menu);
        QCOMPARE(menuTexts(tray),
                 QStringList({"Open Tarnwick", "Show Status", "Show Settings", "Quit"}));
        QSignalSpy open(&tray, &TrayController::openRequested);
        QSignalSpy quit(&tray, &TrayController::quitRequested);
        menuAction(tray, "Open Tarnwick")->trigger();
        menuAction(tray, "Quit")->trigger();
        QCOMPARE(open.size(), 1);
        QCOMPARE(quit.size(), 1);

        // A click on the icon toggles the window.
        QSignalSpy toggle(&tray, &TrayController::toggleRequested);
        emit tray.trayIcon()->activated(QSystemTrayIcon::Trigger);
        QCOMPARE(toggle.size(), 1);
        emit tray.trayIcon()->activated(QSystemTrayIcon::DoubleClick);
        QCOMPARE(open.size(), 2);
    }

    void trayStateMarkToolTipAndMenu() {
        UiHarness h;
        h.model().setIsLoading(false);
        TrayController tray(h.model(), true);
        QSignalSpy changed(&tray, &TrayController::stateChanged);
        QCOMPARE(tray.mark(), TrayController::Mark::none);
        QCOMPARE(tray.toolTip(), "Signed in; no folders");

        // Signed in, three folders, one of them syncing.
        h.model().setUserName(QStringLiteral("ana@example.org"));
        h.model().update({folder("/a", "Up to date"),
                          folder("/b", "2 of 6 - Uploading 20000 changed files (5.7 MB)"),
                          folder("/c", "Waiting")});
        QTRY_COMPARE(tray.toolTip(), "Signed in as ana@example.org; 3 folders, 1 syncing");
        QCOMPARE(tray.trayIcon()->toolTip(), tray.toolTip());
        QCOMPARE(tray.mark(), TrayController::Mark::none);
        QVERIFY(changed.size() > 0);
        QCOMPARE(menuTexts(tray), QStringList({"ana@example.org", "Open Tarnwick", "Show Status",
                                               "Show Settings", "Quit"}));
        QVERIFY(!menuAction(tray, "ana@example.org")->isEnabled());
        QVERIFY(!menuAction(tray, "Restart backend")->isVisible());

        // The two tabs.
        QSignalSpy tabs(&tray, &TrayController::openTabRequested);
        menuAction(tray, "Show Settings")->trigger();
        menuAction(tray, "Show Status")->trigger();
        QCOMPARE(tabs.size(), 2);
        QCOMPARE(tabs[0][0].value<TrayController::Tab>(), TrayController::Tab::settings);
        QCOMPARE(tabs[1][0].value<TrayController::Tab>(), TrayController::Tab::status);

        // A folder in error marks the icon.
        const QColor noMark = insideMark(tray.trayIcon()->icon(), 32);
        DirItem broken = folder("/c", "Waiting");
        broken.error = "Permission denied";
        h.model().update({broken});
        QTRY_COMPARE(tray.mark(), TrayController::Mark::folderError);
        QCOMPARE(tray.toolTip(),
                 "Signed in as ana@example.org; 3 folders, 1 syncing, 1 with an error");
        QCOMPARE(insideMark(tray.trayIcon()->icon(), 32).rgb(),
                 TrayController::markColor(TrayController::Mark::folderError).rgb());
        QVERIFY(noMark.rgb() != insideMark(tray.trayIcon()->icon(), 32).rgb() ||
                noMark.alpha() != 255);
        // It keeps the model's symbol under the mark.
        QCOMPARE(tray.symbol(), h.model().menuBarString());

        // Signed out: the sign-out mark, and no address or tabs to offer.
        h.model().setIsLoggedIn(false);
        QCOMPARE(tray.mark(), TrayController::Mark::signedOut);
        QCOMPARE(tray.toolTip(), "Not signed in");
        QCOMPARE(insideMark(tray.trayIcon()->icon(), 32).rgb(),
                 TrayController::markColor(TrayController::Mark::signedOut).rgb());
        QCOMPARE(menuTexts(tray), QStringList({"Open Tarnwick", "Quit"}));

        // A new start of the backend that has not answered yet: the tray claims
        // nothing it cannot know.
        h.model().setBackendAnswered(false);
        QCOMPARE(tray.toolTip(), "Connecting to the backend ...");
        QCOMPARE(tray.mark(), TrayController::Mark::none);
        QCOMPARE(menuTexts(tray), QStringList({"Open Tarnwick", "Quit"}));
        h.model().setBackendAnswered(true);
        QCOMPARE(tray.toolTip(), "Not signed in");

        // Signed in again and the error gone: no mark.
        h.model().setIsLoggedIn(true);
        h.model().update({folder("/c", "Up to date")});
        QTRY_COMPARE(tray.mark(), TrayController::Mark::none);
        QCOMPARE(tray.toolTip(), "Signed in as ana@example.org; 3 folders, 1 syncing");
    }

    void theMarksAreDrawnOverTheSymbol() {
        using Mark = TrayController::Mark;
        const QColor none = insideMark(TrayController::iconFor("internaldrive"), 32);
        for (const Mark mark : {Mark::backendFailed, Mark::signedOut, Mark::folderError}) {
            const QColor color = TrayController::markColor(mark);
            QVERIFY(color.isValid());
            for (const QString &symbol :
                 {QStringLiteral("internaldrive"), QStringLiteral("arrow.clockwise"),
                  QStringLiteral("no.such.symbol")}) {
                const QIcon icon = TrayController::iconFor(symbol, mark);
                for (const int size : {16, 22, 32, 64}) {
                    const QColor at = insideMark(icon, size);
                    QVERIFY2(at.rgb() == color.rgb() && at.alpha() == 255,
                             qPrintable(QStringLiteral("%1 at %2: %3")
                                            .arg(symbol)
                                            .arg(size)
                                            .arg(at.name(QColor::HexArgb))));
                }
            }
            QVERIFY(none.rgba() != color.rgba());
        }
        // A picture of them on a light and a dark panel, to look at: no mark,
        // the backend failed, signed out, a folder in error.
        const QList<Mark> marks{Mark::none, Mark::backendFailed, Mark::signedOut,
                                Mark::folderError};
        QImage sheet(40 * int(marks.size()) * 2, 80, QImage::Format_ARGB32);
        QPainter painter(&sheet);
        painter.fillRect(QRect(0, 0, sheet.width(), 40), QColor(240, 240, 240));
        painter.fillRect(QRect(0, 40, sheet.width(), 40), QColor(40, 40, 40));
        for (int i = 0; i < marks.size(); ++i) {
            for (int row = 0; row < 2; ++row) {
                painter.drawPixmap(80 * i + 4, 40 * row + 9,
                                   TrayController::iconFor("internaldrive", marks[i]).pixmap(22));
                painter.drawPixmap(80 * i + 40, 40 * row + 4,
                                   TrayController::iconFor("arrow.clockwise", marks[i]).pixmap(32));
            }
        }
        painter.end();
        QDir().mkpath(UiHarness::screenshotDirectory());
        // (Three times as large, pixel for pixel.)
        QVERIFY(sheet.scaled(sheet.size() * 3, Qt::IgnoreAspectRatio, Qt::FastTransformation)
                    .save(UiHarness::screenshotDirectory() + "/tray-marks.png"));

        // Three marks, three colours.
        QVERIFY(TrayController::markColor(Mark::backendFailed) !=
                TrayController::markColor(Mark::folderError));
        QVERIFY(TrayController::markColor(Mark::signedOut) !=
                TrayController::markColor(Mark::folderError));
        QVERIFY(!TrayController::markColor(Mark::none).isValid());
        // The mark sits in the lower right corner, leaving most of the
        // symbol free.
        const QRect mark = TrayController::markRect(32);
        QCOMPARE(mark.bottomRight(), QPoint(31, 31));
        QVERIFY(mark.width() * mark.height() < 32 * 32 / 3);
    }

    void theTrayOpensTheWindowOnATab() {
        UiHarness h;
        QVERIFY2(h.load(QStringLiteral("MenuBarView")), qPrintable(h.errors().join('\n')));
        TrayController tray(h.model(), true);
        // What the desktop client does with the tray's request.
        QObject::connect(&tray, &TrayController::openTabRequested, &h.app(),
                         [&h](TrayController::Tab tab) { h.app().showTab(int(tab)); });
        QCOMPARE(h.root()->property("currentTab").toInt(), 0);
        menuAction(tray, "Show Settings")->trigger();
        QCOMPARE(h.root()->property("currentTab").toInt(), 1);
        QVERIFY(h.findVisible("settingsLoader"));
        menuAction(tray, "Show Status")->trigger();
        QCOMPARE(h.root()->property("currentTab").toInt(), 0);
        QVERIFY(h.findVisible("contentView"));
    }

    void theApplicationIconStandsInForAMissingSymbol() {
        // The built-in icon (no icon theme here): a full square of colour.
        const QImage app = TrayController::applicationIcon().pixmap(64, 64).toImage();
        QCOMPARE(app.size(), QSize(64, 64));
        QVERIFY(app.pixelColor(32, 10).alpha() == 255);
        const QImage fallback =
            TrayController::iconFor(QStringLiteral("no.such.symbol")).pixmap(64, 64).toImage();
        QCOMPARE(fallback, app);
    }

    void trayIconReadsOnLightAndDarkPanels() {
        const QIcon icon = TrayController::iconFor(QStringLiteral("internaldrive"));
        for (const int size : {16, 22, 32}) {
            const QImage image =
                icon.pixmap(size, size).toImage().convertToFormat(QImage::Format_ARGB32);
            QCOMPARE(image.width(), size);
            int light = 0;
            int dark = 0;
            for (int y = 0; y < size; ++y) {
                for (int x = 0; x < size; ++x) {
                    const QColor c = image.pixelColor(x, y);
                    if (c.alpha() < 200) {
                        continue;
                    }
                    if (c.lightness() > 200) {
                        ++light;
                    } else if (c.lightness() < 60) {
                        ++dark;
                    }
                }
            }
            // Both a light glyph and a dark outline: one of them stands out
            // on any panel.
            QVERIFY2(
                light > size / 2 && dark > size / 2,
                qPrintable(QStringLiteral("%1: %2 light, %3 dark").arg(size).arg(light).arg(dark)));
        }
    }

    void signInNotificationOncePerSignOut() {
        UiHarness h;
        bool windowVisible = false;
        QList<QPair<QString, QString>> shown;
        Notifier notifier(
            h.model(), [&] { return windowVisible; },
            [&](const QString &title, const QString &message) {
                shown.append({title, message});
            });
        QVERIFY(h.model().isLoggedIn());
        h.model().setIsLoggedIn(false);
        QCOMPARE(shown.size(), 1);
        QCOMPARE(shown[0].first, Notifier::signInTitle());
        // The backend keeps saying so: no repeat.
        h.model().setIsLoggedIn(false);
        emit h.model().loginStateReported(false);
        QCOMPARE(shown.size(), 1);
        // Signed in, then out again: a new occasion.
        h.model().setIsLoggedIn(true);
        QCOMPARE(shown.size(), 1);
        h.model().setIsLoggedIn(false);
        QCOMPARE(shown.size(), 2);
        // With the window open the login screen says it already.
        h.model().setIsLoggedIn(true);
        windowVisible = true;
        h.model().setIsLoggedIn(false);
        QCOMPARE(shown.size(), 2);
    }

    void headlessOrWindow() {
        tarnwick::cli::Invocation run;
        const auto env = [](std::initializer_list<std::pair<const char *, const char *>> vars) {
            QProcessEnvironment e;
            for (const auto &[k, v] : vars) {
                e.insert(QString::fromLatin1(k), QString::fromLatin1(v));
            }
            return e;
        };
        using tarnwick::cli::shouldRunHeadless;
        QVERIFY(shouldRunHeadless(run, env({})));
        QVERIFY(!shouldRunHeadless(run, env({{"DISPLAY", ":0"}})));
        QVERIFY(!shouldRunHeadless(run, env({{"WAYLAND_DISPLAY", "wayland-0"}})));
        QVERIFY(!shouldRunHeadless(run, env({{"QT_QPA_PLATFORM", "offscreen"}})));
        QVERIFY(shouldRunHeadless(run, env({{"DISPLAY", ""}})));
        tarnwick::cli::Invocation headless;
        headless.headless = true;
        QVERIFY(shouldRunHeadless(headless, env({{"DISPLAY", ":0"}})));
        // What the command line gives for --headless.
        QVERIFY(tarnwick::cli::parse({"tarnwick", "--headless"}).headless);
        QVERIFY(!tarnwick::cli::parse({"tarnwick"}).headless);
    }
};

QTEST_MAIN(ShellTest)
#include "tst_shell.moc"
