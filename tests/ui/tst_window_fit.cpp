// The window on a small screen: a 1280x800 screen at scale 1.5 leaves a
// free area of about 853x533 points, less than the window's preferred
// height. The window (popup or ordinary) then stays inside the free area,
// the footer with "Logout" and "Quit" stays visible inside it, and the
// screens scroll instead.
#include "ScreenTestSupport.h"

#include "WindowController.h"

#include <QApplication>
#include <QFile>
#include <QScreen>
#include <QTemporaryDir>
#include <QTest>

using namespace tarnwick::ui::test;
using tarnwick::ui::WindowController;

namespace {

// Whether an item of the window lies wholly inside the window.
bool insideWindow(QQuickWindow *window, QQuickItem *item) {
    if (item == nullptr || !UiHarness::isShown(item)) {
        return false;
    }
    const QRectF scene = item->mapRectToScene(QRectF(0, 0, item->width(), item->height()));
    return QRectF(0, 0, window->width(), window->height()).contains(scene);
}

QQuickItem *shownNamed(QQuickItem *item, const QString &name) {
    if (item == nullptr) {
        return nullptr;
    }
    if (item->objectName() == name && UiHarness::isShown(item)) {
        return item;
    }
    for (QQuickItem *child : item->childItems()) {
        if (QQuickItem *found = shownNamed(child, name)) {
            return found;
        }
    }
    return nullptr;
}

} // namespace

class WindowFitTest : public QObject {
    Q_OBJECT

    void checkFits(bool loggedIn, WindowController::Mode mode) {
        UiHarness h;
        h.model().setIsLoggedIn(loggedIn);
        WindowController controller(h.engine(), h.app());
        QVERIFY(controller.load());
        controller.setMode(mode);
        controller.show();
        QQuickWindow *window = controller.window();
        QVERIFY(QTest::qWaitForWindowExposed(window));
        h.settle();
        const QRect available = window->screen()->availableGeometry();
        // The window with its frame, where it has one.
        const QRect frame = window->frameGeometry();
        QVERIFY2(available.contains(frame),
                 qPrintable(QStringLiteral("window %1,%2 %3x%4 outside %5x%6")
                                .arg(frame.x())
                                .arg(frame.y())
                                .arg(frame.width())
                                .arg(frame.height())
                                .arg(available.width())
                                .arg(available.height())));
        // It wanted more height than there is: the free area's height is
        // what it got.
        QCOMPARE(frame.height(), available.height());
        QQuickItem *content = window->contentItem();
        QVERIFY(insideWindow(window, shownNamed(content, QStringLiteral("quitButton"))));
        QVERIFY(insideWindow(window, shownNamed(content, QStringLiteral("logoutButton"))));
        QVERIFY(insideWindow(window, shownNamed(content, QStringLiteral("footer"))));
        if (!loggedIn) {
            QVERIFY(insideWindow(window, shownNamed(content, QStringLiteral("emailField"))));
        } else {
            QVERIFY(insideWindow(window, shownNamed(content, QStringLiteral("tabBar"))));
        }
        controller.hide();
    }

private slots:
    void initTestCase() {
        UiHarness::prepareApplication();
        QScreen *screen = QGuiApplication::primaryScreen();
        QVERIFY(screen);
        // The screen of the configuration below, seen at scale 1.5.
        QCOMPARE(qRound(screen->geometry().width() * screen->devicePixelRatio()), 1280);
        QCOMPARE(qRound(screen->geometry().height() * screen->devicePixelRatio()), 800);
        QCOMPARE(screen->devicePixelRatio(), 1.5);
        QVERIFY(screen->availableGeometry().height() < 640);
    }

    void popupSignedOut() { checkFits(false, WindowController::Mode::popup); }
    void popupSignedIn() { checkFits(true, WindowController::Mode::popup); }
    void ordinaryWindowSignedIn() { checkFits(true, WindowController::Mode::ordinary); }
};

int main(int argc, char *argv[]) {
    // A 1280x800 screen at scale 1.5 (the offscreen platform's screen is
    // configured before the application starts).
    QTemporaryDir dir;
    if (!dir.isValid()) {
        qFatal("no temporary directory");
    }
    const QString config = dir.filePath(QStringLiteral("screens.json"));
    QFile file(config);
    if (!file.open(QIODevice::WriteOnly)) {
        qFatal("cannot write the screen configuration");
    }
    file.write(R"({"screens": [{"name": "small", "x": 0, "y": 0, "width": 1280, "height": 800,)"
               R"( "logicalDpi": 96, "logicalBaseDpi": 96, "dpr": 1}]})");
    file.close();
    qputenv("QT_QPA_PLATFORM", "offscreen:configfile=" + config.toLocal8Bit());
    qputenv("QT_SCALE_FACTOR", "1.5");
    QApplication application(argc, argv);
    WindowFitTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_window_fit.moc"
