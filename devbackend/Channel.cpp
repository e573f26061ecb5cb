#include "Channel.h"

#include <lumacrypt/Base64.h>
#include <lumacrypt/Timestamp.h>

#include <algorithm>
#include <chrono>
#include <span>

namespace kovritdev {

namespace {
std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}
} // namespace

std::int64_t currentTimeMs() {
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count();
    return (us + 500) / 1000;
}

Channel::Channel(const std::string &clientPublicKey)
    : store_(lumacrypt::KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(clientPublicKey)) {}

std::string Channel::localPublicKey() const {
    const std::lock_guard lock(mutex_);
    return store_.LocalPublicKey();
}

std::string Channel::pemBlock() const {
    return "-----BEGIN PUBLIC KEY-----\n" + localPublicKey() + "\n-----END PUBLIC KEY-----\n";
}

std::variant<Channel::Opened, Channel::Refused> Channel::open(std::string_view body,
                                                              std::int64_t nowMs) {
    lumacrypt::KeyExchangeAEADStore record;
    try {
        record = lumacrypt::KeyExchangeAEADStore::fromJSON(body);
    } catch (const std::exception &) {
        return Refused{"not a sealed record"};
    }

    const std::lock_guard lock(mutex_);
    lumacrypt::Bytes plaintext;
    try {
        plaintext = store_.decryptAEADStore(record);
    } catch (const std::exception &e) {
        return Refused{std::string("record does not open (") + e.what() + ")"};
    }
    const auto timestamp = lumacrypt::KeyExchangeTimestamp(record.additionalData);
    if (!timestamp) {
        return Refused{"record carries no timestamp"};
    }
    if (*timestamp < nowMs - kFreshnessWindowMs || *timestamp > nowMs + kFreshnessWindowMs) {
        return Refused{"timestamp " + std::to_string(*timestamp) + " is more than " +
                       std::to_string(kFreshnessWindowMs) + " ms from " + std::to_string(nowMs)};
    }

    // Pairs older than the window can never be accepted again, so they need no remembering.
    const auto firstKept = accepted_.lower_bound({nowMs - kFreshnessWindowMs, std::string()});
    accepted_.erase(accepted_.begin(), firstKept);

    // The salt is compared as bytes: two base64 texts that differ only in unused padding bits
    // carry the same salt and open the same way.
    const auto salt = lumacrypt::base64Decode(record.kdfNonce);
    if (!salt) {
        return Refused{"malformed KDFNonce"};
    }
    const std::string saltBytes(reinterpret_cast<const char *>(salt->data()), salt->size());
    if (std::find(answerSalts_.begin(), answerSalts_.end(), saltBytes) != answerSalts_.end()) {
        return Refused{"an answer of ours sent back as a request"};
    }
    const std::pair<std::int64_t, std::string> key{*timestamp, saltBytes};
    if (!accepted_.insert(key).second) {
        return Refused{"replayed record"};
    }
    return Opened{std::string(reinterpret_cast<const char *>(plaintext.data()), plaintext.size()),
                  *timestamp};
}

namespace {
// Far more answers than a client could have under way when one is sent back.
constexpr std::size_t kRememberedAnswers = 256;
} // namespace

std::string Channel::seal(std::string_view plaintext, bool stale) {
    const std::lock_guard lock(mutex_);
    std::int64_t timestamp = currentTimeMs() - (stale ? 1000 : 0);
    timestamp = std::max(timestamp, lastReplyTimestamp_ + 1);
    lastReplyTimestamp_ = timestamp;
    const std::string additionalData = std::to_string(timestamp);
    const lumacrypt::KeyExchangeAEADStore record =
        store_.encrypt(bytesOf(plaintext), bytesOf(additionalData));
    if (const auto salt = lumacrypt::base64Decode(record.kdfNonce)) {
        answerSalts_.emplace_back(reinterpret_cast<const char *>(salt->data()), salt->size());
        if (answerSalts_.size() > kRememberedAnswers) {
            answerSalts_.pop_front();
        }
    }
    return record.toJSON();
}

std::size_t Channel::rememberedCount() const {
    const std::lock_guard lock(mutex_);
    return accepted_.size();
}

} // namespace kovritdev
