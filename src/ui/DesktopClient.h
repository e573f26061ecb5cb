#pragma once

namespace tarnwick::ui {

// The desktop client: the model and its backend, the command-line control,
// the window with the screens, the tray icon and the notifications. Runs
// until the user quits; returns the exit code.
int runDesktop(int &argc, char **argv);

} // namespace tarnwick::ui
