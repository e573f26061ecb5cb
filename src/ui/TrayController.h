#pragma once

#include <QIcon>
#include <QObject>
#include <QRect>
#include <QString>

#include <memory>

class QMenu;
class QSystemTrayIcon;

namespace tarnwick {
class ItemsProvider;
}

namespace tarnwick::ui {

// The client's entry in the desktop's tray: the model's menu-bar symbol
// (redrawn when it changes), a click that toggles the window, and a context
// menu with "Open Tarnwick" and "Quit". It also carries the desktop
// notifications.
class TrayController : public QObject {
    Q_OBJECT

public:
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
    // The icon's rectangle on screen (empty when the desktop does not say).
    QRect geometry() const;
    QSystemTrayIcon *trayIcon() const { return tray_.get(); }

    // A desktop notification (when the icon is shown).
    void showMessage(const QString &title, const QString &message);

    // The tray icon for a symbol: the glyph in white with a dark outline,
    // readable on light and dark panels, at the usual tray sizes.
    // A symbol with no drawing gets the application's icon instead.
    static QIcon iconFor(const QString &symbol);
    // The application's icon: the icon theme's, else the one built in.
    static QIcon applicationIcon();

signals:
    // A click on the icon: toggle the window by the icon.
    void toggleRequested(const QRect &anchor);
    // "Open Tarnwick", a double click or a click on a notification.
    void openRequested();
    void quitRequested();

private:
    void updateIcon();

    ItemsProvider &model_;
    std::unique_ptr<QMenu> menu_;
    std::unique_ptr<QSystemTrayIcon> tray_;
    bool followModel_;
    QString symbol_;
};

} // namespace tarnwick::ui
