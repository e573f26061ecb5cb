// The desktop client on a real X server: Xvfb on a free display with a tray
// host (trayer), bin/tarnwick over the development backend with its own XDG
// folders. Its tray icon appears and, as nobody is signed in, the window
// opens by itself next to it; a screenshot of the whole screen is saved, a
// click on the icon hides the window, a second launch brings it back, and a
// click on "Quit" ends the client and its backend.
//
// Skips (exit code 77, CTest's SKIP_RETURN_CODE) only when Xvfb cannot be
// started; every later failure fails.
#include <QByteArray>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QImage>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <csignal>
#include <optional>

namespace {

struct Geometry {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    QPoint centre() const { return {x + width / 2, y + height / 2}; }
};

// Reads an XWD dump (what xwd writes) of a true-colour screen into a QImage.
// The header is 25 big-endian 32-bit fields, then the colour map (12 bytes an
// entry), then the pixels in Z format.
QImage imageFromXwd(const QByteArray &data, QString *why) {
    if (data.size() < 100) {
        *why = QStringLiteral("short XWD header");
        return {};
    }
    const auto field = [&](int i) {
        return qFromBigEndian<quint32>(reinterpret_cast<const uchar *>(data.constData()) + 4 * i);
    };
    const quint32 headerSize = field(0), format = field(2), width = field(4), height = field(5),
                  byteOrder = field(7), bitsPerPixel = field(11), bytesPerLine = field(12),
                  redMask = field(14), greenMask = field(15), blueMask = field(16),
                  colours = field(19);
    if (format != 2 || (bitsPerPixel != 24 && bitsPerPixel != 32) || width == 0 || height == 0 ||
        width > 16384 || height > 16384) {
        *why = QStringLiteral("unsupported XWD: format %1, %2 bits per pixel")
                   .arg(format)
                   .arg(bitsPerPixel);
        return {};
    }
    const qint64 offset = qint64(headerSize) + qint64(colours) * 12;
    const int bytesPerPixel = int(bitsPerPixel / 8);
    if (bytesPerLine < width * bytesPerPixel ||
        offset + qint64(bytesPerLine) * height > data.size()) {
        *why = QStringLiteral("truncated XWD pixel data");
        return {};
    }
    const auto shiftOf = [](quint32 mask) {
        int shift = 0;
        while (mask != 0 && (mask & 1U) == 0) {
            mask >>= 1;
            ++shift;
        }
        return shift;
    };
    const int rs = shiftOf(redMask), gs = shiftOf(greenMask), bs = shiftOf(blueMask);
    QImage image(int(width), int(height), QImage::Format_RGB32);
    for (quint32 y = 0; y < height; ++y) {
        const auto *row =
            reinterpret_cast<const uchar *>(data.constData()) + offset + qint64(y) * bytesPerLine;
        auto *out = reinterpret_cast<QRgb *>(image.scanLine(int(y)));
        for (quint32 x = 0; x < width; ++x) {
            const uchar *p = row + x * bytesPerPixel;
            quint32 v = 0;
            for (int i = 0; i < bytesPerPixel; ++i) {
                // byte order 0: least significant byte first.
                const int shift = byteOrder == 0 ? 8 * i : 8 * (bytesPerPixel - 1 - i);
                v |= quint32(p[i]) << shift;
            }
            out[x] = qRgb(int((v & redMask) >> rs), int((v & greenMask) >> gs),
                          int((v & blueMask) >> bs));
        }
    }
    return image;
}

// A process's parent and state from /proc.
std::optional<std::pair<qint64, char>> procStat(qint64 pid) {
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    const QByteArray stat = file.readAll();
    const int close = stat.lastIndexOf(')');
    if (close < 0) {
        return std::nullopt;
    }
    const QList<QByteArray> rest = stat.mid(close + 2).split(' ');
    if (rest.size() < 2) {
        return std::nullopt;
    }
    return std::make_pair(rest[1].toLongLong(), rest[0].isEmpty() ? '?' : rest[0][0]);
}

QString procName(qint64 pid) {
    QFile file(QStringLiteral("/proc/%1/comm").arg(pid));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).trimmed() : QString();
}

bool isGone(qint64 pid) {
    const auto stat = procStat(pid);
    return !stat || stat->second == 'Z' || stat->second == 'X';
}

} // namespace

class DesktopSmokeTest : public QObject {
    Q_OBJECT

public:
    bool skipped = false;

private:
    QTemporaryDir home_;
    QProcessEnvironment env_;
    QString display_;
    QProcess xvfb_;
    QProcess trayer_;
    QProcess client_;
    QString xdotool_;
    QString clientLogPath_;
    // Where the tray host sits on screen.
    Geometry tray_;

    // What the client printed so far, and a screenshot, for a failure's
    // message.
    QByteArray diagnosis() {
        screenshot(QStringLiteral("desktop-smoke-failure"));
        QByteArray windows;
        for (const qulonglong id : visibleWindows({"--class", "tarnwick"})) {
            if (const auto g = geometryOf(id)) {
                windows += QStringLiteral("window %1: %2,%3 %4x%5\n")
                               .arg(id)
                               .arg(g->x)
                               .arg(g->y)
                               .arg(g->width)
                               .arg(g->height)
                               .toUtf8();
            }
        }
        const auto all = run(xdotool_, {"search", "--class", "tarnwick"});
        if (all) {
            for (const QString &id : all->split('\n', Qt::SkipEmptyParts)) {
                const auto info = run(QStandardPaths::findExecutable("xwininfo"), {"-id", id});
                if (info) {
                    windows += info->toUtf8();
                }
            }
        }
        return windows + "client log: " + clientLogPath_.toUtf8();
    }

    // Runs a tool on the test display; its standard output, or nothing
    // when it failed.
    std::optional<QString> run(const QString &program, const QStringList &arguments,
                               int timeoutMs = 10000) {
        QProcess p;
        p.setProcessEnvironment(env_);
        p.start(program, arguments);
        if (!p.waitForFinished(timeoutMs) || p.exitStatus() != QProcess::NormalExit ||
            p.exitCode() != 0) {
            if (p.state() != QProcess::NotRunning) {
                p.kill();
                p.waitForFinished();
            }
            return std::nullopt;
        }
        return QString::fromUtf8(p.readAllStandardOutput());
    }

    QList<qulonglong> visibleWindows(const QStringList &search) {
        QList<qulonglong> ids;
        const auto out = run(xdotool_, QStringList{"search", "--onlyvisible"} + search);
        if (out) {
            for (const QString &line : out->split('\n', Qt::SkipEmptyParts)) {
                ids << line.trimmed().toULongLong();
            }
        }
        return ids;
    }

    std::optional<Geometry> geometryOf(qulonglong id) {
        const auto out = run(xdotool_, {"getwindowgeometry", "--shell", QString::number(id)});
        if (!out) {
            return std::nullopt;
        }
        Geometry g;
        for (const QString &line : out->split('\n', Qt::SkipEmptyParts)) {
            const QString key = line.section('=', 0, 0);
            const int value = line.section('=', 1).toInt();
            if (key == "X") {
                g.x = value;
            } else if (key == "Y") {
                g.y = value;
            } else if (key == "WIDTH") {
                g.width = value;
            } else if (key == "HEIGHT") {
                g.height = value;
            }
        }
        return g;
    }

    // The client's window ("Tarnwick"), when it is shown.
    std::optional<std::pair<qulonglong, Geometry>> shownWindow() {
        for (const qulonglong id : visibleWindows({"--name", "^Tarnwick$"})) {
            if (const auto g = geometryOf(id); g && g->width >= 300) {
                return std::make_pair(id, *g);
            }
        }
        return std::nullopt;
    }

    // A real pointer click (XTEST) at a screen position. (No --sync: it
    // would wait for a movement that never comes when the pointer is there
    // already.)
    // Waits until the window is shown (or, with shown false, hidden) in a
    // few polls in a row, so that a window still being mapped or sized does
    // not count; the window when shown.
    std::optional<std::pair<qulonglong, Geometry>> settledWindow(bool shown, int timeoutMs) {
        QElapsedTimer timer;
        timer.start();
        int inARow = 0;
        std::optional<std::pair<qulonglong, Geometry>> last;
        while (timer.elapsed() < timeoutMs) {
            const auto now = shownWindow();
            inARow = now.has_value() == shown ? inARow + 1 : 0;
            last = now;
            if (inARow >= 3) {
                return last;
            }
            QTest::qWait(100);
        }
        return shown ? std::nullopt : last;
    }

    bool click(QPoint at) {
        return run(xdotool_, {"mousemove", QString::number(at.x()), QString::number(at.y()),
                              "sleep", "0.2", "click", "1"})
            .has_value();
    }

    QImage screenshot(const QString &name) {
        const QString xwd = QStandardPaths::findExecutable("xwd");
        const auto dump = [&]() -> QByteArray {
            QProcess p;
            p.setProcessEnvironment(env_);
            p.start(xwd, {"-root", "-silent"});
            if (!p.waitForFinished(15000) || p.exitCode() != 0) {
                return {};
            }
            return p.readAllStandardOutput();
        }();
        QString why;
        const QImage image = imageFromXwd(dump, &why);
        if (image.isNull()) {
            qWarning().noquote() << "screenshot:" << why;
            return image;
        }
        const QString dir = qEnvironmentVariable("TARNWICK_BUILD_DIR") + "/screenshots";
        QDir().mkpath(dir);
        image.save(dir + "/" + name + ".png");
        return image;
    }

    static void stop(QProcess &p) {
        if (p.state() == QProcess::NotRunning) {
            return;
        }
        p.terminate();
        if (!p.waitForFinished(5000)) {
            p.kill();
            p.waitForFinished(5000);
        }
    }

private slots:
    void initTestCase() {
        QVERIFY(home_.isValid());
        const QString xvfb = QStandardPaths::findExecutable("Xvfb");
        if (xvfb.isEmpty()) {
            skipped = true;
            QSKIP("Xvfb is not installed");
        }
        for (const char *tool : {"trayer", "xdotool", "xwd", "xwininfo", "xprop"}) {
            QVERIFY2(
                !QStandardPaths::findExecutable(tool).isEmpty(),
                qPrintable(QStringLiteral("%1 is missing (scripts/setup installs it)").arg(tool)));
        }
        xdotool_ = QStandardPaths::findExecutable("xdotool");

        // Xvfb picks a free display itself and writes its number to fd 1.
        xvfb_.start(xvfb, {"-displayfd", "1", "-screen", "0", "1280x800x24", "-nolisten", "tcp",
                           "-noreset"});
        QElapsedTimer waited;
        waited.start();
        while (display_.isEmpty() && waited.elapsed() < 15000 &&
               xvfb_.state() != QProcess::NotRunning) {
            xvfb_.waitForReadyRead(200);
            const QByteArray out = xvfb_.readAllStandardOutput().trimmed();
            if (!out.isEmpty()) {
                display_ = ":" + QString::fromLatin1(out);
            }
        }
        if (display_.isEmpty()) {
            skipped = true;
            stop(xvfb_);
            QSKIP(qPrintable("Xvfb could not start: " +
                             QString::fromUtf8(xvfb_.readAllStandardError()).left(400)));
        }

        // The client's own world: folders, display, no session bus, no
        // update feed, the development backend's state.
        const QString h = home_.path();
        for (const char *d : {"data", "config", "state", "cache", "runtime", "backend"}) {
            QVERIFY(QDir().mkpath(h + "/" + d));
        }
        QFile::setPermissions(h + "/runtime",
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        env_ = QProcessEnvironment::systemEnvironment();
        env_.insert("DISPLAY", display_);
        env_.remove("WAYLAND_DISPLAY");
        env_.remove("DBUS_SESSION_BUS_ADDRESS");
        env_.insert("QT_QPA_PLATFORM", "xcb");
        env_.insert("HOME", h);
        env_.insert("XDG_DATA_HOME", h + "/data");
        env_.insert("XDG_CONFIG_HOME", h + "/config");
        env_.insert("XDG_STATE_HOME", h + "/state");
        env_.insert("XDG_CACHE_HOME", h + "/cache");
        env_.insert("XDG_RUNTIME_DIR", h + "/runtime");
        env_.insert("KOVRIT_DEV_STATE", h + "/backend");
        env_.insert("TARNWICK_APPCAST_URL", "");
        env_.remove("TARNWICK_RESOURCES_DIR");

        trayer_.setProcessEnvironment(env_);
        trayer_.start(QStandardPaths::findExecutable("trayer"),
                      {"--edge", "top", "--align", "right", "--widthtype", "pixel", "--width",
                       "160", "--height", "28", "--SetDockType", "true", "--transparent", "false"});
        QVERIFY2(trayer_.waitForStarted(5000), "trayer did not start");
        QTRY_VERIFY2_WITH_TIMEOUT(!visibleWindows({"--class", "trayer"}).isEmpty(),
                                  qPrintable("no tray on " + display_ + ": " +
                                             QString::fromUtf8(trayer_.readAllStandardError())),
                                  10000);
        const auto trayGeometry = geometryOf(visibleWindows({"--class", "trayer"}).first());
        QVERIFY(trayGeometry && trayGeometry->width > 0);
        tray_ = *trayGeometry;
    }

    void trayIconWindowScreenshotSecondLaunchAndQuit() {
        const QString program = qEnvironmentVariable("TARNWICK_BUILD_DIR") + "/bin/tarnwick";
        QVERIFY2(QFileInfo(program).isExecutable(), qPrintable(program));
        client_.setProcessEnvironment(env_);
        client_.setProcessChannelMode(QProcess::MergedChannels);
        // The client's log is kept beside the screenshots.
        clientLogPath_ =
            qEnvironmentVariable("TARNWICK_BUILD_DIR") + "/screenshots/desktop-smoke-client.log";
        QDir().mkpath(QFileInfo(clientLogPath_).absolutePath());
        client_.setStandardOutputFile(clientLogPath_);
        client_.start(program, {});
        QVERIFY(client_.waitForStarted(5000));
        const qint64 clientPid = client_.processId();

        // The tray icon: a small window of the client inside the tray (once
        // the tray has taken it in; before that it may sit anywhere).
        const QRect trayArea(tray_.x, tray_.y, tray_.width, tray_.height);
        std::optional<Geometry> icon;
        QTRY_VERIFY_WITH_TIMEOUT(
            [&] {
                for (const qulonglong id : visibleWindows({"--class", "tarnwick"})) {
                    const auto g = geometryOf(id);
                    if (g && g->width <= 64 && g->height <= 64 && g->width > 0 &&
                        trayArea.contains(g->centre())) {
                        icon = g;
                        return true;
                    }
                }
                return false;
            }(),
            30000);
        // The backend runs under the client.
        qint64 backendPid = 0;
        QTRY_VERIFY_WITH_TIMEOUT(
            [&] {
                const QDir proc("/proc");
                for (const QString &entry : proc.entryList(QDir::Dirs)) {
                    bool ok = false;
                    const qint64 pid = entry.toLongLong(&ok);
                    const auto stat = ok ? procStat(pid) : std::nullopt;
                    if (stat && stat->first == clientPid && procName(pid).startsWith("kovrit")) {
                        backendPid = pid;
                        return true;
                    }
                }
                return false;
            }(),
            20000);

        // The window and the tray come from the desktop module, which the client loaded (the
        // headless client does not: tests/cli).
        {
            QFile maps(QStringLiteral("/proc/%1/maps").arg(clientPid));
            QVERIFY(maps.open(QIODevice::ReadOnly));
            const QByteArray mapped = maps.readAll();
            QVERIFY2(mapped.contains("/lib/tarnwick/libtarnwick-desktop.so"), mapped.constData());
            QVERIFY2(mapped.contains("/libQt6Quick.so"), mapped.constData());
        }

        // Nobody is signed in: the window opens by itself, by the icon, on the
        // login screen (no notification: the user sees the screen already).
        std::optional<std::pair<qulonglong, Geometry>> window;
        window = settledWindow(true, 30000);
        QVERIFY2(window.has_value(), diagnosis().constData());
        const Geometry w = window->second;
        const auto info = run(QStandardPaths::findExecutable("xwininfo"),
                              {"-id", QString::number(window->first)});
        QVERIFY(info && info->contains("Map State: IsViewable"));
        // By the icon: under the top panel's icon, near its side of the screen.
        QVERIFY2(w.y >= icon->y + icon->height && w.y < icon->y + icon->height + 40,
                 qPrintable(QStringLiteral("window at %1,%2").arg(w.x).arg(w.y)));
        QVERIFY(w.x + w.width >= 1280 - 40);

        // The whole screen, with the window drawn. A mapped window is painted a little later,
        // and how much later depends on the machine (and on a sanitizer build): take pictures
        // until the window's inside shows, then check the picture.
        h_settle();
        QImage screen;
        const auto drawn = [&] {
            screen = screenshot(QStringLiteral("desktop-smoke"));
            return !screen.isNull() && screen.size() == QSize(1280, 800) &&
                   screen.pixelColor(w.x + 5, w.y + w.height / 2).lightness() > 200;
        };
        QTRY_VERIFY_WITH_TIMEOUT(drawn(), 30000);
        QVERIFY(!screen.isNull());
        QCOMPARE(screen.size(), QSize(1280, 800));
        const QColor inside = screen.pixelColor(w.x + 5, w.y + w.height / 2);
        QVERIFY2(inside.lightness() > 200, qPrintable(inside.name()));
        QCOMPARE(screen.pixelColor(10, 790), QColor(Qt::black)); // the bare root window

        // A click on the icon hides it; a second launch brings it back.
        QVERIFY(click(icon->centre()));
        QVERIFY(!settledWindow(false, 10000).has_value());
        QProcess second;
        second.setProcessEnvironment(env_);
        second.setProcessChannelMode(QProcess::MergedChannels);
        second.start(program, {});
        QVERIFY(second.waitForFinished(20000));
        QCOMPARE(second.exitCode(), 0);
        QVERIFY2(second.readAll().contains("Application already opened.  Exiting ..."),
                 "the second launch should say it leaves the running one");
        window = settledWindow(true, 10000);
        QVERIFY2(window.has_value(), diagnosis().constData());
        QCOMPARE(client_.state(), QProcess::Running);

        // "Quit", the right-most button of the footer, by a real click.
        const Geometry g = window->second;
        QVERIFY(click(QPoint(g.x + g.width - 36, g.y + g.height - 26)));
        QVERIFY2(client_.waitForFinished(15000), "the client should end after Quit");
        QCOMPARE(client_.exitStatus(), QProcess::NormalExit);
        QCOMPARE(client_.exitCode(), 0);
        QTRY_VERIFY_WITH_TIMEOUT(isGone(backendPid), 10000);
        QFile logFile(clientLogPath_);
        QVERIFY(logFile.open(QIODevice::ReadOnly));
        const QByteArray log = logFile.readAll();
        QVERIFY2(!log.contains("logoutAndExit"), "Quit sends nothing to the backend");
    }

    void withoutATrayTheWindowIsAnOrdinaryOne() {
        // The tray host goes away: the next client shows its window at once,
        // framed, and its "Quit" ends it and its backend.
        stop(trayer_);
        QTRY_VERIFY_WITH_TIMEOUT(visibleWindows({"--class", "trayer"}).isEmpty(), 10000);
        const QString program = qEnvironmentVariable("TARNWICK_BUILD_DIR") + "/bin/tarnwick";
        QProcess client;
        client.setProcessEnvironment(env_);
        client.setProcessChannelMode(QProcess::MergedChannels);
        client.setStandardOutputFile(qEnvironmentVariable("TARNWICK_BUILD_DIR") +
                                     "/screenshots/desktop-smoke-no-tray-client.log");
        client.start(program, {});
        QVERIFY(client.waitForStarted(5000));
        std::optional<std::pair<qulonglong, Geometry>> window;
        window = settledWindow(true, 30000);
        QVERIFY2(window.has_value(), diagnosis().constData());
        // No tray icon anywhere.
        for (const qulonglong id : visibleWindows({"--class", "tarnwick"})) {
            const auto g = geometryOf(id);
            QVERIFY(g && g->width > 64);
        }
        // It asks the window manager for a frame (no frameless hint).
        const auto hints = run(QStandardPaths::findExecutable("xprop"),
                               {"-id", QString::number(window->first), "_MOTIF_WM_HINTS"});
        QVERIFY(hints);
        QVERIFY2(!hints->contains("0x2, 0x0, 0x0"), qPrintable(*hints));
        QTest::qWait(300);
        screenshot(QStringLiteral("desktop-smoke-no-tray"));

        const Geometry g = window->second;
        QVERIFY(click(QPoint(g.x + g.width - 36, g.y + g.height - 26)));
        QVERIFY2(client.waitForFinished(15000), "the client should end after Quit");
        QCOMPARE(client.exitCode(), 0);
    }

    void cleanupTestCase() {
        stop(client_);
        stop(trayer_);
        stop(xvfb_);
    }

private:
    static void h_settle() { QTest::qWait(300); }
};

int main(int argc, char *argv[]) {
    QGuiApplication app(argc, argv);
    DesktopSmokeTest test;
    const int result = QTest::qExec(&test, argc, argv);
    // CTest counts 77 as skipped: only a missing or failing Xvfb gets here.
    return test.skipped ? 77 : result;
}

#include "tst_desktop_smoke.moc"
