#include "FakeBackend.h"

#include <lumacrypt/Base64.h>
#include <lumacrypt/Timestamp.h>

#include <httplib.h>

#include <chrono>

FakeBackend::FakeBackend(const std::string &clientPublicKey)
    : store_(lumacrypt::KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(clientPublicKey)),
      server_(std::make_unique<httplib::Server>()) {
    // Replies go out at once: the client refuses replies older than 50 ms.
    server_->set_tcp_nodelay(true);
    server_->Post("/request", [this](const httplib::Request &request, httplib::Response &response) {
        FakeRequest seen;
        seen.authorization = request.get_header_value("Authorization");
        seen.body = request.body;
        try {
            const auto record = lumacrypt::KeyExchangeAEADStore::fromJSON(request.body);
            const lumacrypt::Bytes plain = store_.decryptAEADStore(record);
            const auto envelope = lumacrypt::KeyExchangeTypeIDAndData::fromJSON(
                std::string_view(reinterpret_cast<const char *>(plain.data()), plain.size()));
            seen.type = envelope.type;
            seen.id = envelope.id;
            seen.data = envelope.data;
        } catch (const std::exception &) {
            response.status = 400;
            return;
        }
        Handler handler;
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(seen);
            handler = handler_;
        }
        const FakeReply scripted =
            handler ? handler(seen) : FakeReply::sealed(R"({"status":"success"})");
        response.status = scripted.status;
        response.set_content(reply(scripted), "application/json");
    });
}

FakeBackend::~FakeBackend() {
    stop();
}

bool FakeBackend::listen(int port) {
    if (!server_->bind_to_port("127.0.0.1", port)) {
        return false;
    }
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    // stop() only reaches a server that is already running: wait for it, or
    // a quick stop would leave the server thread listening forever.
    for (int waited = 0; !server_->is_running(); ++waited) {
        if (waited > 10000) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void FakeBackend::stop() {
    if (thread_.joinable()) {
        server_->stop();
        thread_.join();
    }
}

void FakeBackend::setHandler(Handler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

std::vector<FakeRequest> FakeBackend::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

int FakeBackend::requestCount(const std::string &type) const {
    std::lock_guard lock(mutex_);
    int count = 0;
    for (const auto &request : requests_) {
        count += request.type == type ? 1 : 0;
    }
    return count;
}

FakeBackendClock::FakeBackendClock() : epoch_(runwarden::Clock::system().epochMilliseconds()) {}

void FakeBackend::stampFrom(FakeBackendClock &clock) {
    stampTime_ = [&clock] { return static_cast<long long>(clock.stamp()); };
}

void FakeBackend::stampFrom(runwarden::ManualClock &clock) {
    stampTime_ = [&clock] {
        clock.advanceWallTime(std::chrono::milliseconds(1));
        return static_cast<long long>(clock.epochMilliseconds());
    };
}

std::string FakeBackend::reply(const FakeReply &reply) {
    if (reply.rawBody) {
        return *reply.rawBody;
    }
    long long now = stampTime_ ? stampTime_() : lumacrypt::KeyExchangeCurrentTimestamp();
    {
        std::lock_guard lock(mutex_);
        if (now <= lastTimestamp_) {
            now = lastTimestamp_ + 1;
        }
        lastTimestamp_ = now;
    }
    const std::string stamp = std::to_string(now + reply.timestampOffsetMs);
    const std::string &plain = reply.plaintext.value_or(std::string());
    return store_
        .encrypt(std::span(reinterpret_cast<const std::uint8_t *>(plain.data()), plain.size()),
                 std::span(reinterpret_cast<const std::uint8_t *>(stamp.data()), stamp.size()))
        .toJSON();
}
