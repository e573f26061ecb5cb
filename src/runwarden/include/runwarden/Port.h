#pragma once

#include <functional>
#include <optional>

namespace runwarden {

/// Whether a TCP socket can be bound to 0.0.0.0:port and listened on right now. The socket is
/// closed again before returning. No address-reuse option is set, so a port left in TIME_WAIT
/// may still be reported open, depending on the system's bind rules.
///
/// `port` must lie within 0...65535: any other value is a bug of the caller and stops the
/// program.
bool IsOpenPort(int port);

/// A port drawn uniformly at random (system random generator) from the half-open range
/// [lowerBound, upperBound) for which IsOpenPort() is true. Draws again, with no limit and no
/// memory of ports already tried, until one is: a range whose every port is taken never
/// returns. The range must be non-empty and within 0...65535; anything else stops the program.
/// A port found free here may be taken by someone else before it is used.
int RandomOpenPort(int lowerBound, int upperBound);

/// Whether a server could listen on 127.0.0.1:port right now, binding as servers do (with
/// address reuse): false while another socket listens on the port or holds it bound without
/// reuse, true when only closed connections linger on it.
bool CanListenOnLoopback(int port);

/// Like RandomOpenPort(), but bounded: a number of uniform random draws, then one walk over the
/// whole range from a random place. Empty when no port of the range is open, after at most
/// `randomDraws` + (upperBound - lowerBound) checks. `isOpen` replaces IsOpenPort() (for tests).
std::optional<int> DrawOpenPort(int lowerBound, int upperBound,
                                const std::function<bool(int)> &isOpen = {}, int randomDraws = 64);

} // namespace runwarden
