#include "LoopbackHttpClient.h"

#include <Models.h>

#include <QMetaObject>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QPointer>
#include <QTcpSocket>
#include <QTimerEvent>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <limits>
#include <utility>

#if defined(Q_OS_UNIX)
#include <sys/socket.h>
#include <sys/types.h>
#endif

namespace tidepost {

namespace {

// Texts of errors without numbers, marked for translation: the log keeps them in
// English, and what the user is shown looks them up (context "tidepost::Error").
constexpr const char *kHeadersTooLong =
    QT_TRANSLATE_NOOP("tidepost::Error", "The reply's headers are too long");
constexpr const char *kNotHttp = QT_TRANSLATE_NOOP("tidepost::Error", "The reply is not HTTP");
constexpr const char *kBadChunkHeader =
    QT_TRANSLATE_NOOP("tidepost::Error", "The reply's chunk header is not valid");
constexpr const char *kConnectionClosed = QT_TRANSLATE_NOOP("tidepost::Error", "Connection closed");
constexpr const char *kConnectionRefused =
    QT_TRANSLATE_NOOP("tidepost::Error", "Connection refused");

// How much Qt may read ahead from the kernel before we have taken it.
constexpr qint64 socketReadBufferBytes = 1024 * 1024;
// A status line and headers longer than this are not a reply of our backend.
constexpr qsizetype maxHeadBytes = 64 * 1024;

Error networkError(QNetworkReply::NetworkError code, const QString &text) {
    return {"NetworkError", int(code), text.toStdString()};
}

Error protocolError(const char *text) {
    return networkError(QNetworkReply::ProtocolFailure, QString::fromLatin1(text));
}

// Parses a decimal length (digits only, no sign, no overflow).
std::optional<qint64> parseLength(QByteArrayView text) {
    if (text.isEmpty()) {
        return std::nullopt;
    }
    qint64 value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        if (__builtin_mul_overflow(value, qint64(10), &value) ||
            __builtin_add_overflow(value, qint64(c - '0'), &value)) {
            return std::nullopt;
        }
    }
    return value;
}

bool sameIgnoringCase(QByteArrayView text, QByteArrayView lower) {
    return text.size() == lower.size() &&
           qstrnicmp(text.data(), text.size(), lower.data(), lower.size()) == 0;
}

bool containsIgnoringCase(QByteArrayView text, QByteArrayView lower) {
    for (qsizetype at = 0; at + lower.size() <= text.size(); ++at) {
        if (sameIgnoringCase(text.sliced(at, lower.size()), lower)) {
            return true;
        }
    }
    return false;
}

} // namespace

Error timeoutError(std::chrono::milliseconds limit) {
    return networkError(QNetworkReply::TimeoutError,
                        QStringLiteral("The request timed out (no complete answer within %1 ms)")
                            .arg(limit.count()));
}

Error tooLargeError(qint64 limit) {
    return networkError(QNetworkReply::UnknownContentError,
                        QStringLiteral("The reply is larger than %1 bytes").arg(limit));
}

// One request and the parse state of its reply.
struct LoopbackHttpClient::Exchange {
    enum class Phase { head, body, chunkSize, chunkData, chunkEnd, trailers, untilClose };

    QByteArray request;
    Done done;
    // The exchange's time limit (a timer of the client's; 0: none).
    int deadlineTimer = 0;
    bool retried = false;
    bool anyReplyByte = false;

    Phase phase = Phase::head;
    qsizetype headBytes = 0;
    bool statusSeen = false;
    int status = 0;
    bool http10 = false;
    std::optional<bool> connectionHeaderKeepAlive;
    std::optional<qint64> contentLength;
    bool chunked = false;
    bool badHeader = false;
    const char *badHeaderText = nullptr;
    qint64 chunkRemaining = 0;
    QByteArray body;
    std::int64_t headersAt = 0;

    bool keepAlive() const { return connectionHeaderKeepAlive.value_or(!http10); }
};

struct LoopbackHttpClient::Connection {
    QTcpSocket *socket = nullptr;
    QString host;
    quint16 port = 0;
    // Whether an exchange has completed on it: a reused connection the peer closed while idle
    // gets one fresh try.
    bool reused = false;
    std::unique_ptr<Exchange> exchange;
    // Where the head's lines are read, one at a time: taken once, for the connection's life.
    std::unique_ptr<char[]> line;
};

LoopbackHttpClient::LoopbackHttpClient(QObject *parent) : QObject(parent) {}

LoopbackHttpClient::~LoopbackHttpClient() {
    for (const auto &connection : connections_) {
        QObject::disconnect(connection->socket, nullptr, this, nullptr);
        connection->socket->abort();
    }
}

LoopbackHttpClient::Connection *LoopbackHttpClient::connectionFor(const QString &host,
                                                                  quint16 port) {
    for (const auto &connection : connections_) {
        if (!connection->exchange && connection->host == host && connection->port == port &&
            connection->socket->state() == QAbstractSocket::ConnectedState) {
            return connection.get();
        }
    }
    auto connection = std::make_unique<Connection>();
    connection->host = host;
    connection->port = port;
    connection->socket = new QTcpSocket(this);
    // The backend listens on the loopback interface: a system proxy must never see its traffic.
    connection->socket->setProxy(QNetworkProxy::NoProxy);
    connection->socket->setReadBufferSize(socketReadBufferBytes);
    Connection *raw = connection.get();
    connect(raw->socket, &QTcpSocket::connected, this, [this, raw] {
        raw->socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        onConnected(raw);
    });
    connect(raw->socket, &QTcpSocket::readyRead, this, [this, raw] { onReadyRead(raw); });
    connect(raw->socket, &QTcpSocket::disconnected, this, [this, raw] { onDisconnected(raw); });
    connect(raw->socket, &QTcpSocket::errorOccurred, this, [this, raw] { onSocketError(raw); });
    connections_.push_back(std::move(connection));
    return raw;
}

std::optional<QByteArray> LoopbackHttpClient::head(const QUrl &url, const QByteArray &headers,
                                                   qint64 bodySize, Done &done) {
    if (url.scheme() != QLatin1String("http")) {
        const Error error =
            networkError(QNetworkReply::ProtocolUnknownError,
                         QStringLiteral("Protocol \"%1\" is unknown").arg(url.scheme()));
        QMetaObject::invokeMethod(
            this,
            [done = std::move(done), error] {
                if (done) {
                    done({std::nullopt, error, 0});
                }
            },
            Qt::QueuedConnection);
        return std::nullopt;
    }
    if (headPrefix_ && headPrefix_->url == url && headPrefix_->headers == headers) {
        QByteArray text = headPrefix_->text;
        appendHeadEnd(text, bodySize);
        return text;
    }
    const int port = url.port(80);
    QByteArray target = url.path(QUrl::FullyEncoded).toUtf8();
    if (target.isEmpty()) {
        target = "/";
    }
    if (url.hasQuery()) {
        target += '?' + url.query(QUrl::FullyEncoded).toUtf8();
    }
    QByteArray hostHeader = url.host(QUrl::FullyEncoded).toUtf8();
    if (hostHeader.contains(':')) {
        hostHeader = '[' + hostHeader + ']';
    }
    if (port != 80) {
        hostHeader += ':' + QByteArray::number(port);
    }
    QByteArray text;
    text.reserve(256 + headers.size());
    text += "POST " + target + " HTTP/1.1\r\nHost: " + hostHeader + "\r\n";
    text += headers;
    // Kept for the next request to the same address with the same headers.
    headPrefix_ = HeadPrefix{url, headers, text};
    appendHeadEnd(text, bodySize);
    return text;
}

void LoopbackHttpClient::appendHeadEnd(QByteArray &text, qint64 bodySize) {
    // One allocation for the whole head: the prefix is shared with the cache until now.
    static constexpr QByteArrayView lengthName = "Content-Length: ";
    static constexpr QByteArrayView rest =
        "\r\nAccept-Encoding: identity\r\nConnection: keep-alive\r\n\r\n";
    char digits[24];
    const auto [end, ec] = std::to_chars(std::begin(digits), std::end(digits), bodySize);
    const QByteArrayView number(digits, ec == std::errc() ? end - digits : 0);
    text.reserve(text.size() + lengthName.size() + number.size() + rest.size());
    text.append(lengthName).append(number).append(rest);
}

void LoopbackHttpClient::post(const QUrl &url, const QByteArray &headers, const QByteArray &body,
                              Done done) {
    std::optional<QByteArray> request = head(url, headers, body.size(), done);
    if (!request) {
        return;
    }
    // The whole request in one piece: head and body leave in one write.
    request->reserve(request->size() + body.size());
    *request += body;
    send(url, std::move(*request), std::move(done));
}

void LoopbackHttpClient::post(const QUrl &url, const QByteArray &headers, std::size_t bodySize,
                              const BodyWriter &write, Done done) {
    const std::optional<QByteArray> start = head(url, headers, qint64(bodySize), done);
    if (!start) {
        return;
    }
    // The last request's buffer is taken again when nothing holds it any more (the socket
    // lets go of a request once it is written): a request as large as the last one then
    // needs no fresh memory.
    QByteArray &request = requestBuffer_;
    request.resize(0);
    request.reserve(start->size() + qsizetype(bodySize));
    request += *start;
    request.resize(start->size() + qsizetype(bodySize));
    write(std::span<char>(request.data() + start->size(), bodySize));
    send(url, request, std::move(done));
}

void LoopbackHttpClient::recycle(QByteArray &&body) {
    if (!body.isDetached() || body.capacity() <= spareBody_.capacity()) {
        return;
    }
    spareBody_ = std::move(body);
}

void LoopbackHttpClient::send(const QUrl &url, QByteArray request, Done done) {
    auto exchange = std::make_unique<Exchange>();
    exchange->done = std::move(done);
    exchange->request = std::move(request);
    const QString host = url.host();
    const int port = url.port(80);

    Connection *connection = connectionFor(host, quint16(port));
    connection->exchange = std::move(exchange);
    Exchange *state = connection->exchange.get();
    // The limit holds for the exchange as a whole, so that a peer trickling bytes cannot keep a
    // request open either.
    state->deadlineTimer =
        startTimer(int(std::min<qint64>(timeout_.count(), std::numeric_limits<int>::max())));
    start(connection);
}

void LoopbackHttpClient::start(Connection *connection) {
    QTcpSocket *socket = connection->socket;
    if (socket->state() == QAbstractSocket::ConnectedState) {
        onConnected(connection);
        return;
    }
    if (socket->state() == QAbstractSocket::UnconnectedState) {
        ++connectionsOpened_;
        socket->connectToHost(connection->host, connection->port);
    }
}

void LoopbackHttpClient::onConnected(Connection *connection) {
    QTcpSocket *socket = connection->socket;
    if (!connection->exchange) {
        return;
    }
    const QByteArray &request = connection->exchange->request;
    qsizetype sent = 0;
#if defined(Q_OS_UNIX)
    // Handed to the kernel straight away while the socket has nothing else queued: Qt's own
    // write path switches its write notifier on and off for every request, which wakes the
    // event loop twice more per exchange. Whatever the kernel does not take at once (or an
    // error) goes through the socket as usual, after these bytes.
    if (socket->bytesToWrite() == 0 && socket->socketDescriptor() >= 0) {
        const int fd = static_cast<int>(socket->socketDescriptor());
        while (sent < request.size()) {
            const ssize_t n = ::send(fd, request.constData() + sent,
                                     static_cast<std::size_t>(request.size() - sent),
                                     MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n <= 0) {
                break;
            }
            sent += n;
        }
    }
#endif
    if (sent < request.size()) {
        socket->write(request.constData() + sent, request.size() - sent);
        // Out now rather than at the event loop's next turn.
        socket->flush();
    }
}

bool LoopbackHttpClient::mayRetry(const Connection *connection) const {
    const Exchange *exchange = connection->exchange.get();
    return exchange && connection->reused && !exchange->retried && !exchange->anyReplyByte;
}

LoopbackHttpClient::Connection *LoopbackHttpClient::ownerOf(const Exchange *exchange) const {
    for (const auto &connection : connections_) {
        if (connection->exchange.get() == exchange) {
            return connection.get();
        }
    }
    return nullptr;
}

void LoopbackHttpClient::onDisconnected(Connection *connection) {
    Exchange *exchange = connection->exchange.get();
    if (!exchange) {
        drop(connection);
        return;
    }
    if (exchange->phase == Exchange::Phase::untilClose) {
        // The body ran until the peer closed: what is left in the buffer is its end.
        if (!readBody(connection)) {
            return;
        }
        HttpReply reply{std::move(exchange->body), std::nullopt, exchange->headersAt};
        finish(connection, std::move(reply), false);
        return;
    }
    if (mayRetry(connection)) {
        // A kept connection the peer had closed while idle: once more on a fresh one.
        std::unique_ptr<Exchange> again = std::move(connection->exchange);
        again->retried = true;
        const QString host = connection->host;
        const quint16 port = connection->port;
        drop(connection);
        Connection *fresh = connectionFor(host, port);
        fresh->exchange = std::move(again);
        start(fresh);
        return;
    }
    finish(
        connection,
        {std::nullopt,
         networkError(QNetworkReply::RemoteHostClosedError, QString::fromLatin1(kConnectionClosed)),
         exchange->headersAt},
        false);
}

void LoopbackHttpClient::onSocketError(Connection *connection) {
    const QAbstractSocket::SocketError error = connection->socket->error();
    if (error == QAbstractSocket::RemoteHostClosedError) {
        // disconnected() follows and decides.
        return;
    }
    if (!connection->exchange) {
        drop(connection);
        return;
    }
    if (mayRetry(connection) && connection->socket->state() != QAbstractSocket::ConnectedState) {
        onDisconnected(connection);
        return;
    }
    QNetworkReply::NetworkError code = QNetworkReply::UnknownNetworkError;
    QString text = connection->socket->errorString();
    switch (error) {
    case QAbstractSocket::ConnectionRefusedError:
        code = QNetworkReply::ConnectionRefusedError;
        text = QString::fromLatin1(kConnectionRefused);
        break;
    case QAbstractSocket::HostNotFoundError:
        code = QNetworkReply::HostNotFoundError;
        text = QStringLiteral("Host %1 not found").arg(connection->host);
        break;
    case QAbstractSocket::SocketTimeoutError:
        code = QNetworkReply::TimeoutError;
        break;
    default:
        break;
    }
    finish(connection, {std::nullopt, networkError(code, text), connection->exchange->headersAt},
           false);
}

void LoopbackHttpClient::onReadyRead(Connection *connection) {
    Exchange *exchange = connection->exchange.get();
    if (!exchange) {
        // Nothing was asked: bytes from an idle connection mean it is out of step.
        drop(connection);
        return;
    }
    if (connection->socket->bytesAvailable() > 0) {
        exchange->anyReplyByte = true;
    }
    if (exchange->phase == Exchange::Phase::head && !readHead(connection)) {
        return;
    }
    if (exchange->phase != Exchange::Phase::head) {
        readBody(connection);
    }
}

bool LoopbackHttpClient::readHead(Connection *connection) {
    Exchange *exchange = connection->exchange.get();
    QTcpSocket *socket = connection->socket;
    while (exchange->phase == Exchange::Phase::head) {
        if (!socket->canReadLine()) {
            if (exchange->headBytes + socket->bytesAvailable() > maxHeadBytes) {
                finish(connection, {std::nullopt, protocolError(kHeadersTooLong), 0}, false);
                return false;
            }
            return true;
        }
        // Read into the connection's own buffer and looked at through views: the head of
        // every reply is parsed without taking memory.
        if (!connection->line) {
            connection->line = std::make_unique<char[]>(std::size_t(maxHeadBytes) + 2);
        }
        const qint64 read = socket->readLine(connection->line.get(), maxHeadBytes + 2);
        if (read <= 0) {
            return true;
        }
        exchange->headBytes += read;
        if (exchange->headBytes > maxHeadBytes) {
            finish(connection, {std::nullopt, protocolError(kHeadersTooLong), 0}, false);
            return false;
        }
        const QByteArrayView text =
            QByteArrayView(connection->line.get(), qsizetype(read)).trimmed();
        if (!exchange->statusSeen) {
            // "HTTP/1.1 200 OK"
            if (!text.startsWith("HTTP/1.") || text.size() < 12 || text[8] != ' ') {
                finish(connection, {std::nullopt, protocolError(kNotHttp), 0}, false);
                return false;
            }
            const std::optional<qint64> status = parseLength(text.sliced(9, 3));
            if (!status || (text.size() > 12 && text[12] != ' ')) {
                finish(connection, {std::nullopt, protocolError(kNotHttp), 0}, false);
                return false;
            }
            exchange->status = int(*status);
            exchange->http10 = text[7] == '0';
            exchange->statusSeen = true;
            continue;
        }
        if (!text.isEmpty()) {
            const qsizetype colon = text.indexOf(':');
            if (colon <= 0) {
                exchange->badHeader = true;
                exchange->badHeaderText = "The reply carries a malformed header";
                continue;
            }
            const QByteArrayView name = text.first(colon).trimmed();
            const QByteArrayView value = text.sliced(colon + 1).trimmed();
            if (sameIgnoringCase(name, "content-length")) {
                const std::optional<qint64> length = parseLength(value);
                if (!length || (exchange->contentLength && *exchange->contentLength != *length)) {
                    exchange->badHeader = true;
                    exchange->badHeaderText = "The reply's length is not valid";
                } else {
                    exchange->contentLength = length;
                }
            } else if (sameIgnoringCase(name, "transfer-encoding")) {
                if (sameIgnoringCase(value, "chunked")) {
                    exchange->chunked = true;
                } else if (!sameIgnoringCase(value, "identity")) {
                    exchange->badHeader = true;
                    exchange->badHeaderText = "The reply uses a transfer coding not asked for";
                }
            } else if (sameIgnoringCase(name, "content-encoding")) {
                if (!sameIgnoringCase(value, "identity")) {
                    exchange->badHeader = true;
                    exchange->badHeaderText = "The reply is compressed although it was not asked";
                }
            } else if (sameIgnoringCase(name, "connection")) {
                if (containsIgnoringCase(value, "close")) {
                    exchange->connectionHeaderKeepAlive = false;
                } else if (containsIgnoringCase(value, "keep-alive")) {
                    exchange->connectionHeaderKeepAlive = true;
                }
            }
            continue;
        }
        // The blank line: the head is complete.
        if (exchange->status >= 100 && exchange->status < 200) {
            // An interim answer ("100 Continue"): the real one follows.
            const bool retried = exchange->retried;
            Exchange fresh;
            fresh.request = std::move(exchange->request);
            fresh.done = std::move(exchange->done);
            fresh.deadlineTimer = exchange->deadlineTimer;
            fresh.retried = retried;
            fresh.anyReplyByte = true;
            *exchange = std::move(fresh);
            continue;
        }
        exchange->headersAt = clock_ ? clock_() : 0;
        emit replyHeadersArrived(exchange->headersAt);
        if (exchange->status != 200) {
            // The body of a failed request is of no use: do not wait for it.
            finish(connection,
                   {std::nullopt, Error::of(PollManagerError::publishFailure), exchange->headersAt},
                   false);
            return false;
        }
        if (exchange->badHeader) {
            finish(connection,
                   {std::nullopt, protocolError(exchange->badHeaderText), exchange->headersAt},
                   false);
            return false;
        }
        if (exchange->chunked) {
            exchange->phase = Exchange::Phase::chunkSize;
        } else if (exchange->contentLength) {
            if (*exchange->contentLength > maxReplyBytes_) {
                finish(connection,
                       {std::nullopt, tooLargeError(maxReplyBytes_), exchange->headersAt}, false);
                return false;
            }
            // A body handed back takes this one, and room is left after the body for a
            // reader that parses it where it lies.
            exchange->body = std::move(spareBody_);
            spareBody_ = QByteArray();
            exchange->body.resize(0);
            exchange->body.reserve(qsizetype(*exchange->contentLength) +
                                   qsizetype(tarnwick::jsonPadding));
            exchange->phase = Exchange::Phase::body;
        } else {
            exchange->phase = Exchange::Phase::untilClose;
        }
    }
    return true;
}

bool LoopbackHttpClient::append(Connection *connection, qint64 count) {
    // Straight from the socket's buffer into the body, without a piece in between.
    Exchange *exchange = connection->exchange.get();
    const qsizetype before = exchange->body.size();
    exchange->body.resize(before + qsizetype(count));
    const qint64 read = connection->socket->read(exchange->body.data() + before, count);
    exchange->body.resize(before + qsizetype(std::max<qint64>(read, 0)));
    peakReplyBytes_ = std::max(peakReplyBytes_, qint64(exchange->body.size()));
    return read == count;
}

bool LoopbackHttpClient::appendFromKernel(Connection *connection, qint64 count) {
#if defined(Q_OS_UNIX)
    // Whatever has arrived of the body's rest, straight from the kernel into the body: Qt's
    // buffer would take it first and hand it over in a second copy. Only bytes this body still
    // lacks are taken, so what follows it stays for the socket. An end is left for the socket
    // to find on its next read; an error found here reaches it as an end.
    QTcpSocket *socket = connection->socket;
    if (socket->bytesAvailable() != 0 || socket->socketDescriptor() < 0) {
        return false;
    }
    const int fd = static_cast<int>(socket->socketDescriptor());
    Exchange *exchange = connection->exchange.get();
    const qsizetype before = exchange->body.size();
    exchange->body.resize(before + qsizetype(count));
    qsizetype got = 0;
    while (got < count) {
        const ssize_t n = ::recv(fd, exchange->body.data() + before + got,
                                 static_cast<std::size_t>(count - got), MSG_DONTWAIT);
        if (n <= 0) {
            break;
        }
        got += n;
    }
    exchange->body.resize(before + got);
    peakReplyBytes_ = std::max(peakReplyBytes_, qint64(exchange->body.size()));
    return got > 0;
#else
    Q_UNUSED(connection);
    Q_UNUSED(count);
    return false;
#endif
}

bool LoopbackHttpClient::kernelHoldsMore(const Connection *connection) const {
#if defined(Q_OS_UNIX)
    // One byte looked at, not taken: anything there (or the peer's end) is past the reply.
    const qintptr fd = connection->socket->socketDescriptor();
    if (fd < 0) {
        return true;
    }
    char byte = 0;
    const ssize_t n = ::recv(static_cast<int>(fd), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return n >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
#else
    Q_UNUSED(connection);
    return false;
#endif
}

bool LoopbackHttpClient::readBody(Connection *connection) {
    Exchange *exchange = connection->exchange.get();
    QTcpSocket *socket = connection->socket;
    switch (exchange->phase) {
    case Exchange::Phase::head:
        return true;
    case Exchange::Phase::body: {
        const qint64 missing = *exchange->contentLength - exchange->body.size();
        const qint64 take = std::min(missing, socket->bytesAvailable());
        if (take > 0) {
            append(connection, take);
        }
        bool fromKernel = false;
        if (exchange->body.size() < *exchange->contentLength) {
            fromKernel =
                appendFromKernel(connection, *exchange->contentLength - exchange->body.size());
        }
        if (exchange->body.size() == *exchange->contentLength) {
            HttpReply reply{std::move(exchange->body), std::nullopt, exchange->headersAt};
            // Bytes after the reply mean the peer is out of step: the connection is not used
            // again. Read from the kernel, they are still there, not in the socket's buffer.
            const bool keep = exchange->keepAlive() && socket->bytesAvailable() == 0 &&
                              !(fromKernel && kernelHoldsMore(connection));
            finish(connection, std::move(reply), keep);
            return false;
        }
        return true;
    }
    case Exchange::Phase::untilClose: {
        // Never more than the cap: what would pass it is refused before it is taken.
        const qint64 available = socket->bytesAvailable();
        if (available > maxReplyBytes_ - exchange->body.size()) {
            finish(connection, {std::nullopt, tooLargeError(maxReplyBytes_), exchange->headersAt},
                   false);
            return false;
        }
        if (available > 0) {
            append(connection, available);
        }
        return true;
    }
    default:
        return readChunked(connection);
    }
}

bool LoopbackHttpClient::readChunked(Connection *connection) {
    Exchange *exchange = connection->exchange.get();
    QTcpSocket *socket = connection->socket;
    const auto fail = [&](const Error &error) {
        finish(connection, {std::nullopt, error, exchange->headersAt}, false);
        return false;
    };
    for (;;) {
        switch (exchange->phase) {
        case Exchange::Phase::chunkSize: {
            if (!socket->canReadLine()) {
                return socket->bytesAvailable() > 1024 ? fail(protocolError(kBadChunkHeader))
                                                       : true;
            }
            QByteArray line = socket->readLine(1025).trimmed();
            const qsizetype extension = line.indexOf(';');
            if (extension >= 0) {
                line.truncate(extension);
            }
            bool ok = false;
            const qint64 size = line.trimmed().toLongLong(&ok, 16);
            if (!ok || size < 0) {
                return fail(protocolError(kBadChunkHeader));
            }
            if (size > maxReplyBytes_ - exchange->body.size()) {
                return fail(tooLargeError(maxReplyBytes_));
            }
            exchange->chunkRemaining = size;
            exchange->phase = size == 0 ? Exchange::Phase::trailers : Exchange::Phase::chunkData;
            break;
        }
        case Exchange::Phase::chunkData: {
            const qint64 take = std::min(exchange->chunkRemaining, socket->bytesAvailable());
            if (take <= 0) {
                return true;
            }
            append(connection, take);
            exchange->chunkRemaining -= take;
            if (exchange->chunkRemaining == 0) {
                exchange->phase = Exchange::Phase::chunkEnd;
            }
            break;
        }
        case Exchange::Phase::chunkEnd: {
            if (!socket->canReadLine()) {
                return socket->bytesAvailable() > 2 ? fail(protocolError(kBadChunkHeader)) : true;
            }
            if (!socket->readLine(3).trimmed().isEmpty()) {
                return fail(protocolError(kBadChunkHeader));
            }
            exchange->phase = Exchange::Phase::chunkSize;
            break;
        }
        case Exchange::Phase::trailers: {
            if (!socket->canReadLine()) {
                return true;
            }
            if (!socket->readLine(maxHeadBytes).trimmed().isEmpty()) {
                break; // a trailer field, ignored
            }
            HttpReply reply{std::move(exchange->body), std::nullopt, exchange->headersAt};
            const bool keep = exchange->keepAlive() && socket->bytesAvailable() == 0;
            finish(connection, std::move(reply), keep);
            return false;
        }
        default:
            return true;
        }
    }
}

void LoopbackHttpClient::finish(Connection *connection, HttpReply reply, bool keepConnection) {
    std::unique_ptr<Exchange> exchange = std::move(connection->exchange);
    if (!exchange) {
        return;
    }
    if (exchange->deadlineTimer != 0) {
        killTimer(exchange->deadlineTimer);
    }
    if (keepConnection) {
        connection->reused = true;
    } else {
        drop(connection);
    }
    Done done = std::move(exchange->done);
    exchange.reset();
    if (done) {
        done(std::move(reply));
    }
}

void LoopbackHttpClient::drop(Connection *connection) {
    const auto it = std::find_if(connections_.begin(), connections_.end(),
                                 [connection](const auto &c) { return c.get() == connection; });
    if (it == connections_.end()) {
        return;
    }
    std::unique_ptr<Connection> owned = std::move(*it);
    connections_.erase(it);
    QTcpSocket *socket = owned->socket;
    QObject::disconnect(socket, nullptr, this, nullptr);
    socket->abort();
    // Not deleted from inside one of its own signals.
    socket->deleteLater();
    if (owned->exchange && owned->exchange->deadlineTimer != 0) {
        killTimer(owned->exchange->deadlineTimer);
    }
}

void LoopbackHttpClient::timerEvent(QTimerEvent *event) {
    for (const auto &connection : connections_) {
        const Exchange *exchange = connection->exchange.get();
        if (exchange && exchange->deadlineTimer == event->timerId()) {
            finish(connection.get(), {std::nullopt, timeoutError(timeout_), exchange->headersAt},
                   false);
            return;
        }
    }
    // The exchange it limited has ended.
    killTimer(event->timerId());
}

} // namespace tidepost
