// The backend's end of the sealed channel: its own X25519 key pair, the client's public key (the
// token), opening of request records with the freshness and replay checks, and sealing of answers
// with strictly increasing millisecond timestamps as additional data.
//
// Thread-safe: requests arrive on the HTTP server's threads.
#pragma once

#include <lumacrypt/KeyExchangeStore.h>

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace kovritdev {

class Channel {
public:
    // How far a request's timestamp may be from the backend's clock, either way.
    static constexpr std::int64_t kFreshnessWindowMs = 5000;

    // Throws (lumacrypt's errors) when `clientPublicKey` is not an X25519 public key.
    explicit Channel(const std::string &clientPublicKey);

    std::string localPublicKey() const;
    // The public-key block the client watches for on standard output.
    std::string pemBlock() const;

    struct Opened {
        std::string plaintext;
        std::int64_t timestamp = 0;
    };
    struct Refused {
        std::string reason;
    };
    // Opens a request body. Refused when it is not a sealed record, does not open with the
    // channel's keys, carries no timestamp, a timestamp more than kFreshnessWindowMs from
    // `nowMs`, a (timestamp, KDFNonce) pair already accepted, or the KDFNonce of one of the
    // latest answers.
    std::variant<Opened, Refused> open(std::string_view body, std::int64_t nowMs);

    // Seals an answer. Its additional data is the current time in milliseconds as decimal text
    // (one second less with `stale`), raised to one more than the previous answer's when the
    // clock has not moved on, so answers' timestamps strictly increase.
    std::string seal(std::string_view plaintext, bool stale = false);

    // For tests: the number of remembered (timestamp, KDFNonce) pairs.
    std::size_t rememberedCount() const;

private:
    mutable std::mutex mutex_;
    lumacrypt::KeyExchangeStore store_;
    std::set<std::pair<std::int64_t, std::string>> accepted_;
    std::int64_t lastReplyTimestamp_ = 0;
    // The HKDF salts of the latest answers: a request that carries one is an answer of ours
    // sent back (it would open, since both directions share the key).
    std::deque<std::string> answerSalts_;
};

// Milliseconds since the Unix epoch.
std::int64_t currentTimeMs();

} // namespace kovritdev
