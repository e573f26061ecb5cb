// The entry point of the desktop module (libtarnwick-desktop.so), which the tarnwick executable
// loads when it shows the desktop client.
#include "ClientLog.h"
#include "DesktopClient.h"
#include "DesktopModule.h"

#include <QtQml/qqmlextensionplugin.h>

#include <type_traits>

// The screens: the statically linked QML module "Tarnwick".
Q_IMPORT_QML_PLUGIN(TarnwickPlugin)

extern "C" Q_DECL_EXPORT int tarnwick_run_desktop(int *argc, char **argv) {
    // The module links its own copy of the client's libraries: its log takes over Qt's messages
    // and the child-process lines from the executable's copy (Qt's own handler first, so that a
    // line is written once).
    qInstallMessageHandler(nullptr);
    tarnwick::ClientLog::install();
    return tarnwick::ui::runDesktop(*argc, argv);
}

static_assert(std::is_same_v<decltype(&tarnwick_run_desktop), tarnwick::desktop::Entry>);
