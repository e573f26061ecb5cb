#pragma once

// What the packaging tests share: a user's home of its own, running a program
// to its end, and a headless client started from some installed tree that is
// signed in through the command line with the code from the development
// backend's outbox.

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace tarnwick::test {

struct Result {
    int exitCode = -1;
    QString out;
    QString err;
};

// One user's machine: its own home and XDG folders.
struct Home {
    QTemporaryDir dir;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();

    Home() {
        for (const char *name : {"data", "config", "state", "cache", "runtime"}) {
            QDir().mkpath(dir.filePath(name));
        }
        QFile::setPermissions(dir.filePath("runtime"),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        env.insert("HOME", dir.path());
        env.insert("XDG_DATA_HOME", dir.filePath("data"));
        env.insert("XDG_CONFIG_HOME", dir.filePath("config"));
        env.insert("XDG_STATE_HOME", dir.filePath("state"));
        env.insert("XDG_CACHE_HOME", dir.filePath("cache"));
        env.insert("XDG_RUNTIME_DIR", dir.filePath("runtime"));
        env.insert("KOVRIT_DEV_OPEN", "0");
        env.insert("KOVRIT_DEV_NOTIFY", "0");
        for (const char *name : {"KOVRIT_DEV_STATE", "KOVRIT_DEV_CODE", "KOVRIT_DEV_FAULT",
                                 "TARNWICK_RESOURCES_DIR", "DISPLAY", "WAYLAND_DISPLAY"}) {
            env.remove(name);
        }
    }
    QString path(const QString &relative) const { return dir.filePath(relative); }
    QString outbox(const QString &address) const {
        return dir.filePath("state/kovrit-dev/outbox/" + address);
    }
    QString autostartEntry() const { return dir.filePath("config/autostart/tarnwick.desktop"); }
    QString logFile() const { return dir.filePath("state/tarnwick/tarnwick.log"); }
};

inline Result runProgram(const QString &program, const QStringList &arguments,
                         const QProcessEnvironment &env, int timeoutMs = 240000,
                         const QString &workingDirectory = QString()) {
    QProcess process;
    process.setProcessEnvironment(env);
    if (!workingDirectory.isEmpty()) {
        process.setWorkingDirectory(workingDirectory);
    }
    process.start(program, arguments);
    if (!process.waitForStarted()) {
        return {-1, QString(), QStringLiteral("cannot start %1").arg(program)};
    }
    process.closeWriteChannel();
    process.waitForFinished(timeoutMs);
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

// A headless client run from `program` in `home`.
struct Client {
    const Home &home;
    QString program;
    QProcess process;

    Client(const Home &h, const QString &executable) : home(h), program(executable) {
        process.setProcessEnvironment(home.env);
        process.start(program, {QStringLiteral("--headless")});
    }
    ~Client() {
        if (process.state() != QProcess::NotRunning) {
            process.terminate();
            if (!process.waitForFinished(10000)) {
                process.kill();
                process.waitForFinished();
            }
        }
    }
    Result run(const QStringList &arguments) const {
        return runProgram(program, arguments, home.env);
    }
    QJsonObject status() const {
        return QJsonDocument::fromJson(run({"status", "--json"}).out.toUtf8()).object();
    }
    QString output() { return log += QString::fromUtf8(process.readAllStandardOutput()); }
    QString log;

    // The whole sign-in a user goes through: the code is "mailed" to the
    // backend's outbox, then typed in. Empty when it worked, else why not.
    QString signIn(const QString &address) {
        if (!QTest::qWaitFor([&] { return status().value("isLoggedIn") == false; }, 60000)) {
            return QStringLiteral("the client never asked for a sign-in: ") + output();
        }
        const Result asked = run({"login", address});
        if (!asked.out.contains("6-digit code sent to " + address)) {
            return QStringLiteral("no code sent: ") + asked.out + asked.err;
        }
        QFile mailed(home.outbox(address));
        if (!mailed.open(QIODevice::ReadOnly)) {
            return QStringLiteral("no code in the outbox");
        }
        const QString code = QString::fromUtf8(mailed.readAll()).trimmed();
        const Result login = run({"login", address, "--code", code});
        if (login.exitCode != 0 || !login.out.contains("Signed in as " + address)) {
            return QStringLiteral("sign-in failed: ") + login.out + login.err;
        }
        if (!QTest::qWaitFor([&] { return status().value("isLoggedIn") == true; }, 30000)) {
            return QStringLiteral("still signed out after the code");
        }
        return {};
    }
};

// The expected payload of the package and of an installation, relative to
// the prefix.
inline QStringList installedFiles() {
    QStringList files = {
        "bin/tarnwick",
        "lib/tarnwick/libtarnwick-desktop.so",
        "libexec/tarnwick/" KOVRIT_DEV_NAME,
        "share/applications/app.tarnwick.Tarnwick.desktop",
        "share/metainfo/app.tarnwick.Tarnwick.metainfo.xml",
        "share/icons/hicolor/scalable/apps/app.tarnwick.Tarnwick.svg",
        "share/man/man1/tarnwick.1.gz",
        "share/bash-completion/completions/tarnwick",
        "share/zsh/vendor-completions/_tarnwick",
        "share/fish/vendor_completions.d/tarnwick.fish",
        "share/doc/tarnwick/copyright",
        "share/doc/tarnwick/changelog.gz",
    };
    for (const int size : {16, 22, 24, 32, 48, 64, 128, 256}) {
        files
            << QStringLiteral("share/icons/hicolor/%1x%1/apps/app.tarnwick.Tarnwick.png").arg(size);
    }
    return files;
}

} // namespace tarnwick::test
