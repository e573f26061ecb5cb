// The folder and Photos-library pickers: the dialog each one configures, the
// starting folder ("~" expanded), what a confirmed or cancelled dialog gives,
// and the tray popup put out of the dialog's way while it is open.
#include "Pickers.h"
#include "UiHarness.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QLineEdit>
#include <QMenu>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

using tarnwick::ui::Pickers;
using tarnwick::ui::test::UiHarness;

namespace {

void touch(const QString &path) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        qFatal("cannot create %s", qPrintable(path));
    }
}

} // namespace

class PickersTest : public QObject {
    Q_OBJECT
    QTemporaryDir root_;

private slots:
    void initTestCase() {
        UiHarness::prepareApplication();
        QVERIFY(root_.isValid());
        // The test's own home folder (never the real one).
        QVERIFY(QDir::homePath().contains("test-home"));
        QVERIFY(QDir().mkpath(QDir::homePath() + "/Pictures"));
    }

    void tildeExpansion() {
        QCOMPARE(Pickers::expandTilde("~"), QDir::homePath());
        QCOMPARE(Pickers::expandTilde("~/Pictures"), QDir::homePath() + "/Pictures");
        QCOMPARE(Pickers::expandTilde("/srv/~/x"), "/srv/~/x");
        QCOMPARE(Pickers::expandTilde("~ana/Pictures"), "~ana/Pictures");
        QCOMPARE(Pickers::expandTilde(""), "");
    }

    void folderPickerSettings() {
        Pickers pickers;
        bool ran = false;
        pickers.setRunner([&](const Pickers::Request &request) -> std::optional<QString> {
            ran = true;
            QFileDialog *dialog = request.dialog;
            [&] {
                QCOMPARE(request.kind, Pickers::Kind::directory);
                QCOMPARE(request.directory, QString());
                QVERIFY(dialog);
                QCOMPARE(dialog->acceptMode(), QFileDialog::AcceptOpen);
                // One folder, no files; new folders may be made.
                QCOMPARE(dialog->fileMode(), QFileDialog::Directory);
                QVERIFY(dialog->testOption(QFileDialog::ShowDirsOnly));
                QVERIFY(!dialog->testOption(QFileDialog::ReadOnly));
            }();
            return std::nullopt;
        });
        // Cancelled: nothing.
        QCOMPARE(pickers.selectDir(), QString());
        QVERIFY(ran);
    }

    void libraryPickerSettings() {
        Pickers pickers;
        bool ran = false;
        pickers.setRunner([&](const Pickers::Request &request) -> std::optional<QString> {
            ran = true;
            QFileDialog *dialog = request.dialog;
            [&] {
                QCOMPARE(request.kind, Pickers::Kind::photoLibrary);
                QCOMPARE(request.directory, QDir::homePath() + "/Pictures");
                QCOMPARE(QDir(dialog->directory()).absolutePath(), QDir::homePath() + "/Pictures");
                // Folders and library files, one of them; no new folders.
                QCOMPARE(dialog->fileMode(), QFileDialog::Directory);
                QVERIFY(!dialog->testOption(QFileDialog::ShowDirsOnly));
                QVERIFY(dialog->testOption(QFileDialog::ReadOnly));
                QVERIFY(dialog->testOption(QFileDialog::DontUseNativeDialog));
                QCOMPARE(dialog->nameFilters().size(), 1);
                QVERIFY(dialog->nameFilters().first().contains(
                    "*.[pP][hH][oO][tT][oO][sS][lL][iI][bB][rR][aA][rR][yY]"));
            }();
            return std::nullopt;
        });
        QCOMPARE(pickers.selectPhotoLibrary("~/Pictures"), QString());
        QVERIFY(ran);
    }

    void confirmedDialogsGiveTheChoice() {
        const QString folder = root_.filePath("Documents");
        const QString libraryFolder = root_.filePath("Photos Library.photoslibrary");
        const QString libraryFile = root_.filePath("Old.PHOTOSLIBRARY");
        QVERIFY(QDir().mkpath(folder));
        QVERIFY(QDir().mkpath(libraryFolder + "/originals"));
        touch(libraryFile);
        touch(root_.filePath("notes.txt"));

        // The dialog driven as a user would: select, then confirm or cancel.
        Pickers pickers;
        QString select;
        bool confirm = true;
        pickers.setRunner([&](const Pickers::Request &request) {
            request.dialog->setDirectory(root_.path());
            request.dialog->selectFile(select);
            QDialog *dialog = request.dialog;
            if (confirm) {
                dialog->accept();
            } else {
                dialog->reject();
            }
            return Pickers::acceptedPath(request);
        });

        select = folder;
        QCOMPARE(pickers.selectDir(), folder);
        confirm = false;
        QCOMPARE(pickers.selectDir(), QString());
        confirm = true;

        // A library, whether a folder or a single file, in any case.
        select = libraryFolder;
        QCOMPARE(pickers.selectPhotoLibrary("~/Pictures"), libraryFolder);
        select = libraryFile;
        QCOMPARE(pickers.selectPhotoLibrary("~/Pictures"), libraryFile);
        // A plain folder is taken as a folder picker would take it (the
        // library checks reject it later).
        select = folder;
        QCOMPARE(pickers.selectPhotoLibrary("~/Pictures"), folder);
        // Any other file is not a choice: the dialog stays open.
        select = root_.filePath("notes.txt");
        QCOMPARE(pickers.selectPhotoLibrary("~/Pictures"), QString());
        confirm = false;
        select = libraryFolder;
        QCOMPARE(pickers.selectPhotoLibrary("~/Pictures"), QString());
    }

    void theRealDialogIsModalAndGivesTheChoice() {
        const QString folder = root_.filePath("Real");
        const QString library = root_.filePath("Real.photoslibrary");
        QVERIFY(QDir().mkpath(folder));
        QVERIFY(QDir().mkpath(library + "/originals"));
        Pickers pickers; // no runner: the modal dialog itself
        // Answers the dialog once it is up, as the user would.
        const auto answer = [&](const QString &select, bool confirm, bool *sawModal,
                                const QString &screenshot = QString()) {
            QTimer::singleShot(300, this, [=] {
                auto *dialog = qobject_cast<QFileDialog *>(QApplication::activeModalWidget());
                *sawModal = dialog != nullptr && dialog->isVisible();
                if (!dialog) {
                    return;
                }
                if (!screenshot.isEmpty()) {
                    QDir().mkpath(UiHarness::screenshotDirectory());
                    dialog->grab().save(UiHarness::screenshotDirectory() + "/" + screenshot +
                                        ".png");
                }
                // Typed into the dialog's name field, in its starting folder.
                auto *name = dialog->findChild<QLineEdit *>("fileNameEdit");
                *sawModal = *sawModal && name != nullptr;
                if (name) {
                    name->setText(QFileInfo(select).fileName());
                }
                QDialog *asDialog = dialog;
                if (confirm) {
                    asDialog->accept();
                } else {
                    asDialog->reject();
                }
            });
        };
        bool modal = false;
        answer(folder, true, &modal);
        QCOMPARE(pickers.selectDir(root_.path()), folder);
        QVERIFY(modal);
        modal = false;
        answer(folder, false, &modal);
        QCOMPARE(pickers.selectDir(root_.path()), QString());
        QVERIFY(modal);
        modal = false;
        touch(root_.filePath("Old.PHOTOSLIBRARY"));
        answer(library, true, &modal, "settings_library_picker");
        QCOMPARE(pickers.selectPhotoLibrary(root_.path()), library);
        QVERIFY(modal);
    }

    void thePopupMakesWayForThePicker() {
        // The tray's popup: frameless and above the others.
        QQuickWindow popup;
        popup.setFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
        popup.resize(200, 200);
        popup.show();
        QVERIFY(QTest::qWaitForWindowExposed(&popup));
        // An ordinary window stays.
        QQuickWindow ordinary;
        ordinary.resize(200, 200);
        ordinary.show();
        QVERIFY(QTest::qWaitForWindowExposed(&ordinary));
        QVERIFY(Pickers::isMenuBarPopover(&popup));
        QVERIFY(!Pickers::isMenuBarPopover(&ordinary));

        Pickers pickers;
        bool popupVisibleDuringPicker = true;
        bool ordinaryVisibleDuringPicker = false;
        int opened = 0;
        int closed = 0;
        connect(&pickers, &Pickers::pickerAboutToOpen, this, [&] { ++opened; });
        connect(&pickers, &Pickers::pickerClosed, this, [&] { ++closed; });
        pickers.setRunner([&](const Pickers::Request &) -> std::optional<QString> {
            popupVisibleDuringPicker = popup.isVisible();
            ordinaryVisibleDuringPicker = ordinary.isVisible();
            return root_.path();
        });
        QCOMPARE(pickers.selectDir(), root_.path());
        QVERIFY(!popupVisibleDuringPicker);
        QVERIFY(ordinaryVisibleDuringPicker);
        QCOMPARE(opened, 1);
        QCOMPARE(closed, 1);
        // Back once the picker is answered, so the screen's next step shows.
        QVERIFY(popup.isVisible());

        // The same around the library picker; a popup already hidden stays so.
        popup.hide();
        QCOMPARE(pickers.selectPhotoLibrary("~/Pictures"), root_.path());
        QVERIFY(!popup.isVisible());

        // A menu window by name makes way too.
        QWindow menu;
        menu.setObjectName("menuBarWindow");
        QVERIFY(Pickers::isMenuBarPopover(&menu));
    }

    void openMenusCloseForGood() {
        // A popup menu (the tray's context menu) is closed, not brought back.
        QMenu menu;
        menu.addAction("Open Tarnwick");
        menu.popup(QPoint(10, 10));
        QTRY_VERIFY(menu.isVisible());
        QWindow popup;
        popup.setFlags(Qt::Popup);
        popup.resize(50, 50);
        popup.show();
        QVERIFY(QTest::qWaitForWindowExposed(&popup));
        QVERIFY(Pickers::isMenuBarPopover(&popup));

        Pickers pickers;
        bool menuVisibleDuringPicker = true;
        bool popupVisibleDuringPicker = true;
        pickers.setRunner([&](const Pickers::Request &) -> std::optional<QString> {
            menuVisibleDuringPicker = menu.isVisible();
            popupVisibleDuringPicker = popup.isVisible();
            return std::nullopt;
        });
        QCOMPARE(pickers.selectDir(), QString());
        QVERIFY(!menuVisibleDuringPicker);
        QVERIFY(!popupVisibleDuringPicker);
        QVERIFY(!menu.isVisible());
        QVERIFY(!popup.isVisible());
    }
};

QTEST_MAIN(PickersTest)
#include "tst_settings_pickers.moc"
