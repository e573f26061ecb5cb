#include "WindowController.h"

#include "AppController.h"

#include <QCloseEvent>
#include <QGuiApplication>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickView>
#include <QScreen>
#include <QtDebug>

#include <algorithm>

namespace tarnwick::ui {

namespace {
// A focus loss this recent means the click on the tray icon that follows
// belongs to the same gesture.
constexpr std::chrono::milliseconds kRetoggleGuard{400};
// Likewise a window shown this recently stays: one click that both opens it
// (a notification lying over the tray icon) and reaches the icon must not
// close it again.
constexpr std::chrono::milliseconds kShownGuard{400};
constexpr int kMarginToIcon = 4;
// The smallest window the screens are laid out for; a smaller screen gets a
// window as large as its free area, and the screens scroll.
constexpr QSize kMinimumSize{400, 480};
} // namespace

WindowController::WindowController(QQmlEngine &engine, AppController &app, QObject *parent)
    : QObject(parent), engine_(engine), app_(app) {
    connect(&app_, &AppController::closeWindowRequested, this, &WindowController::hide);
}

WindowController::~WindowController() = default;

bool WindowController::load() {
    view_ = std::make_unique<QQuickView>(&engine_, nullptr);
    view_->setTitle(app_.appName());
    view_->setResizeMode(QQuickView::SizeRootObjectToView);
    view_->setColor(Qt::transparent);
    view_->setSource(QUrl(QStringLiteral("qrc:/qt/qml/Tarnwick/qml/MainWindow.qml")));
    if (view_->status() != QQuickView::Ready) {
        for (const QQmlError &error : view_->errors()) {
            qWarning().noquote() << error.toString();
        }
        return false;
    }
    preferredSize_ = view_->initialSize();
    fitInto(QGuiApplication::primaryScreen(), preferredSize_);
    view_->installEventFilter(this);
    connect(view_.get(), &QWindow::activeChanged, this, [this] {
        if (mode_ == Mode::popup && view_->isVisible() && !view_->isActive() && !hiding_ &&
            !unasked_) {
            hiddenOnFocusLoss_ = clock_->steadyNow();
            hide();
        }
    });
    applyMode();
    return true;
}

bool WindowController::prepare() {
    QQmlComponent component(&engine_,
                            QUrl(QStringLiteral("qrc:/qt/qml/Tarnwick/qml/MainWindow.qml")));
    if (component.status() != QQmlComponent::Ready) {
        for (const QQmlError &error : component.errors()) {
            qWarning().noquote() << error.toString();
        }
        return false;
    }
    prepared_ = true;
    return true;
}

bool WindowController::ensureLoaded() {
    if (view_) {
        return true;
    }
    if (!prepared_) {
        return false;
    }
    return load();
}

QQuickWindow *WindowController::window() const {
    return view_.get();
}

void WindowController::setMode(Mode mode) {
    if (mode_ == mode) {
        return;
    }
    mode_ = mode;
    applyMode();
}

void WindowController::applyMode() {
    app_.setFramed(mode_ == Mode::ordinary);
    if (!view_) {
        return;
    }
    const bool wasVisible = view_->isVisible();
    if (wasVisible) {
        hide();
    }
    if (mode_ == Mode::popup) {
        view_->setFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    } else {
        view_->setFlags(Qt::Window);
    }
    if (wasVisible && mode_ == Mode::ordinary) {
        show();
    }
}

bool WindowController::isVisible() const {
    return view_ && view_->isVisible();
}

void WindowController::show() {
    if (!ensureLoaded()) {
        return;
    }
    if (mode_ == Mode::popup) {
        placeNear(lastAnchor_);
    } else {
        // The size the user gave it, as far as the screen allows, and all of
        // it on the screen.
        fitInto(view_->screen(), view_->size());
    }
    view_->show();
    if (mode_ == Mode::ordinary) {
        // Its frame is known once it is shown.
        fitInto(view_->screen(), view_->size());
        keepOnScreen();
    }
    view_->raise();
    view_->requestActivate();
    shownAt_ = clock_->steadyNow();
}

void WindowController::show(const QRect &anchor) {
    if (anchor.isValid() && !anchor.isEmpty()) {
        lastAnchor_ = anchor;
    }
    unasked_ = false;
    show();
}

void WindowController::showUnasked(const QRect &anchor) {
    show(anchor);
    unasked_ = true;
}

void WindowController::hide() {
    if (!view_ || !view_->isVisible()) {
        return;
    }
    hiding_ = true;
    view_->hide();
    hiding_ = false;
}

void WindowController::toggle(const QRect &anchor) {
    if (!ensureLoaded()) {
        return;
    }
    if (view_->isVisible()) {
        if (shownAt_ && clock_->steadyNow() - *shownAt_ < kShownGuard) {
            return;
        }
        hide();
        return;
    }
    if (hiddenOnFocusLoss_ && clock_->steadyNow() - *hiddenOnFocusLoss_ < kRetoggleGuard) {
        hiddenOnFocusLoss_.reset();
        return;
    }
    show(anchor);
}

void WindowController::placeNear(const QRect &anchor) {
    QScreen *screen = nullptr;
    if (anchor.isValid()) {
        screen = QGuiApplication::screenAt(anchor.center());
    }
    if (screen == nullptr) {
        screen = QGuiApplication::primaryScreen();
    }
    if (screen == nullptr) {
        return;
    }
    view_->setScreen(screen);
    fitInto(screen, preferredSize_);
    view_->setPosition(popupPosition(anchor, view_->size(), screen->availableGeometry()));
}

void WindowController::keepOnScreen() {
    QScreen *screen = view_ ? view_->screen() : nullptr;
    if (screen == nullptr) {
        return;
    }
    const QRect available = screen->availableGeometry();
    const QRect frame = view_->frameGeometry();
    if (available.contains(frame)) {
        return;
    }
    const int x = std::clamp(frame.x(), available.left(),
                             std::max(available.left(), available.right() + 1 - frame.width()));
    const int y = std::clamp(frame.y(), available.top(),
                             std::max(available.top(), available.bottom() + 1 - frame.height()));
    view_->setFramePosition(QPoint(x, y));
}

void WindowController::fitInto(QScreen *screen, QSize size) {
    if (!view_) {
        return;
    }
    QSize minimum = kMinimumSize;
    if (screen != nullptr) {
        // The free area less the window's frame (none for the popup).
        const QSize available = screen->availableGeometry().size().shrunkBy(view_->frameMargins());
        size = size.boundedTo(available);
        minimum = minimum.boundedTo(available);
        view_->setMaximumSize(available);
    }
    view_->setMinimumSize(minimum);
    view_->resize(size);
}

QPoint WindowController::popupPosition(const QRect &anchor, const QSize &size,
                                       const QRect &available) {
    int x = 0;
    int y = 0;
    if (!anchor.isValid() || anchor.isEmpty()) {
        x = available.right() + 1 - size.width() - kMarginToIcon;
        y = available.top() + kMarginToIcon;
    } else {
        x = anchor.center().x() - size.width() / 2;
        if (anchor.center().y() < available.center().y()) {
            y = anchor.bottom() + 1 + kMarginToIcon;
        } else {
            y = anchor.top() - kMarginToIcon - size.height();
        }
    }
    // Inside the free area (its top-left corner wins on a tiny screen).
    x = std::min(x, available.right() + 1 - size.width());
    y = std::min(y, available.bottom() + 1 - size.height());
    x = std::max(x, available.left());
    y = std::max(y, available.top());
    return {x, y};
}

bool WindowController::eventFilter(QObject *watched, QEvent *event) {
    if (watched == view_.get() &&
        (event->type() == QEvent::MouseButtonPress || event->type() == QEvent::KeyPress)) {
        unasked_ = false;
    }
    if (watched == view_.get() && event->type() == QEvent::Close) {
        // Closing hides; the application decides whether that ends it.
        event->ignore();
        hide();
        emit closedByUser();
        return true;
    }
    return QObject::eventFilter(watched, event);
}

} // namespace tarnwick::ui
