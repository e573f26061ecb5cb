#include "TrayController.h"

#include "ItemsProvider.h"
#include "SymbolIconRenderer.h"

#include <QAction>
#include <QMenu>
#include <QPixmap>
#include <QSystemTrayIcon>

namespace tarnwick::ui {

TrayController::TrayController(ItemsProvider &model, bool followModel, QObject *parent)
    : QObject(parent), model_(model), menu_(std::make_unique<QMenu>()),
      tray_(std::make_unique<QSystemTrayIcon>()), followModel_(followModel) {
    QAction *open = menu_->addAction(QStringLiteral("Open Tarnwick"));
    menu_->addSeparator();
    QAction *quit = menu_->addAction(QStringLiteral("Quit"));
    connect(open, &QAction::triggered, this, &TrayController::openRequested);
    connect(quit, &QAction::triggered, this, &TrayController::quitRequested);
    tray_->setContextMenu(menu_.get());
    tray_->setToolTip(QStringLiteral("Tarnwick"));

    connect(tray_.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                switch (reason) {
                case QSystemTrayIcon::Trigger:
                case QSystemTrayIcon::MiddleClick:
                    emit toggleRequested(tray_->geometry());
                    break;
                case QSystemTrayIcon::DoubleClick:
                    emit openRequested();
                    break;
                case QSystemTrayIcon::Context:
                case QSystemTrayIcon::Unknown:
                    break;
                }
            });
    connect(tray_.get(), &QSystemTrayIcon::messageClicked, this, &TrayController::openRequested);
    connect(&model_, &ItemsProvider::menuBarStringChanged, this, &TrayController::updateIcon);
    updateIcon();
}

TrayController::~TrayController() {
    tray_->hide();
}

bool TrayController::isTrayAvailable() {
    return QSystemTrayIcon::isSystemTrayAvailable();
}

void TrayController::show() {
    tray_->show();
}

bool TrayController::isVisible() const {
    return tray_->isVisible();
}

QRect TrayController::geometry() const {
    return tray_->geometry();
}

void TrayController::showMessage(const QString &title, const QString &message) {
    if (!tray_->isVisible()) {
        return;
    }
    tray_->showMessage(title, message, applicationIcon(), 10000);
}

QIcon TrayController::applicationIcon() {
    return QIcon::fromTheme(QStringLiteral(TARNWICK_APP_ID),
                            QIcon(QStringLiteral(":/tarnwick/" TARNWICK_APP_ID ".svg")));
}

QIcon TrayController::iconFor(const QString &symbol) {
    // A symbol without a drawing still leaves something to click on.
    if (!SymbolIconRenderer::hasSymbol(symbol)) {
        return applicationIcon();
    }
    QIcon icon;
    for (const int size : {16, 22, 24, 32, 48, 64}) {
        const QImage image = SymbolIconRenderer::renderOutlined(
            symbol, QSize(size, size), QColor(255, 255, 255), QColor(24, 24, 24, 230));
        icon.addPixmap(QPixmap::fromImage(image));
    }
    return icon;
}

void TrayController::updateIcon() {
    const QString symbol = followModel_ ? model_.menuBarString() : QStringLiteral("internaldrive");
    if (symbol == symbol_ && !tray_->icon().isNull()) {
        return;
    }
    symbol_ = symbol;
    tray_->setIcon(iconFor(symbol_));
}

} // namespace tarnwick::ui
