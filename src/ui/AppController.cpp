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

void AppController::setFramed(bool framed) {
    if (framed_ != framed) {
        framed_ = framed;
        emit framedChanged();
    }
}

void AppController::quit() {
    emit quitRequested();
}

void AppController::closeWindow() {
    emit closeWindowRequested();
}

void AppController::showTab(int index) {
    emit tabRequested(index);
}

QString AppController::siteName(const QUrl &url) {
    QString host = url.host();
    if (host.startsWith(QLatin1String("www."))) {
        host.remove(0, 4);
    }
    return host;
}

QString AppController::groupIDText(const QAbstractItemModel *model, int row) {
    if (model == nullptr || row < 0 || row >= model->rowCount()) {
        return {};
    }
    const int role = model->roleNames().key(QByteArrayLiteral("groupID"), -1);
    if (role < 0) {
        return {};
    }
    const QVariant value = model->data(model->index(row, 0), role);
    bool ok = false;
    const qlonglong id = value.toLongLong(&ok);
    return ok ? QString::number(id) : QString();
}

} // namespace tarnwick::ui
