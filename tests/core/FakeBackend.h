#pragma once

// A scriptable stand-in for the backend's HTTP endpoint, for tests of the
// client's model: it opens the client's sealed requests with its own key and
// answers each with whatever the test scripts, sealed with a fresh, strictly
// increasing millisecond timestamp.

#include <lumacrypt/KeyExchangeStore.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
class Server;
}

struct FakeRequest {
    std::string type;
    std::string id;
    std::string data;
    std::string authorization;
    // The request's body as it arrived (the sealed record's JSON).
    std::string body;
};

struct FakeReply {
    int status = 200;
    // The plaintext to seal, or a raw body sent as it is.
    std::optional<std::string> plaintext;
    std::optional<std::string> rawBody;
    // Sign with a timestamp this many milliseconds off the clock.
    long long timestampOffsetMs = 0;

    static FakeReply sealed(std::string plaintext) {
        FakeReply reply;
        reply.plaintext = std::move(plaintext);
        return reply;
    }
    static FakeReply raw(std::string body, int status = 200) {
        FakeReply reply;
        reply.rawBody = std::move(body);
        reply.status = status;
        return reply;
    }
};

class FakeBackend {
public:
    using Handler = std::function<FakeReply(const FakeRequest &)>;

    // clientPublicKey: the client's key (its bearer token too).
    explicit FakeBackend(const std::string &clientPublicKey);
    ~FakeBackend();

    // The backend's public key, for the client's store.
    std::string publicKey() const { return store_.LocalPublicKey(); }
    bool listen(int port);
    void stop();

    void setHandler(Handler handler);
    std::vector<FakeRequest> requests() const;
    int requestCount(const std::string &type) const;

private:
    std::string reply(const FakeReply &reply);

    lumacrypt::KeyExchangeStore store_;
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    mutable std::mutex mutex_;
    Handler handler_;
    std::vector<FakeRequest> requests_;
    long long lastTimestamp_ = 0;
};
