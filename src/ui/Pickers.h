#pragma once

#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>
#include <optional>
#include <vector>

class QFileDialog;
class QWindow;

namespace tarnwick::ui {

// The two modal pickers of the settings screen: a folder, or a Photos
// library (a folder or file whose extension is "photoslibrary"). Both run a
// Qt file dialog on the main thread and block until the user answers; an
// empty result means the user chose nothing.
//
// Before a picker opens, the tray's popup window is put out of the way so
// that it cannot cover the dialog or take it down when it loses the focus;
// it comes back once the dialog is answered.
class Pickers : public QObject {
    Q_OBJECT

public:
    enum class Kind { directory, photoLibrary };
    Q_ENUM(Kind)

    // What a picker is about to ask, for whatever runs the dialog.
    struct Request {
        Kind kind = Kind::directory;
        // The starting folder with a leading "~" expanded; empty keeps the
        // dialog's default.
        QString directory;
        // The dialog, configured and not yet shown.
        QFileDialog *dialog = nullptr;
    };
    // Runs a configured dialog and gives the chosen path, or nothing.
    using Runner = std::function<std::optional<QString>(const Request &request)>;

    explicit Pickers(QObject *parent = nullptr);
    ~Pickers() override;

    // The chosen folder, or "" when the user cancelled.
    Q_INVOKABLE QString selectDir(const QString &initialPath = QString());
    // The chosen library, or "" when the user cancelled.
    Q_INVOKABLE QString selectPhotoLibrary(const QString &initialPath = QString());
    // Closes open menus and popups, and hides the tray's popup window (and
    // any other window that floats over the others) until the next picker
    // has been answered.
    Q_INVOKABLE void dismissMenuBarPopover();

    // Replaces running the dialog (tests). An empty runner restores the
    // real modal dialog.
    void setRunner(Runner runner);

    // What the user confirmed in a request's dialog, if anything (the path
    // a runner gives after driving the dialog itself).
    static std::optional<QString> acceptedPath(const Request &request);

    // "~" and "~/..." name the user's home folder.
    static QString expandTilde(const QString &path);
    // Whether a top-level window is one that would cover a modal dialog or
    // close itself when the dialog takes the focus: a popup, a frameless or
    // always-on-top window, or a menu window.
    static bool isMenuBarPopover(const QWindow *window);

signals:
    // Around each picker, for the window that hosts the screens.
    void pickerAboutToOpen();
    void pickerClosed();

private:
    QString run(Kind kind, const QString &initialPath);
    std::optional<QString> runDialog(const Request &request);
    void restoreDismissedWindows();

    Runner runner_;
    std::vector<QPointer<QWindow>> dismissed_;
};

} // namespace tarnwick::ui
