#pragma once

// A scriptable stand-in for the backend's HTTP endpoint, for tests of the
// client's model: it opens the client's sealed requests with its own key and
// answers each with whatever the test scripts, sealed with a fresh, strictly
// increasing millisecond timestamp.
//
// The timestamps come from the model's own clock (stampFrom), which moves on
// by a millisecond for each reply: a reply is then exactly as fresh as the
// client expects however slowly the machine runs, and a test that signs one
// 51 ms off sees it refused every time.

#include <lumacrypt/KeyExchangeStore.h>
#include <runwarden/Clock.h>

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

// The clock for a model that talks to a FakeBackend and runs on real timers:
// the system's steady time and timers, and a wall time that starts at the
// real time and moves only as the backend stamps its replies.
class FakeBackendClock final : public runwarden::Clock {
public:
    FakeBackendClock();
    TimePoint steadyNow() const override { return runwarden::Clock::system().steadyNow(); }
    std::int64_t epochMilliseconds() const override { return epoch_.load(); }
    void singleShot(std::chrono::milliseconds delay, QObject *context,
                    std::function<void()> action) override {
        runwarden::Clock::system().singleShot(delay, context, std::move(action));
    }
    // Moves the wall time on by a millisecond and returns it (any thread).
    std::int64_t stamp() { return epoch_.fetch_add(1) + 1; }

private:
    std::atomic<std::int64_t> epoch_;
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
    // Stamps replies from the model's clock (set before listen()).
    void stampFrom(FakeBackendClock &clock);
    void stampFrom(runwarden::ManualClock &clock);
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
    // The time a reply is stamped with; unset: the system's.
    std::function<long long()> stampTime_;
};
