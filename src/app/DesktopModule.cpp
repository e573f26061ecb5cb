#include "DesktopModule.h"

#include "ClientLog.h"

#include <QDir>
#include <QFileInfo>
#include <QLibrary>

#include <cstdio>

namespace tarnwick::desktop {

QString modulePath() {
    // No application object exists yet: the executable's own location from the system.
    const QString bin = QFileInfo(QStringLiteral("/proc/self/exe")).canonicalPath();
    return QDir::cleanPath(bin + QStringLiteral("/../" TARNWICK_DESKTOP_MODULE));
}

int run(int &argc, char **argv) {
    QLibrary library(modulePath());
    Entry entry = nullptr;
    if (library.load()) {
        entry = reinterpret_cast<Entry>(library.resolve(kEntryPoint));
    }
    if (!entry) {
        const QString text = QStringLiteral("tarnwick: the desktop client cannot be loaded (%1); "
                                            "tarnwick --headless runs the client without a window")
                                 .arg(library.errorString());
        ClientLog::fileOnly(QStringLiteral("error"), text);
        const QByteArray line = text.toLocal8Bit() + '\n';
        std::fwrite(line.constData(), 1, static_cast<std::size_t>(line.size()), stderr);
        return 1;
    }
    // The module carries its own copy of the log and installs it; this one lets go of the file.
    ClientLog::reset();
    // Never unloaded: the module's objects live until the process ends.
    return entry(&argc, argv);
}

} // namespace tarnwick::desktop
