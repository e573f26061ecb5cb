// The HTTP side of the backend: POST /request on 127.0.0.1:<port>. Requests from a browser
// (an Origin header) or for a foreign Host are refused with 403 before anything else, then the
// bearer token is checked (401), bodies over 16 MiB get 413, anything but POST /request 404/405,
// and a body that is not a fresh sealed record of the client's 400. Everything else is opened and
// handed to the dispatcher, whose answer goes back sealed with status 200.
//
// Handlers run on the server's own threads.
#pragma once

#include "Channel.h"
#include "Options.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

namespace kovritdev {

class HttpFrontend {
public:
    static constexpr std::size_t kMaxBodyBytes = 16u * 1024u * 1024u;

    // Turns an opened request (the envelope's JSON text) into the plaintext of the answer, or
    // nullopt when the backend is shutting down. Called on a server thread.
    using Dispatcher = std::function<std::optional<std::string>(const std::string &envelope)>;

    HttpFrontend(int port, std::string token, Faults faults, Channel &channel,
                 Dispatcher dispatcher);
    ~HttpFrontend();
    HttpFrontend(const HttpFrontend &) = delete;
    HttpFrontend &operator=(const HttpFrontend &) = delete;

    // Binds and listens on 127.0.0.1:<port> (connections queue from here on).
    bool bind(std::string &error);
    // Starts accepting on a thread of its own.
    void start();
    // Stops accepting, wakes handlers that wait (hang, slow) and joins the server's threads.
    void stop();
    bool stopping() const { return stopping_.load(); }

private:
    void install();
    // Sleeps up to `ms`, returning early when the server stops. False when stopped.
    bool pause(int ms);
    bool authorised(const std::string &authorization) const;
    bool hostAllowed(const std::string &host) const;

    int port_;
    std::string expectedAuthorization_;
    Faults faults_;
    Channel &channel_;
    Dispatcher dispatcher_;
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> listenReturned_{false};
    std::mutex waitMutex_;
    std::condition_variable waitCondition_;
};

} // namespace kovritdev
