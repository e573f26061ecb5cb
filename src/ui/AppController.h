#pragma once

#include <QAbstractItemModel>
#include <QObject>
#include <QString>
#include <QUrl>

namespace tarnwick::ui {

// Application-level facts and actions the screens bind to: the name and
// version shown, whether the modern behaviour is on, the window (closing it,
// whether it has a frame, which tab it shows) and quitting.
class AppController : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString versionText READ versionText CONSTANT)
    Q_PROPERTY(bool isMacOS13 READ isMacOS13 CONSTANT)
    Q_PROPERTY(QString appName READ appName CONSTANT)
    Q_PROPERTY(bool framed READ framed NOTIFY framedChanged)

public:
    explicit AppController(bool isMacOS13, QObject *parent = nullptr);

    // "v" followed by the application's version.
    QString versionText() const;
    bool isMacOS13() const { return isMacOS13_; }
    // The name users know the application by.
    QString appName() const { return QStringLiteral("Tarnwick"); }
    // Whether the window is an ordinary framed window (no tray) rather than
    // the frameless popup by the tray icon.
    bool framed() const { return framed_; }
    void setFramed(bool framed);

    // Ends the application without a word to the backend.
    Q_INVOKABLE void quit();
    // Closes the application's window (it stays running).
    Q_INVOKABLE void closeWindow();
    // Brings a tab of the window to the front (0: "Status", 1: "Settings"),
    // for the tray's menu; the window shows it once a user is signed in.
    void showTab(int index);

    // The web site's name as users read it: the host of the URL without a
    // leading "www.".
    Q_INVOKABLE static QString siteName(const QUrl &url);
    // The "groupID" of a row of a list model as exact decimal text (script
    // numbers lose digits beyond 2^53); "" when the row or role is missing.
    Q_INVOKABLE static QString groupIDText(const QAbstractItemModel *model, int row);

signals:
    void quitRequested();
    void closeWindowRequested();
    void tabRequested(int index);
    void framedChanged();

private:
    bool isMacOS13_;
    bool framed_ = false;
};

} // namespace tarnwick::ui
