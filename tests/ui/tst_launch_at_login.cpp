// Launch at login with the test's own XDG config home: the first launch
// writes the autostart entry once, switching off removes it, switching on
// while on registers again - through the C++ class and through the footer's
// switch.
#include "ScreenTestSupport.h"

#include "ItemsProvider.h"
#include "LaunchAtLogin.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

using namespace tarnwick::ui::test;
using tarnwick::ItemsProvider;
using tarnwick::LaunchAtLogin;

namespace {

QByteArray readAll(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeAll(const QString &path, const QByteArray &bytes) {
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(bytes);
}

void forgetFirstLaunch() {
    QSettings settings(QStringLiteral("tarnwick"), QStringLiteral("tarnwick"));
    settings.remove(QStringLiteral("hasLaunchedBefore"));
    settings.sync();
}

std::unique_ptr<ItemsProvider> launch(bool isMacOS13) {
    ItemsProvider::Options options;
    options.isMacOS13 = isMacOS13;
    options.launchBackend = false;
    options.singleInstance = false;
    options.log = [](const QString &) {};
    options.terminate = [] {};
    return std::make_unique<ItemsProvider>(std::move(options));
}

} // namespace

class LaunchAtLoginTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        UiHarness::prepareApplication();
        const QString config =
            QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
        // Never the real home folder.
        QVERIFY2(config == qEnvironmentVariable("XDG_CONFIG_HOME"), qPrintable(config));
        QVERIFY(LaunchAtLogin::entryPath().startsWith(config + "/autostart/"));
        LaunchAtLogin::setProgram(QStringLiteral("/opt/tarnwick/bin/tarnwick"));
    }

    void init() {
        QFile::remove(LaunchAtLogin::entryPath());
        forgetFirstLaunch();
    }

    void firstLaunchWritesTheEntryOnce() {
        QVERIFY(!LaunchAtLogin::isEnabled());
        launch(true);
        QVERIFY(LaunchAtLogin::isEnabled());
        const QByteArray entry = readAll(LaunchAtLogin::entryPath());
        QVERIFY(entry.startsWith("[Desktop Entry]\n"));
        QVERIFY(entry.contains("\nExec=/opt/tarnwick/bin/tarnwick\n"));
        QSettings settings(QStringLiteral("tarnwick"), QStringLiteral("tarnwick"));
        QVERIFY(settings.value(QStringLiteral("hasLaunchedBefore")).toBool());

        // The user switched it off; later launches leave it off.
        LaunchAtLogin::setEnabled(false);
        QVERIFY(!QFile::exists(LaunchAtLogin::entryPath()));
        launch(true);
        launch(true);
        QVERIFY(!LaunchAtLogin::isEnabled());
    }

    void olderSystemsNeverSwitchItOn() {
        launch(false);
        QVERIFY(!LaunchAtLogin::isEnabled());
        QVERIFY(!QFile::exists(LaunchAtLogin::entryPath()));
    }

    void switchingOffRemovesAndOnAgainReRegisters() {
        LaunchAtLogin::setEnabled(true);
        QVERIFY(LaunchAtLogin::isEnabled());
        const QByteArray fresh = readAll(LaunchAtLogin::entryPath());

        // Enabling while enabled registers again: a damaged entry that still
        // counts as enabled is replaced by a fresh one.
        writeAll(LaunchAtLogin::entryPath(), "[Desktop Entry]\nExec=/old/path\n");
        QVERIFY(LaunchAtLogin::isEnabled());
        LaunchAtLogin::setEnabled(true);
        QCOMPARE(readAll(LaunchAtLogin::entryPath()), fresh);

        LaunchAtLogin::setEnabled(false);
        QVERIFY(!LaunchAtLogin::isEnabled());
        QVERIFY(!QFile::exists(LaunchAtLogin::entryPath()));
        // Switching off when off is fine.
        LaunchAtLogin::setEnabled(false);
        QVERIFY(!LaunchAtLogin::isEnabled());

        // An entry the desktop marked hidden is off; switching on rewrites it.
        writeAll(LaunchAtLogin::entryPath(), fresh + "Hidden=true\n");
        QVERIFY(!LaunchAtLogin::isEnabled());
        LaunchAtLogin::setEnabled(true);
        QVERIFY(LaunchAtLogin::isEnabled());
        QCOMPARE(readAll(LaunchAtLogin::entryPath()), fresh);
    }

    void theFooterSwitch() {
        UiHarness h;
        // The harness's model is a first launch too.
        QVERIFY(LaunchAtLogin::isEnabled());
        LaunchAtLogin::setEnabled(false);
        QVERIFY(h.load(QStringLiteral("MenuBarView")));
        auto *toggle = h.findVisible(QStringLiteral("launchAtLoginToggle"));
        QVERIFY(toggle);
        QVERIFY(!toggle->property("checked").toBool());

        h.click(toggle);
        QTRY_VERIFY(toggle->property("checked").toBool());
        QVERIFY(LaunchAtLogin::isEnabled());
        QVERIFY(QFile::exists(LaunchAtLogin::entryPath()));

        h.click(toggle);
        QTRY_VERIFY(!toggle->property("checked").toBool());
        QVERIFY(!LaunchAtLogin::isEnabled());
        QVERIFY(!QFile::exists(LaunchAtLogin::entryPath()));

        // On again: registered again.
        h.click(toggle);
        QTRY_VERIFY(toggle->property("checked").toBool());
        QVERIFY(LaunchAtLogin::isEnabled());

        // A change made elsewhere shows on the switch.
        LaunchAtLogin::setEnabled(false);
        QTRY_VERIFY(!toggle->property("checked").toBool());
        LaunchAtLogin::setEnabled(true);
        QTRY_VERIFY(toggle->property("checked").toBool());
    }

    void aBuildTreeClientLeavesItOff() {
        // A program beside the build's marker file: the first launch says why
        // it does not register and leaves the first launch to come.
        QTemporaryDir build;
        QVERIFY(build.isValid());
        QDir().mkpath(build.filePath("bin"));
        writeAll(build.filePath("bin/tarnwick"), "#!/bin/sh\n");
        writeAll(build.filePath("bin/") + QLatin1String(LaunchAtLogin::kBuildTreeMarker),
                 "build tree\n");
        LaunchAtLogin::setProgram(build.filePath("bin/tarnwick"));
        QVERIFY(LaunchAtLogin::runsFromBuildTree());

        QStringList lines;
        ItemsProvider::Options options;
        options.launchBackend = false;
        options.singleInstance = false;
        options.log = [&lines](const QString &line) { lines << line; };
        options.terminate = [] {};
        ItemsProvider model(std::move(options));
        QVERIFY(!LaunchAtLogin::isEnabled());
        QCOMPARE(lines.filter("Launch at login not switched on").size(), 1);
        QVERIFY(lines.filter("Launch at login not switched on")
                    .first()
                    .contains(build.filePath("bin/tarnwick")));
        QSettings settings(QStringLiteral("tarnwick"), QStringLiteral("tarnwick"));
        QVERIFY(!settings.value(QStringLiteral("hasLaunchedBefore"), false).toBool());

        // The switch itself works there, pointing at that program.
        LaunchAtLogin::setEnabled(true);
        QVERIFY(LaunchAtLogin::isEnabled());
        QVERIFY(readAll(LaunchAtLogin::entryPath())
                    .contains("\nExec=" + build.filePath("bin/tarnwick").toUtf8() + "\n"));
        LaunchAtLogin::setEnabled(false);

        // Without the marker (an installed copy) the first launch registers.
        QFile::remove(build.filePath("bin/") + QLatin1String(LaunchAtLogin::kBuildTreeMarker));
        QVERIFY(!LaunchAtLogin::runsFromBuildTree());
        launch(true);
        QVERIFY(LaunchAtLogin::isEnabled());
        LaunchAtLogin::setProgram(QStringLiteral("/opt/tarnwick/bin/tarnwick"));
    }

    void aFailureIsLoggedNotShown() {
        // The autostart folder cannot be made: a file stands in its way.
        const QString folder = QFileInfo(LaunchAtLogin::entryPath()).absolutePath();
        QDir(folder).removeRecursively();
        writeAll(folder, "not a folder");
        QTest::ignoreMessage(QtCriticalMsg,
                             QRegularExpression("^Failed to enable launch at login: .+"));
        LaunchAtLogin::setEnabled(true);
        QVERIFY(!LaunchAtLogin::isEnabled());
        QFile::remove(folder);
    }
};

QTEST_MAIN(LaunchAtLoginTest)
#include "tst_launch_at_login.moc"
