#pragma once

// The client's end of the sealed channel to its backend: one object that takes an envelope and
// gives back the opened reply or the error. It seals each request as it leaves (with the current
// time as additional data), posts it with the bearer token, opens the reply and checks its
// timestamp, and keeps the order of requests.
//
// Order. At most one request is on the wire at a time: the backend stamps each reply with a
// strictly increasing time and replies older than the newest accepted one are refused, so two
// exchanges at once could only race each other into refusals. Commands (what a user asked for)
// go out in the order they were sent. Background requests (the 100 ms ping) never hold a
// command up: one that is due while a command waits is skipped, and one that waits when a
// command arrives is dropped in its favour, so a command waits for at most the one request
// already on the wire.
//
// Everything here runs on the main thread; handlers are called from the event loop, never from
// inside send().

#include "PollManager.h"

#include <JsonWriter.h>
#include <Models.h>

#include <QObject>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tidepost {

/// What became of one request.
struct Exchange {
    enum class Result {
        /// The reply opened and its timestamp is fresh: plaintext holds it.
        opened,
        /// An answer arrived but it is not a fresh sealed reply of ours (error says why).
        unreadable,
        /// The request failed: it could not be sealed, or no answer came (error says why).
        failed,
        /// A background request that gave way to a command and was never sent.
        skipped,
    };
    Result result = Result::failed;
    std::string plaintext;
    std::optional<Error> error;
};

class BackendSession : public QObject {
    Q_OBJECT

public:
    enum class Priority { command, background };
    /// A handler may keep the reply's plaintext by swapping it for a buffer of its own: the
    /// session opens a later reply into what it finds there.
    using Handler = std::function<void(Exchange &exchange)>;

    /// The path requests are posted to.
    static constexpr const char *requestPath = "/request";

    explicit BackendSession(KeyExchangeStoreFunction factory, QObject *parent = nullptr);
    ~BackendSession() override;

    BackendSession(const BackendSession &) = delete;
    BackendSession &operator=(const BackendSession &) = delete;

    /// The request client underneath: the store, the runner and the transport.
    PollManager &pollManager() { return *pm_; }
    const PollManager &pollManager() const { return *pm_; }
    /// The client's public key: the bearer token, and the backend's -token argument.
    const std::string &bearerToken() const { return pm_->bearerToken; }

    /// The backend's port on 127.0.0.1.
    void setPort(int port) { port_ = port; }
    int port() const { return port_; }

    /// Queues one request; done is called exactly once from the event loop (unless the session is
    /// destroyed first).
    void send(const tarnwick::TypeIDAndData &envelope, Priority priority, Handler done);
    /// The same with an envelope the caller shares (it is not copied).
    void send(std::shared_ptr<const tarnwick::TypeIDAndData> envelope, Priority priority,
              Handler done);

    /// Writes the envelope's JSON text now, ahead of its sending: the ping loop's next command
    /// is prepared while the loop waits, and its sending then only seals it.
    void prepare(const std::shared_ptr<const tarnwick::TypeIDAndData> &envelope) {
        (void)envelopeJSON(envelope);
    }
    /// Whether the envelope's JSON text is written and kept: its sending only seals it.
    bool isPrepared(const std::shared_ptr<const tarnwick::TypeIDAndData> &envelope) const {
        return lastEnvelope_ == envelope;
    }
    /// Whether a request is on the wire.
    bool isBusy() const { return inFlight_; }
    /// Commands waiting behind the one on the wire.
    std::size_t queuedCommands() const { return commands_.size(); }

private:
    struct Pending {
        std::shared_ptr<const tarnwick::TypeIDAndData> envelope;
        Handler done;
    };

    void sendNext();
    void post(Pending request);
    Exchange open(const QByteArray &body, std::int64_t headersAt);
    // The envelope's JSON text (the last one's, when the envelope is the same again).
    const std::string &envelopeJSON(const std::shared_ptr<const tarnwick::TypeIDAndData> &envelope);
    // Whether a reply's KDFNonce is that of a request we sent lately: our own
    // request sent back to us (it opens, since both directions share the key).
    bool isOwnRequest(const std::string &kdfNonce) const;
    void deliver(Handler done, Exchange exchange);

    std::unique_ptr<PollManager> pm_;
    int port_ = 0;
    std::deque<Pending> commands_;
    std::optional<Pending> background_;
    bool inFlight_ = false;
    // The HKDF salts (decoded KDFNonces) of the latest requests.
    std::deque<lumacrypt::Bytes> sentSalts_;
    std::uint64_t reflectedReplies_ = 0;
    std::shared_ptr<const tarnwick::TypeIDAndData> lastEnvelope_;
    std::string lastEnvelopeJSON_;
    // Where the envelope's Data sits in lastEnvelopeJSON_, escaped.
    tarnwick::json::EscapedRegion escapedData_;
    // The buffer replies are opened into, handed out with each reply and taken back once its
    // handler has run: a report of the same size as the last one needs no new memory.
    std::string plaintextBuffer_;
};

} // namespace tidepost
