#include "TrayController.h"

#include "ItemsProvider.h"
#include "SymbolIconRenderer.h"

#include <QAction>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QSystemTrayIcon>

#include <algorithm>

namespace tarnwick::ui {

namespace {

constexpr int kIconSizes[] = {16, 22, 24, 32, 48, 64};
const QColor kGlyphFill(255, 255, 255);
const QColor kGlyphOutline(24, 24, 24, 230);

// The mark drawn over an icon image: a dot in the mark's colour with the
// symbol's dark outline around it, and from 12 pixels up a white sign in
// it ("!" for trouble, "-" for signed out).
void drawMark(QImage &image, TrayController::Mark mark) {
    if (mark == TrayController::Mark::none) {
        return;
    }
    const QRectF dot = TrayController::markRect(image.width());
    const qreal ring = std::max<qreal>(1.0, dot.width() / 9.0);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(kGlyphOutline);
    painter.drawEllipse(dot);
    painter.setBrush(TrayController::markColor(mark));
    painter.drawEllipse(dot.adjusted(ring, ring, -ring, -ring));
    if (dot.width() < 12) {
        return;
    }
    const qreal unit = dot.width() / 12.0;
    const QPointF centre = dot.center();
    painter.setBrush(kGlyphFill);
    if (mark == TrayController::Mark::signedOut) {
        painter.drawRect(QRectF(centre.x() - 3 * unit, centre.y() - unit, 6 * unit, 2 * unit));
        return;
    }
    painter.drawRect(QRectF(centre.x() - unit, centre.y() - 4 * unit, 2 * unit, 5 * unit));
    painter.drawRect(QRectF(centre.x() - unit, centre.y() + 2 * unit, 2 * unit, 2 * unit));
}

} // namespace

TrayController::TrayController(ItemsProvider &model, bool followModel, QObject *parent)
    : QObject(parent), model_(model), menu_(std::make_unique<QMenu>()),
      tray_(std::make_unique<QSystemTrayIcon>()), followModel_(followModel) {
    account_ = menu_->addAction(QString());
    account_->setEnabled(false);
    restart_ = menu_->addAction(tr("Restart backend"));
    accountSeparator_ = menu_->addSeparator();
    QAction *open = menu_->addAction(tr("Open Tarnwick"));
    showStatus_ = menu_->addAction(tr("Show Status"));
    showSettings_ = menu_->addAction(tr("Show Settings"));
    menu_->addSeparator();
    QAction *quit = menu_->addAction(tr("Quit"));
    connect(open, &QAction::triggered, this, &TrayController::openRequested);
    connect(quit, &QAction::triggered, this, &TrayController::quitRequested);
    connect(restart_, &QAction::triggered, &model_, &ItemsProvider::restartBackend);
    connect(showStatus_, &QAction::triggered, this, [this] { emit openTabRequested(Tab::status); });
    connect(showSettings_, &QAction::triggered, this,
            [this] { emit openTabRequested(Tab::settings); });
    tray_->setContextMenu(menu_.get());

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
    for (const auto signal :
         {&ItemsProvider::isLoggedInChanged, &ItemsProvider::backendFailedChanged,
          &ItemsProvider::errorChanged, &ItemsProvider::userNameChanged,
          &ItemsProvider::isLoadingChanged, &ItemsProvider::backendAnsweredChanged}) {
        connect(&model_, signal, this, &TrayController::updateState);
    }
    folderRecount_.setSingleShot(true);
    folderRecount_.setInterval(0);
    connect(&folderRecount_, &QTimer::timeout, this, &TrayController::updateState);
    const auto recount = [this] { folderRecount_.start(); };
    DirItemsModel *folders = model_.dirItemsModel();
    connect(folders, &QAbstractItemModel::dataChanged, this, recount);
    connect(folders, &QAbstractItemModel::rowsInserted, this, recount);
    connect(folders, &QAbstractItemModel::rowsRemoved, this, recount);
    connect(folders, &QAbstractItemModel::modelReset, this, recount);
    updateState();
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

QIcon TrayController::iconFor(const QString &symbol, Mark mark) {
    // A symbol without a drawing still leaves something to click on.
    const bool drawn = SymbolIconRenderer::hasSymbol(symbol);
    if (!drawn && mark == Mark::none) {
        return applicationIcon();
    }
    QIcon icon;
    for (const int size : kIconSizes) {
        QImage image = drawn ? SymbolIconRenderer::renderOutlined(symbol, QSize(size, size),
                                                                  kGlyphFill, kGlyphOutline)
                             : applicationIcon()
                                   .pixmap(size, size)
                                   .toImage()
                                   .convertToFormat(QImage::Format_ARGB32_Premultiplied);
        drawMark(image, mark);
        icon.addPixmap(QPixmap::fromImage(image));
    }
    return icon;
}

QColor TrayController::markColor(Mark mark) {
    switch (mark) {
    case Mark::backendFailed:
        return {255, 59, 48}; // red
    case Mark::folderError:
        return {255, 149, 0}; // orange
    case Mark::signedOut:
        return {142, 142, 147}; // gray
    case Mark::none:
        break;
    }
    return {};
}

QRect TrayController::markRect(int size) {
    const int diameter = std::max(7, size * 9 / 16);
    return {size - diameter, size - diameter, diameter, diameter};
}

void TrayController::updateIcon() {
    const QString symbol = followModel_ ? model_.menuBarString() : QStringLiteral("internaldrive");
    if (symbol == symbol_ && iconDrawn_) {
        return;
    }
    symbol_ = symbol;
    tray_->setIcon(iconFor(symbol_, mark_));
    iconDrawn_ = true;
}

QString TrayController::summary(int folders, int syncing, int withErrors) const {
    if (model_.backendFailed()) {
        const QString reason = model_.error();
        return reason.isEmpty() ? tr("Backend stopped") : tr("Backend stopped: %1").arg(reason);
    }
    // Until the backend of this start answers, what the model holds is not yet known.
    if (!model_.backendAnswered()) {
        return tr("Connecting to the backend ...");
    }
    if (!model_.isLoggedIn()) {
        return tr("Not signed in");
    }
    const QString who = model_.userName().isEmpty() ? tr("Signed in")
                                                    : tr("Signed in as %1").arg(model_.userName());
    QStringList parts;
    if (folders == 0) {
        parts << (model_.isLoading() ? tr("loading folders") : tr("no folders"));
    } else {
        parts << (folders == 1 ? tr("%1 folder") : tr("%1 folders")).arg(folders);
        if (syncing > 0) {
            parts << tr("%1 syncing").arg(syncing);
        }
        if (withErrors > 0) {
            parts << (withErrors == 1 ? tr("%1 with an error") : tr("%1 with errors"))
                         .arg(withErrors);
        }
    }
    return who + QStringLiteral("; ") + parts.join(QStringLiteral(", "));
}

void TrayController::updateState() {
    folderRecount_.stop();
    int syncing = 0;
    int withErrors = 0;
    const std::vector<DirItem> &folders = model_.dirItems();
    for (const DirItem &folder : folders) {
        const double progress = folder.progress();
        if (progress > 0.0 && progress < 1.0) {
            ++syncing;
        }
        if (folder.error && !folder.error->empty()) {
            ++withErrors;
        }
    }
    const bool failed = model_.backendFailed();
    const bool connecting = !failed && !model_.backendAnswered();
    const bool signedIn = model_.isLoggedIn() && !connecting;
    Mark mark = Mark::none;
    if (failed) {
        mark = Mark::backendFailed;
    } else if (connecting) {
        mark = Mark::none;
    } else if (!signedIn) {
        mark = Mark::signedOut;
    } else if (withErrors > 0) {
        mark = Mark::folderError;
    }
    const QString tip = summary(static_cast<int>(folders.size()), syncing, withErrors);

    account_->setText(model_.userName());
    account_->setVisible(signedIn && !model_.userName().isEmpty());
    restart_->setVisible(failed);
    accountSeparator_->setVisible(account_->isVisible() || restart_->isVisible());
    showStatus_->setVisible(signedIn);
    showSettings_->setVisible(signedIn);

    const bool markChanged = mark != mark_;
    const bool tipChanged = tip != toolTip_;
    mark_ = mark;
    toolTip_ = tip;
    if (markChanged) {
        iconDrawn_ = false;
        updateIcon();
    }
    if (tipChanged) {
        tray_->setToolTip(toolTip_);
    }
    if (markChanged || tipChanged) {
        emit stateChanged();
    }
}

} // namespace tarnwick::ui
