#include "BackendSession.h"

#include <JsonWriter.h>

#include <QMetaObject>
#include <QPointer>
#include <QString>

#include <lumacrypt/Base64.h>

#include <algorithm>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace tidepost {

namespace {

// How many of the latest requests a reply is compared with. Far more than
// could be under way: requests go out one at a time.
constexpr std::size_t kRememberedRequests = 64;

} // namespace

BackendSession::BackendSession(KeyExchangeStoreFunction factory, QObject *parent)
    : QObject(parent), pm_(std::make_unique<PollManager>(std::move(factory))) {}

BackendSession::~BackendSession() {
    // Handlers of requests still queued or under way are dropped with us.
    commands_.clear();
    background_.reset();
    pm_.reset();
}

void BackendSession::send(const tarnwick::TypeIDAndData &envelope, Priority priority,
                          Handler done) {
    send(std::make_shared<const tarnwick::TypeIDAndData>(envelope), priority, std::move(done));
}

void BackendSession::send(std::shared_ptr<const tarnwick::TypeIDAndData> envelope,
                          Priority priority, Handler done) {
    if (priority == Priority::command) {
        commands_.push_back({std::move(envelope), std::move(done)});
        // A ping still waiting would only hold the command up: it gives way.
        if (background_) {
            Pending dropped = std::move(*background_);
            background_.reset();
            deliver(std::move(dropped.done), {Exchange::Result::skipped, {}, std::nullopt});
        }
    } else {
        if (!commands_.empty()) {
            deliver(std::move(done), {Exchange::Result::skipped, {}, std::nullopt});
            return;
        }
        if (background_) {
            // The newer one carries the newer folder list.
            Pending older = std::move(*background_);
            background_.reset();
            deliver(std::move(older.done), {Exchange::Result::skipped, {}, std::nullopt});
        }
        background_ = Pending{std::move(envelope), std::move(done)};
    }
    if (!inFlight_) {
        sendNext();
    }
}

void BackendSession::sendNext() {
    if (!commands_.empty()) {
        Pending next = std::move(commands_.front());
        commands_.pop_front();
        post(std::move(next));
    } else if (background_) {
        Pending next = std::move(*background_);
        background_.reset();
        post(std::move(next));
    } else {
        inFlight_ = false;
    }
}

void BackendSession::post(Pending request) {
    inFlight_ = true;
    // Sealed as it leaves, so that its timestamp is fresh when it arrives. The sealed record is
    // written straight into the request's buffer.
    QPointer<BackendSession> self(this);
    // Shared with the reply handler below, and still here when sealing throws.
    auto done = std::make_shared<Handler>(std::move(request.done));
    try {
        const std::string &plain = envelopeJSON(request.envelope);
        const lumacrypt::Bytes stamp = pm_->keyExchangeCurrentTimestampData();
        const std::span plainBytes(reinterpret_cast<const std::uint8_t *>(plain.data()),
                                   plain.size());
        pm_->publishLocalWritten(
            lumacrypt::KeyExchangeStore::sealedJSONSize(plain.size(), stamp.size()),
            [this, plainBytes, &stamp](std::span<char> out) {
                lumacrypt::Bytes salt = pm_->kes.encryptToJSON(plainBytes, stamp, out);
                sentSalts_.push_back(std::move(salt));
                if (sentSalts_.size() > kRememberedRequests) {
                    sentSalts_.pop_front();
                }
            },
            port_, QString::fromLatin1(requestPath), pm_->bearerToken,
            [self, done](std::optional<QByteArray> reply, std::optional<Error> error,
                         std::int64_t headersAt) {
                if (!self) {
                    return;
                }
                // Judged against the moment the headers arrived: a large body
                // takes its time to stream and to open, and that is no sign of age.
                Exchange exchange = error ? Exchange{Exchange::Result::failed, {}, std::move(error)}
                                          : self->open(reply.value_or(QByteArray()), headersAt);
                if (reply) {
                    self->pm_->http().recycle(std::move(*reply));
                }
                // The next request leaves before this one's handler runs, so a
                // handler that sends again queues behind what was already waiting.
                self->sendNext();
                if (*done) {
                    (*done)(exchange);
                }
                if (self && exchange.result == Exchange::Result::opened) {
                    self->plaintextBuffer_ = std::move(exchange.plaintext);
                }
            });
    } catch (...) {
        Exchange failed{Exchange::Result::failed, {}, Error::fromCurrentException()};
        QMetaObject::invokeMethod(
            this,
            [this, done, failed = std::move(failed)]() mutable {
                sendNext();
                if (*done) {
                    (*done)(failed);
                }
            },
            Qt::QueuedConnection);
        return;
    }
}

const std::string &
BackendSession::envelopeJSON(const std::shared_ptr<const tarnwick::TypeIDAndData> &envelope) {
    // The ping repeats the same folder list until it changes, and then it changes in a few
    // places: its JSON text is kept and only the pieces of the list that changed are escaped
    // again (the very envelope sent again needs no comparison at all). The text is what
    // TypeIDAndData::toJSON writes: {"Type":…,"ID":…,"Data":…}.
    if (lastEnvelope_ == envelope) {
        return lastEnvelopeJSON_;
    }
    if (lastEnvelope_ && lastEnvelope_->type == envelope->type &&
        lastEnvelope_->id == envelope->id) {
        escapedData_.update(lastEnvelopeJSON_, lastEnvelope_->data, envelope->data);
    } else {
        lastEnvelopeJSON_.clear();
        lastEnvelopeJSON_ += "{\"Type\":";
        tarnwick::json::appendString(lastEnvelopeJSON_, envelope->type);
        lastEnvelopeJSON_ += ",\"ID\":";
        tarnwick::json::appendString(lastEnvelopeJSON_, envelope->id);
        lastEnvelopeJSON_ += ",\"Data\":\"";
        escapedData_.write(lastEnvelopeJSON_, envelope->data);
        lastEnvelopeJSON_ += "\"}";
    }
    lastEnvelope_ = envelope;
    return lastEnvelopeJSON_;
}

namespace {

// Thrown from the record check to refuse a request of ours sent back.
struct OwnRequest {};

} // namespace

Exchange BackendSession::open(const QByteArray &body, std::int64_t headersAt) {
    try {
        // The reply is opened where it lies, straight into the reused buffer; the
        // HTTP client leaves room after a body for the parser to read past its end.
        const bool padded = body.capacity() - body.size() >= qsizetype(tarnwick::jsonPadding);
        // The plaintext is shorter than the base64 text it comes from. Room after it lets the
        // reply's reader parse it where it lies too.
        plaintextBuffer_.clear(); // what it held (the last report) need not move with it
        plaintextBuffer_.reserve(static_cast<std::size_t>(body.size()) / 4 * 3 +
                                 tarnwick::jsonPadding);
        const lumacrypt::KeyExchangeAEADStore record = pm_->kes.decryptJSON(
            std::string_view(body.constData(), static_cast<std::size_t>(body.size())),
            plaintextBuffer_,
            [this](const lumacrypt::KeyExchangeAEADStore &fields) {
                if (isOwnRequest(fields.kdfNonce)) {
                    throw OwnRequest{};
                }
            },
            padded);
        if (std::optional<Error> stale = pm_->checkTimestamp(record.additionalData, headersAt)) {
            return {Exchange::Result::unreadable, {}, std::move(stale)};
        }
        return {Exchange::Result::opened, std::move(plaintextBuffer_), std::nullopt};
    } catch (const OwnRequest &) {
        // Both directions derive their keys from the same secret, so a request sent
        // back opens like a reply: refused as one that does not open.
        if (reflectedReplies_++ % 100 == 0) {
            pm_->log("warning: refused a reply that is a request of ours sent back (" +
                     std::to_string(reflectedReplies_) + " so far)");
        }
        return {Exchange::Result::unreadable,
                {},
                Error{"KeyExchangeError", 0, "the reply repeats a request of ours"}};
    } catch (...) {
        return {Exchange::Result::unreadable, {}, Error::fromCurrentException()};
    }
}

bool BackendSession::isOwnRequest(const std::string &kdfNonce) const {
    // Compared as bytes, whatever the text's spelling.
    const std::optional<lumacrypt::Bytes> salt = lumacrypt::base64Decode(kdfNonce);
    return salt && std::find(sentSalts_.begin(), sentSalts_.end(), *salt) != sentSalts_.end();
}

void BackendSession::deliver(Handler done, Exchange exchange) {
    if (!done) {
        return;
    }
    QMetaObject::invokeMethod(
        this,
        [done = std::move(done), exchange = std::move(exchange)]() mutable { done(exchange); },
        Qt::QueuedConnection);
}

} // namespace tidepost
