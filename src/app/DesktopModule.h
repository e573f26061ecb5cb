#pragma once

#include <QString>

// The desktop client (window, tray, Qt Quick) lives in a shared module of its own, loaded only
// when the client is going to show it: the headless client and the commands for a running client
// stay on QtCore and QtNetwork.
namespace tarnwick::desktop {

// The module's entry point, exported with C linkage: runs the desktop client until it quits and
// returns the exit code. argc stays valid for as long as the call runs (QApplication keeps it).
inline constexpr char kEntryPoint[] = "tarnwick_run_desktop";
using Entry = int (*)(int *argc, char **argv);

// Where the module is: <prefix>/lib/tarnwick/libtarnwick-desktop.so beside <prefix>/bin, in the
// build tree as in an installation.
QString modulePath();

// Loads the module and runs the desktop client. A module that is missing or cannot be loaded
// gives one clear message on standard error (and in the log) and exit code 1.
int run(int &argc, char **argv);

} // namespace tarnwick::desktop
