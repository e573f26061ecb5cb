#include <runwarden/ExitAppIfAlreadyOpen.h>
#include <runwarden/LogLine.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLockFile>
#include <QPointer>
#include <QTimer>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/un.h>
#include <unistd.h>

namespace runwarden {

namespace {

constexpr int probeTimeoutMs = 1000;
constexpr int lockTimeoutMs = 5000;
// A client has this long to send its request line; an answered request has no limit.
constexpr int requestTimeoutMs = 10000;
// A finished reply that the client does not take within this time is dropped.
constexpr int closingTimeoutMs = 5000;
constexpr qsizetype maxReplyBytes = 16 * 1024 * 1024;

void printLine(const QString &line) {
    writeLine(line.toLocal8Bit().toStdString());
}

QString resolvedApplicationName(const QString &applicationName) {
    const QString name =
        applicationName.isEmpty() ? QCoreApplication::applicationName() : applicationName;
    if (name.isEmpty()) {
        // Every application has a name; running without one is a bug of the program itself.
        std::fputs("instance guard: the application has no name\n", stderr);
        std::abort();
    }
    return name;
}

// The name as it may appear in a file name.
QString fileNameSafe(const QString &name) {
    QString safe;
    safe.reserve(name.size());
    for (const QChar c : name) {
        const bool plain = (c >= QLatin1Char('a') && c <= QLatin1Char('z')) ||
                           (c >= QLatin1Char('A') && c <= QLatin1Char('Z')) ||
                           (c >= QLatin1Char('0') && c <= QLatin1Char('9')) ||
                           c == QLatin1Char('.') || c == QLatin1Char('_') || c == QLatin1Char('-');
        safe.append(plain ? c : QLatin1Char('_'));
    }
    if (safe.startsWith(QLatin1Char('.')))
        safe[0] = QLatin1Char('_');
    return safe;
}

bool fitsSocketAddress(const QString &path) {
    return QFile::encodeName(path).size() < qsizetype(sizeof(sockaddr_un{}.sun_path));
}

// Whether the other end of a connected local socket runs as this user.
bool peerIsThisUser(qintptr descriptor) {
    if (descriptor < 0)
        return false;
#if defined(__linux__)
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(int(descriptor), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return false;
    return credentials.uid == ::getuid();
#elif defined(__APPLE__) || defined(__FreeBSD__) || defined(__OpenBSD__) || defined(__NetBSD__)
    uid_t uid = 0;
    gid_t gid = 0;
    if (::getpeereid(int(descriptor), &uid, &gid) != 0)
        return false;
    return uid == ::getuid();
#else
    return true; // the socket file itself is user-only
#endif
}

QByteArray encodeLine(const QJsonObject &object) {
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

} // namespace

namespace {

// Without a runtime directory the socket goes to a folder of this user's own in the temporary
// directory: made 0700 when missing, its mode tightened when it is ours, refused when it is not a
// real directory owned by this user (another user could otherwise squat the name first).
std::optional<QString> privateTemporaryFolder(const QString &name, QString *problem) {
    const QString folder = QDir::cleanPath(QDir::tempPath()) + QLatin1Char('/') + name;
    const QByteArray native = QFile::encodeName(folder);
    if (::mkdir(native.constData(), 0700) != 0 && errno != EEXIST) {
        *problem = QStringLiteral("cannot make %1: %2")
                       .arg(folder, QString::fromLocal8Bit(std::strerror(errno)));
        return std::nullopt;
    }
    struct stat info {};
    if (::lstat(native.constData(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        *problem = QStringLiteral("%1 is not a folder").arg(folder);
        return std::nullopt;
    }
    if (info.st_uid != ::getuid()) {
        *problem = QStringLiteral("%1 belongs to another user").arg(folder);
        return std::nullopt;
    }
    if ((info.st_mode & 077) != 0 && ::chmod(native.constData(), 0700) != 0) {
        *problem = QStringLiteral("%1 is open to other users").arg(folder);
        return std::nullopt;
    }
    return folder;
}

} // namespace

InstanceSocketLocation instanceSocketLocation(const QString &applicationName) {
    const QString name = fileNameSafe(resolvedApplicationName(applicationName)) + QLatin1Char('-') +
                         QString::number(::getuid());
    const QString fileName = name + QStringLiteral(".socket");
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty() && QDir::isAbsolutePath(runtime) && QFileInfo(runtime).isDir()) {
        const QString path = QDir::cleanPath(runtime) + QLatin1Char('/') + fileName;
        if (fitsSocketAddress(path))
            return {path, {}};
    }
    QString problem;
    const std::optional<QString> folder = privateTemporaryFolder(name, &problem);
    if (!folder)
        return {{}, QStringLiteral("no safe place for the control socket: %1").arg(problem)};
    return {*folder + QLatin1Char('/') + fileName, {}};
}

QString instanceSocketPath(const QString &applicationName) {
    return instanceSocketLocation(applicationName).path;
}

// ---------------------------------------------------------------------------------------------

GuardConnection::GuardConnection(QLocalSocket *socket, QObject *parent)
    : QObject(parent), m_socket(socket) {
    m_socket->setParent(this);
    connect(m_socket, &QLocalSocket::readyRead, this, &GuardConnection::onReadyRead);
    connect(m_socket, &QLocalSocket::disconnected, this, &GuardConnection::onDisconnected);
    QTimer::singleShot(requestTimeoutMs, this, [this] {
        if (!m_dispatched)
            finish();
    });
}

GuardConnection::~GuardConnection() = default;

QString GuardConnection::command() const {
    return m_request.value(QLatin1String("command")).toString();
}

bool GuardConnection::isOpen() const {
    return m_open;
}

void GuardConnection::sendLine(const QJsonObject &line) {
    if (!m_open)
        return;
    m_socket->write(encodeLine(line));
}

void GuardConnection::sendError(const QString &message) {
    sendLine(QJsonObject{{QStringLiteral("error"), message}});
}

void GuardConnection::finish() {
    if (!m_open)
        return;
    m_open = false;
    // Written lines go out first; a client that never takes them is dropped after a while.
    QTimer::singleShot(closingTimeoutMs, this, [this] { m_socket->abort(); });
    m_socket->disconnectFromServer();
}

std::optional<QJsonObject> parseReplyLine(const QByteArray &line) {
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(line, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject()) {
        return std::nullopt;
    }
    return document.object();
}

std::optional<QJsonObject> parseRequestLine(const QByteArray &line) {
    std::optional<QJsonObject> object = parseReplyLine(line);
    if (!object || !object->value(QLatin1String("command")).isString()) {
        return std::nullopt;
    }
    return object;
}

void GuardConnection::onReadyRead() {
    if (m_dispatched || !m_open) {
        m_socket->readAll(); // one request per connection; anything after it is ignored
        return;
    }
    m_buffer.append(m_socket->readAll());
    const qsizetype end = m_buffer.indexOf('\n');
    if (end < 0) {
        if (m_buffer.size() > InstanceGuard::maxRequestLineBytes) {
            sendError(QStringLiteral("request too long"));
            finish();
        }
        return;
    }
    if (end > InstanceGuard::maxRequestLineBytes) {
        sendError(QStringLiteral("request too long"));
        finish();
        return;
    }
    const QByteArray line = m_buffer.left(end);
    m_buffer.clear();
    std::optional<QJsonObject> request = parseRequestLine(line);
    if (!request) {
        sendError(QStringLiteral("malformed request"));
        finish();
        return;
    }
    m_request = std::move(*request);
    m_dispatched = true;
    if (m_dispatch)
        m_dispatch(this);
}

void GuardConnection::onDisconnected() {
    m_open = false;
    if (!m_closed) {
        m_closed = true;
        emit closed();
    }
    deleteLater();
}

// ---------------------------------------------------------------------------------------------

InstanceGuard::InstanceGuard(QObject *parent) : InstanceGuard(QString(), parent) {}

InstanceGuard::InstanceGuard(const QString &applicationName, QObject *parent)
    : QObject(parent), m_applicationName(resolvedApplicationName(applicationName)),
      m_socketPath(instanceSocketPath(m_applicationName)) {}

InstanceGuard::~InstanceGuard() {
    if (m_server)
        m_server->close(); // removes the socket file
}

InstanceGuard::Outcome InstanceGuard::acquire() {
    if (m_outcome != Outcome::NotTried)
        return m_outcome;
    auto fail = [this](const QString &why) {
        m_errorString = why;
        m_outcome = Outcome::Failed;
        return m_outcome;
    };

    if (m_socketPath.isEmpty())
        return fail(QStringLiteral("instance guard: ") +
                    instanceSocketLocation(m_applicationName).problem);

    // Only one start at a time gets to look and then listen.
    QLockFile lock(m_socketPath + QStringLiteral(".lock"));
    if (!lock.tryLock(lockTimeoutMs))
        return fail(QStringLiteral("instance guard: cannot lock %1.lock").arg(m_socketPath));

    {
        QLocalSocket probe;
        probe.connectToServer(m_socketPath);
        if (probe.waitForConnected(probeTimeoutMs)) {
            const bool ours = peerIsThisUser(probe.socketDescriptor());
            probe.abort();
            if (!ours)
                return fail(
                    QStringLiteral("instance guard: %1 belongs to another user").arg(m_socketPath));
            m_outcome = Outcome::OtherInstanceRunning;
            return m_outcome;
        }
    }

    // Nobody answers: whatever is left at the path belongs to an instance that has died.
    QLocalServer::removeServer(m_socketPath);
    auto *server = new QLocalServer(this);
    server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server->listen(m_socketPath)) {
        const QString why = server->errorString();
        delete server;
        return fail(
            QStringLiteral("instance guard: cannot listen on %1: %2").arg(m_socketPath, why));
    }
    m_server = server;
    connect(m_server, &QLocalServer::newConnection, this, &InstanceGuard::onNewConnection);
    m_outcome = Outcome::Listening;
    return m_outcome;
}

bool InstanceGuard::setCommandHandler(const QString &command, CommandHandler handler) {
    if (command == QLatin1String("show"))
        return false;
    if (handler)
        m_handlers[command] = std::move(handler);
    else
        m_handlers.erase(command);
    return true;
}

void InstanceGuard::onNewConnection() {
    while (QLocalSocket *socket = m_server->nextPendingConnection()) {
        if (!peerIsThisUser(socket->socketDescriptor())) {
            socket->abort();
            socket->deleteLater();
            continue;
        }
        auto *connection = new GuardConnection(socket, this);
        connection->m_dispatch = [this](GuardConnection *c) { dispatch(c); };
    }
}

void InstanceGuard::dispatch(GuardConnection *connection) {
    QPointer<GuardConnection> guarded(connection);
    const QString command = connection->command();
    if (command == QLatin1String("show")) {
        emit showRequested();
        if (guarded) {
            guarded->sendLine(QJsonObject{{QStringLiteral("ok"), true}});
            guarded->finish();
        }
        return;
    }
    const auto handler = m_handlers.find(command);
    if (handler == m_handlers.end()) {
        connection->sendLine(
            QJsonObject{{QStringLiteral("error"), QStringLiteral("unknown command")},
                        {QStringLiteral("command"), command}});
        connection->finish();
        return;
    }
    try {
        handler->second(connection);
    } catch (const std::exception &e) {
        if (guarded) {
            guarded->sendError(QString::fromUtf8(e.what()));
            guarded->finish();
        }
    }
}

// ---------------------------------------------------------------------------------------------

InstanceReply sendInstanceRequest(const QJsonObject &request, int timeoutMs,
                                  const std::function<void(const QJsonObject &)> &onLine,
                                  const QString &applicationName) {
    InstanceReply reply;
    QElapsedTimer clock;
    clock.start();
    auto remaining = [&] { return int(std::max<qint64>(0, timeoutMs - clock.elapsed())); };

    const InstanceSocketLocation location = instanceSocketLocation(applicationName);
    if (location.path.isEmpty()) {
        reply.error = location.problem;
        return reply;
    }
    QLocalSocket socket;
    socket.connectToServer(location.path);
    if (!socket.waitForConnected(remaining())) {
        reply.error = QStringLiteral("no running instance: %1").arg(socket.errorString());
        return reply;
    }
    if (!peerIsThisUser(socket.socketDescriptor())) {
        socket.abort();
        reply.error = QStringLiteral("the instance socket belongs to another user");
        return reply;
    }
    socket.write(encodeLine(request));
    while (socket.bytesToWrite() > 0) {
        if (!socket.waitForBytesWritten(remaining())) {
            reply.error = QStringLiteral("cannot send the request: %1").arg(socket.errorString());
            return reply;
        }
    }
    reply.connected = true;

    QByteArray buffer;
    auto takeLine = [&](const QByteArray &line) {
        if (line.trimmed().isEmpty())
            return;
        std::optional<QJsonObject> object = parseReplyLine(line);
        if (!object) {
            reply.error = QStringLiteral("malformed reply line");
            return;
        }
        reply.lines.append(std::move(*object));
        if (onLine)
            onLine(reply.lines.constLast());
    };
    auto takeLines = [&] {
        buffer.append(socket.readAll());
        qsizetype end;
        while ((end = buffer.indexOf('\n')) >= 0) {
            takeLine(buffer.left(end));
            buffer.remove(0, end + 1);
        }
        return buffer.size() <= maxReplyBytes;
    };
    for (;;) {
        if (!takeLines()) {
            reply.error = QStringLiteral("reply line too long");
            return reply;
        }
        if (socket.state() != QLocalSocket::ConnectedState) {
            takeLines();
            takeLine(buffer); // a last line the instance did not end with a newline
            reply.finished = true;
            return reply;
        }
        const int left = remaining();
        if (left <= 0) {
            reply.error = QStringLiteral("no complete reply within %1 ms").arg(timeoutMs);
            return reply;
        }
        if (!socket.waitForReadyRead(left) && socket.state() == QLocalSocket::ConnectedState &&
            socket.error() != QLocalSocket::SocketTimeoutError) {
            reply.error = QStringLiteral("reading the reply failed: %1").arg(socket.errorString());
            return reply;
        }
    }
}

void ExitAppIfAlreadyOpen(InstanceGuard &guard) {
    switch (guard.acquire()) {
    case InstanceGuard::Outcome::Listening:
    case InstanceGuard::Outcome::NotTried:
        return;
    case InstanceGuard::Outcome::Failed:
        printLine(QStringLiteral("warning: ") + guard.errorString());
        return;
    case InstanceGuard::Outcome::OtherInstanceRunning:
        break;
    }
    printLine(QStringLiteral("Application already opened.  Exiting ..."));
    sendInstanceRequest(QJsonObject{{QStringLiteral("command"), QStringLiteral("show")}}, 2000, {},
                        guard.applicationName());
    // Nothing has been started yet that would need tearing down; leave at once, so no
    // half-built application state runs its destructors.
    std::fflush(nullptr);
    ::_exit(0);
}

} // namespace runwarden
