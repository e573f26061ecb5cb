#include "ClientLog.h"

#include <runwarden/LogLine.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QMutexLocker>
#include <QStandardPaths>

#include <cstdio>
#include <memory>

namespace tarnwick {

namespace {

constexpr qint64 kDefaultMaxBytes = 1024 * 1024;
constexpr int kDefaultKeptFiles = 3;

struct LogState {
    QMutex mutex;
    std::unique_ptr<QFile> file;
    qint64 maxBytes = kDefaultMaxBytes;
    int keptFiles = kDefaultKeptFiles;
    bool failed = false; // the file could not be opened: stay quiet about it
    QtMessageHandler previousHandler = nullptr;
};

LogState &state() {
    static LogState instance;
    return instance;
}

QString rotatedPath(const QString &path, int index) {
    return path + u'.' + QString::number(index);
}

QByteArray stamped(const QString &text, const QString &level) {
    const QByteArray stamp = QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs).toUtf8() +
                             ' ' + (level.isEmpty() ? QByteArray() : level.toUtf8() + ": ");
    QByteArray out;
    // A message with line breaks gets a stamp on every line.
    for (const QString &part : text.split(u'\n')) {
        out += stamp + part.toUtf8() + '\n';
    }
    return out;
}

void writeStandardOutput(const QByteArray &bytes) {
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

void runwardenLine(const std::string &line) {
    writeStandardOutput(QByteArray::fromStdString(line) + '\n');
    ClientLog::fileOnly(QString(), QString::fromLocal8Bit(line));
}

const char *levelName(QtMsgType type) {
    switch (type) {
    case QtDebugMsg:
        return "debug";
    case QtInfoMsg:
        return "info";
    case QtWarningMsg:
        return "warning";
    case QtCriticalMsg:
        return "critical";
    case QtFatalMsg:
        return "fatal";
    }
    return "message";
}

void qtMessage(QtMsgType type, const QMessageLogContext &context, const QString &message) {
    QString text = message;
    if (context.category && qstrcmp(context.category, "default") != 0) {
        text = QString::fromUtf8(context.category) + QStringLiteral(": ") + message;
    }
    ClientLog::fileOnly(QString::fromLatin1(levelName(type)), text);
    if (const QtMessageHandler previous = state().previousHandler) {
        previous(type, context, message);
    } else {
        const QByteArray line = qFormatLogMessage(type, context, message).toLocal8Bit() + '\n';
        std::fwrite(line.constData(), 1, static_cast<std::size_t>(line.size()), stderr);
        std::fflush(stderr);
    }
}

} // namespace

QString ClientLog::filePath() {
    // GenericStateLocation arrives with Qt 6.7; until then the XDG rule by hand.
    QString home = qEnvironmentVariable("XDG_STATE_HOME");
    if (home.isEmpty() || QDir::isRelativePath(home)) {
        home = QDir::homePath() + QStringLiteral("/.local/state");
    }
    return home + QStringLiteral("/tarnwick/tarnwick.log");
}

qint64 ClientLog::maxBytes() {
    QMutexLocker lock(&state().mutex);
    return state().maxBytes;
}

int ClientLog::keptFiles() {
    QMutexLocker lock(&state().mutex);
    return state().keptFiles;
}

void ClientLog::setLimits(qint64 maxBytes, int keptFiles) {
    QMutexLocker lock(&state().mutex);
    state().maxBytes = maxBytes;
    state().keptFiles = keptFiles;
}

void ClientLog::reset() {
    QMutexLocker lock(&state().mutex);
    state().file.reset();
    state().failed = false;
}

void ClientLog::line(const QString &text) {
    writeStandardOutput(text.toUtf8() + '\n');
    append(stamped(text, QString()));
}

void ClientLog::fileOnly(const QString &level, const QString &text) {
    append(stamped(text, level));
}

void ClientLog::install() {
    runwarden::setLineWriter(&runwardenLine);
    QtMessageHandler previous = qInstallMessageHandler(&qtMessage);
    QMutexLocker lock(&state().mutex);
    if (previous != &qtMessage) {
        state().previousHandler = previous;
    }
}

void ClientLog::append(const QByteArray &bytes) {
    LogState &log = state();
    QMutexLocker lock(&log.mutex);
    if (log.failed) {
        return;
    }
    const QString path = filePath();
    if (log.file && log.file->isOpen() && log.file->size() > 0 &&
        log.file->size() + bytes.size() > log.maxBytes) {
        // Rotate: tarnwick.log.(n-1) -> .n, ..., tarnwick.log -> .1.
        log.file.reset();
        QFile::remove(rotatedPath(path, log.keptFiles));
        for (int index = log.keptFiles - 1; index >= 1; --index) {
            QFile::rename(rotatedPath(path, index), rotatedPath(path, index + 1));
        }
        if (log.keptFiles > 0) {
            QFile::rename(path, rotatedPath(path, 1));
        } else {
            QFile::remove(path);
        }
    }
    if (!log.file || !log.file->isOpen()) {
        if (!QDir().mkpath(QFileInfo(path).absolutePath())) {
            log.failed = true;
            return;
        }
        log.file = std::make_unique<QFile>(path);
        if (!log.file->open(QIODevice::WriteOnly | QIODevice::Append)) {
            log.file.reset();
            log.failed = true;
            return;
        }
        log.file->setPermissions(QFile::ReadOwner | QFile::WriteOwner);
    }
    log.file->write(bytes);
    log.file->flush();
}

QStringList ClientLog::tail(int count) {
    const QString path = filePath();
    QStringList lines;
    for (const QString &file : {path, rotatedPath(path, 1)}) {
        QFile in(file);
        if (!in.open(QIODevice::ReadOnly)) {
            continue;
        }
        QStringList fileLines = QString::fromUtf8(in.readAll()).split(u'\n');
        if (!fileLines.isEmpty() && fileLines.last().isEmpty()) {
            fileLines.removeLast();
        }
        lines = fileLines + lines;
        if (lines.size() >= count) {
            break;
        }
    }
    if (lines.size() > count) {
        lines = lines.mid(lines.size() - count);
    }
    return lines;
}

} // namespace tarnwick
