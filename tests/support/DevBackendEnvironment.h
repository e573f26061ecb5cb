#pragma once

// Set-up shared by the tests that run the real development backend.

#include <QByteArray>
#include <QFileInfo>
#include <QString>
#include <QTemporaryDir>

namespace tarnwick::test {

// Whether the build placed the development backend in the resources
// directory the client reads (TARNWICK_RESOURCES_DIR).
inline bool developmentBackendBuilt() {
    const QString resources = qEnvironmentVariable("TARNWICK_RESOURCES_DIR");
    return QFileInfo(resources + "/kovrit-linux-amd64").isExecutable() ||
           QFileInfo(resources + "/kovrit-linux-arm64").isExecutable();
}

// Points the XDG folders into `home`, so each run starts afresh (the backend
// copy is made anew) and nothing reaches the real home folder, also when the
// test is run by hand outside CTest.
inline void useFreshHome(const QTemporaryDir &home) {
    for (const char *name :
         {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME"}) {
        qputenv(name, home.filePath(QString::fromLatin1(name)).toUtf8());
    }
}

} // namespace tarnwick::test
