#include "Diagnose.h"

#include "BackendLauncher.h"
#include "BinaryPreparation.h"
#include "ClientLog.h"
#include "LaunchAtLogin.h"

#include <runwarden/ExitAppIfAlreadyOpen.h>
#include <runwarden/Resources.h>
#include <runwarden/SystemArchitecture.h>

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSettings>
#include <QSysInfo>
#include <QTextStream>

#include <cstdio>

#include <openssl/opensslv.h>

#ifndef TARNWICK_VERSION
#define TARNWICK_VERSION "0.0.0"
#endif

namespace tarnwick::cli {

namespace {

constexpr int kLogLines = 300;
constexpr int kStatusTimeoutMs = 10'000;

QString section(const QString &title) {
    return QStringLiteral("\n== %1 ==\n").arg(title);
}

QString describeFile(const QString &label, const QString &path) {
    QString text = QStringLiteral("%1: %2\n").arg(label, path);
    const QFileInfo info(path);
    if (!info.exists()) {
        return text + QStringLiteral("  missing\n");
    }
    const auto digest = supervisor::BinaryPreparation::sha256OfFile(path);
    text += QStringLiteral("  size %1 bytes, mode %2, sha256 %3\n")
                .arg(info.size())
                .arg(QString::number(static_cast<int>(info.permissions()), 16))
                .arg(digest ? QString::fromStdString(*digest) : QStringLiteral("(unreadable)"));
    return text;
}

QString statusSection() {
    // The same request as `tarnwick status --json`.
    const runwarden::InstanceReply answer =
        runwarden::sendInstanceRequest({{QStringLiteral("command"), QStringLiteral("status")}},
                                       kStatusTimeoutMs, {}, QStringLiteral("tarnwick"));
    if (!answer.connected) {
        return QStringLiteral("(the client is not running)\n");
    }
    if (!answer.finished || answer.lines.isEmpty()) {
        return QStringLiteral("(no answer from the running client: %1)\n").arg(answer.error);
    }
    // The status document carries whether the backend failed.
    const QJsonObject status = answer.lines.first().value(QStringLiteral("status")).toObject();
    return QString::fromUtf8(QJsonDocument(status).toJson(QJsonDocument::Compact)) + u'\n';
}

QString backendSection() {
    const QString architecture = runwarden::SystemArchitecture();
    const auto choice = supervisor::BackendLauncher::chooseBinaryName(
        architecture, supervisor::BinaryPreparation::defaultResourceLookup());
    QString text;
    QTextStream out(&text);
    out << "processor: " << architecture << '\n'
        << "backend: " << choice.name << (choice.beta ? " (beta)" : " (release)") << '\n'
        << "resources: " << runwarden::resourcesDirectory() << '\n';
    out << describeFile(QStringLiteral("shipped"),
                        runwarden::bundleResourcePath(choice.name)
                            .value_or(runwarden::resourcesDirectory() + u'/' + choice.name));
    const auto data = supervisor::BinaryPreparation::defaultDataDirectoryLookup()();
    if (data) {
        out << describeFile(QStringLiteral("copy"),
                            supervisor::BinaryPreparation::binDirectory(*data) + u'/' +
                                choice.name);
    } else {
        out << "copy: (no data folder)\n";
    }
    return text;
}

QString settingsSection() {
    QString text;
    QTextStream out(&text);
    QSettings settings(QStringLiteral("tarnwick"), QStringLiteral("tarnwick"));
    out << "file: " << settings.fileName() << '\n';
    const QStringList keys = settings.allKeys();
    if (keys.isEmpty()) {
        out << "(no settings written yet)\n";
    }
    for (const QString &key : keys) {
        out << key << " = " << settings.value(key).toString() << '\n';
    }
    out << "launch at login: " << (LaunchAtLogin::isEnabled() ? "on" : "off") << " ("
        << LaunchAtLogin::entryPath() << ")\n";
    QFile entry(LaunchAtLogin::entryPath());
    if (entry.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : entry.readAll().split('\n')) {
            if (line.startsWith("Exec=")) {
                out << "  " << QString::fromUtf8(line) << '\n';
            }
        }
    }
    for (const char *name :
         {"TARNWICK_SERVICE_URL", "TARNWICK_RESOURCES_DIR", "TARNWICK_APPCAST_URL",
          "XDG_CURRENT_DESKTOP", "XDG_SESSION_TYPE", "QT_QPA_PLATFORM"}) {
        if (qEnvironmentVariableIsSet(name)) {
            out << name << " = " << qEnvironmentVariable(name) << '\n';
        }
    }
    return text;
}

} // namespace

QString maskPersonalData(const QString &text) {
    static const QRegularExpression address(QStringLiteral(
        R"(([A-Za-z0-9._%+\-]+)@([A-Za-z0-9\-]+(?:\.[A-Za-z0-9\-]+)*)\.([A-Za-z]{2,}))"));
    static const QRegularExpression code(QStringLiteral(R"((sign-in code for [^:\s]+: )\S+)"));
    QString masked;
    qsizetype from = 0;
    for (auto it = address.globalMatch(text); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        masked += text.mid(from, match.capturedStart() - from);
        masked += match.captured(1).left(1) + QStringLiteral("***@") + match.captured(2).left(1) +
                  QStringLiteral("***.") + match.captured(3);
        from = match.capturedEnd();
    }
    masked += text.mid(from);
    masked.replace(code, QStringLiteral("\\1******"));
    return masked;
}

QString diagnoseReport() {
    QString report;
    QTextStream out(&report);
    out << "Tarnwick diagnostic report (e-mail addresses masked)\n";
    out << section(QStringLiteral("Version")) << "tarnwick " << TARNWICK_VERSION << '\n'
        << "Qt " << qVersion() << ", " << OPENSSL_VERSION_TEXT << '\n'
        << "executable: " << QCoreApplication::applicationFilePath()
        << (LaunchAtLogin::runsFromBuildTree() ? " (build tree)" : " (installed)") << '\n';
    out << section(QStringLiteral("Platform")) << QSysInfo::prettyProductName() << '\n'
        << "kernel: " << QSysInfo::kernelType() << ' ' << QSysInfo::kernelVersion() << '\n'
        << "cpu: " << QSysInfo::currentCpuArchitecture() << '\n';
    out << section(QStringLiteral("Status")) << statusSection();
    out << section(QStringLiteral("Backend")) << backendSection();
    out << section(QStringLiteral("Settings")) << settingsSection();
    const QStringList lines = ClientLog::tail(kLogLines);
    out << section(
        QStringLiteral("Log (last %1 lines of %2)").arg(kLogLines).arg(ClientLog::filePath()));
    if (lines.isEmpty()) {
        out << "(empty)\n";
    }
    for (const QString &line : lines) {
        out << line << '\n';
    }
    out.flush();
    return maskPersonalData(report);
}

int runDiagnose() {
    const QByteArray text = diagnoseReport().toUtf8();
    std::fwrite(text.constData(), 1, static_cast<std::size_t>(text.size()), stdout);
    std::fflush(stdout);
    return 0;
}

} // namespace tarnwick::cli
