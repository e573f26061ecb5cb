// `cmake --install` into a DESTDIR: every file a desktop needs lands in its
// usual place, the desktop entry and the AppStream metadata validate, and the
// installed client signs in headless over the installed backend. A client
// started from the build tree leaves launch at login off; the installed one
// switches it on, pointing at itself.
#include "PackagingSupport.h"

#include <QCryptographicHash>
#include <QDirIterator>
#include <QRegularExpression>

using namespace tarnwick::test;

namespace {

QByteArray sha256(const QString &path) {
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    return file.open(QIODevice::ReadOnly) && hash.addData(&file) ? hash.result() : QByteArray();
}

QString readText(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

} // namespace

class InstallTest : public QObject {
    Q_OBJECT

    QTemporaryDir destdir_;
    QString prefix_; // where the tree is, DESTDIR included

private slots:
    void initTestCase() {
        QVERIFY(destdir_.isValid());
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("DESTDIR", destdir_.path());
        const Result install =
            runProgram(QStringLiteral(CMAKE_COMMAND),
                       {"--install", TARNWICK_BUILD_TREE, "--prefix", "/usr"}, env);
        QVERIFY2(install.exitCode == 0, qPrintable(install.out + install.err));
        prefix_ = destdir_.filePath("usr");
    }

    void everyFileInItsPlace() {
        for (const QString &file : installedFiles()) {
            QVERIFY2(QFileInfo(prefix_ + u'/' + file).isFile(), qPrintable(file));
        }
        QVERIFY(QFileInfo(prefix_ + "/bin/tarnwick").isExecutable());
        QVERIFY(QFileInfo(prefix_ + "/libexec/tarnwick/" KOVRIT_DEV_NAME).isExecutable());
        // The build tree's marker is not part of an installation.
        QVERIFY(!QFile::exists(prefix_ + "/bin/.tarnwick-build-tree"));
        // Nothing else than what is listed (no test programs, no libraries).
        QStringList unexpected;
        QDirIterator it(prefix_, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString relative = QDir(prefix_).relativeFilePath(it.next());
            if (!installedFiles().contains(relative)) {
                unexpected << relative;
            }
        }
        QVERIFY2(unexpected.isEmpty(), qPrintable(unexpected.join(' ')));
        // The desktop entry and the autostart entry name the installed icon.
        const QString entry =
            readText(prefix_ + "/share/applications/app.tarnwick.Tarnwick.desktop");
        QVERIFY(entry.contains("\nIcon=app.tarnwick.Tarnwick\n"));
        QVERIFY(entry.contains("\nExec=tarnwick\n"));
    }

    void theValidatorsAccept() {
        const QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        const Result desktop =
            runProgram("desktop-file-validate",
                       {prefix_ + "/share/applications/app.tarnwick.Tarnwick.desktop"}, env);
        QVERIFY2(desktop.exitCode == 0, qPrintable(desktop.out + desktop.err));
        QVERIFY2(!desktop.out.contains("error"), qPrintable(desktop.out));
        const Result metainfo =
            runProgram("appstreamcli",
                       {"validate", "--no-net", "--pedantic",
                        prefix_ + "/share/metainfo/app.tarnwick.Tarnwick.metainfo.xml"},
                       env);
        QVERIFY2(metainfo.exitCode == 0, qPrintable(metainfo.out + metainfo.err));
        // The manual page formats without a warning.
        const Result man = runProgram("sh",
                                      {"-c", "zcat \"$0\" | groff -man -Tutf8 -ww -z",
                                       prefix_ + "/share/man/man1/tarnwick.1.gz"},
                                      env);
        QVERIFY2(man.exitCode == 0 && man.err.isEmpty(), qPrintable(man.err));
    }

    void bashCompletesTheCommands() {
        // The installed completion, loaded the way bash-completion loads it.
        const QString script = QStringLiteral(R"(
source /usr/share/bash-completion/bash_completion || exit 3
source "$0" || exit 4
complete_line() {
    COMP_LINE=$1; COMP_POINT=${#1}; read -r -a COMP_WORDS <<< "$1"
    [[ $1 == *' ' ]] && COMP_WORDS+=('')
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); COMPREPLY=(); _tarnwick
    echo "$1=> ${COMPREPLY[*]}"
}
complete_line 'tarnwick di'
complete_line 'tarnwick status --'
complete_line 'tarnwick login ana@example.org --'
complete -p tarnwick
)");
        const Result bash = runProgram(
            "bash", {"-c", script, prefix_ + "/share/bash-completion/completions/tarnwick"},
            QProcessEnvironment::systemEnvironment());
        QVERIFY2(bash.exitCode == 0, qPrintable(bash.out + bash.err));
        QVERIFY2(bash.out.contains("tarnwick di=> diagnose\n"), qPrintable(bash.out));
        QVERIFY(bash.out.contains("tarnwick status --=> --json\n"));
        QVERIFY(bash.out.contains("tarnwick login ana@example.org --=> --code\n"));
        QVERIFY(bash.out.contains("complete -F _tarnwick tarnwick"));
    }

    void theInstalledClientSignsIn() {
        Home home;
        Client client(home, prefix_ + "/bin/tarnwick");
        QVERIFY(client.process.waitForStarted());
        const QString problem = client.signIn("ana@example.org");
        QVERIFY2(problem.isEmpty(), qPrintable(problem + "\n" + client.output()));

        // The backend it runs is the installed one, copied into its data folder.
        const QString copy = home.path("data/tarnwick/bin/" KOVRIT_DEV_NAME);
        QCOMPARE(sha256(copy), sha256(prefix_ + "/libexec/tarnwick/" KOVRIT_DEV_NAME));
        QVERIFY(client.output().contains("Binary validation passed for " + copy));

        // The first start of an installed client switches launch at login on,
        // pointing at the installed program.
        const QString entry = readText(home.autostartEntry());
        QVERIFY2(entry.contains("\nExec=" + prefix_ + "/bin/tarnwick\n"), qPrintable(entry));
        QVERIFY(entry.contains("\nIcon=app.tarnwick.Tarnwick\n"));
        QVERIFY(!client.output().contains("Launch at login not switched on"));

        // Its lines went to the log file too, time-stamped.
        const QString log = readText(home.logFile());
        static const QRegularExpression stampedValidation(
            "\\n\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z Binary validation passed for ");
        QVERIFY2(stampedValidation.match(log).hasMatch(), qPrintable(log));

        // The diagnostic report: every section, the backend's digest, no address.
        const Result report = client.run({"diagnose"});
        QCOMPARE(report.exitCode, 0);
        for (const char *section : {"== Version ==", "== Platform ==", "== Status ==",
                                    "== Backend ==", "== Settings ==", "== Log (last "}) {
            QVERIFY2(report.out.contains(QLatin1String(section)), section);
        }
        QVERIFY(report.out.contains("\"isLoggedIn\":true"));
        QVERIFY(report.out.contains("\"userName\":\"a***@e***.org\""));
        QVERIFY(report.out.contains(QString::fromLatin1(sha256(copy).toHex())));
        QVERIFY(report.out.contains("launch at login: on"));
        QVERIFY(report.out.contains("(installed)"));
        QVERIFY2(!report.out.contains("ana@example.org"), qPrintable(report.out));

        QCOMPARE(client.run({"quit"}).exitCode, 0);
        QVERIFY(client.process.waitForFinished(30000));
    }

    void aBuildTreeClientLeavesLaunchAtLoginOff() {
        Home home;
        Client client(home, QStringLiteral(TARNWICK_BUILD_EXECUTABLE));
        QVERIFY(client.process.waitForStarted());
        QVERIFY(
            QTest::qWaitFor([&] { return client.status().value("isLoggedIn") == false; }, 60000));
        QVERIFY2(client.output().contains("Launch at login not switched on: " +
                                          QStringLiteral(TARNWICK_BUILD_EXECUTABLE) +
                                          " runs from a build tree"),
                 qPrintable(client.output()));
        QVERIFY(!QFile::exists(home.autostartEntry()));
        QCOMPARE(client.run({"quit"}).exitCode, 0);
        QVERIFY(client.process.waitForFinished(30000));
    }
};

QTEST_GUILESS_MAIN(InstallTest)
#include "tst_install.moc"
