#include "lumacrypt/Timestamp.h"

#include "lumacrypt/Base64.h"
#include "lumacrypt/Message.h"

#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string_view>

namespace lumacrypt {

std::int64_t KeyExchangeCurrentTimestamp() {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    const double seconds = std::chrono::duration<double>(sinceEpoch).count();
    const double milliseconds = std::round(seconds * 1000.0);
    // The clock of our own process out of the int64 range is a broken invariant.
    if (!std::isfinite(milliseconds) || milliseconds < -9.2e18 || milliseconds > 9.2e18) {
        std::abort();
    }
    return static_cast<std::int64_t>(milliseconds);
}

std::string KeyExchangeCurrentTimestampString() {
    return std::to_string(KeyExchangeCurrentTimestamp());
}

Bytes KeyExchangeCurrentTimestampData() {
    const std::string text = KeyExchangeCurrentTimestampString();
    return Bytes(text.begin(), text.end());
}

std::optional<std::int64_t> KeyExchangeTimestamp(const std::string &additionalData) {
    const std::optional<Bytes> bytes = base64Decode(additionalData);
    if (!bytes) {
        return std::nullopt;
    }
    const std::string_view text(reinterpret_cast<const char *>(bytes->data()), bytes->size());
    if (!isValidUTF8(text) || text.empty()) {
        return std::nullopt;
    }
    // from_chars takes an optional '-' and digits only: no spaces, no '+'; overflow is an error.
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 10);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

} // namespace lumacrypt
