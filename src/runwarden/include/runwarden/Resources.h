#pragma once

#include <QString>

#include <optional>

namespace runwarden {

/// The directory of the files shipped with the application (the backend builds among them):
/// $TARNWICK_RESOURCES_DIR when set and not empty, else ../libexec/tarnwick relative to the
/// directory of the running executable. The path is cleaned, not resolved; it may not exist.
QString resourcesDirectory();

/// The path of the shipped file `name` (a plain file name, no extension added), or std::nullopt
/// when no such file exists in resourcesDirectory(). Names holding a '/' and "."/".." are never
/// found.
std::optional<QString> bundleResourcePath(const QString &name);

} // namespace runwarden
