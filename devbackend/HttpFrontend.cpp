#include "HttpFrontend.h"

#include "Log.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <string_view>
#include <variant>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kovritdev {

namespace {

// More connections than this at once are closed as they arrive; the client keeps one or two.
constexpr std::size_t kMaxConnections = 64;
// A connection that stays quiet this long between requests is closed.
constexpr int kKeepAliveTimeoutMs = 5000;
// Within a request, the longest wait for the client's next bytes.
constexpr int kReadTimeoutMs = 5000;
constexpr int kMaxRequestsPerConnection = 1000;
constexpr std::size_t kMaxLineBytes = 8192;
constexpr std::size_t kMaxHeaderLines = 100;
constexpr std::size_t kReadPiece = 64 * 1024;
constexpr std::uint64_t kMaxDrainedBytes = 64u * 1024u * 1024u;
constexpr auto kMaxDrainTime = std::chrono::seconds(3);
constexpr const char *kGarbageBody = "this is not a sealed record\n";

std::string lowercase(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    return text;
}

const char *reasonPhrase(int status) {
    switch (status) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 413:
        return "Payload Too Large";
    case 500:
        return "Internal Server Error";
    case 503:
        return "Service Unavailable";
    default:
        return "Status";
    }
}

bool knownMethod(const std::string &method) {
    for (const char *known :
         {"GET", "HEAD", "POST", "PUT", "DELETE", "CONNECT", "OPTIONS", "TRACE", "PATCH"}) {
        if (method == known) {
            return true;
        }
    }
    return false;
}

bool sendAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

} // namespace

struct HttpFrontend::Request {
    std::string method;
    std::string path; // without the query
    bool http10 = false;
    std::multimap<std::string, std::string> headers; // names in lower case

    std::size_t count(const std::string &name) const { return headers.count(name); }
    bool has(const std::string &name) const { return headers.count(name) > 0; }
    std::string value(const std::string &name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? std::string() : found->second;
    }
    bool hasBody() const {
        return has("transfer-encoding") ||
               (has("content-length") && value("content-length") != "0");
    }
};

struct HttpFrontend::Response {
    int status = 200;
    std::string contentType = "text/plain";
    std::string body;
    std::string extraHeaders; // complete lines, CRLF included
    bool close = false;
};

// Buffered reading from a connection's socket, every wait bounded.
class HttpFrontend::Reader {
public:
    explicit Reader(int fd) : fd_(fd) {}

    // Waits up to `timeoutMs` for more bytes. False on end of stream, error or timeout.
    bool fill(int timeoutMs) {
        if (pos_ > 0 && pos_ == buffer_.size()) {
            buffer_.clear();
            pos_ = 0;
        }
        pollfd waiting{fd_, POLLIN, 0};
        for (;;) {
            const int ready = ::poll(&waiting, 1, timeoutMs);
            if (ready < 0 && errno == EINTR) {
                continue;
            }
            if (ready <= 0) {
                return false;
            }
            break;
        }
        char piece[kReadPiece];
        for (;;) {
            const ssize_t got = ::recv(fd_, piece, sizeof piece, 0);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                return false;
            }
            buffer_.append(piece, static_cast<std::size_t>(got));
            return true;
        }
    }

    bool buffered() const { return pos_ < buffer_.size(); }

    // One line without its CRLF (or LF). False when the line is longer than allowed (`tooLong`)
    // or the stream ends first.
    bool line(std::string &out, bool &tooLong, int timeoutMs) {
        tooLong = false;
        for (;;) {
            const std::size_t end = buffer_.find('\n', pos_);
            if (end != std::string::npos) {
                if (end - pos_ > kMaxLineBytes) {
                    tooLong = true;
                    return false;
                }
                out.assign(buffer_, pos_, end - pos_);
                pos_ = end + 1;
                if (!out.empty() && out.back() == '\r') {
                    out.pop_back();
                }
                return true;
            }
            if (buffer_.size() - pos_ > kMaxLineBytes) {
                tooLong = true;
                return false;
            }
            if (!fill(timeoutMs)) {
                return false;
            }
        }
    }

    // Hands exactly `length` bytes to `sink`, piece by piece. False when the stream ends first or
    // the sink says stop.
    template <typename Sink> bool exactly(std::uint64_t length, Sink &&sink) {
        while (length > 0) {
            if (!buffered() && !fill(kReadTimeoutMs)) {
                return false;
            }
            const std::size_t take =
                static_cast<std::size_t>(std::min<std::uint64_t>(length, buffer_.size() - pos_));
            const bool more = sink(buffer_.data() + pos_, take);
            pos_ += take;
            length -= take;
            if (!more) {
                return false;
            }
        }
        return true;
    }

    // Reads and drops whatever the client still sends, for at most `limit` and `bytes`.
    void drain(std::chrono::steady_clock::duration limit, std::uint64_t bytes) {
        const auto start = std::chrono::steady_clock::now();
        std::uint64_t dropped = buffer_.size() - pos_;
        buffer_.clear();
        pos_ = 0;
        while (dropped < bytes) {
            const auto left = limit - (std::chrono::steady_clock::now() - start);
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
            if (ms <= 0 || !fill(static_cast<int>(ms))) {
                return;
            }
            dropped += buffer_.size();
            buffer_.clear();
        }
    }

private:
    int fd_;
    std::string buffer_;
    std::size_t pos_ = 0;
};

namespace {

// The request's body, piece by piece, for a declared length or chunked transfer coding. False
// when it is malformed, ends early or the sink stops.
template <typename Sink>
bool readBody(const HttpFrontend::Request &request, HttpFrontend::Reader &reader, Sink &&sink) {
    if (lowercase(request.value("transfer-encoding")) == "chunked") {
        for (;;) {
            std::string sizeLine;
            bool tooLong = false;
            if (!reader.line(sizeLine, tooLong, kReadTimeoutMs)) {
                return false;
            }
            const std::string digits(trimmed(sizeLine.substr(0, sizeLine.find(';'))));
            if (digits.empty() || digits.size() > 15 ||
                digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
                return false;
            }
            const std::uint64_t size = std::stoull(digits, nullptr, 16);
            if (size == 0) {
                // Trailers, up to the empty line.
                std::string trailer;
                do {
                    if (!reader.line(trailer, tooLong, kReadTimeoutMs)) {
                        return false;
                    }
                } while (!trailer.empty());
                return true;
            }
            if (!reader.exactly(size, sink)) {
                return false;
            }
            std::string end;
            if (!reader.line(end, tooLong, kReadTimeoutMs) || !end.empty()) {
                return false;
            }
        }
    }
    if (request.has("transfer-encoding")) {
        return false; // a coding we do not read
    }
    if (!request.has("content-length")) {
        return true;
    }
    const auto declared = parseInteger(request.value("content-length"));
    if (!declared || *declared < 0) {
        return false;
    }
    return reader.exactly(static_cast<std::uint64_t>(*declared), sink);
}

} // namespace

HttpFrontend::HttpFrontend(int port, std::string token, Faults faults, Channel &channel,
                           Dispatcher dispatcher)
    : port_(port), expectedAuthorization_("Bearer " + token), faults_(std::move(faults)),
      channel_(channel), dispatcher_(std::move(dispatcher)) {}

HttpFrontend::~HttpFrontend() {
    stop();
    if (listenFd_ >= 0) {
        ::close(listenFd_);
    }
}

bool HttpFrontend::authorised(const std::string &authorization) const {
    // The length is no secret (the token is a public key); the bytes are compared in constant
    // time all the same.
    return authorization.size() == expectedAuthorization_.size() &&
           CRYPTO_memcmp(authorization.data(), expectedAuthorization_.data(),
                         authorization.size()) == 0;
}

bool HttpFrontend::hostAllowed(const std::string &host) const {
    const std::string suffix = ":" + std::to_string(port_);
    if (host.size() <= suffix.size() ||
        host.compare(host.size() - suffix.size(), suffix.size(), suffix) != 0) {
        return false;
    }
    const std::string name = host.substr(0, host.size() - suffix.size());
    return name == "127.0.0.1" || ::strcasecmp(name.c_str(), "localhost") == 0;
}

bool HttpFrontend::pause(int ms) {
    std::unique_lock lock(waitMutex_);
    if (ms < 0) {
        waitCondition_.wait(lock, [this] { return stopping_.load(); });
    } else {
        waitCondition_.wait_for(lock, std::chrono::milliseconds(ms),
                                [this] { return stopping_.load(); });
    }
    return !stopping_.load();
}

bool HttpFrontend::bind(std::string &error) {
    const auto fail = [&](int code) {
        error = "cannot listen on 127.0.0.1:" + std::to_string(port_);
        if (code != 0) {
            error += ": ";
            error += std::strerror(code);
        }
        if (listenFd_ >= 0) {
            ::close(listenFd_);
            listenFd_ = -1;
        }
        return false;
    };
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd_ < 0) {
        return fail(errno);
    }
    const int yes = 1;
    ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port_));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (port_ <= 0 || port_ > 65535 ||
        ::bind(listenFd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        return fail(port_ <= 0 || port_ > 65535 ? EINVAL : errno);
    }
    if (::listen(listenFd_, SOMAXCONN) != 0) {
        return fail(errno);
    }
    return true;
}

void HttpFrontend::start() {
    thread_ = std::thread([this] { acceptLoop(); });
}

void HttpFrontend::acceptLoop() {
    while (!stopping_.load()) {
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED || errno == EMFILE || errno == ENFILE ||
                errno == ENOBUFS || errno == ENOMEM) {
                if (errno != EINTR && errno != ECONNABORTED) {
                    pause(10); // out of descriptors or memory: let a connection end first
                }
                continue;
            }
            return; // the socket was shut down (stop) or is unusable
        }
        const std::lock_guard lock(connectionsMutex_);
        reapLocked();
        if (stopping_.load() || connections_.size() >= kMaxConnections) {
            ::close(fd);
            continue;
        }
        // Answers go out at once: with Nagle's algorithm a reply written in two pieces could
        // wait for a delayed ACK, and the client refuses replies whose timestamp is more than
        // 50 ms old.
        const int yes = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        auto connection = std::make_unique<Connection>();
        connection->fd = fd;
        Connection &raw = *connection;
        connections_.push_back(std::move(connection));
        raw.thread = std::thread([this, &raw] {
            serve(raw);
            ::shutdown(raw.fd, SHUT_RDWR);
            raw.done = true;
        });
    }
}

void HttpFrontend::reapLocked() {
    for (auto it = connections_.begin(); it != connections_.end();) {
        if ((*it)->done.load()) {
            (*it)->thread.join();
            ::close((*it)->fd);
            it = connections_.erase(it);
        } else {
            ++it;
        }
    }
}

void HttpFrontend::serve(Connection &connection) {
    Reader reader(connection.fd);
    for (int served = 0; served < kMaxRequestsPerConnection && !stopping_.load(); ++served) {
        // The request line, after a quiet wait of at most the keep-alive time.
        std::string line;
        bool tooLong = false;
        if (!reader.line(line, tooLong, served == 0 ? kReadTimeoutMs : kKeepAliveTimeoutMs)) {
            if (tooLong) {
                sendAll(connection.fd, "HTTP/1.1 400 Bad Request\r\nContent-Type: text/plain\r\n"
                                       "Content-Length: 12\r\nConnection: close\r\n\r\n"
                                       "bad request\n");
                ::shutdown(connection.fd, SHUT_WR);
                reader.drain(kMaxDrainTime, kMaxDrainedBytes);
            }
            return;
        }
        if (line.empty() && served > 0) {
            continue; // a stray empty line between requests
        }
        Request request;
        Response response;
        bool malformed = false;
        {
            const std::size_t first = line.find(' ');
            const std::size_t second =
                first == std::string::npos ? std::string::npos : line.find(' ', first + 1);
            if (second == std::string::npos) {
                malformed = true;
            } else {
                request.method = line.substr(0, first);
                const std::string target = line.substr(first + 1, second - first - 1);
                const std::string version = line.substr(second + 1);
                request.path = target.substr(0, target.find('?'));
                request.http10 = version == "HTTP/1.0";
                malformed = !knownMethod(request.method) || request.path.empty() ||
                            (version != "HTTP/1.1" && !request.http10);
            }
        }
        // The header lines, up to the empty one.
        for (std::size_t count = 0;; ++count) {
            std::string header;
            if (!reader.line(header, tooLong, kReadTimeoutMs)) {
                if (!tooLong) {
                    return;
                }
                malformed = true;
                break;
            }
            if (header.empty()) {
                break;
            }
            const std::size_t colon = header.find(':');
            if (colon == std::string::npos || colon == 0 || count >= kMaxHeaderLines) {
                malformed = true;
                continue;
            }
            request.headers.emplace(
                lowercase(header.substr(0, colon)),
                std::string(trimmed(std::string_view(header).substr(colon + 1))));
        }
        if (malformed) {
            response.status = 400;
            response.body = "bad request\n";
            response.close = true;
        } else {
            if (lowercase(request.value("expect")) == "100-continue") {
                sendAll(connection.fd, "HTTP/1.1 100 Continue\r\n\r\n");
            }
            try {
                handle(request, reader, response);
            } catch (const std::exception &) {
                response = Response{};
                response.status = 500;
                response.body = "internal error\n";
                response.close = true;
            }
        }
        const std::string connectionValue = lowercase(request.value("connection"));
        const bool keepAlive =
            !response.close && !stopping_.load() && served + 1 < kMaxRequestsPerConnection &&
            (request.http10 ? connectionValue == "keep-alive" : connectionValue != "close");
        std::string head = "HTTP/1.1 " + std::to_string(response.status) + ' ' +
                           reasonPhrase(response.status) + "\r\n";
        head += "Content-Type: " + response.contentType + "\r\n";
        head += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
        head += response.extraHeaders;
        head += keepAlive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";
        // Head and body leave in one write.
        const bool sent = request.method == "HEAD" ? sendAll(connection.fd, head)
                                                   : sendAll(connection.fd, head + response.body);
        if (!sent) {
            return;
        }
        if (!keepAlive) {
            // Whatever the client still sends is read and dropped for a moment, so that it gets
            // to read the answer instead of a reset.
            ::shutdown(connection.fd, SHUT_WR);
            reader.drain(kMaxDrainTime, kMaxDrainedBytes);
            return;
        }
    }
}

namespace {

void refuse(HttpFrontend::Response &response, int status, const char *text) {
    response.status = status;
    response.contentType = "text/plain";
    response.body = text;
}

} // namespace

void HttpFrontend::handle(const Request &request, Reader &reader, Response &response) {
    // Every answer decided before the body is read closes the connection: the body is not
    // read, so the next request could not be found in the stream.
    response.close = request.hasBody();
    // A browser page must never reach the backend: any Origin header, or a Host other than the
    // loopback address with our port (DNS rebinding), is refused first.
    if (request.has("origin")) {
        logLine("refused request: 403 (Origin header)");
        refuse(response, 403, "forbidden\n");
        return;
    }
    if (request.count("host") != 1 || !hostAllowed(request.value("host"))) {
        logLine("refused request: 403 (Host \"" + request.value("host") + "\")");
        refuse(response, 403, "forbidden\n");
        return;
    }
    if (request.count("authorization") != 1 || !authorised(request.value("authorization"))) {
        logLine("refused request: 401 (bearer token)");
        refuse(response, 401, "unauthorized\n");
        return;
    }
    if (faults_.hang) {
        pause(-1);
        refuse(response, 503, "shutting down\n");
        return;
    }
    if (faults_.status) {
        response.status = *faults_.status;
        response.body = "fault injection: status " + std::to_string(*faults_.status) + "\n";
        return;
    }
    if (faults_.garbage) {
        if (faults_.slowMs && !pause(*faults_.slowMs)) {
            refuse(response, 503, "shutting down\n");
            return;
        }
        response.status = 200;
        response.contentType = "application/json";
        response.body = kGarbageBody;
        return;
    }
    if (request.path != "/request") {
        refuse(response, 404, "not found\n");
        return;
    }
    if (request.method != "POST") {
        if (request.method == "CONNECT" || request.method == "TRACE") {
            refuse(response, 400, "bad request\n");
            return;
        }
        response.extraHeaders = "Allow: POST\r\n";
        refuse(response, 405, "method not allowed\n");
        return;
    }
    handleRequestPost(request, reader, response);
}

void HttpFrontend::handleRequestPost(const Request &request, Reader &reader, Response &response) {
    const auto tooLargeAnswer = [&response] {
        logLine("refused request: 413 (body over 16 MiB)");
        response.close = true;
        refuse(response, 413, "payload too large\n");
    };
    // A declared length over the limit is refused before anything is read.
    if (request.has("content-length") && !request.has("transfer-encoding")) {
        const auto declared = parseInteger(request.value("content-length"));
        if (!declared || *declared < 0) {
            response.close = true;
            refuse(response, 400, "bad request\n");
            return;
        }
        if (static_cast<std::uint64_t>(*declared) > kMaxBodyBytes) {
            // A body of moderate size is read and dropped so that the client, which sends it
            // before it reads, gets to see the answer; a larger one is cut off.
            if (static_cast<std::uint64_t>(*declared) <= kMaxDrainedBytes) {
                reader.drain(kMaxDrainTime, static_cast<std::uint64_t>(*declared));
            }
            tooLargeAnswer();
            return;
        }
    }
    std::string body;
    bool tooLarge = false;
    const bool complete = readBody(request, reader, [&](const char *data, std::size_t length) {
        if (length > kMaxBodyBytes - body.size()) {
            tooLarge = true;
            return false;
        }
        body.append(data, length);
        return true;
    });
    if (tooLarge) {
        tooLargeAnswer();
        return;
    }
    if (!complete) {
        response.close = true;
        refuse(response, 400, "bad request\n");
        return;
    }
    // The body has been read: the connection stays usable for the next request.
    response.close = false;
    auto opened = channel_.open(body, currentTimeMs());
    if (const auto *refused = std::get_if<Channel::Refused>(&opened)) {
        logLine("refused request: 400 (" + refused->reason + ")");
        refuse(response, 400, "bad request\n");
        return;
    }
    const auto &opening = std::get<Channel::Opened>(opened);
    if (faults_.slowMs && !pause(*faults_.slowMs)) {
        refuse(response, 503, "shutting down\n");
        return;
    }
    std::optional<std::string> answer;
    try {
        answer = dispatcher_(opening.plaintext);
    } catch (const std::exception &e) {
        logLine(std::string("warning: request failed: ") + e.what());
        refuse(response, 500, "internal error\n");
        return;
    }
    if (!answer) {
        refuse(response, 503, "shutting down\n");
        return;
    }
    try {
        response.status = 200;
        response.contentType = "application/json";
        response.body = channel_.seal(*answer, faults_.staleTimestamp);
    } catch (const std::exception &e) {
        logLine(std::string("warning: cannot seal the answer: ") + e.what());
        refuse(response, 500, "internal error\n");
    }
}

void HttpFrontend::stop() {
    {
        const std::lock_guard lock(waitMutex_);
        stopping_ = true;
    }
    waitCondition_.notify_all();
    if (listenFd_ >= 0) {
        // Wakes the accept loop (accept fails on a socket that was shut down).
        ::shutdown(listenFd_, SHUT_RDWR);
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    std::list<std::unique_ptr<Connection>> ending;
    {
        const std::lock_guard lock(connectionsMutex_);
        for (const auto &connection : connections_) {
            // Wakes a connection's thread that waits for its client.
            ::shutdown(connection->fd, SHUT_RDWR);
        }
        ending.swap(connections_);
    }
    for (const auto &connection : ending) {
        connection->thread.join();
        ::close(connection->fd);
    }
}

} // namespace kovritdev
