#include "lumacrypt/RandomData.h"

#include "Internal.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstdint>
#include <limits>
#include <mutex>

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

// Bumped in every child that fork() makes, so a pool filled before the fork is not used there.
std::atomic<unsigned> forkGeneration{0};

void onForkChild() {
    forkGeneration.fetch_add(1, std::memory_order_relaxed);
}

class PublicPool {
public:
    ~PublicPool() { OPENSSL_cleanse(bytes_.data(), bytes_.size()); }

    void take(std::span<std::uint8_t> out) {
        std::size_t done = 0;
        while (done < out.size()) {
            if (next_ == bytes_.size() ||
                generation_ != forkGeneration.load(std::memory_order_relaxed)) {
                refill();
            }
            const std::size_t n = std::min(out.size() - done, bytes_.size() - next_);
            std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(next_), n,
                        out.begin() + static_cast<std::ptrdiff_t>(done));
            OPENSSL_cleanse(bytes_.data() + next_, n);
            next_ += n;
            done += n;
        }
    }

private:
    void refill() {
        static std::once_flag registered;
        std::call_once(registered, [] { pthread_atfork(nullptr, nullptr, onForkChild); });
        // Read the generation before filling: a fork during the fill leaves the child with a
        // stale generation, so it refills again.
        const unsigned generation = forkGeneration.load(std::memory_order_relaxed);
        if (RAND_bytes(bytes_.data(), static_cast<int>(bytes_.size())) != 1) {
            OPENSSL_cleanse(bytes_.data(), bytes_.size());
            next_ = bytes_.size();
            detail::throwCrypto(Kind::underlying, "random generator failed");
        }
        next_ = 0;
        generation_ = generation;
    }

    std::array<std::uint8_t, 4096> bytes_{};
    std::size_t next_ = 4096;
    unsigned generation_ = 0;
};
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

void PublicRandomBytes(std::span<std::uint8_t> out) {
    thread_local PublicPool pool;
    pool.take(out);
}

} // namespace lumacrypt
