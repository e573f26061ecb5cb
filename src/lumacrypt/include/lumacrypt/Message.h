// Decoding of sealed JSON records received as WebSocket-style messages.
#pragma once

#include "lumacrypt/KeyExchangeStore.h"
#include "lumacrypt/Types.h"

#include <concepts>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace lumacrypt {

// Decides whether a record's base64 additional data is acceptable; may throw.
using AuthPredicate = std::function<bool(const std::string &additionalData)>;

// Whether `text` is well-formed UTF-8.
bool isValidUTF8(std::string_view text) noexcept;

// A type with `static T fromJSON(std::string_view)`.
template <class T>
concept JSONDecodable = requires(std::string_view json) {
    { T::fromJSON(json) } -> std::convertible_to<T>;
};

struct Message;
template <JSONDecodable T>
T KeyExchangeDecryptAndDecodeJSON(const Message &message, const KeyExchangeStore &kes,
                                  AuthPredicate auth = {});

struct Message {
    enum class Kind { text, binary };
    Kind kind = Kind::text;
    std::string text;
    Bytes binary;

    static Message fromText(std::string text) { return {Kind::text, std::move(text), {}}; }
    static Message fromBinary(Bytes binary) { return {Kind::binary, {}, std::move(binary)}; }

    // Same as KeyExchangeDecryptAndDecodeJSON(*this, kes, auth).
    template <JSONDecodable T>
    T decryptAndDecodeJSON(const KeyExchangeStore &kes, AuthPredicate auth = {}) const {
        return KeyExchangeDecryptAndDecodeJSON<T>(*this, kes, std::move(auth));
    }
};

// Opens a text message holding a sealed record and decodes the plaintext as T:
// 1. only a text message of valid UTF-8 is accepted, else invalidFormat;
// 2. the record is decoded (DecodingError) and opened with `kes`;
// 3. the plaintext is decoded with T::fromJSON;
// 4. `auth` is asked about the record's additional data (its error propagates); false throws
//    invalidAdditionalData. An empty predicate accepts everything.
template <JSONDecodable T>
T KeyExchangeDecryptAndDecodeJSON(const Message &message, const KeyExchangeStore &kes,
                                  AuthPredicate auth) {
    if (message.kind != Message::Kind::text || !isValidUTF8(message.text)) {
        throw KeyExchangeException(KeyExchangeError::invalidFormat);
    }
    const KeyExchangeAEADStore record = KeyExchangeAEADStore::fromJSON(message.text);
    const Bytes plaintext = kes.decryptAEADStore(record);
    T value = T::fromJSON(
        std::string_view(reinterpret_cast<const char *>(plaintext.data()), plaintext.size()));
    if (auth && !auth(record.additionalData)) {
        throw KeyExchangeException(KeyExchangeError::invalidAdditionalData);
    }
    return value;
}

} // namespace lumacrypt
