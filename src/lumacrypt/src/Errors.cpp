#include "Internal.h"

#include "lumacrypt/Base64.h"

namespace lumacrypt::detail {

void throwCrypto(CryptoError::Kind kind, const char *what) {
    std::string message(what);
    const unsigned long code = ERR_peek_last_error();
    if (code != 0) {
        char buffer[256];
        ERR_error_string_n(code, buffer, sizeof buffer);
        message += " (";
        message += buffer;
        message += ')';
    }
    ERR_clear_error();
    throw CryptoError(kind, message);
}

Bytes decodeReceived(std::string_view base64) {
    std::optional<Bytes> bytes = base64Decode(base64);
    if (!bytes) {
        throw KeyExchangeException(KeyExchangeError::invalidFormat);
    }
    return std::move(*bytes);
}

} // namespace lumacrypt::detail
