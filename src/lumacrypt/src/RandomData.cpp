#include "lumacrypt/RandomData.h"

#include "Internal.h"

#include <openssl/rand.h>

#include <climits>
#include <cstdint>
#include <limits>

namespace lumacrypt {

using Kind = CryptoError::Kind;

namespace {
Bytes randomBytes(std::size_t count) {
    Bytes out(count);
    std::size_t done = 0;
    while (done < count) {
        const std::size_t take = std::min<std::size_t>(count - done, INT_MAX);
        if (RAND_bytes(out.data() + done, static_cast<int>(take)) != 1) {
            detail::throwCrypto(Kind::underlying, "random generator failed");
        }
        done += take;
    }
    return out;
}
} // namespace

Bytes KeyExchangeRandomBytes(std::size_t n) {
    if (n > std::numeric_limits<std::size_t>::max() / 8) {
        throw CryptoError(Kind::incorrectParameterSize, "random byte count overflows");
    }
    return randomBytes(n);
}

Bytes KeyExchangeRandomBits(std::size_t n) {
    if (n % 8 != 0) {
        throw CryptoError(Kind::incorrectParameterSize, "random bit count must be a multiple of 8");
    }
    return randomBytes(n / 8);
}

} // namespace lumacrypt
