#include <runwarden/Port.h>

#include <QRandomGenerator>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace runwarden {

namespace {

// A broken precondition is a bug of the caller: say which, then stop.
[[noreturn]] void preconditionFailed(const char *what) {
    std::fputs(what, stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
    std::abort();
}

} // namespace

bool IsOpenPort(int port) {
    // A port outside 0...65535 can only come from our own code: a bug, not a closed port.
    if (port < 0 || port > 65535)
        preconditionFailed("IsOpenPort: the port is not within 0...65535");
    const auto port16 = static_cast<std::uint16_t>(port);

    const int socketFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socketFd < 0)
        return false;

    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(port16);
    if (::inet_pton(AF_INET, "0.0.0.0", &address.sin_addr) != 1) {
        ::close(socketFd);
        return false;
    }
    if (::bind(socketFd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        ::close(socketFd);
        return false;
    }
    const bool listening = ::listen(socketFd, 128) == 0;
    ::close(socketFd);
    return listening;
}

int RandomOpenPort(int lowerBound, int upperBound) {
    if (lowerBound < 0 || upperBound > 65536 || lowerBound >= upperBound)
        preconditionFailed("RandomOpenPort: the range is empty or not within 0...65535");
    QRandomGenerator *random = QRandomGenerator::system();
    int port = random->bounded(lowerBound, upperBound);
    while (!IsOpenPort(port))
        port = random->bounded(lowerBound, upperBound);
    return port;
}

bool CanListenOnLoopback(int port) {
    if (port < 0 || port > 65535)
        preconditionFailed("CanListenOnLoopback: the port is not within 0...65535");
    const int socketFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socketFd < 0)
        return false;
    const int on = 1;
    ::setsockopt(socketFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool free =
        ::bind(socketFd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
        ::listen(socketFd, 1) == 0;
    ::close(socketFd);
    return free;
}

std::optional<int> DrawOpenPort(int lowerBound, int upperBound,
                                const std::function<bool(int)> &isOpen, int randomDraws) {
    if (lowerBound < 0 || upperBound > 65536 || lowerBound >= upperBound)
        preconditionFailed("DrawOpenPort: the range is empty or not within 0...65535");
    const auto open = [&isOpen](int port) { return isOpen ? isOpen(port) : IsOpenPort(port); };
    QRandomGenerator *random = QRandomGenerator::system();
    for (int i = 0; i < randomDraws; ++i) {
        const int port = random->bounded(lowerBound, upperBound);
        if (open(port))
            return port;
    }
    // Most of the range is taken: look at every port once.
    const int size = upperBound - lowerBound;
    const int start = random->bounded(size);
    for (int i = 0; i < size; ++i) {
        const int port = lowerBound + (start + i) % size;
        if (open(port))
            return port;
    }
    return std::nullopt;
}

} // namespace runwarden
