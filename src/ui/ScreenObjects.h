#pragma once

// The C++ objects the screens bind to, and how the Tarnwick QML module
// reaches them: each one is a singleton of the module (ItemsProvider,
// SettingsActions, AppController, LaunchAtLogin, UpdaterViewModel, Pickers).
//
// The objects belong to one QQmlEngine: install() hands them to it before it
// creates anything, and each singleton's create() gives that engine's object.
// So every engine (the window's, and each test's own) binds to its own model.

#include "AppController.h"
#include "DirItemsModel.h"
#include "GroupsModel.h"
#include "ItemsProvider.h"
#include "LaunchAtLogin.h"
#include "Pickers.h"
#include "SettingsActions.h"
#include "UpdaterViewModel.h"

#include <QObject>
#include <QPointer>
#include <QtQml/qqml.h>

class QJSEngine;
class QQmlEngine;

namespace tarnwick::ui {

struct ScreenObjects {
    ItemsProvider *model = nullptr;
    SettingsActions *settingsActions = nullptr;
    AppController *app = nullptr;
    LaunchAtLogin::Observable *launchAtLogin = nullptr;
    UpdaterViewModel *updater = nullptr;
    Pickers *pickers = nullptr;

    // Gives `engine` these objects. Call it before the engine loads a
    // screen: a singleton is made once per engine, on its first use, and
    // keeps the object it got then. The engine does not own the objects;
    // they must outlive everything it created.
    static void install(QQmlEngine &engine, const ScreenObjects &objects);
    // The objects `engine` was given (null where none was).
    static ScreenObjects of(const QQmlEngine *engine);
};

// The singletons. Each create() returns the engine's object, or null (and a
// QML error) when the engine was given none.

struct ItemsProviderSingleton {
    Q_GADGET
    QML_FOREIGN(tarnwick::ItemsProvider)
    QML_NAMED_ELEMENT(ItemsProvider)
    QML_SINGLETON

public:
    static ItemsProvider *create(QQmlEngine *engine, QJSEngine *);
};

struct SettingsActionsSingleton {
    Q_GADGET
    QML_FOREIGN(tarnwick::SettingsActions)
    QML_NAMED_ELEMENT(SettingsActions)
    QML_SINGLETON

public:
    static SettingsActions *create(QQmlEngine *engine, QJSEngine *);
};

struct AppControllerSingleton {
    Q_GADGET
    QML_FOREIGN(tarnwick::ui::AppController)
    QML_NAMED_ELEMENT(AppController)
    QML_SINGLETON

public:
    static AppController *create(QQmlEngine *engine, QJSEngine *);
};

struct LaunchAtLoginSingleton {
    Q_GADGET
    QML_FOREIGN(tarnwick::LaunchAtLogin::Observable)
    QML_NAMED_ELEMENT(LaunchAtLogin)
    QML_SINGLETON

public:
    static LaunchAtLogin::Observable *create(QQmlEngine *engine, QJSEngine *);
};

struct UpdaterViewModelSingleton {
    Q_GADGET
    QML_FOREIGN(tarnwick::ui::UpdaterViewModel)
    QML_NAMED_ELEMENT(UpdaterViewModel)
    QML_SINGLETON

public:
    static UpdaterViewModel *create(QQmlEngine *engine, QJSEngine *);
};

struct PickersSingleton {
    Q_GADGET
    QML_FOREIGN(tarnwick::ui::Pickers)
    QML_NAMED_ELEMENT(Pickers)
    QML_SINGLETON

public:
    static Pickers *create(QQmlEngine *engine, QJSEngine *);
};

// Types the screens only meet as property values.

struct DirItemsModelForeign {
    Q_GADGET
    QML_FOREIGN(tarnwick::DirItemsModel)
    QML_ANONYMOUS
};

struct GroupsModelForeign {
    Q_GADGET
    QML_FOREIGN(tarnwick::GroupsModel)
    QML_ANONYMOUS
};

struct CheckForUpdatesViewModelForeign {
    Q_GADGET
    QML_FOREIGN(tarnwick::ui::CheckForUpdatesViewModel)
    QML_ANONYMOUS
};

// The update checker, which the update views read through.
struct AppcastCheckerForeign {
    Q_GADGET
    QML_FOREIGN(tarnwick::updater::AppcastChecker)
    QML_NAMED_ELEMENT(AppcastChecker)
    QML_UNCREATABLE("the update checker belongs to UpdaterViewModel")
};

} // namespace tarnwick::ui
