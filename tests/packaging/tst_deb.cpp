// The Debian package made by CPack from the build tree: it holds every file
// of an installation under /usr, its dependencies (computed from the
// binaries) resolve on this system, lintian finds no error in it, dpkg
// installs and purges it without a trace (on a private root), and the client
// unpacked from it signs in headless.
#include "PackagingSupport.h"

#include <QDirIterator>
#include <QRegularExpression>

using namespace tarnwick::test;

class DebTest : public QObject {
    Q_OBJECT

    QTemporaryDir out_;
    QString deb_;
    QProcessEnvironment env_ = QProcessEnvironment::systemEnvironment();

private slots:
    void initTestCase() {
        QVERIFY(out_.isValid());
        const Result cpack =
            runProgram(QStringLiteral(CPACK_COMMAND), {"-G", "DEB", "-B", out_.path()}, env_,
                       600000, TARNWICK_BUILD_TREE);
        QVERIFY2(cpack.exitCode == 0, qPrintable(cpack.out + cpack.err));
        const QStringList debs = QDir(out_.path()).entryList({"tarnwick_*.deb"}, QDir::Files);
        QCOMPARE(debs.size(), 1);
        deb_ = out_.filePath(debs.first());
        QVERIFY2(debs.first().startsWith("tarnwick_" TARNWICK_VERSION "_"),
                 qPrintable(debs.first()));
    }

    void theContentsAreAnInstallation() {
        const Result contents = runProgram("dpkg-deb", {"--contents", deb_}, env_);
        QCOMPARE(contents.exitCode, 0);
        for (const QString &file : installedFiles()) {
            QVERIFY2(contents.out.contains(" ./usr/" + file + "\n"), qPrintable(file));
        }
        // Owned by root, executables 0755.
        for (const QString &line : contents.out.split('\n', Qt::SkipEmptyParts)) {
            QVERIFY2(line.contains(" root/root "), qPrintable(line));
        }
        QVERIFY(contents.out.contains(
            QRegularExpression("-rwxr-xr-x root/root +\\d+ [^\\n]* ./usr/bin/tarnwick\\n")));
    }

    void theDependenciesComeFromTheBinaries() {
        const Result depends = runProgram("dpkg-deb", {"--field", deb_, "Depends"}, env_);
        QCOMPARE(depends.exitCode, 0);
        // Libraries the executables link, found by the shared-library scan...
        for (const char *package :
             {"libqt6core6", "libqt6gui6", "libqt6quick6", "libssl3", "libc6"}) {
            QVERIFY2(depends.out.contains(QLatin1String(package)), qPrintable(depends.out));
        }
        // ...and the QML modules the screens load at run time.
        QVERIFY(depends.out.contains("qml6-module-qtquick-controls"));
        const Result simulate =
            runProgram("apt-get", {"install", "--simulate", "--no-install-recommends", deb_}, env_);
        QVERIFY2(simulate.exitCode == 0, qPrintable(simulate.out + simulate.err));
        QVERIFY2(simulate.out.contains("Inst tarnwick "), qPrintable(simulate.out));
    }

    void theDependenciesResolveOnACleanSystem() {
        // apt's resolver on this machine's package lists, as if nothing were
        // installed yet (an empty dpkg status): every dependency, down to
        // libc6, must come from the archive. Only a simulation.
        const QStringList lists =
            QDir("/var/lib/apt/lists").entryList({"*_Packages*"}, QDir::Files);
        if (lists.isEmpty()) {
            QSKIP("no apt package lists on this machine (apt-get update has not run)");
        }
        QTemporaryDir state;
        QVERIFY(state.isValid());
        QFile status(state.filePath("status"));
        QVERIFY(status.open(QIODevice::WriteOnly));
        status.close();
        const Result simulate =
            runProgram("apt-get",
                       {"--simulate", "-o", "Dir::State::status=" + status.fileName(), "install",
                        "--no-install-recommends", deb_},
                       env_);
        QVERIFY2(simulate.exitCode == 0, qPrintable(simulate.out + simulate.err));
        for (const char *package : {"Inst libc6 ", "Inst libqt6quick6 ", "Inst qt6-qpa-plugins ",
                                    "Inst qml6-module-qtquick-controls ", "Inst tarnwick "}) {
            QVERIFY2(simulate.out.contains(QLatin1String(package)), package);
        }
    }

    void lintianFindsNoError() {
        const Result lintian = runProgram("lintian", {"--fail-on", "error", deb_}, env_);
        QVERIFY2(lintian.exitCode == 0, qPrintable(lintian.out + lintian.err));
        QVERIFY2(!lintian.out.contains("\nE: ") && !lintian.out.startsWith("E: "),
                 qPrintable(lintian.out));
    }

    void itInstallsAndRemovesCleanly() {
        // dpkg on a private root with a database of its own: the machine's is
        // never touched. The libraries are this machine's, so the package's
        // dependencies are not looked for there (apt-get --simulate above
        // checks them).
        QTemporaryDir root;
        QVERIFY(root.isValid());
        QVERIFY(QDir().mkpath(root.filePath("var/lib/dpkg/updates")));
        QVERIFY(QDir().mkpath(root.filePath("var/lib/dpkg/info")));
        QFile status(root.filePath("var/lib/dpkg/status"));
        QVERIFY(status.open(QIODevice::WriteOnly));
        status.close();
        const QStringList dpkg = {"--root=" + root.path(), "--log=/dev/null", "--force-not-root",
                                  "--force-script-chrootless"};
        const Result install =
            runProgram("dpkg", dpkg + QStringList{"--force-depends", "--install", deb_}, env_);
        QVERIFY2(install.exitCode == 0, qPrintable(install.out + install.err));
        for (const QString &file : installedFiles()) {
            QVERIFY2(QFileInfo(root.filePath("usr/" + file)).isFile(), qPrintable(file));
        }
        const Result purge = runProgram("dpkg", dpkg + QStringList{"--purge", "tarnwick"}, env_);
        QVERIFY2(purge.exitCode == 0, qPrintable(purge.out + purge.err));
        // Nothing is left behind but dpkg's own database.
        QStringList left;
        QDirIterator it(root.path(), QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString relative = QDir(root.path()).relativeFilePath(it.next());
            if (!relative.startsWith("var")) {
                left << relative;
            }
        }
        QVERIFY2(left.isEmpty(), qPrintable(left.join(' ')));
    }

    void theUnpackedClientSignsIn() {
        QTemporaryDir root;
        QVERIFY(root.isValid());
        const Result extract = runProgram("dpkg-deb", {"-x", deb_, root.path()}, env_);
        QVERIFY2(extract.exitCode == 0, qPrintable(extract.err));
        Home home;
        Client client(home, root.filePath("usr/bin/tarnwick"));
        QVERIFY(client.process.waitForStarted());
        const QString problem = client.signIn("bo@example.org");
        QVERIFY2(problem.isEmpty(), qPrintable(problem + "\n" + client.output()));
        // It ran the backend shipped in the package.
        QVERIFY(client.output().contains("Binary validation passed for " +
                                         home.path("data/tarnwick/bin/" KOVRIT_DEV_NAME)));
        QCOMPARE(client.run({"quit"}).exitCode, 0);
        QVERIFY(client.process.waitForFinished(30000));
    }
};

QTEST_GUILESS_MAIN(DebTest)
#include "tst_deb.moc"
