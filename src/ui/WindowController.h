#pragma once

#include <runwarden/Clock.h>

#include <QObject>
#include <QPoint>
#include <QRect>
#include <QSize>
#include <optional>

#include <memory>

class QQmlEngine;
class QQuickView;
class QQuickWindow;
class QScreen;

namespace tarnwick::ui {

class AppController;

// The client's one window. By a tray icon it is a frameless popup placed
// next to the icon that hides itself when it loses the focus; without a
// tray it is an ordinary window that the user closes to quit.
class WindowController : public QObject {
    Q_OBJECT

public:
    enum class Mode { popup, ordinary };

    WindowController(QQmlEngine &engine, AppController &app, QObject *parent = nullptr);
    ~WindowController() override;

    // Creates the window with its content; false (and the QML errors logged)
    // when the content cannot be loaded.
    bool load();
    // Checks that the content compiles, and leaves creating the window to the
    // first time it is shown: a client that sits in the tray never pays for
    // a window nobody has opened. False (and the QML errors logged) when the
    // content cannot be loaded.
    bool prepare();
    // Whether the window has been created.
    bool isLoaded() const { return view_ != nullptr; }
    QQuickWindow *window() const;

    Mode mode() const { return mode_; }
    void setMode(Mode mode);
    // The time source of the guards against a click that would undo what the
    // previous one did (the system's by default).
    void setClock(runwarden::Clock &clock) { clock_ = &clock; }

    bool isVisible() const;
    // Shows the window (raised and focused): the popup by the last known
    // tray icon position.
    void show();
    // The same, by a tray icon at `anchor` (ignored when empty).
    void show(const QRect &anchor);
    // Shows the window without the user having asked (the login screen at a
    // start with nobody signed in): a popup opened so stays when the focus
    // moves elsewhere before the user has used it, so that it does not vanish
    // unseen; after a click or key press in it, it behaves as any popup.
    void showUnasked(const QRect &anchor);
    void hide();
    // The tray icon's click: hides a shown popup, else shows it by the icon
    // (anchor: the icon's rectangle on screen; empty when unknown).
    void toggle(const QRect &anchor);

    // Where a popup of this size goes for a tray icon at `anchor` on a
    // screen whose free area is `available`: centred under an icon in the
    // upper half of the screen (above one in the lower half), kept inside
    // the free area. Without an anchor: the free area's top-right corner.
    static QPoint popupPosition(const QRect &anchor, const QSize &size, const QRect &available);

signals:
    // The user closed the ordinary window (its frame's close button).
    void closedByUser();

private:
    // Creates the window when only prepared so far; false when that fails.
    bool ensureLoaded();
    void placeNear(const QRect &anchor);
    // Gives the window a size, as far as the screen's free area allows (the
    // whole window stays on screen; its content scrolls).
    void fitInto(QScreen *screen, QSize size);
    // Moves an ordinary window, frame and all, inside the screen's free area.
    void keepOnScreen();
    void applyMode();
    bool eventFilter(QObject *watched, QEvent *event) override;

    QQmlEngine &engine_;
    AppController &app_;
    std::unique_ptr<QQuickView> view_;
    // prepare() found the content loadable: show() creates the window.
    bool prepared_ = false;
    Mode mode_ = Mode::ordinary;
    QRect lastAnchor_;
    QSize preferredSize_;
    // When the popup last hid itself on losing the focus: a click on the
    // tray icon takes the focus first, and must not show it again at once.
    std::optional<runwarden::Clock::TimePoint> hiddenOnFocusLoss_;
    std::optional<runwarden::Clock::TimePoint> shownAt_;
    runwarden::Clock *clock_ = &runwarden::Clock::system();
    bool hiding_ = false;
    // Shown unasked and not used yet (see showUnasked).
    bool unasked_ = false;
};

} // namespace tarnwick::ui
