#include "AppController.h"

#include <QCoreApplication>

namespace tarnwick::ui {

AppController::AppController(bool isMacOS13, QObject *parent)
    : QObject(parent), isMacOS13_(isMacOS13) {}

QString AppController::versionText() const {
    const QString version = QCoreApplication::applicationVersion();
    if (version.isEmpty()) {
        // The version is part of every build; its absence is our own bug.
        qFatal("The application has no version");
    }
    return QStringLiteral("v") + version;
}

void AppController::quit() {
    emit quitRequested();
}

} // namespace tarnwick::ui
