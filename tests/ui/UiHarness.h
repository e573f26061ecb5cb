#pragma once

#include <runwarden/Clock.h>

// A small harness for the screens' tests: the model in a known state (no
// backend), the objects the screens bind to (the Tarnwick module's
// singletons, the harness's own engine's set), one screen loaded from the
// module into an offscreen window, lookups by objectName and screenshots into
// the build tree.

#include "AppController.h"
#include "ItemsProvider.h"
#include "Pickers.h"
#include "SettingsActions.h"
#include "UpdaterViewModel.h"

#include <QImage>
#include <QObject>
#include <QPointer>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QSize>
#include <QStringList>
#include <QVariantMap>

#include <functional>
#include <memory>

namespace tarnwick::ui::test {

class UiHarness {
public:
    struct Options {
        // The modern behaviour (footer toggle, update button) or the older one.
        bool isMacOS13 = true;
        // Further choices for the model (by default it launches no backend
        // and runs no single-instance guard).
        std::function<void(ItemsProvider::Options &)> configureModel;
        // The model's delays run on a manual clock that passTime() moves
        // (its wall time starts at the real time; a scripted backend moves it
        // on as it stamps its replies).
        bool manualClock = false;
    };

    UiHarness();
    explicit UiHarness(Options options);
    ~UiHarness();
    UiHarness(const UiHarness &) = delete;
    UiHarness &operator=(const UiHarness &) = delete;

    // Sets up what every UI test process needs (application identity, font,
    // the software renderer). Call once in main() or initTestCase().
    static void prepareApplication();

    ItemsProvider &model() { return *model_; }
    // With Options::manualClock: moves the model's clock on, firing the
    // delays that fall due, and lets the event loop deliver what they started.
    void passTime(std::chrono::milliseconds span);
    // The model's manual clock (Options::manualClock), else nullptr.
    runwarden::ManualClock *manualClock() const { return clock_.get(); }
    SettingsActions &settingsActions() { return *actions_; }
    AppController &app() { return *app_; }
    QQmlEngine &engine() { return *engine_; }
    // The model's log lines, in order.
    const QStringList &logLines() const { return *log_; }

    // The updater and the pickers the screens bind to, in place of the
    // harness's own: an updater without a feed (the update controls hide)
    // and pickers that always answer "nothing chosen". Set them before the
    // first load; they must outlive the harness, which keeps no ownership.
    void setUpdater(UpdaterViewModel *updater);
    void setPickers(Pickers *pickers);

    // Loads the QML type `typeName` of the Tarnwick module (e.g. "LoginView")
    // with the given initial properties into a window of the given size. The
    // root item fills the window. Returns the root item, or nullptr (the QML
    // errors are then in errors()).
    QQuickItem *load(const QString &typeName, QSize size = QSize(450, 650),
                     const QVariantMap &initialProperties = {});
    QQuickItem *root() const { return root_; }
    QQuickWindow *window() const { return window_.get(); }
    QStringList errors() const { return errors_; }

    // The first object below the root (the root included) with this
    // objectName; nullptr if there is none.
    QObject *find(const QString &objectName) const;
    template <typename T> T *find(const QString &objectName) const {
        return qobject_cast<T *>(find(objectName));
    }
    // The first such item that is visible (effectively, up the parent chain).
    QQuickItem *findVisible(const QString &objectName) const;
    // Every object below the root with this objectName.
    QList<QObject *> findAll(const QString &objectName) const;
    // Whether an item is visible on screen: itself and every ancestor
    // visible, and non-zero opacity.
    static bool isShown(const QQuickItem *item);

    // Lets the event loop run so bindings, layouts and the scene graph
    // settle.
    void settle(int milliseconds = 50);

    // Renders the window and saves it as
    // $TARNWICK_BUILD_DIR/screenshots/<name>.png; returns the image (null on
    // failure, with a warning).
    QImage grab(const QString &name);
    static QString screenshotDirectory();
    // Types text into the window's focused item, one key at a time.
    static void typeText(QWindow *window, const QString &text);

    // Clicks an item in the middle through real mouse events.
    void click(QQuickItem *item);
    // Moves the pointer over an item (hover).
    void hover(QQuickItem *item);

private:
    void installScreenObjects();

    Options options_;
    std::shared_ptr<QStringList> log_;
    std::unique_ptr<runwarden::ManualClock> clock_;
    std::unique_ptr<ItemsProvider> model_;
    std::unique_ptr<SettingsActions> actions_;
    std::unique_ptr<AppController> app_;
    std::unique_ptr<UpdaterViewModel> ownUpdater_;
    std::unique_ptr<Pickers> ownPickers_;
    UpdaterViewModel *updater_ = nullptr;
    Pickers *pickers_ = nullptr;
    std::unique_ptr<QQmlEngine> engine_;
    std::unique_ptr<QQuickWindow> window_;
    QPointer<QQuickItem> root_;
    QStringList errors_;
};

} // namespace tarnwick::ui::test
