// The cost of the 100 ms ping: the real model (ItemsProvider) and its session post sealed pings
// to a loopback backend that answers each with a sealed report of N folders, where none, one or
// every status changes from one report to the next. In the same run a raw socket posts the same
// request bytes to the same backend and gets the same reply bytes back (no sealing, no model):
// the floor the real path is compared with.
//
// Counters per benchmark:
//   rtt_p50_ms       round trip of one ping through the model, median: from the ping leaving
//                    to its completion, where the loop's wait starts (the list is merged right
//                    after it, in the same turn; that counts in the client's CPU)
//   floor_p50_ms     raw-socket round trip of the same bytes, median
//   rtt_over_floor   the two medians' ratio
//   http_p50_ms      the same bytes posted through the request client's HTTP path alone (no
//                    sealing, no model), median; http_over_floor: its ratio to the floor
//   client_cpu_ms    client CPU per ping (the process minus the backend's threads and the raw
//                    client's own work)
//   backend_cpu_ms   the loopback backend's CPU per ping (opening the request, sealing the
//                    report): part of the round trip, not of the client's CPU
//   cycle_ms         the ping loop's period: 100 ms wait after each answer plus the round trip
//                    (what the client does for the next ping while it waits counts in its CPU,
//                    not in the round trip)
//   client_core_pct  client CPU per cycle, in percent of one core
//   exchanges        requests the backend answered per ping (more than 1: retries)
//   applied          whether the model holds the newest report after the last ping (1 or 0)
//   in_part          share of pings whose report was decoded and merged in its changed
//                    elements only

#include "Commands.h"
#include "DirItemsModel.h"
#include "ItemsProvider.h"
#include "Models.h"

#include <BackendSession.h>
#include <PollManager.h>
#include <lumacrypt/KeyExchangeStore.h>

#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QTemporaryDir>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <span>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

std::span<const std::uint8_t> asBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

std::int64_t threadCpuNs() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return std::int64_t(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

std::int64_t processCpuNs() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return std::int64_t(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

bool writeAll(int fd, const char *data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        data += n;
        size -= std::size_t(n);
    }
    return true;
}

// Writes head and body with writev, as one piece as far as the kernel takes it.
bool writeBoth(int fd, const std::string &head, const std::string &body) {
    std::size_t done = 0;
    const std::size_t total = head.size() + body.size();
    while (done < total) {
        iovec parts[2];
        int count = 0;
        if (done < head.size()) {
            parts[count++] = {const_cast<char *>(head.data()) + done, head.size() - done};
            parts[count++] = {const_cast<char *>(body.data()), body.size()};
        } else {
            const std::size_t offset = done - head.size();
            parts[count++] = {const_cast<char *>(body.data()) + offset, body.size() - offset};
        }
        const ssize_t n = ::writev(fd, parts, count);
        if (n <= 0) {
            return false;
        }
        done += std::size_t(n);
    }
    return true;
}

// Received bytes, [0, size()): room for more is made without filling it first, as a
// string's resize would (a 2 MB message zero-filled before each receive).
class ByteBuffer {
public:
    std::string_view view() const { return {data_.get(), size_}; }
    std::size_t size() const { return size_; }
    // At least `want` bytes of room after the data, for commit() to take.
    char *room(std::size_t want) {
        if (size_ + want > capacity_) {
            const std::size_t capacity = std::max(capacity_ * 2, size_ + want);
            auto grown = std::make_unique_for_overwrite<char[]>(capacity);
            if (size_ > 0) {
                std::memcpy(grown.get(), data_.get(), size_);
            }
            data_ = std::move(grown);
            capacity_ = capacity;
        }
        return data_.get() + size_;
    }
    void commit(std::size_t count) { size_ += count; }
    // Drops the first `count` bytes.
    void consume(std::size_t count) {
        std::memmove(data_.get(), data_.get() + count, size_ - count);
        size_ -= count;
    }
    void clear() { size_ = 0; }

private:
    std::unique_ptr<char[]> data_;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

// Reads one HTTP message (head and Content-Length body) from fd straight into buffer, which it
// starts; body views the body inside buffer and `used` is the message's length there (what
// follows it is the next message's start). The caller consumes `used` bytes when done with it.
bool readMessage(int fd, ByteBuffer &buffer, std::string &head, std::string_view &body,
                 std::size_t &used) {
    const auto receive = [&](std::size_t want) {
        const ssize_t n = ::recv(fd, buffer.room(want), want, 0);
        if (n > 0) {
            buffer.commit(std::size_t(n));
        }
        return n > 0;
    };
    std::size_t end = std::string::npos;
    while ((end = buffer.view().find("\r\n\r\n")) == std::string::npos) {
        if (!receive(256 * 1024)) {
            return false;
        }
    }
    head.assign(buffer.view().substr(0, end + 4));
    std::size_t length = 0;
    std::string lower = head;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    const std::size_t at = lower.find("\r\ncontent-length:");
    if (at != std::string::npos) {
        length = std::stoull(lower.substr(at + 17));
    }
    used = end + 4 + length;
    while (buffer.size() < used) {
        if (!receive(used - buffer.size())) {
            return false;
        }
    }
    body = buffer.view().substr(end + 4, length);
    return true;
}

void noDelay(int fd) {
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// The loopback backend: one thread per connection, keep-alive, answers every complete request
// at once (head and body in one write). "/request" is opened and answered with the next sealed
// report; "/raw" is answered with the last sealed reply's bytes as they are.
class LoopbackBackend {
public:
    LoopbackBackend(std::vector<std::string> reports, const std::string &clientKey)
        : reports_(std::move(reports)),
          store_(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM()) {
        store_.setExternalPublicKey(clientKey);
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        const int one = 1;
        ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address);
        ::listen(listener_, 16);
        socklen_t size = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size);
        port_ = ntohs(address.sin_port);
        acceptor_ = std::thread([this] { acceptLoop(); });
    }
    ~LoopbackBackend() {
        stopping_ = true;
        ::shutdown(listener_, SHUT_RDWR);
        ::close(listener_);
        acceptor_.join();
        {
            const std::lock_guard lock(mutex_);
            for (int fd : connections_) {
                ::shutdown(fd, SHUT_RDWR);
            }
        }
        for (std::thread &thread : workers_) {
            thread.join();
        }
    }

    int port() const { return port_; }
    std::string publicKey() const { return store_.LocalPublicKey(); }
    std::int64_t cpuNs() const { return cpuNs_.load(); }
    std::uint64_t answered() const { return answered_.load(); }
    std::size_t lastReport() const { return lastReport_.load(); }
    std::int64_t lastStamp() const { return lastStamp_.load(); }
    std::string lastRequestBody() const {
        const std::lock_guard lock(mutex_);
        return std::string(lastRequestBody_);
    }

private:
    void acceptLoop() {
        for (;;) {
            const int fd = ::accept(listener_, nullptr, nullptr);
            if (fd < 0) {
                return;
            }
            noDelay(fd);
            const std::lock_guard lock(mutex_);
            if (stopping_) {
                ::close(fd);
                return;
            }
            connections_.push_back(fd);
            workers_.emplace_back([this, fd] { serve(fd); });
        }
    }

    void serve(int fd) {
        lumacrypt::KeyExchangeStore store = store_;
        // Requests are read into one of two buffers; the last request's stays as it is, for the
        // floor to post again, while the next is read into the other.
        std::shared_ptr<ByteBuffer> buffers[2] = {std::make_shared<ByteBuffer>(),
                                                  std::make_shared<ByteBuffer>()};
        std::size_t current = 0;
        std::string head, opened;
        std::string_view body;
        std::size_t used = 0;
        // Replies are sealed into one of two buffers, the one no reader holds any more (the
        // other is the last reply, which "/raw" answers with), as the client reuses its own.
        std::shared_ptr<std::string> replies[2];
        std::int64_t cpu = threadCpuNs();
        const auto account = [&] {
            const std::int64_t now = threadCpuNs();
            cpuNs_ += now - cpu;
            cpu = now;
        };
        while (readMessage(fd, *buffers[current], head, body, used)) {
            bool kept = false;
            std::shared_ptr<const std::string> reply;
            if (head.starts_with("POST /raw ")) {
                const std::lock_guard lock(mutex_);
                reply = lastReply_;
            } else {
                (void)store.decryptJSON(body, opened);
                {
                    // Kept by reference, not copied: this buffer is not read into again while
                    // it holds the last request.
                    const std::lock_guard lock(mutex_);
                    lastRequest_ = buffers[current];
                    lastRequestBody_ = body;
                    kept = true;
                }
                const std::size_t index = next_++ % reports_.size();
                // Stamped as late as it can be: the seal that follows counts against the
                // reply's 50 ms window.
                std::int64_t stamp = nowMs();
                std::int64_t last = lastStamp_.load();
                while (!lastStamp_.compare_exchange_weak(last, std::max(stamp, last + 1))) {
                }
                stamp = std::max(stamp, last + 1);
                const std::string stampText = std::to_string(stamp);

                std::shared_ptr<std::string> *slot = &replies[0];
                if (replies[0] && replies[0].use_count() > 1) {
                    slot = &replies[1];
                }
                if (!*slot || slot->use_count() > 1) {
                    *slot = std::make_shared<std::string>();
                }
                std::shared_ptr<std::string> text = *slot;
                text->resize(lumacrypt::KeyExchangeStore::sealedJSONSize(reports_[index].size(),
                                                                         stampText.size()));
                store.encryptToJSON(asBytes(reports_[index]), asBytes(stampText), *text);
                if (qEnvironmentVariableIsSet("PING_BENCH_LOG")) {
                    std::fprintf(stderr, "backend: sealed %zu bytes %lld ms after its stamp\n",
                                 text->size(), static_cast<long long>(nowMs() - stamp));
                }
                const std::lock_guard lock(mutex_);
                lastReply_ = text;
                lastReport_ = index;
                reply = std::move(text);
                ++answered_;
            }
            // Head and body in one system call, without copying the body.
            const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
                                     "Content-Length: " +
                                     std::to_string(reply ? reply->size() : 0) + "\r\n\r\n";
            account();
            if (!writeBoth(fd, head, reply ? *reply : std::string())) {
                break;
            }
            if (kept) {
                // What came after the request (nothing, unless the client sent ahead) moves on
                // to the other buffer, which the last request no longer holds.
                ByteBuffer &next = *buffers[1 - current];
                next.clear();
                const std::string_view rest = buffers[current]->view().substr(used);
                std::memcpy(next.room(rest.size()), rest.data(), rest.size());
                next.commit(rest.size());
                current = 1 - current;
            } else {
                buffers[current]->consume(used);
            }
            account();
        }
        account();
    }

    std::vector<std::string> reports_;
    lumacrypt::KeyExchangeStore store_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread acceptor_;
    mutable std::mutex mutex_;
    std::vector<int> connections_;
    std::vector<std::thread> workers_;
    std::shared_ptr<const std::string> lastReply_;
    std::shared_ptr<const ByteBuffer> lastRequest_;
    std::string_view lastRequestBody_;
    std::atomic<std::int64_t> cpuNs_{0};
    std::atomic<std::uint64_t> answered_{0};
    std::atomic<std::size_t> next_{0};
    std::atomic<std::size_t> lastReport_{0};
    std::atomic<std::int64_t> lastStamp_{0};
};

// A blocking raw-socket client with Nagle off: the floor.
class RawClient {
public:
    explicit RawClient(int port) {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(std::uint16_t(port));
        ::connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address);
        noDelay(fd_);
        host_ = "127.0.0.1:" + std::to_string(port);
    }
    ~RawClient() { ::close(fd_); }
    // One POST of body in one write; the answer's body size.
    std::size_t post(const std::string &body, const std::string &token) {
        std::string out = "POST /raw HTTP/1.1\r\nHost: " + host_ +
                          "\r\nContent-Type: application/json\r\nAuthorization: Bearer " + token +
                          "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n";
        out += body;
        writeAll(fd_, out.data(), out.size());
        std::string head;
        std::string_view reply;
        std::size_t used = 0;
        if (!readMessage(fd_, buffer_, head, reply, used)) {
            return 0;
        }
        const std::size_t size = reply.size();
        buffer_.consume(used);
        return size;
    }

private:
    int fd_ = -1;
    std::string host_;
    ByteBuffer buffer_;
};

std::vector<tarnwick::DirItem> makeFolders(std::size_t count, int generation) {
    std::vector<tarnwick::DirItem> folders;
    folders.reserve(count);
    static const char *tops[] = {"Documents", "Pictures", "Projects", "Документы", "写真"};
    for (std::size_t i = 0; i < count; ++i) {
        tarnwick::DirItem item;
        item.name = "Folder " + std::to_string(i);
        item.path = std::string("/home/ana/") + tops[i % 5] + "/Archive " +
                    std::to_string(i / 100) + "/" + item.name;
        item.groupID = std::int64_t(i % 40 + 1);
        item.enabled = i % 10 != 0;
        item.status = i % 3 == 0 ? std::string("Up to date")
                                 : "3 of 6 - Checking uploaded files (" + std::to_string(i) + ") " +
                                       std::to_string(generation) + " of 2000";
        if (i % 20 == 0) {
            item.error = "open " + item.path + "/.lock: permission denied";
        }
        folders.push_back(std::move(item));
    }
    return folders;
}

// The reports the backend cycles through: changing = 0 (one report), 1 (the first folder's
// status moves), 2 (every status moves).
std::vector<std::string> makeReports(std::size_t count, int changing) {
    std::vector<tarnwick::DirItem> base = makeFolders(count, 1);
    std::vector<std::string> reports{tarnwick::encodeDirItems(base)};
    if (changing == 1) {
        std::vector<tarnwick::DirItem> other = base;
        other.front().status = "3 of 6 - Checking changes (1 of 2)";
        reports.push_back(tarnwick::encodeDirItems(other));
    } else if (changing == 2) {
        std::vector<tarnwick::DirItem> other = makeFolders(count, 2);
        for (std::size_t i = 0; i < other.size(); ++i) {
            other[i].status += " changed";
        }
        reports.push_back(tarnwick::encodeDirItems(other));
    }
    return reports;
}

double median(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void PingCycle(benchmark::State &state) {
    const auto count = std::size_t(state.range(0));
    const int changing = int(state.range(1));
    const std::vector<std::string> reports = makeReports(count, changing);

    tarnwick::ItemsProvider::Options options;
    options.launchBackend = false;
    options.singleInstance = false;
    options.log = [](const QString &line) {
        if (qEnvironmentVariableIsSet("PING_BENCH_LOG")) {
            fprintf(stderr, "%s\n", qPrintable(line));
        }
    };
    tarnwick::ItemsProvider model(options);
    LoopbackBackend backend(reports, model.session().bearerToken());
    model.pm().kes.setExternalPublicKey(backend.publicKey());
    model.session().setPort(backend.port());

    // Returns when the ping's reply has been handled whole; `doneAt` is when its completion ran,
    // where the client's loop starts its 100 ms wait.
    const auto ping = [&model, &backend](Clock::time_point *doneAt = nullptr) {
        // Pings are 100 ms apart in the client; here they follow each other at once, so each
        // waits (untimed) for the next millisecond: reply stamps must strictly increase.
        while (nowMs() <= backend.lastStamp()) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        bool done = false;
        // The ping loop's own step: the current list's command, sent as the client sends it.
        model.sendPing([&done, doneAt] {
            done = true;
            if (doneAt) {
                *doneAt = Clock::now();
            }
        });
        while (!done) {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        }
    };
    // The model learns the folders first, as after a start.
    ping();
    ping();

    RawClient raw(backend.port());
    const std::string token = model.session().bearerToken();
    std::vector<double> rtts, floors, transports;
    std::int64_t clientCpu = 0;
    std::int64_t backendCpu = 0;
    const std::uint64_t answeredBefore = backend.answered();
    const std::uint64_t inPartBefore = model.reportsAppliedInPart();
    for (auto _ : state) {
        while (nowMs() <= backend.lastStamp()) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        const std::int64_t backendBefore = backend.cpuNs();
        const std::int64_t cpuBefore = processCpuNs();
        const auto start = Clock::now();
        Clock::time_point end;
        ping(&end);
        // The loop's wait after the answer: what the client posted for later runs now.
        QCoreApplication::processEvents();
        const std::int64_t cpuAfter = processCpuNs();
        const std::int64_t backendAfter = backend.cpuNs();
        clientCpu += (cpuAfter - cpuBefore) - (backendAfter - backendBefore);
        backendCpu += backendAfter - backendBefore;
        const double rtt = std::chrono::duration<double>(end - start).count();
        rtts.push_back(rtt * 1000);
        state.SetIterationTime(rtt);

        // The floor: the same request bytes, the same reply bytes.
        const std::string body = backend.lastRequestBody();
        const auto rawStart = Clock::now();
        benchmark::DoNotOptimize(raw.post(body, token));
        floors.push_back(std::chrono::duration<double>(Clock::now() - rawStart).count() * 1000);

        // The client's HTTP path alone: the same bytes posted through the request client, the
        // same reply bytes back, no sealing and no model.
        bool posted = false;
        const auto postStart = Clock::now();
        model.pm().publishLocal(body, backend.port(), QStringLiteral("/raw"), token,
                                [&posted](std::optional<QByteArray>,
                                          std::optional<tidepost::Error>) { posted = true; });
        while (!posted) {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        }
        transports.push_back(std::chrono::duration<double>(Clock::now() - postStart).count() *
                             1000);
    }
    const double n = double(state.iterations());
    const double rtt = median(rtts);
    const double floor = median(floors);
    const double cpuMs = double(clientCpu) / 1e6 / n;
    const double cycle = 100.0 + rtt;
    state.counters["rtt_p50_ms"] = rtt;
    state.counters["floor_p50_ms"] = floor;
    state.counters["rtt_over_floor"] = floor > 0 ? rtt / floor : 0;
    state.counters["http_p50_ms"] = median(transports);
    state.counters["http_over_floor"] = floor > 0 ? median(transports) / floor : 0;
    state.counters["client_cpu_ms"] = cpuMs;
    state.counters["backend_cpu_ms"] = double(backendCpu) / 1e6 / n;
    state.counters["cycle_ms"] = cycle;
    state.counters["client_core_pct"] = 100.0 * cpuMs / cycle;
    state.counters["exchanges"] = double(backend.answered() - answeredBefore) / n;
    state.counters["in_part"] = double(model.reportsAppliedInPart() - inPartBefore) / n;
    const std::vector<tarnwick::DirItem> newest =
        tarnwick::decodeDirItems(reports[backend.lastReport()]);
    bool applied = model.dirItems().size() == newest.size();
    for (std::size_t i = 0; applied && i < newest.size(); ++i) {
        applied = model.dirItems()[i].status == newest[i].status;
    }
    state.counters["applied"] = applied ? 1 : 0;
    state.SetLabel(std::to_string(count) + " folders, " +
                   (changing == 0   ? "no status changing"
                    : changing == 1 ? "one status changing"
                                    : "every status changing"));
}

// One step of the reply path alone: a report of N folders in which every status moved, read
// into views and merged into the list model. Between iterations a buffer larger than the
// caches is walked (untimed), as the loop's 100 ms wait and the other processes leave them.
void ReadAndMerge(benchmark::State &state) {
    const auto count = std::size_t(state.range(0));
    const std::vector<std::string> reports = makeReports(count, 2);
    tarnwick::DirItemsModel model;
    tarnwick::DirItemReader reader;
    model.merge(reader.read(reports[0]));
    std::vector<char> evict(64 * 1024 * 1024, 1);
    std::size_t next = 1;
    std::int64_t readNs = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (std::size_t i = 0; i < evict.size(); i += 64) {
            evict[i] = char(evict[i] + 1);
        }
        benchmark::DoNotOptimize(evict.data());
        state.ResumeTiming();
        const auto start = Clock::now();
        const std::span<const tarnwick::DirItemView> views = reader.read(reports[next]);
        readNs +=
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
        model.merge(views);
        next = 1 - next;
    }
    state.counters["read_ms"] = double(readNs) / 1e6 / double(state.iterations());
    state.SetLabel(std::to_string(count) + " folders, every status changing");
}

// What the client does for the next ping while the loop waits, after a report of N folders in
// which every status moved: the list's text and the envelope's JSON around it. Caches cold, as
// in ReadAndMerge.
void NextPingText(benchmark::State &state) {
    const auto count = std::size_t(state.range(0));
    const std::vector<std::string> reports = makeReports(count, 2);
    const std::vector<tarnwick::DirItem> lists[2] = {tarnwick::decodeDirItems(reports[0]),
                                                     tarnwick::decodeDirItems(reports[1])};
    tarnwick::ItemsProvider::Options options;
    options.launchBackend = false;
    options.singleInstance = false;
    options.log = [](const QString &) {};
    tarnwick::ItemsProvider model(options);
    model.update(lists[0]);
    model.session().prepare(model.pingCommand());
    std::vector<char> evict(64 * 1024 * 1024, 1);
    std::size_t next = 1;
    for (auto _ : state) {
        state.PauseTiming();
        model.update(lists[next]);
        next = 1 - next;
        for (std::size_t i = 0; i < evict.size(); i += 64) {
            evict[i] = char(evict[i] + 1);
        }
        benchmark::DoNotOptimize(evict.data());
        state.ResumeTiming();
        model.session().prepare(model.pingCommand());
    }
    state.SetLabel(std::to_string(count) + " folders, every status changing");
}

} // namespace

int main(int argc, char **argv) {
    QTemporaryDir home;
    qputenv("HOME", home.path().toUtf8());
    qputenv("XDG_CONFIG_HOME", (home.path() + QStringLiteral("/config")).toUtf8());
    qputenv("XDG_DATA_HOME", (home.path() + QStringLiteral("/data")).toUtf8());
    std::signal(SIGPIPE, SIG_IGN);
    QCoreApplication app(argc, argv);
    // Few iterations where one ping costs much: the whole run stays within minutes.
    for (const auto &[count, iterations] :
         std::vector<std::pair<int, int>>{{10, 200}, {1000, 100}, {10000, 40}, {100000, 8}}) {
        for (int changing : {0, 1, 2}) {
            benchmark::RegisterBenchmark("PingCycle", PingCycle)
                ->Args({count, changing})
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond)
                ->Iterations(iterations);
        }
    }
    for (int count : {10000, 100000}) {
        benchmark::RegisterBenchmark("ReadAndMerge", ReadAndMerge)
            ->Arg(count)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark("NextPingText", NextPingText)
            ->Arg(count)
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
