#include "LaunchAtLogin.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

namespace tarnwick {

Q_LOGGING_CATEGORY(lcLaunchAtLogin, "com.pellmar.LaunchAtLogin.main")

namespace {

QString &programOverride() {
    static QString program;
    return program;
}

// Desktop-entry Exec quoting: arguments with special characters go in double
// quotes, with ", `, $ and \ escaped.
QString quotedExec(const QString &path) {
    static const QString kSpecial = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`");
    bool needsQuotes = false;
    for (const QChar c : path) {
        if (kSpecial.contains(c)) {
            needsQuotes = true;
            break;
        }
    }
    if (!needsQuotes) {
        return path;
    }
    QString escaped;
    for (const QChar c : path) {
        if (c == u'"' || c == u'`' || c == u'$' || c == u'\\') {
            escaped += u'\\';
        }
        escaped += c;
    }
    // In the desktop file itself a backslash is escaped once more.
    escaped.replace(QLatin1String("\\"), QLatin1String("\\\\"));
    return u'"' + escaped + u'"';
}

} // namespace

QString LaunchAtLogin::entryPath() {
    const QString config = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    return config + QStringLiteral("/autostart/tarnwick.desktop");
}

void LaunchAtLogin::setProgram(const QString &path) {
    programOverride() = path;
}

QString LaunchAtLogin::program() {
    return programOverride().isEmpty() ? QCoreApplication::applicationFilePath()
                                       : programOverride();
}

bool LaunchAtLogin::runsFromBuildTree() {
    const QFileInfo executable(program());
    // The folder the program really lives in (a symbolic link to a build's
    // executable still runs from the build tree).
    const QString canonical = executable.canonicalFilePath();
    const QString folder =
        canonical.isEmpty() ? executable.absolutePath() : QFileInfo(canonical).absolutePath();
    return QFileInfo::exists(folder + u'/' + QLatin1String(kBuildTreeMarker));
}

LaunchAtLogin::Observable *LaunchAtLogin::observable() {
    static Observable instance;
    return &instance;
}

bool LaunchAtLogin::isEnabled() {
    QFile entry(entryPath());
    if (!entry.open(QIODevice::ReadOnly | QIODevice::Text)) {
        return false;
    }
    while (!entry.atEnd()) {
        const QByteArray line = entry.readLine().trimmed();
        if (line.startsWith("Hidden=")) {
            if (line.mid(7).trimmed().toLower() == "true") {
                return false;
            }
        }
    }
    return true;
}

bool LaunchAtLogin::registerApp(QString *error) {
    const QString path = entryPath();
    if (!QDir().mkpath(QFileInfo(path).absolutePath())) {
        *error = QStringLiteral("could not create %1").arg(QFileInfo(path).absolutePath());
        return false;
    }
    QSaveFile entry(path);
    if (!entry.open(QIODevice::WriteOnly | QIODevice::Text)) {
        *error = entry.errorString();
        return false;
    }
    const QString text = QStringLiteral("[Desktop Entry]\n"
                                        "Type=Application\n"
                                        "Name=Tarnwick\n"
                                        "Comment=Secure file synchronisation\n"
                                        "Exec=%1\n"
                                        "Icon=" TARNWICK_APP_ID "\n"
                                        "Terminal=false\n"
                                        "X-GNOME-Autostart-enabled=true\n")
                             .arg(quotedExec(program()));
    entry.write(text.toUtf8());
    if (!entry.commit()) {
        *error = entry.errorString();
        return false;
    }
    return true;
}

bool LaunchAtLogin::unregisterApp(QString *error) {
    QFile entry(entryPath());
    if (!entry.exists()) {
        return true; // nothing registered: already the state asked for
    }
    if (!entry.remove()) {
        *error = entry.errorString();
        return false;
    }
    return true;
}

void LaunchAtLogin::setEnabled(bool enabled) {
    // Observers hear of the change first, so a toggle redraws at once.
    emit observable()->isEnabledChanged();
    QString error;
    if (enabled) {
        if (isEnabled()) {
            QString ignored;
            unregisterApp(&ignored);
        }
        if (!registerApp(&error)) {
            qCCritical(lcLaunchAtLogin, "Failed to %s launch at login: %s", "enable",
                       qUtf8Printable(error));
        }
    } else if (!unregisterApp(&error)) {
        qCCritical(lcLaunchAtLogin, "Failed to %s launch at login: %s", "disable",
                   qUtf8Printable(error));
    }
    emit observable()->isEnabledChanged();
}

} // namespace tarnwick
