// The tarnwick executable as a user runs it: a headless client over the
// development backend, driven only through the command line.
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {

const QString kTarnwick = QStringLiteral(TARNWICK_EXECUTABLE);

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
        env.remove("KOVRIT_DEV_STATE");
        env.remove("KOVRIT_DEV_CODE");
        env.remove("KOVRIT_DEV_FAULT");
        env.remove("TARNWICK_RESOURCES_DIR");
    }
    QString path(const QString &relative) const { return dir.filePath(relative); }
    QString outbox(const QString &address) const {
        return dir.filePath("state/kovrit-dev/outbox/" + address);
    }
    QString backendCopy() const { return dir.filePath("data/tarnwick/bin/kovrit-linux-amd64"); }
};

Result run(const Home &home, const QStringList &arguments, const QByteArray &input = {},
           int timeoutMs = 120000) {
    QProcess process;
    process.setProcessEnvironment(home.env);
    process.start(kTarnwick, arguments);
    if (!process.waitForStarted()) {
        return {};
    }
    if (!input.isEmpty()) {
        process.write(input);
    }
    process.closeWriteChannel();
    process.waitForFinished(timeoutMs);
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

QJsonObject statusOf(const Home &home) {
    const Result result = run(home, {"status", "--json"});
    return QJsonDocument::fromJson(result.out.toUtf8()).object();
}

QJsonArray groupsOf(const Home &home) {
    const Result result = run(home, {"groups", "--json"});
    return QJsonDocument::fromJson(result.out.toUtf8()).array();
}

QJsonObject groupNamed(const QJsonArray &groups, const QString &name) {
    for (const auto &group : groups) {
        if (group.toObject().value("Name").toString() == name) {
            return group.toObject();
        }
    }
    return {};
}

QString folderStatus(const Home &home, const QString &path) {
    for (const auto &item : statusOf(home).value("dirItems").toArray()) {
        if (item.toObject().value("Path").toString() == path) {
            return item.toObject().value("Status").toString();
        }
    }
    return {};
}

// Process ids whose command line starts with `program`.
QList<qint64> processesRunning(const QString &program) {
    QList<qint64> pids;
    QDirIterator it("/proc", QDir::Dirs | QDir::NoDotAndDotDot);
    while (it.hasNext()) {
        const QString entry = it.next();
        bool numeric = false;
        const qint64 pid = QFileInfo(entry).fileName().toLongLong(&numeric);
        if (!numeric) {
            continue;
        }
        QFile cmdline(entry + "/cmdline");
        if (cmdline.open(QIODevice::ReadOnly) &&
            cmdline.readAll().startsWith(program.toUtf8() + '\0')) {
            pids << pid;
        }
    }
    return pids;
}

// The shared libraries a process has mapped, one path per line (from /proc/<pid>/maps).
QByteArray mappedLibraries(qint64 pid) {
    QFile maps(QStringLiteral("/proc/%1/maps").arg(pid));
    if (!maps.open(QIODevice::ReadOnly)) {
        return {};
    }
    QByteArray out;
    for (const QByteArray &line : maps.readAll().split('\n')) {
        const qsizetype slash = line.indexOf('/');
        if (slash >= 0 && line.contains(".so")) {
            out += line.mid(slash) + '\n';
        }
    }
    return out;
}

// Qt's GUI side, and the client's own module that carries it.
const QList<QByteArray> kGuiLibraries = {
    "/libQt6Gui.so",  "/libQt6Widgets.so", "/libQt6Qml.so",          "/libQt6Quick.so",
    "/libQt6DBus.so", "/libQt6Svg.so",     "/libtarnwick-desktop.so"};

QString guiLibrariesIn(const QByteArray &libraries) {
    QStringList found;
    for (const QByteArray &name : kGuiLibraries) {
        if (libraries.contains(name)) {
            found << QString::fromUtf8(name);
        }
    }
    return found.join(u' ');
}

// A running headless client.
struct Client {
    QProcess process;
    explicit Client(const Home &home) {
        process.setProcessEnvironment(home.env);
        process.setProcessChannelMode(QProcess::SeparateChannels);
        process.start(kTarnwick, {"--headless"});
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
    QString output() { return log += QString::fromUtf8(process.readAllStandardOutput()); }
    QString log;
};

} // namespace

class CliTest : public QObject {
    Q_OBJECT

private slots:
    void helpVersionAndUsage() {
        Home home;
        Result result = run(home, {"--help"});
        QCOMPARE(result.exitCode, 0);
        QVERIFY(result.out.contains("status [--json]"));
        QVERIFY(result.out.contains("--headless"));
        QVERIFY2(result.out.startsWith("Usage: tarnwick "), qPrintable(result.out));
        QVERIFY(!result.out.contains("<executable_name>"));
        result = run(home, {"--version"});
        QCOMPARE(result.exitCode, 0);
        QVERIFY(result.out.startsWith("tarnwick "));
        for (const QStringList &bad :
             {QStringList{"frobnicate"}, QStringList{"add", "Personal"},
              QStringList{"retention", "one", "7"}, QStringList{"retention", "1", "-3"},
              QStringList{"status", "--bogus"}, QStringList{"--nope"},
              QStringList{"--headless", "status"}}) {
            result = run(home, bad);
            QVERIFY2(result.exitCode == 2, qPrintable(bad.join(' ')));
            QVERIFY(result.err.contains("Usage:"));
        }
        // A negative number is named as such, not taken for an option.
        for (const QStringList &negative :
             {QStringList{"retention", "1", "-5"}, QStringList{"retention", "-1", "5"}}) {
            result = run(home, negative);
            QCOMPARE(result.exitCode, 2);
            QVERIFY2(result.err.contains("not a negative number: -"), qPrintable(result.err));
            QVERIFY(!result.err.contains("Unknown option"));
        }
    }

    void noRunningClient() {
        Home home;
        const Result result = run(home, {"status"});
        QCOMPARE(result.exitCode, 1);
        QVERIFY(result.err.contains("not running"));
        QVERIFY(result.out.isEmpty());
    }

    void headlessAndControlStayOffTheGuiLibraries() {
        Home home;
        Client client(home);
        QVERIFY(client.process.waitForStarted());
        QVERIFY(QTest::qWaitFor(
            [&] { return statusOf(home).value("backendAnswered") == QJsonValue(true); }, 30000));

        // The headless client, up with its backend: QtCore and QtNetwork, nothing of the GUI.
        const QByteArray headless = mappedLibraries(client.process.processId());
        QVERIFY2(headless.contains("/libQt6Core.so"), headless.constData());
        QVERIFY2(headless.contains("/libQt6Network.so"), headless.constData());
        QVERIFY2(guiLibrariesIn(headless).isEmpty(), qPrintable(guiLibrariesIn(headless)));
        // It picks Qt's own event dispatcher for itself; its backend does not inherit the choice.
        QByteArray children;
        for (const QString &task :
             QDir(QStringLiteral("/proc/%1/task").arg(client.process.processId()))
                 .entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            QFile file(QStringLiteral("/proc/%1/task/%2/children")
                           .arg(client.process.processId())
                           .arg(task));
            if (file.open(QIODevice::ReadOnly)) {
                children += file.readAll() + ' ';
            }
        }
        const QList<QByteArray> backends = children.simplified().split(' ');
        QCOMPARE(backends.size(), 1);
        QFile environment(QStringLiteral("/proc/%1/environ").arg(QString::fromLatin1(backends[0])));
        QVERIFY(environment.open(QIODevice::ReadOnly));
        const QByteArray variables = environment.readAll();
        QVERIFY(variables.contains("HOME="));
        QVERIFY(!variables.contains("QT_NO_GLIB"));

        // A command for the running client: the dynamic loader lists every library it opens.
        home.env.insert("LD_DEBUG", "files");
        const Result status = run(home, {"status"});
        home.env.remove("LD_DEBUG");
        QCOMPARE(status.exitCode, 0);
        QVERIFY(status.out.contains("Not signed in"));
        QVERIFY2(status.err.contains("libQt6Core.so"), qPrintable(status.err));
        QVERIFY2(status.err.contains("libQt6Network.so"), qPrintable(status.err));
        QStringList opened;
        for (const QByteArray &name : kGuiLibraries) {
            if (status.err.contains(QString::fromUtf8(name))) {
                opened << QString::fromUtf8(name);
            }
        }
        QVERIFY2(opened.isEmpty(), qPrintable(opened.join(u' ')));
    }

    void aMissingOrBrokenDesktopModuleIsReported() {
        // The executable alone in a prefix of its own: bin/tarnwick, no lib/tarnwick.
        Home home;
        QTemporaryDir prefix;
        QVERIFY(QDir().mkpath(prefix.filePath("bin")));
        const QString program = prefix.filePath("bin/tarnwick");
        QVERIFY(QFile::copy(kTarnwick, program));
        home.env.insert("QT_QPA_PLATFORM", "offscreen");
        home.env.insert("TARNWICK_RESOURCES_DIR",
                        QFileInfo(kTarnwick).absolutePath() + "/../libexec/tarnwick");
        const auto start = [&](const QStringList &arguments) {
            QProcess process;
            process.setProcessEnvironment(home.env);
            process.start(program, arguments);
            process.waitForFinished(60000);
            return Result{process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
                          QString::fromUtf8(process.readAllStandardOutput()),
                          QString::fromUtf8(process.readAllStandardError())};
        };

        const Result missing = start({});
        QCOMPARE(missing.exitCode, 1);
        QVERIFY2(missing.err.contains("tarnwick: the desktop client cannot be loaded ("),
                 qPrintable(missing.err));
        QVERIFY2(missing.err.contains("libtarnwick-desktop.so"), qPrintable(missing.err));
        QVERIFY2(missing.err.contains("tarnwick --headless runs the client without a window"),
                 qPrintable(missing.err));
        // The log has it too.
        QFile log(home.path("state/tarnwick/tarnwick.log"));
        QVERIFY(log.open(QIODevice::ReadOnly));
        QVERIFY(log.readAll().contains("error: tarnwick: the desktop client cannot be loaded"));

        // A file in its place that is not a module: the same message, no crash.
        QVERIFY(QDir().mkpath(prefix.filePath("lib/tarnwick")));
        QFile broken(prefix.filePath("lib/tarnwick/libtarnwick-desktop.so"));
        QVERIFY(broken.open(QIODevice::WriteOnly));
        broken.write("this is not a shared library\n");
        broken.close();
        const Result unloadable = start({});
        QCOMPARE(unloadable.exitCode, 1);
        QVERIFY2(unloadable.err.contains("tarnwick: the desktop client cannot be loaded ("),
                 qPrintable(unloadable.err));

        // The headless client in the same prefix runs without the module.
        QProcess headless;
        headless.setProcessEnvironment(home.env);
        headless.start(program, {"--headless"});
        QVERIFY(headless.waitForStarted());
        const bool answered = QTest::qWaitFor(
            [&] {
                QProcess status;
                status.setProcessEnvironment(home.env);
                status.start(program, {"status", "--json"});
                status.waitForFinished(30000);
                return QJsonDocument::fromJson(status.readAllStandardOutput())
                           .object()
                           .value("backendAnswered") == QJsonValue(true);
            },
            30000);
        headless.terminate();
        QVERIFY(headless.waitForFinished(10000));
        QVERIFY(answered);
        QCOMPARE(headless.exitStatus(), QProcess::NormalExit);
    }

    void aUsersSession() {
        Home home;
        Client client(home);
        QVERIFY(client.process.waitForStarted());

        // The backend is up and asks for a sign-in.
        QVERIFY(
            QTest::qWaitFor([&] { return statusOf(home).value("isLoggedIn") == false; }, 30000));
        const Result raw = run(home, {"status", "--json"});
        QCOMPARE(raw.exitCode, 0);
        // One JSON object on one line: the model's state, the client's
        // version and whether the backend has failed.
        QCOMPARE(raw.out.count('\n'), 1);
        const QJsonObject status = QJsonDocument::fromJson(raw.out.toUtf8()).object();
        QCOMPARE(status.keys().size(), 11);
        for (const char *key :
             {"isLoggedIn", "userName", "error", "isLoading", "isWaiting", "menuBarString",
              "dirItems", "groups", "version", "backendFailed", "backendAnswered"}) {
            QVERIFY2(status.contains(key), key);
        }
        QCOMPARE(status.value("isLoggedIn"), QJsonValue(false));
        QCOMPARE(status.value("userName").toString(), QString());
        QCOMPARE(status.value("version").toString(), QString(TARNWICK_VERSION));
        QCOMPARE(status.value("backendFailed"), QJsonValue(false));
        QCOMPARE(status.value("backendAnswered"), QJsonValue(true));
        QVERIFY(run(home, {"status"}).out.contains("Not signed in"));

        // A second start finds this one and leaves.
        const Result second = run(home, {"--headless"}, {}, 30000);
        QCOMPARE(second.exitCode, 0);
        QVERIFY(second.out.contains("Application already opened.  Exiting ..."));

        // The code request; without a code typed the command gives up.
        Result login = run(home, {"login", "ana@example.org"});
        QCOMPARE(login.exitCode, 1);
        QVERIFY(login.out.contains("6-digit code sent to ana@example.org. Check your email."));
        QVERIFY(login.out.contains("6-digit code: "));
        QVERIFY(login.err.contains("no code given"));
        QFile mailed(home.outbox("ana@example.org"));
        QVERIFY(mailed.open(QIODevice::ReadOnly));
        const QString code = QString::fromUtf8(mailed.readAll()).trimmed();
        QCOMPARE(code.size(), 6);
        // A wrong code: the login screen's failure text after 5 s.
        login = run(home,
                    {"login", "ana@example.org", "--code", code == "000000" ? "111111" : "000000"});
        QCOMPARE(login.exitCode, 1);
        QVERIFY2(login.err.contains("Authentication failed. Please retry ..."),
                 qPrintable(login.err));
        // The mailed code, passed on the command line (no new code is requested).
        login = run(home, {"login", "ana@example.org", "--code", code});
        QVERIFY2(login.exitCode == 0, qPrintable(login.err));
        QVERIFY(login.out.contains("Signed in as ana@example.org"));
        QCOMPARE(statusOf(home).value("userName").toString(), "ana@example.org");
        QVERIFY(QTest::qWaitFor([&] { return statusOf(home).value("isLoggedIn") == true; }, 10000));
        // Signed in, the report does not repeat the sign-in's progress line
        // (the model keeps it, as the login screen does).
        QVERIFY(!run(home, {"status"}).out.contains("Authenticating"));

        // Groups of a new account.
        QJsonArray groups = groupsOf(home);
        QCOMPARE(groups.size(), 2);
        QCOMPARE(groupNamed(groups, "Personal").value("GroupID").toInt(), 1);
        QCOMPARE(groupNamed(groups, "Family").value("GroupID").toInt(), 2);

        // Add a folder; it syncs to "Up to date".
        const QString folder = home.path("Documents");
        QDir().mkpath(folder + "/sub");
        QFile file(folder + "/sub/report.txt");
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("quarterly");
        file.close();
        Result result = run(home, {"add", "Personal", folder});
        QVERIFY2(result.exitCode == 0, qPrintable(result.err));
        QVERIFY(
            groupNamed(groupsOf(home), "Personal").value("WalkPaths").toArray().contains(folder));
        QVERIFY(QTest::qWaitFor([&] { return folderStatus(home, folder) == "Up to date"; }, 30000));
        // One line per folder: bar, percentage, word, path, group, status.
        const QStringList lines = run(home, {"status"}).out.split('\n');
        const QStringList folderLines = lines.filter(folder + "  (Personal)");
        QCOMPARE(folderLines.size(), 1);
        QVERIFY2(folderLines[0].contains("[####################] 100%  Synced"),
                 qPrintable(folderLines[0]));
        QVERIFY(folderLines[0].endsWith("Up to date"));

        // An unknown group is refused by name.
        result = run(home, {"add", "Nope", folder});
        QCOMPARE(result.exitCode, 1);
        QVERIFY(result.err.contains("No group named"));

        // iCloud needs --force.
        const QString cloud = home.path("Library/Mobile Documents/com~apple~CloudDocs/Work");
        QDir().mkpath(cloud);
        result = run(home, {"add", "Family", cloud});
        QCOMPARE(result.exitCode, 1);
        QVERIFY(result.err.contains("iCloud Sync Detected"));
        QVERIFY(
            result.err.contains("This folder is in iCloud Drive and may cause sync conflicts."));
        QVERIFY(!groupNamed(groupsOf(home), "Family").value("WalkPaths").toArray().contains(cloud));
        result = run(home, {"add", "Family", cloud, "--force"});
        QVERIFY2(result.exitCode == 0, qPrintable(result.err));
        QVERIFY(groupNamed(groupsOf(home), "Family").value("WalkPaths").toArray().contains(cloud));

        // Retention shows in the group list.
        result = run(home, {"retention", "2", "30"});
        QVERIFY2(result.exitCode == 0, qPrintable(result.err));
        QCOMPARE(groupNamed(groupsOf(home), "Family")
                     .value("RetentionSettings")
                     .toObject()
                     .value("retention_days")
                     .toInt(),
                 30);

        // Remove updates the group list.
        result = run(home, {"remove", cloud});
        QVERIFY2(result.exitCode == 0, qPrintable(result.err));
        QVERIFY(!groupNamed(groupsOf(home), "Family").value("WalkPaths").toArray().contains(cloud));
        QVERIFY(
            groupNamed(groupsOf(home), "Personal").value("WalkPaths").toArray().contains(folder));

        // Logout ends the client and its backend.
        QVERIFY(!processesRunning(home.backendCopy()).isEmpty());
        result = run(home, {"logout"});
        QVERIFY2(result.exitCode == 0, qPrintable(result.err));
        QVERIFY(client.process.waitForFinished(15000));
        QCOMPARE(client.process.exitCode(), 0);
        QVERIFY(
            QTest::qWaitFor([&] { return processesRunning(home.backendCopy()).isEmpty(); }, 5000));
        QVERIFY(client.output().contains("handled logoutAndExit"));
        QCOMPARE(run(home, {"status"}).exitCode, 1);
    }

    void refusalsReachTheUser() {
        Home home;
        home.env.insert("KOVRIT_DEV_CODE", "123456");
        home.env.insert("KOVRIT_DEV_FAULT",
                        "refuse=stopWatching,refuse=updateGroup,refuse=openDirPath");
        Client client(home);
        QVERIFY(client.process.waitForStarted());
        QVERIFY(
            QTest::qWaitFor([&] { return statusOf(home).value("isLoggedIn") == false; }, 30000));

        // Signed out: there are no groups to list, and the command says why.
        Result result = run(home, {"groups"});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("Not signed in"), qPrintable(result.err));
        QVERIFY(!result.out.contains("No groups"));

        // An address the backend refuses is not "code sent".
        result = run(home, {"login", "not-an-email"});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("Invalid e-mail address"), qPrintable(result.err));
        QVERIFY(!result.out.contains("code sent"));

        // A wrong code: the backend's reason at once, and the login screen's text.
        result = run(home, {"login", "ana@example.org", "--code", "000000"});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("Invalid or expired code"), qPrintable(result.err));
        QVERIFY(result.err.contains("Authentication failed. Please retry ..."));
        result = run(home, {"login", "ana@example.org"}, "123456\n");
        QVERIFY2(result.exitCode == 0, qPrintable(result.err));

        // The backend's refusals of a folder, word for word.
        result = run(home, {"add", "Personal", "/"});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("Refusing to sync the whole file system"),
                 qPrintable(result.err));
        QVERIFY(!result.err.contains("did not confirm"));
        const QString folder = home.path("Documents");
        QVERIFY(QDir().mkpath(folder));
        result = run(home, {"add", "Personal", folder});
        QVERIFY2(result.exitCode == 0, qPrintable(result.err));
        result = run(home, {"add", "Family", folder});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("Folder is already watched in group Personal"),
                 qPrintable(result.err));

        // Commands this backend refuses on purpose: each prints its reason.
        result = run(home, {"remove", folder});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("Refused on purpose: stopWatching"), qPrintable(result.err));
        result = run(home, {"retention", "1", "30"});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("Refused on purpose: updateGroup"), qPrintable(result.err));
        result = run(home, {"open", folder});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("Refused on purpose: openDirPath"), qPrintable(result.err));
        // The refused removal left the folder where it was.
        QVERIFY(
            groupNamed(groupsOf(home), "Personal").value("WalkPaths").toArray().contains(folder));

        // Each folder's progress is a number in the status document.
        QVERIFY(QTest::qWaitFor([&] { return folderStatus(home, folder) == "Up to date"; }, 30000));
        for (const auto &item : statusOf(home).value("dirItems").toArray()) {
            QCOMPARE(item.toObject().value("progress").toDouble(-1), 1.0);
        }
        QCOMPARE(run(home, {"quit"}).exitCode, 0);
        QVERIFY(client.process.waitForFinished(15000));
    }

    void addsConfirmedWithASlowBackend() {
        if (qEnvironmentVariable("TARNWICK_CLI_SLOW_BACKEND") != "1") {
            QSKIP("runs as the test cli_slow_backend");
        }
        // Every answer takes 400 ms: a user's command waits behind the ping on
        // the wire, and the group refreshes of an add meet the one-request
        // gate. Each add still ends with the folder in the group list.
        Home home;
        home.env.insert("KOVRIT_DEV_CODE", "123456");
        home.env.insert("KOVRIT_DEV_FAULT", "slow=400");
        Client client(home);
        QVERIFY(client.process.waitForStarted());
        QVERIFY(
            QTest::qWaitFor([&] { return statusOf(home).value("isLoggedIn") == false; }, 30000));
        Result result = run(home, {"login", "ana@example.org"}, "123456\n");
        QVERIFY2(result.exitCode == 0, qPrintable(result.err));
        QStringList folders;
        for (int i = 0; i < 20; ++i) {
            const QString folder = home.path(QStringLiteral("slow/folder-%1").arg(i));
            QVERIFY(QDir().mkpath(folder));
            folders << folder;
            result = run(home, {"add", "Personal", folder});
            QVERIFY2(result.exitCode == 0,
                     qPrintable(QStringLiteral("add %1: %2").arg(i).arg(result.err)));
        }
        const QJsonArray watched =
            groupNamed(groupsOf(home), "Personal").value("WalkPaths").toArray();
        for (const QString &folder : folders) {
            QVERIFY2(watched.contains(folder), qPrintable(folder));
        }
        QCOMPARE(run(home, {"quit"}).exitCode, 0);
        QVERIFY(client.process.waitForFinished(15000));
    }

    void aCommandWhoseRequestsAllFailExitsNonZero() {
        Home home;
        home.env.insert("KOVRIT_DEV_FAULT", "status=500"); // every request is answered 500
        Client client(home);
        QVERIFY(client.process.waitForStarted());
        Result result;
        QVERIFY(QTest::qWaitFor(
            [&] {
                // (before the backend's key is known the reason is that instead)
                result = run(home, {"groups"});
                return result.exitCode != 0 && result.err.contains("publishFailure");
            },
            30000));
        QCOMPARE(result.exitCode, 1);
        QVERIFY(result.out.isEmpty()); // no list, stale or otherwise
        QVERIFY2(result.err.contains("publishFailure"), qPrintable(result.err));
        QVERIFY(run(home, {"status"}).out.startsWith("Connecting to the backend ...\n"));
        QCOMPARE(run(home, {"quit"}).exitCode, 0);
        QVERIFY(client.process.waitForFinished(15000));
    }

    void untilTheBackendAnswersTheStatusSaysConnecting() {
        Home home;
        home.env.insert("KOVRIT_DEV_FAULT", "no-pem"); // it never shows its key
        Client client(home);
        QVERIFY(client.process.waitForStarted());
        Result result;
        QVERIFY(QTest::qWaitFor(
            [&] {
                result = run(home, {"status"});
                return result.exitCode == 0;
            },
            30000));
        QVERIFY2(result.out.startsWith("Connecting to the backend ...\n"), qPrintable(result.out));
        QVERIFY(!result.out.contains("Signed in"));
        QCOMPARE(statusOf(home).value("backendAnswered"), QJsonValue(false));
        QCOMPARE(run(home, {"quit"}).exitCode, 0);
        QVERIFY(client.process.waitForFinished(15000));
    }

    void aRestartThatDoesNotComeUpSaysSo() {
        Home home;
        home.env.insert("KOVRIT_DEV_FAULT", "exit-after=0");
        Client client(home);
        const QString crashed = "Binary crashed repeatedly. Please reinstall the app.";
        QVERIFY(QTest::qWaitFor([&] { return statusOf(home).value("error").toString() == crashed; },
                                60000));
        const Result result = run(home, {"restart-backend"});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("The backend did not come up: " + crashed),
                 qPrintable(result.err));
        QVERIFY(!result.out.contains("Backend restarted"));
        QCOMPARE(run(home, {"quit"}).exitCode, 0);
        QVERIFY(client.process.waitForFinished(15000));
    }

    void restartAfterTheFailedState() {
        Home home;
        // Each run answers for a few seconds, then dies young.
        home.env.insert("KOVRIT_DEV_FAULT", "exit-after=3");
        Client client(home);
        QVERIFY(QTest::qWaitFor(
            [&] {
                return statusOf(home).value("error").toString() ==
                       "Binary crashed repeatedly. Please reinstall the app.";
            },
            60000));
        Result result = run(home, {"status"});
        QVERIFY(result.out.contains("tarnwick restart-backend"));
        QVERIFY(!result.out.contains("Signed in"));
        QVERIFY(processesRunning(home.backendCopy()).isEmpty());
        QCOMPARE(client.output().count("Crash recovery attempt 1 of 3"), 1);

        // It answers once it is up again.
        result = run(home, {"restart-backend"});
        QVERIFY2(result.exitCode == 0, qPrintable(result.err));
        QCOMPARE(result.out, QString("Backend restarted\n"));
        QCOMPARE(statusOf(home).value("error").toString(), QString());
        // The count starts over: the (still faulty) backend is recovered again.
        QVERIFY(QTest::qWaitFor(
            [&] { return client.output().count("Crash recovery attempt 1 of 3") == 2; }, 30000));

        result = run(home, {"quit"});
        QCOMPARE(result.exitCode, 0);
        QVERIFY(client.process.waitForFinished(15000));
    }
};

QTEST_GUILESS_MAIN(CliTest)
#include "tst_cli.moc"
