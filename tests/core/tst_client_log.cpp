// The client's log file: every line also lands in
// $XDG_STATE_HOME/tarnwick/tarnwick.log with a timestamp, the file rotates at
// its size limit, and the diagnostic report masks personal data.
#include "ClientLog.h"
#include "Diagnose.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

using tarnwick::ClientLog;

namespace {

QStringList linesOf(const QString &path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    QStringList lines = QString::fromUtf8(file.readAll()).split(u'\n');
    if (!lines.isEmpty() && lines.last().isEmpty()) {
        lines.removeLast();
    }
    return lines;
}

} // namespace

class ClientLogTest : public QObject {
    Q_OBJECT

    QTemporaryDir state_;

private slots:
    void init() {
        // A fresh state folder for each test, never the real one.
        QVERIFY(state_.isValid());
        QDir(state_.filePath("tarnwick")).removeRecursively();
        qputenv("XDG_STATE_HOME", state_.path().toUtf8());
        ClientLog::reset();
        ClientLog::setLimits(1024 * 1024, 3);
    }

    void theFileFollowsTheStateHome() {
        QCOMPARE(ClientLog::filePath(), state_.filePath("tarnwick/tarnwick.log"));
        qputenv("XDG_STATE_HOME", "relative/state");
        qputenv("HOME", "/home/someone");
        QCOMPARE(ClientLog::filePath(),
                 QStringLiteral("/home/someone/.local/state/tarnwick/tarnwick.log"));
        qputenv("XDG_STATE_HOME", state_.path().toUtf8());
    }

    void everyLineIsStamped() {
        const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-1);
        ClientLog::line(QStringLiteral("run release kovrit-linux-amd64:"));
        ClientLog::fileOnly(QStringLiteral("warning"), QStringLiteral("two\nlines"));
        const QStringList lines = linesOf(ClientLog::filePath());
        QCOMPARE(lines.size(), 3);
        static const QRegularExpression stamped(
            QStringLiteral(R"(^(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z) (.*)$)"));
        const QRegularExpressionMatch first = stamped.match(lines[0]);
        QVERIFY2(first.hasMatch(), qPrintable(lines[0]));
        QCOMPARE(first.captured(2), QStringLiteral("run release kovrit-linux-amd64:"));
        const QDateTime when = QDateTime::fromString(first.captured(1), Qt::ISODateWithMs);
        QVERIFY(when.isValid());
        QVERIFY(when >= before && when <= QDateTime::currentDateTimeUtc().addSecs(1));
        QCOMPARE(stamped.match(lines[1]).captured(2), QStringLiteral("warning: two"));
        QCOMPARE(stamped.match(lines[2]).captured(2), QStringLiteral("warning: lines"));
        // The file is the user's own.
        QCOMPARE(QFile::permissions(ClientLog::filePath()) & (QFile::ReadOther | QFile::ReadGroup),
                 QFile::Permissions());
    }

    void theFileRotatesAtItsLimit() {
        ClientLog::setLimits(2000, 2);
        const QString path = ClientLog::filePath();
        // About 60 bytes a line: 200 lines go through the limit several times.
        for (int i = 0; i < 200; ++i) {
            ClientLog::fileOnly(QString(),
                                QStringLiteral("line %1").arg(i, 4, 10, QLatin1Char('0')));
        }
        QVERIFY(QFile::exists(path));
        QVERIFY(QFile::exists(path + ".1"));
        QVERIFY(QFile::exists(path + ".2"));
        QVERIFY(!QFile::exists(path + ".3")); // only two old files kept
        for (const QString &file : {path, path + ".1", path + ".2"}) {
            QVERIFY2(QFileInfo(file).size() <= 2000, qPrintable(file));
            QVERIFY(QFileInfo(file).size() > 1000);
        }
        // The newest line is last in the current file, and the files follow
        // each other without a gap.
        const QStringList current = linesOf(path);
        const QStringList previous = linesOf(path + ".1");
        QVERIFY(current.last().endsWith("line 0199"));
        const int lastOfPrevious = previous.last().right(4).toInt();
        const int firstOfCurrent = current.first().right(4).toInt();
        QCOMPARE(firstOfCurrent, lastOfPrevious + 1);

        // The tail reads across the two newest files, oldest first.
        const QStringList tail = ClientLog::tail(current.size() + 5);
        QCOMPARE(tail.size(), current.size() + 5);
        QCOMPARE(tail.mid(5), current);
        QCOMPARE(tail.first(), previous.at(previous.size() - 5));
    }

    void anUnwritableStateFolderIsNoFailure() {
        QFile blocker(state_.filePath("tarnwick"));
        QVERIFY(blocker.open(QIODevice::WriteOnly)); // a file where the folder should be
        blocker.close();
        ClientLog::line(QStringLiteral("still printed"));
        QVERIFY(!QFile::exists(ClientLog::filePath()));
        QFile::remove(state_.filePath("tarnwick"));
    }

    void personalDataIsMasked() {
        using tarnwick::cli::maskPersonalData;
        QCOMPARE(maskPersonalData(QStringLiteral("Signed in as ana.maria@example.org now")),
                 QStringLiteral("Signed in as a***@e***.org now"));
        QCOMPARE(maskPersonalData(QStringLiteral("sign-in code for bo@mail.example.co.uk: 417203")),
                 QStringLiteral("sign-in code for b***@m***.uk: ******"));
        QCOMPARE(maskPersonalData(QStringLiteral("{\"userName\":\"x@y.io\"}")),
                 QStringLiteral("{\"userName\":\"x***@y***.io\"}"));
        QCOMPARE(maskPersonalData(QStringLiteral("no address here: a@b")),
                 QStringLiteral("no address here: a@b"));
    }

    void theReportHasEverySection() {
        ClientLog::line(QStringLiteral("sign-in code for ana@example.org: 123456"));
        const QString report = tarnwick::cli::diagnoseReport();
        for (const char *section : {"== Version ==", "== Platform ==", "== Status ==",
                                    "== Backend ==", "== Settings ==", "== Log (last "}) {
            QVERIFY2(report.contains(QLatin1String(section)), section);
        }
        QVERIFY(report.contains("(the client is not running)"));
        QVERIFY(report.contains("sign-in code for a***@e***.org: ******"));
        QVERIFY(!report.contains("ana@example.org"));
        QVERIFY(!report.contains("123456"));
    }
};

QTEST_GUILESS_MAIN(ClientLogTest)
#include "tst_client_log.moc"
