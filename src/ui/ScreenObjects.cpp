#include "ScreenObjects.h"

#include <QQmlEngine>
#include <QtDebug>

namespace tarnwick::ui {

namespace {

// What was installed in one engine; a child of the engine, so it goes when
// the engine goes (the objects themselves are not owned).
class Holder : public QObject {
public:
    explicit Holder(QQmlEngine &engine) : QObject(&engine) {
        setObjectName(QStringLiteral("tarnwickScreenObjects"));
    }

    QPointer<ItemsProvider> model;
    QPointer<SettingsActions> settingsActions;
    QPointer<AppController> app;
    QPointer<LaunchAtLogin::Observable> launchAtLogin;
    QPointer<UpdaterViewModel> updater;
    QPointer<Pickers> pickers;
};

Holder *holderOf(const QQmlEngine *engine) {
    if (engine == nullptr) {
        return nullptr;
    }
    return dynamic_cast<Holder *>(engine->findChild<QObject *>(
        QStringLiteral("tarnwickScreenObjects"), Qt::FindDirectChildrenOnly));
}

// The engine keeps the singleton it was given; the object stays ours.
template <typename T> T *handOut(T *object, const char *name) {
    if (object == nullptr) {
        qWarning("The screens' %s was not installed in this QML engine", name);
        return nullptr;
    }
    QJSEngine::setObjectOwnership(object, QJSEngine::CppOwnership);
    return object;
}

} // namespace

void ScreenObjects::install(QQmlEngine &engine, const ScreenObjects &objects) {
    Holder *holder = holderOf(&engine);
    if (holder == nullptr) {
        holder = new Holder(engine);
    }
    holder->model = objects.model;
    holder->settingsActions = objects.settingsActions;
    holder->app = objects.app;
    holder->launchAtLogin = objects.launchAtLogin;
    holder->updater = objects.updater;
    holder->pickers = objects.pickers;
}

ScreenObjects ScreenObjects::of(const QQmlEngine *engine) {
    const Holder *holder = holderOf(engine);
    if (holder == nullptr) {
        return {};
    }
    return ScreenObjects{holder->model,         holder->settingsActions, holder->app,
                         holder->launchAtLogin, holder->updater,         holder->pickers};
}

ItemsProvider *ItemsProviderSingleton::create(QQmlEngine *engine, QJSEngine *) {
    return handOut(ScreenObjects::of(engine).model, "model (ItemsProvider)");
}

SettingsActions *SettingsActionsSingleton::create(QQmlEngine *engine, QJSEngine *) {
    return handOut(ScreenObjects::of(engine).settingsActions, "SettingsActions");
}

AppController *AppControllerSingleton::create(QQmlEngine *engine, QJSEngine *) {
    return handOut(ScreenObjects::of(engine).app, "AppController");
}

LaunchAtLogin::Observable *LaunchAtLoginSingleton::create(QQmlEngine *engine, QJSEngine *) {
    return handOut(ScreenObjects::of(engine).launchAtLogin, "LaunchAtLogin");
}

UpdaterViewModel *UpdaterViewModelSingleton::create(QQmlEngine *engine, QJSEngine *) {
    return handOut(ScreenObjects::of(engine).updater, "UpdaterViewModel");
}

Pickers *PickersSingleton::create(QQmlEngine *engine, QJSEngine *) {
    return handOut(ScreenObjects::of(engine).pickers, "Pickers");
}

} // namespace tarnwick::ui
