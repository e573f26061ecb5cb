#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QProcessEnvironment>
#include <QStringList>

class QCoreApplication;

#include <functional>

namespace tarnwick::cli {

// What the command line asks for.
struct Invocation {
    enum class Kind {
        runClient, // start the client (the window, or headless)
        control,   // talk to the running client
        exit,      // help, version or a usage error: print and exit
    };
    Kind kind = Kind::runClient;
    bool headless = false;
    QString command;       // the control command
    QStringList arguments; // its arguments, options included
    int exitCode = 0;      // for Kind::exit
    QString output;        // for Kind::exit: what to print
    bool toStandardError = false;
};

Invocation parse(const QStringList &arguments);

// What "status" prints for the running client's status document; loginMessage: the document's
// error is the sign-in flow's own line.
QString describeStatus(const QJsonObject &status, bool loginMessage);
// What "groups" prints for the running client's group list.
QString describeGroups(const QJsonArray &groups);

// Runs a control command against the running client; returns the exit code.
int runControl(const Invocation &invocation);

// Whether the client runs without a window: asked for (--headless), or no
// display to show one on (no X11 or Wayland display and no Qt platform
// chosen).
bool shouldRunHeadless(const Invocation &invocation, const QProcessEnvironment &environment);

// Runs the client without any window until it quits; returns the exit code.
int runHeadless(int &argc, char **argv);

// SIGINT and SIGTERM end the application's event loop cleanly.
void quitOnSignals(QCoreApplication &app);

// The client's name, organisation and version for Qt.
void setApplicationIdentity();

} // namespace tarnwick::cli
