#pragma once

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

} // namespace runwarden
