#include "DesktopClient.h"

#include "AppController.h"
#include "CommandLine.h"
#include "ControlServer.h"
#include "DesktopNotifications.h"
#include "ItemsProvider.h"
#include "LaunchAtLogin.h"
#include "Notifier.h"
#include "Pickers.h"
#include "PollManager.h"
#include "ScreenObjects.h"
#include "SettingsActions.h"
#include "Translations.h"
#include "TrayController.h"
#include "UpdaterViewModel.h"
#include "WindowController.h"

#include <QApplication>
#include <QFont>
#include <QQmlEngine>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QTimer>

namespace tarnwick::ui {

namespace {
// How often a desktop without a tray is asked again whether one has come up
// (a panel that starts after the client).
constexpr int kTrayPollMs = 3000;
} // namespace

int runDesktop(int &argc, char **argv) {
    QApplication application(argc, argv);
    cli::setApplicationIdentity();
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Tarnwick"));
    // The texts in the user's language where the client has a translation.
    installTranslation();
    QGuiApplication::setDesktopFileName(QStringLiteral(TARNWICK_APP_ID));
    QGuiApplication::setWindowIcon(TrayController::applicationIcon());
    // The tray keeps the client running with its window closed; quitting is
    // always an explicit decision below.
    QApplication::setQuitOnLastWindowClosed(false);
    QQuickStyle::setStyle(QStringLiteral("Basic"));
    cli::quitOnSignals(application);

    // The model first: it runs the single-instance guard (a second launch
    // ends here, after asking this one to show its window) and queues the
    // backend's launch.
    ItemsProvider model;
    SettingsActions actions(model);
    ControlServer control(model, actions, model.pm().instanceGuard());
    AppController app(model.isMacOS13());
    UpdaterViewModel updater(model.isMacOS13());
    Pickers pickers;

    QQmlEngine engine;
    engine.addImportPath(QStringLiteral("qrc:/qt/qml"));
    ScreenObjects::install(
        engine, {&model, &actions, &app, LaunchAtLogin::observable(), &updater, &pickers});

    WindowController window(engine, app);
    // The content is checked now and created when the window is first shown.
    if (!window.prepare()) {
        model.log(QStringLiteral("warning: the window could not be loaded"));
        return 1;
    }
    TrayController tray(model, model.isMacOS13());
    // "Open Tarnwick", a notification's click and a second launch show the
    // window by the tray icon.
    const auto open = [&window, &tray] {
        window.show(tray.isVisible() ? tray.geometry() : QRect());
    };
    // The first thing a user who is not signed in sees is the login screen,
    // by the tray icon, and it stays until the user has used it
    // (connected before the notifier, which then finds the window shown).
    QObject::connect(&model, &ItemsProvider::isLoggedInChanged, &window,
                     [&model, &window, &tray, shown = false]() mutable {
                         if (!model.isLoggedIn() && !shown) {
                             shown = true;
                             window.showUnasked(tray.isVisible() ? tray.geometry() : QRect());
                         }
                     });
    // The desktop's notification service where there is one (a click on a
    // notification opens the window), else the tray's balloon.
    DesktopNotifications notifications;
    QObject::connect(&notifications, &DesktopNotifications::activated, &window, open);
    Notifier notifier(
        model, [&window] { return window.isVisible(); },
        [&tray, &notifications](const QString &title, const QString &message) {
            if (!notifications.notify(title, message)) {
                tray.showMessage(title, message);
            }
        });

    const auto quit = [&application] { application.quit(); };
    QObject::connect(&app, &AppController::quitRequested, &application, quit);
    QObject::connect(&control, &ControlServer::quitRequested, &application, quit);
    QObject::connect(&model, &ItemsProvider::quitRequested, &application, quit);
    QObject::connect(&tray, &TrayController::quitRequested, &application, quit);
    QObject::connect(&tray, &TrayController::toggleRequested, &window, &WindowController::toggle);
    QObject::connect(&tray, &TrayController::openRequested, &window, open);
    QObject::connect(&tray, &TrayController::openTabRequested, &window,
                     [&app, open](TrayController::Tab tab) {
                         // Shown first: the window is created on its first showing, and
                         // only a created window hears which tab to bring up.
                         open();
                         app.showTab(static_cast<int>(tab));
                     });
    QObject::connect(&model.pm().instanceGuard(), &runwarden::InstanceGuard::showRequested, &window,
                     open);
    // Without a tray the window is the only way in: closing it quits.
    QObject::connect(&window, &WindowController::closedByUser, &application, [&] {
        if (!tray.isVisible()) {
            application.quit();
        }
    });

    QTimer trayPoll;
    if (TrayController::isTrayAvailable()) {
        window.setMode(WindowController::Mode::popup);
        tray.show();
    } else {
        model.log(QStringLiteral("No system tray found; showing the window"));
        window.setMode(WindowController::Mode::ordinary);
        window.show();
        // A tray that comes up later gets the icon; the open window stays
        // until the user closes it, and then becomes the tray's popup.
        trayPoll.setInterval(kTrayPollMs);
        QObject::connect(&trayPoll, &QTimer::timeout, &application, [&] {
            if (!TrayController::isTrayAvailable()) {
                return;
            }
            trayPoll.stop();
            tray.show();
            if (!window.isVisible()) {
                window.setMode(WindowController::Mode::popup);
            }
        });
        QObject::connect(&window, &WindowController::closedByUser, &application, [&] {
            if (tray.isVisible()) {
                window.setMode(WindowController::Mode::popup);
            }
        });
        trayPoll.start();
    }

    const int code = application.exec();
    // The screens go before the objects they are bound to.
    window.hide();
    return code;
}

} // namespace tarnwick::ui
