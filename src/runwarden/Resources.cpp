#include <runwarden/Resources.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

namespace runwarden {

namespace {

QString executableDirectory() {
    if (QCoreApplication::instance())
        return QCoreApplication::applicationDirPath();
    // Without an application object (early start-up, small tools) ask the system.
    return QFileInfo(QStringLiteral("/proc/self/exe")).canonicalPath();
}

} // namespace

QString resourcesDirectory() {
    const QString overridden = qEnvironmentVariable("TARNWICK_RESOURCES_DIR");
    if (!overridden.isEmpty())
        return QDir::cleanPath(overridden);
    return QDir::cleanPath(executableDirectory() + QStringLiteral("/../libexec/tarnwick"));
}

std::optional<QString> bundleResourcePath(const QString &name) {
    if (name.isEmpty() || name.contains(QLatin1Char('/')) || name == QLatin1String(".") ||
        name == QLatin1String(".."))
        return std::nullopt;
    const QString path = resourcesDirectory() + QLatin1Char('/') + name;
    if (!QFileInfo(path).isFile())
        return std::nullopt;
    return path;
}

} // namespace runwarden
