#include "HttpFrontend.h"

#include "Log.h"

#include <httplib.h>
#include <openssl/crypto.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <strings.h>

namespace kovritdev {

namespace {

// Idle keep-alive connections hold a thread each; the client keeps a few open.
constexpr int kServerThreads = 16;
constexpr std::uint64_t kMaxDrainedBytes = 64u * 1024u * 1024u;
constexpr auto kMaxDrainTime = std::chrono::seconds(3);
constexpr const char *kGarbageBody = "this is not a sealed record\n";

// Sets the answer's body so that it goes out as it is. Replies are never compressed: the sealed
// ones are base64 ciphertext that does not shrink, and loopback gains nothing from it. The server
// library compresses a body set with set_content() whenever the client offers an encoding; a body
// of known length given by a provider it sends untouched.
void setBody(httplib::Response &res, std::string body, const char *contentType) {
    auto shared = std::make_shared<const std::string>(std::move(body));
    const std::size_t length = shared->size();
    if (length == 0) {
        res.set_content(std::string(), contentType);
        return;
    }
    res.set_content_provider(
        length, contentType,
        [shared](std::size_t offset, std::size_t size, httplib::DataSink &sink) {
            return sink.write(shared->data() + offset, size);
        });
}

void refuse(httplib::Response &res, int status, const char *text) {
    res.status = status;
    setBody(res, text, "text/plain");
}

} // namespace

HttpFrontend::HttpFrontend(int port, std::string token, Faults faults, Channel &channel,
                           Dispatcher dispatcher)
    : port_(port), expectedAuthorization_("Bearer " + token), faults_(std::move(faults)),
      channel_(channel), dispatcher_(std::move(dispatcher)),
      server_(std::make_unique<httplib::Server>()) {
    install();
}

HttpFrontend::~HttpFrontend() {
    stop();
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

void HttpFrontend::install() {
    server_->new_task_queue = [] { return new httplib::ThreadPool(kServerThreads); };
    server_->set_payload_max_length(kMaxBodyBytes);
    server_->set_keep_alive_max_count(1000);
    // Answers go out at once: with Nagle's algorithm a reply written in two
    // pieces (head, then body) can wait for a delayed ACK, and the client
    // refuses replies whose timestamp is more than 50 ms old.
    server_->set_tcp_nodelay(true);

    server_->set_pre_routing_handler([this](const httplib::Request &req, httplib::Response &res) {
        // A browser page must never reach the backend: any Origin header, or a Host other than
        // the loopback address with our port (DNS rebinding), is refused first.
        if (req.has_header("Origin")) {
            logLine("refused request: 403 (Origin header)");
            refuse(res, 403, "forbidden\n");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (req.get_header_value_count("Host") != 1 || !hostAllowed(req.get_header_value("Host"))) {
            logLine("refused request: 403 (Host \"" + req.get_header_value("Host") + "\")");
            refuse(res, 403, "forbidden\n");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (req.get_header_value_count("Authorization") != 1 ||
            !authorised(req.get_header_value("Authorization"))) {
            logLine("refused request: 401 (bearer token)");
            refuse(res, 401, "unauthorized\n");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (faults_.hang) {
            pause(-1);
            refuse(res, 503, "shutting down\n");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (faults_.status) {
            res.status = *faults_.status;
            setBody(res, "fault injection: status " + std::to_string(*faults_.status) + "\n",
                    "text/plain");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (faults_.garbage) {
            if (faults_.slowMs && !pause(*faults_.slowMs)) {
                refuse(res, 503, "shutting down\n");
                return httplib::Server::HandlerResponse::Handled;
            }
            res.status = 200;
            setBody(res, kGarbageBody, "application/json");
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });

    // The body is read here, piece by piece, so that the size limit holds for every transfer
    // coding (the server library enforces it for a declared length only).
    server_->Post("/request", [this](const httplib::Request &req, httplib::Response &res,
                                     const httplib::ContentReader &read) {
        const auto tooLargeAnswer = [&res] {
            logLine("refused request: 413 (body over 16 MiB)");
            res.set_header("Connection", "close");
            refuse(res, 413, "payload too large\n");
        };
        // A declared length over the limit is refused before anything is read.
        if (req.has_header("Content-Length")) {
            const auto declared = parseInteger(req.get_header_value("Content-Length"));
            if (!declared || *declared < 0) {
                refuse(res, 400, "bad request\n");
                return;
            }
            if (static_cast<std::uint64_t>(*declared) > kMaxBodyBytes) {
                // A body of moderate size is read and dropped so that the client, which sends it
                // before it reads, gets to see the answer; a larger one is cut off.
                if (static_cast<std::uint64_t>(*declared) <= kMaxDrainedBytes) {
                    const auto start = std::chrono::steady_clock::now();
                    read([&start](const char *, std::size_t) {
                        return std::chrono::steady_clock::now() - start < kMaxDrainTime;
                    });
                }
                tooLargeAnswer();
                return;
            }
        }
        std::string body;
        bool tooLarge = false;
        const bool complete = read([&](const char *data, std::size_t length) {
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
            refuse(res, 400, "bad request\n");
            return;
        }
        auto opened = channel_.open(body, currentTimeMs());
        if (const auto *refused = std::get_if<Channel::Refused>(&opened)) {
            logLine("refused request: 400 (" + refused->reason + ")");
            refuse(res, 400, "bad request\n");
            return;
        }
        const auto &request = std::get<Channel::Opened>(opened);
        if (faults_.slowMs && !pause(*faults_.slowMs)) {
            refuse(res, 503, "shutting down\n");
            return;
        }
        std::optional<std::string> answer;
        try {
            answer = dispatcher_(request.plaintext);
        } catch (const std::exception &e) {
            logLine(std::string("warning: request failed: ") + e.what());
            refuse(res, 500, "internal error\n");
            return;
        }
        if (!answer) {
            refuse(res, 503, "shutting down\n");
            return;
        }
        try {
            res.status = 200;
            setBody(res, channel_.seal(*answer, faults_.staleTimestamp), "application/json");
        } catch (const std::exception &e) {
            logLine(std::string("warning: cannot seal the answer: ") + e.what());
            refuse(res, 500, "internal error\n");
        }
    });

    const auto notAllowed = [](const httplib::Request &, httplib::Response &res) {
        res.set_header("Allow", "POST");
        refuse(res, 405, "method not allowed\n");
    };
    server_->Get("/request", notAllowed);
    server_->Put("/request", notAllowed);
    server_->Patch("/request", notAllowed);
    server_->Delete("/request", notAllowed);
    server_->Options("/request", notAllowed);

    server_->set_exception_handler(
        [](const httplib::Request &, httplib::Response &res, std::exception_ptr) {
            refuse(res, 500, "internal error\n");
        });
}

bool HttpFrontend::bind(std::string &error) {
    errno = 0;
    if (!server_->bind_to_port("127.0.0.1", port_)) {
        error = "cannot listen on 127.0.0.1:" + std::to_string(port_);
        if (errno != 0) {
            error += ": ";
            error += std::strerror(errno);
        }
        return false;
    }
    return true;
}

void HttpFrontend::start() {
    thread_ = std::thread([this] {
        server_->listen_after_bind();
        listenReturned_ = true;
    });
}

void HttpFrontend::stop() {
    {
        const std::lock_guard lock(waitMutex_);
        stopping_ = true;
    }
    waitCondition_.notify_all();
    if (!thread_.joinable()) {
        return;
    }
    // stop() only takes effect once the accept loop runs, and the loop either
    // starts or returns: wait for one of the two however slow the machine is,
    // or the join below would wait for ever.
    while (!server_->is_running() && !listenReturned_) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    server_->stop();
    thread_.join();
}

} // namespace kovritdev
