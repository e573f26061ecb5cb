#pragma once

#include <QColor>
#include <QIcon>
#include <QObject>
#include <QRect>
#include <QString>
#include <QTimer>

#include <memory>

class QAction;
class QMenu;
class QSystemTrayIcon;

namespace tarnwick {
class ItemsProvider;
}

namespace tarnwick::ui {

// The client's entry in the desktop's tray: the model's menu-bar symbol
// (redrawn when it changes) with a small mark over it when something needs
// the user (signed out, the backend stopped, a folder in error), a tooltip
// that sums the state up, a click that toggles the window, and a context
// menu: the signed-in address, "Restart backend" while the backend has
// failed, "Open Tarnwick", the window on its status or settings tab, and
// "Quit". It also carries the desktop notifications.
class TrayController : public QObject {
    Q_OBJECT
    Q_PROPERTY(Mark mark READ mark NOTIFY stateChanged)
    Q_PROPERTY(QString toolTip READ toolTip NOTIFY stateChanged)

public:
    // The mark over the symbol; when several apply, the first of these.
    enum class Mark { none, backendFailed, signedOut, folderError };
    Q_ENUM(Mark)
    // The window's tabs, in their order.
    enum class Tab { status = 0, settings = 1 };
    Q_ENUM(Tab)

    // followModel: the icon shows the model's menu-bar symbol; otherwise
    // (the older-system path) always "internaldrive".
    TrayController(ItemsProvider &model, bool followModel, QObject *parent = nullptr);
    ~TrayController() override;

    // Whether the desktop has a tray to show the icon in.
    static bool isTrayAvailable();

    void show();
    bool isVisible() const;
    // The symbol the icon currently shows.
    QString symbol() const { return symbol_; }
    // The mark it shows over the symbol.
    Mark mark() const { return mark_; }
    // The icon's tooltip: "Not signed in", "Backend stopped: <reason>" or
    // "Signed in as <address>; <n> folders, <m> syncing".
    QString toolTip() const { return toolTip_; }
    // The icon's rectangle on screen (empty when the desktop does not say).
    QRect geometry() const;
    QSystemTrayIcon *trayIcon() const { return tray_.get(); }

    // A desktop notification (when the icon is shown).
    void showMessage(const QString &title, const QString &message);

    // The tray icon for a symbol: the glyph in white with a dark outline,
    // readable on light and dark panels, at the usual tray sizes, with the
    // mark (a dot in the mark's colour, outlined) on its lower right.
    // A symbol with no drawing gets the application's icon instead.
    static QIcon iconFor(const QString &symbol, Mark mark = Mark::none);
    // The mark's colour, and where it goes on an icon of a given size.
    static QColor markColor(Mark mark);
    static QRect markRect(int size);
    // The application's icon: the icon theme's, else the one built in.
    static QIcon applicationIcon();

signals:
    // A click on the icon: toggle the window by the icon.
    void toggleRequested(const QRect &anchor);
    // "Open Tarnwick", a double click or a click on a notification.
    void openRequested();
    void quitRequested();
    // "Show Status" or "Show Settings": open the window on that tab.
    void openTabRequested(tarnwick::ui::TrayController::Tab tab);
    // The mark, the tooltip or the menu changed.
    void stateChanged();

private:
    void updateIcon();
    // Reads the model again: mark, tooltip, menu and icon.
    void updateState();
    QString summary(int folders, int syncing, int withErrors) const;

    ItemsProvider &model_;
    std::unique_ptr<QMenu> menu_;
    std::unique_ptr<QSystemTrayIcon> tray_;
    QAction *account_ = nullptr;
    QAction *restart_ = nullptr;
    QAction *accountSeparator_ = nullptr;
    QAction *showStatus_ = nullptr;
    QAction *showSettings_ = nullptr;
    // A status report changes many rows at once: the folders are counted
    // once it has been applied.
    QTimer folderRecount_;
    bool followModel_;
    QString symbol_;
    Mark mark_ = Mark::none;
    QString toolTip_;
    bool iconDrawn_ = false;
};

} // namespace tarnwick::ui
