#pragma once

// The single-instance guard and its channel.
//
// The first instance of the application listens on a per-user local socket; a later start finds
// it there, asks it to show its window and exits. The same socket carries requests from
// command-line tools to the running instance.
//
// Socket: <dir>/<application name>-<user id>.socket, where <dir> is $XDG_RUNTIME_DIR (when set
// and usable) or else the system temporary directory. Only this user may connect (the socket
// file is user-only and each peer's user id is checked). A socket left behind by an instance
// that died is replaced. A lock file beside the socket (<socket>.lock) makes the check-and-listen
// atomic between simultaneous starts.
//
// Protocol: newline-delimited JSON over one connection per request. The client sends one line,
// a JSON object with a text member "command", e.g. {"command":"show"}. The server answers with
// zero or more lines, each a JSON object, and then closes the connection, which ends the reply.
//   - "show": the running instance emits showRequested() and answers {"ok":true}.
//   - a command with a registered handler: the handler answers through a GuardConnection,
//     as many lines as it likes, now or later, then finish().
//   - an unknown command: {"error":"unknown command","command":"<command>"}.
//   - a line that is not a JSON object with a text "command": {"error":"malformed request"}.
//   - a request line longer than maxRequestLineBytes: {"error":"request too long"}.
// Replies use "error" for failures; everything else in a line belongs to the command.

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>

#include <functional>
#include <map>
#include <memory>
#include <optional>

class QLocalServer;
class QLocalSocket;

namespace runwarden {

/// Where the guard's socket lives: in $XDG_RUNTIME_DIR, else in a folder of this user's own in
/// the temporary directory (made 0700; refused when it is not a real folder owned by this user).
struct InstanceSocketLocation {
    QString path;    ///< empty when there is no safe place
    QString problem; ///< why not
};
InstanceSocketLocation instanceSocketLocation(const QString &applicationName = {});
/// The guard's socket path for `applicationName` (empty: QCoreApplication::applicationName()),
/// or empty when there is no safe place for it.
QString instanceSocketPath(const QString &applicationName = {});

/// A request line as the guard reads it (without its line break): a JSON object holding a text
/// "command", or nothing for anything else.
std::optional<QJsonObject> parseRequestLine(const QByteArray &line);
/// A reply line as sendInstanceRequest() reads it (without its line break): a JSON object, or
/// nothing for anything else.
std::optional<QJsonObject> parseReplyLine(const QByteArray &line);

/// One client request on the server side. The handler of a command answers through it; it stays
/// valid until it has been finished or the client has gone (closed()), and is deleted later by
/// the guard. Lives on the guard's thread; use it only there.
class GuardConnection : public QObject {
    Q_OBJECT

public:
    ~GuardConnection() override;

    /// The request as received: a JSON object holding at least a text "command".
    const QJsonObject &request() const { return m_request; }
    QString command() const;
    /// False once finish() was called or the client has disconnected.
    bool isOpen() const;

    /// Sends one reply line (the object as compact JSON followed by "\n").
    void sendLine(const QJsonObject &line);
    /// Sends {"error": message}.
    void sendError(const QString &message);
    /// Ends the reply: pending lines are written, then the connection is closed.
    void finish();

signals:
    /// The connection is closed, by finish() or because the client went away.
    void closed();

private:
    friend class InstanceGuard;
    GuardConnection(QLocalSocket *socket, QObject *parent);
    void onReadyRead();
    void onDisconnected();

    QLocalSocket *m_socket = nullptr;
    QByteArray m_buffer;
    QJsonObject m_request;
    bool m_dispatched = false;
    bool m_open = true;
    bool m_closed = false;
    std::function<void(GuardConnection *)> m_dispatch;
};

class InstanceGuard : public QObject {
    Q_OBJECT

public:
    static constexpr qsizetype maxRequestLineBytes = 64 * 1024;

    enum class Outcome {
        NotTried,             ///< acquire() has not run yet
        Listening,            ///< this is the first instance; the socket is ours
        OtherInstanceRunning, ///< another instance of this user answered on the socket
        Failed,               ///< neither: see errorString() (the application runs unguarded)
    };

    /// The handler of one command. It answers through the connection, now or later.
    using CommandHandler = std::function<void(GuardConnection *connection)>;

    /// A guard for QCoreApplication::applicationName() (which must not be empty).
    explicit InstanceGuard(QObject *parent = nullptr);
    explicit InstanceGuard(const QString &applicationName, QObject *parent = nullptr);
    /// Stops listening and removes the socket file.
    ~InstanceGuard() override;

    /// Checks for a running instance and, when there is none, listens on the socket. Runs once;
    /// later calls return the first outcome.
    Outcome acquire();
    Outcome outcome() const { return m_outcome; }
    QString errorString() const { return m_errorString; }
    QString applicationName() const { return m_applicationName; }
    QString socketPath() const { return m_socketPath; }

    /// Registers the handler of `command` (replacing an earlier one). "show" is built in and
    /// cannot be replaced (returns false).
    bool setCommandHandler(const QString &command, CommandHandler handler);

signals:
    /// Another start of the application asked this instance to show its window.
    void showRequested();

private:
    void onNewConnection();
    void dispatch(GuardConnection *connection);

    QString m_applicationName;
    QString m_socketPath;
    Outcome m_outcome = Outcome::NotTried;
    QString m_errorString;
    QLocalServer *m_server = nullptr;
    std::map<QString, CommandHandler> m_handlers;
};

/// What a request to the running instance brought back.
struct InstanceReply {
    bool connected = false; ///< a running instance accepted the connection and the request
    bool finished = false;  ///< the instance ended its reply before the time limit
    QList<QJsonObject> lines;
    QString error; ///< why not connected / not finished, or a malformed reply line
};

/// Connects to the running instance, sends `request` as one line and collects the reply lines
/// until the instance closes the connection or `timeoutMs` has passed in all. `onLine` (when
/// given) sees each line as it arrives. Blocking; needs no event loop; callable on any thread
/// but not on the thread of this process's own InstanceGuard (it would wait for itself).
InstanceReply sendInstanceRequest(const QJsonObject &request, int timeoutMs = 5000,
                                  const std::function<void(const QJsonObject &)> &onLine = {},
                                  const QString &applicationName = {});

/// Runs guard.acquire(). When another instance of this user answers, prints "Application
/// already opened.  Exiting ..." on standard output, asks that instance to show its window and
/// exits the process with status 0. When the guard fails for another reason, prints
/// "warning: <reason>" and returns, leaving the application unguarded. Otherwise returns with
/// the guard listening.
void ExitAppIfAlreadyOpen(InstanceGuard &guard);

} // namespace runwarden
