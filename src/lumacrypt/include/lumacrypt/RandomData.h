// Random bytes from OpenSSL's secure generator.
#pragma once

#include "lumacrypt/Types.h"

#include <cstdint>
#include <span>

namespace lumacrypt {

// `n` random bytes. A count whose bit length overflows throws CryptoError(incorrectParameterSize).
Bytes KeyExchangeRandomBytes(std::size_t n);
// `n` random bits (n / 8 bytes); `n` must be a multiple of 8, else
// CryptoError(incorrectParameterSize).
Bytes KeyExchangeRandomBits(std::size_t n);

// Fills `out` from the same generator, through a per-thread pool that is refilled 4 KiB at a
// time: one generator call serves about a hundred messages instead of one. Only for values that
// are sent in clear (salts, nonces). Each byte is handed out once and wiped from the pool, and a
// child process made by fork() refills before its first use, so parent and child never share a
// byte. Throws CryptoError(underlying) when the generator fails.
void PublicRandomBytes(std::span<std::uint8_t> out);

} // namespace lumacrypt
