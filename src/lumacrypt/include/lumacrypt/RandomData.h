// Random bytes from OpenSSL's secure generator.
#pragma once

#include "lumacrypt/Types.h"

namespace lumacrypt {

// `n` random bytes. A count whose bit length overflows throws CryptoError(incorrectParameterSize).
Bytes KeyExchangeRandomBytes(std::size_t n);
// `n` random bits (n / 8 bytes); `n` must be a multiple of 8, else
// CryptoError(incorrectParameterSize).
Bytes KeyExchangeRandomBits(std::size_t n);

} // namespace lumacrypt
