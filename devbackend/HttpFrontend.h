// The HTTP side of the backend: POST /request on 127.0.0.1:<port>. Requests from a browser
// (an Origin header) or for a foreign Host are refused with 403 before anything else, then the
// bearer token is checked (401), bodies over 16 MiB get 413, anything but POST /request 404/405,
// and a body that is not a fresh sealed record of the client's 400. Everything else is opened and
// handed to the dispatcher, whose answer goes back sealed with status 200.
//
// A small HTTP/1.1 server of its own, on blocking sockets: one thread accepts, and each
// connection has a thread that sleeps in the kernel until its client sends something (a client
// that keeps its connection open between requests costs nothing while it is quiet). Handlers run
// on the connection's thread.
#pragma once

#include "Channel.h"
#include "Options.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace kovritdev {

class HttpFrontend {
public:
    static constexpr std::size_t kMaxBodyBytes = 16u * 1024u * 1024u;

    // Turns an opened request (the envelope's JSON text) into the plaintext of the answer, or
    // nullopt when the backend is shutting down. Called on a connection's thread.
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
    // Stops accepting, wakes handlers that wait (hang, slow) and connections that are quiet, and
    // joins every thread. Safe to call more than once.
    void stop();
    bool stopping() const { return stopping_.load(); }

    struct Request;
    struct Response;
    class Reader;

private:
    struct Connection {
        int fd = -1;
        std::thread thread;
        std::atomic<bool> done{false};
    };

    void acceptLoop();
    void serve(Connection &connection);
    // Answers one request whose head has been read; the body, if any, is read from `reader`.
    void handle(const Request &request, Reader &reader, Response &response);
    void handleRequestPost(const Request &request, Reader &reader, Response &response);
    // Joins the threads of connections that have ended and closes their sockets.
    void reapLocked();
    // Sleeps up to `ms`, returning early when the server stops. False when stopped.
    bool pause(int ms);
    bool authorised(const std::string &authorization) const;
    bool hostAllowed(const std::string &host) const;

    int port_;
    std::string expectedAuthorization_;
    Faults faults_;
    Channel &channel_;
    Dispatcher dispatcher_;
    int listenFd_ = -1;
    std::thread thread_;
    std::mutex connectionsMutex_;
    std::list<std::unique_ptr<Connection>> connections_;
    std::atomic<bool> stopping_{false};
    std::mutex waitMutex_;
    std::condition_variable waitCondition_;
};

} // namespace kovritdev
