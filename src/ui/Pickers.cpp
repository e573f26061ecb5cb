#include "Pickers.h"

#include "FileSystemUtils.h"

#include <QApplication>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QGuiApplication>
#include <QTimer>
#include <QWindow>

namespace tarnwick::ui {
namespace {

using pathcheck::FileSystemUtils;

// The dialog of both pickers. A Photos library is a folder on this system,
// while a library may also arrive as a single file of that name: in library
// mode the dialog lists folders and library files and accepts either.
// Selecting a library (folder or file) and confirming chooses it; confirming
// on a plain folder chooses that folder, as a folder picker would.
class PickerDialog : public QFileDialog {
public:
    explicit PickerDialog(Pickers::Kind kind) : kind_(kind) {}

    Pickers::Kind kind() const { return kind_; }
    std::optional<QString> chosen() const { return chosen_; }

    void accept() override {
        chosen_.reset();
        if (kind_ == Pickers::Kind::photoLibrary) {
            const QStringList files = selectedFiles();
            if (!files.isEmpty()) {
                const QFileInfo info(files.first());
                if (info.exists() && FileSystemUtils::isPhotosLibrary(info.absoluteFilePath())) {
                    chosen_ = info.absoluteFilePath();
                    QDialog::accept();
                    return;
                }
            }
        }
        QFileDialog::accept();
        if (result() == QDialog::Accepted) {
            const QStringList accepted = selectedFiles();
            if (!accepted.isEmpty() && !accepted.first().isEmpty()) {
                chosen_ = accepted.first();
            }
        }
    }

private:
    Pickers::Kind kind_;
    std::optional<QString> chosen_;
};

// "photoslibrary" in any mix of cases, as a wildcard for the dialog's
// filter (file names are compared case-sensitively here).
QString anyCaseExtensionPattern() {
    QString pattern = QStringLiteral("*.");
    for (const QChar c : QStringLiteral("photoslibrary")) {
        pattern += QLatin1Char('[') + c.toLower() + c.toUpper() + QLatin1Char(']');
    }
    return pattern;
}

void configure(QFileDialog &dialog, Pickers::Kind kind, const QString &directory) {
    dialog.setAcceptMode(QFileDialog::AcceptOpen);
    // Single selection: neither mode allows several items.
    dialog.setFileMode(QFileDialog::Directory);
    if (kind == Pickers::Kind::directory) {
        dialog.setWindowTitle(QObject::tr("Choose a folder to sync"));
        dialog.setOption(QFileDialog::ShowDirsOnly, true);
        dialog.setOption(QFileDialog::ReadOnly, false); // new folders may be made here
    } else {
        dialog.setWindowTitle(QObject::tr("Choose a Photos library"));
        // Library files must show beside the folders, so the dialog is Qt's
        // own (platform dialogs show no files in folder mode).
        dialog.setOption(QFileDialog::DontUseNativeDialog, true);
        dialog.setOption(QFileDialog::ShowDirsOnly, false);
        dialog.setOption(QFileDialog::ReadOnly, true); // no new folders
        dialog.setOption(QFileDialog::HideNameFilterDetails, true);
        dialog.setLabelText(QFileDialog::FileName, QObject::tr("Library:"));
        dialog.setNameFilter(QObject::tr("Photos library") + QStringLiteral(" (") +
                             anyCaseExtensionPattern() + QLatin1Char(')'));
    }
    if (!directory.isEmpty()) {
        dialog.setDirectory(directory);
    }
}

} // namespace

Pickers::Pickers(QObject *parent) : QObject(parent) {}

Pickers::~Pickers() = default;

QString Pickers::expandTilde(const QString &path) {
    if (path == QLatin1String("~")) {
        return QDir::homePath();
    }
    if (path.startsWith(QLatin1String("~/"))) {
        return QDir::homePath() + path.mid(1);
    }
    return path;
}

bool Pickers::isMenuBarPopover(const QWindow *window) {
    if (!window) {
        return false;
    }
    const Qt::WindowFlags flags = window->flags();
    const Qt::WindowType type = window->type();
    return type == Qt::Popup || type == Qt::ToolTip || flags.testFlag(Qt::FramelessWindowHint) ||
           flags.testFlag(Qt::WindowStaysOnTopHint) ||
           QString::fromLatin1(window->metaObject()->className()).contains(QLatin1String("Menu")) ||
           window->objectName().contains(QLatin1String("Menu"), Qt::CaseInsensitive);
}

void Pickers::dismissMenuBarPopover() {
    // Open menus (the tray's context menu) end first; they are not brought
    // back.
    for (int guard = 0; guard < 16 && QApplication::activePopupWidget() != nullptr; ++guard) {
        QApplication::activePopupWidget()->close();
    }
    const auto windows = QGuiApplication::topLevelWindows();
    for (QWindow *window : windows) {
        if (!window->isVisible() || !isMenuBarPopover(window)) {
            continue;
        }
        if (window->type() == Qt::Popup || window->type() == Qt::ToolTip) {
            window->close();
            continue;
        }
        dismissed_.emplace_back(window);
        window->hide();
    }
}

void Pickers::restoreDismissedWindows() {
    auto windows = std::move(dismissed_);
    dismissed_.clear();
    for (const QPointer<QWindow> &window : windows) {
        if (window) {
            window->show();
            window->raise();
            window->requestActivate();
        }
    }
}

void Pickers::setRunner(Runner runner) {
    runner_ = std::move(runner);
}

QString Pickers::selectDir(const QString &initialPath) {
    return run(Kind::directory, initialPath);
}

QString Pickers::selectPhotoLibrary(const QString &initialPath) {
    return run(Kind::photoLibrary, initialPath);
}

QString Pickers::run(Kind kind, const QString &initialPath) {
    dismissMenuBarPopover();
    emit pickerAboutToOpen();
    Request request;
    request.kind = kind;
    request.directory = initialPath.isEmpty() ? QString() : expandTilde(initialPath);

    std::optional<QString> chosen;
    {
        PickerDialog dialog(kind);
        configure(dialog, kind, request.directory);
        request.dialog = &dialog;
        chosen = runner_ ? runner_(request) : runDialog(request);
    }
    emit pickerClosed();
    restoreDismissedWindows();
    return chosen.value_or(QString());
}

std::optional<QString> Pickers::runDialog(const Request &request) {
    QFileDialog &dialog = *request.dialog;
    dialog.setWindowModality(Qt::ApplicationModal);
    // In front of every other window, whichever application is active.
    QTimer::singleShot(0, &dialog, [&dialog] {
        dialog.raise();
        dialog.activateWindow();
    });
    dialog.exec();
    return acceptedPath(request);
}

std::optional<QString> Pickers::acceptedPath(const Request &request) {
    const auto *dialog = dynamic_cast<const PickerDialog *>(request.dialog);
    if (!dialog || dialog->result() != QDialog::Accepted) {
        return std::nullopt;
    }
    return dialog->chosen();
}

} // namespace tarnwick::ui
