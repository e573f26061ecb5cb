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

} // namespace runwarden
