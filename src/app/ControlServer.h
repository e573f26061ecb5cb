#pragma once

#include <QJsonObject>
#include <QObject>
#include <QPointer>

#include <chrono>
#include <functional>

#include "SettingsActions.h"

#include <runwarden/ExitAppIfAlreadyOpen.h>

namespace tarnwick {

class ItemsProvider;
class SettingsActions;

// Answers the command-line tools ("tarnwick status", "tarnwick add", ...) on
// the per-user socket of the single-instance guard. Each command does what the
// matching control of the window does, and answers once the model shows its
// outcome.
class ControlServer : public QObject {
    Q_OBJECT

public:
    ControlServer(ItemsProvider &model, SettingsActions &actions, runwarden::InstanceGuard &guard,
                  QObject *parent = nullptr);

    // How long a command waits for the backend to confirm a change.
    void setConfirmTimeout(int milliseconds) { confirmTimeoutMs_ = milliseconds; }
    // How long restart-backend waits for the backend's first answer: longer than four failed
    // starts of 10 s each with their relaunch delays, after which it has failed anyway.
    static constexpr std::chrono::milliseconds restartTimeout{60000};

    // The status document: the model's state with folders and groups as
    // they travel on the wire (each folder with its numeric "progress"), the
    // client's version and whether the backend has failed.
    static QJsonObject statusObject(const ItemsProvider &model);

signals:
    // The client should end: "quit", or a logout (from here or the window)
    // has been answered.
    void quitRequested();

private:
    void status(runwarden::GuardConnection *connection);
    void groups(runwarden::GuardConnection *connection);
    void login(runwarden::GuardConnection *connection);
    void auth(runwarden::GuardConnection *connection);
    void add(runwarden::GuardConnection *connection);
    void remove(runwarden::GuardConnection *connection);
    void retention(runwarden::GuardConnection *connection);
    void open(runwarden::GuardConnection *connection);
    void logout(runwarden::GuardConnection *connection);
    void quit(runwarden::GuardConnection *connection);
    void restartBackend(runwarden::GuardConnection *connection);

    // Runs `action` once no user request is in flight (requests are one at a
    // time, and a request sent meanwhile would be dropped).
    void whenIdle(runwarden::GuardConnection *connection, std::function<void()> action);
    // A command line that stops waiting (it timed out or was interrupted) closes its
    // connection: the publish it started makes no further attempt. Call right after the
    // publish started.
    void cancelOnClose(runwarden::GuardConnection *connection);
    // The same for requests outside the gate: true once the connection has closed.
    static std::shared_ptr<const bool> closedFlag(runwarden::GuardConnection *connection);
    // Asks the backend for its group list, then runs `action` (or reports why
    // it cannot: the request failed, or nobody is signed in).
    void withFreshGroups(runwarden::GuardConnection *connection,
                         std::function<void(runwarden::GuardConnection *)> action);
    // Sends a change through `send`; a failed change is reported at once,
    // a successful one once the group list shows it (see waitForGroups).
    void changeAndConfirm(runwarden::GuardConnection *connection,
                          const std::function<bool(SettingsActions::Completion)> &send,
                          std::function<bool()> check, std::function<void()> success,
                          const QString &unconfirmed);
    // Calls `check` after each group list until it holds (then `success`) or
    // the confirmation time runs out (then an error line).
    void waitForGroups(runwarden::GuardConnection *connection, std::function<bool()> check,
                       std::function<void()> success, const QString &timeoutMessage);

    void modelQuit();
    // Sends the last line, and asks for the end once it is out.
    void endAfter(runwarden::GuardConnection *connection, const QJsonObject &line);

    ItemsProvider &model_;
    SettingsActions &actions_;
    QPointer<runwarden::GuardConnection> pendingLogout_;
    int confirmTimeoutMs_ = 15000;
};

} // namespace tarnwick
