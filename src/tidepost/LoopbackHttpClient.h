#pragma once

// A small HTTP/1.1 client for the backend's endpoint on this computer: POST only, one request per
// connection at a time, connections kept open between requests and opened again when the peer
// closed them. Every request leaves in one write with Nagle's algorithm off, so an exchange never
// waits for a delayed acknowledgement, and asks for the body as it is (no compression: the body
// is ciphertext, and loopback gains nothing).
//
// A reply succeeds only with status 200. A body larger than the cap is refused as soon as that
// is known (an announced length over it at once, a streamed body when it passes it) and never
// held beyond the cap. Each exchange is bounded by a time limit as a whole.
//
// Everything runs on the thread that owns the client (the main thread in the app).

#include "Error.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QUrl>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

class QTcpSocket;
class QTimer;

namespace tidepost {

/// "The request timed out (no complete answer within <limit> ms)", domain "NetworkError".
Error timeoutError(std::chrono::milliseconds limit);
/// "The reply is larger than <limit> bytes", domain "NetworkError".
Error tooLargeError(qint64 limit);

/// How one exchange ended.
struct HttpReply {
    /// The body of a 200 reply.
    std::optional<QByteArray> body;
    std::optional<Error> error;
    /// The clock's time when the reply's status line and headers had arrived (0 when none did).
    std::int64_t headersAt = 0;
};

class LoopbackHttpClient : public QObject {
    Q_OBJECT

public:
    using Done = std::function<void(HttpReply reply)>;
    using Clock = std::function<std::int64_t()>;

    explicit LoopbackHttpClient(QObject *parent = nullptr);
    /// Requests under way end without their callbacks.
    ~LoopbackHttpClient() override;

    void setClock(Clock clock) { clock_ = std::move(clock); }
    void setRequestTimeout(std::chrono::milliseconds timeout) { timeout_ = timeout; }
    void setMaxReplyBytes(qint64 bytes) { maxReplyBytes_ = bytes; }

    /// POSTs body to url (scheme http). headers are extra "Name: value" lines, each ending in
    /// CRLF. done runs exactly once, from the event loop, unless the client is destroyed first.
    void post(const QUrl &url, const QByteArray &headers, const QByteArray &body, Done done);
    /// Writes a body of bodySize bytes into the place it takes in the request.
    using BodyWriter = std::function<void(std::span<char> body)>;
    /// post() with a body that `write` puts straight into the request's buffer, which is kept
    /// from one request to the next. `write` runs once, before this returns; an exception from
    /// it leaves this call and nothing is sent.
    void post(const QUrl &url, const QByteArray &headers, std::size_t bodySize,
              const BodyWriter &write, Done done);
    /// Hands back a reply body its receiver is done with: its memory takes the next reply.
    void recycle(QByteArray &&body);

    /// The most reply body bytes this client has held at once for one exchange (for tests).
    qint64 peakReplyBytes() const { return peakReplyBytes_; }
    /// Connections opened so far (for tests).
    int connectionsOpened() const { return connectionsOpened_; }

signals:
    /// A reply's status line and headers have been read (at: the clock's time then).
    void replyHeadersArrived(std::int64_t at);

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    struct Connection;
    struct Exchange;

    // The request's start line and headers for a body of bodySize bytes (nothing on an error,
    // which is then reported through done).
    std::optional<QByteArray> head(const QUrl &url, const QByteArray &headers, qint64 bodySize,
                                   Done &done);
    static void appendHeadEnd(QByteArray &text, qint64 bodySize);
    void send(const QUrl &url, QByteArray request, Done done);
    Connection *connectionFor(const QString &host, quint16 port);
    void start(Connection *connection);
    void onConnected(Connection *connection);
    void onReadyRead(Connection *connection);
    void onDisconnected(Connection *connection);
    void onSocketError(Connection *connection);
    // Parses what has arrived; false once the exchange has ended.
    bool readHead(Connection *connection);
    bool readBody(Connection *connection);
    bool readChunked(Connection *connection);
    bool append(Connection *connection, qint64 count);
    // Takes up to `count` more body bytes from the kernel at once, when the socket holds none;
    // whether it took any.
    bool appendFromKernel(Connection *connection, qint64 count);
    // Whether the kernel holds bytes (or the peer's end) beyond what was read.
    bool kernelHoldsMore(const Connection *connection) const;
    void finish(Connection *connection, HttpReply reply, bool keepConnection);
    void drop(Connection *connection);
    bool mayRetry(const Connection *connection) const;
    Connection *ownerOf(const Exchange *exchange) const;

    Clock clock_;
    std::chrono::milliseconds timeout_{30000};
    qint64 maxReplyBytes_ = qint64(64) * 1024 * 1024;
    std::vector<std::unique_ptr<Connection>> connections_;
    // Kept between requests: the last request's buffer and a reply body handed back.
    QByteArray requestBuffer_;
    QByteArray spareBody_;
    // The start line and headers (all but the length's) of the last request, and for what.
    struct HeadPrefix {
        QUrl url;
        QByteArray headers;
        QByteArray text;
    };
    std::optional<HeadPrefix> headPrefix_;
    qint64 peakReplyBytes_ = 0;
    int connectionsOpened_ = 0;
};

} // namespace tidepost
