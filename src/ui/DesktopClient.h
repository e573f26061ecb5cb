#pragma once

#include <QProcessEnvironment>

namespace tarnwick::cli {
struct Invocation;
}

namespace tarnwick::ui {

// Whether the client runs without a window: asked for (--headless), or no
// display to show one on (no X11 or Wayland display and no Qt platform
// chosen).
bool shouldRunHeadless(const cli::Invocation &invocation, const QProcessEnvironment &environment);

// The desktop client: the model and its backend, the command-line control,
// the window with the screens, the tray icon and the notifications. Runs
// until the user quits; returns the exit code.
int runDesktop(int &argc, char **argv);

} // namespace tarnwick::ui
