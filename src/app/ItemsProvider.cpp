#include "ItemsProvider.h"

#include "BackendLauncher.h"
#include "BackendSession.h"
#include "BinaryPreparation.h"
#include "ClientLog.h"
#include "LaunchAtLogin.h"
#include "PollManager.h"

#include <lumacrypt/KeyExchangeStore.h>
#include <runwarden/Port.h>
#include <runwarden/ProcessManager.h>

#include <QCoreApplication>
#include <QPointer>
#include <QScopeGuard>
#include <QSettings>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#ifndef TARNWICK_DEFAULT_SERVICE_URL
#define TARNWICK_DEFAULT_SERVICE_URL "https://tarnwick.app"
#endif

namespace tarnwick {
namespace {

constexpr int kPortLower = 8001;
constexpr int kPortUpper = 9000; // exclusive
constexpr int kPublishAttempts = 6;
constexpr std::chrono::milliseconds kDeleteRepeat{500};
// How long after sending the code the login screen waits for a signed-in user.
constexpr std::chrono::milliseconds kLoginFailureDelay{5000};

std::string utf8(const QString &text) {
    return text.toStdString();
}

QString text(const std::string &value) {
    return QString::fromUtf8(value.data(), static_cast<qsizetype>(value.size()));
}

void writeLine(const QString &line) {
    ClientLog::line(line);
}

tidepost::Error tarnwickError(TarnwickError error) {
    return {"TarnwickError", static_cast<int>(error), toString(error)};
}

// A server-side failure: domain "ServerError", code 1, the server's text as
// its description.
tidepost::Error serverError(const std::string &message) {
    return {"ServerError", 1, message};
}

// A command whose caller stopped waiting: no further attempt is made.
tidepost::Error cancelledError() {
    return {"Cancelled", 1, "The request was given up before it was answered."};
}

} // namespace

ItemsProvider::ItemsProvider() : ItemsProvider(Options{}) {}

ItemsProvider::ItemsProvider(Options options, QObject *parent)
    : QObject(parent), options_(std::move(options)),
      clock_(options_.clock ? options_.clock : &runwarden::Clock::system()),
      dirItems_(new DirItemsModel(this)), groups_(new GroupsModel(this)) {
    startUp();
}

ItemsProvider::~ItemsProvider() {
    // Stop the backend and drop pending replies while the rest still stands.
    destroying_ = true;
    launcher_.reset();
    session_.reset();
}

void ItemsProvider::log(const QString &line) const {
    if (options_.log) {
        options_.log(line);
    } else {
        writeLine(line);
    }
}

void ItemsProvider::startUp() {
    // 1. Initial state. The logout page hangs off the service's web site; a
    // URL that does not parse is our own bug.
    QString service = options_.serviceURL;
    if (service.isEmpty()) {
        service = qEnvironmentVariable("TARNWICK_SERVICE_URL");
    }
    if (service.isEmpty()) {
        service = QStringLiteral(TARNWICK_DEFAULT_SERVICE_URL);
    }
    loginURL_ = QUrl(service);
    loginURL_.setPath(QStringLiteral("/users/logout"));
    if (!loginURL_.isValid() || loginURL_.scheme().isEmpty()) {
        qFatal("The service URL is not a valid URL: %s", qUtf8Printable(service));
    }

    session_ = std::make_unique<tidepost::BackendSession>(
        tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    tidepost::PollManager &pm = session_->pollManager();
    pm.setLogSink([this](const std::string &line) { log(text(line)); });
    pm.setClock([clock = clock_] { return clock->epochMilliseconds(); });
    pm.timestamp = clock_->epochMilliseconds();

    // 3.-5. The backend's command line: -pid, -token, -port. Drawing is bounded: with every
    // port of the range taken the port stays 0 and the launch says so.
    port_ = runwarden::DrawOpenPort(kPortLower, kPortUpper).value_or(0);
    session_->setPort(port_);
    if (options_.isMacOS13) {
        pm.processManager().addPIDAsArgument(QStringLiteral("pid"));
    }
    pm.processManager().addArgument(QStringLiteral("token"), session_->bearerToken());
    pm.processManager().addArgument(QStringLiteral("port"), port_);

    // 6. Launch at login is switched on once, at the very first launch.
    if (options_.isMacOS13) {
        QSettings settings(QStringLiteral("tarnwick"), QStringLiteral("tarnwick"));
        if (!settings.value(QStringLiteral("hasLaunchedBefore"), false).toBool()) {
            if (LaunchAtLogin::runsFromBuildTree()) {
                // Not marked as launched: the installed client's first start
                // still switches it on.
                log(QStringLiteral("Launch at login not switched on: %1 runs from a build tree "
                                   "(the footer's switch still works)")
                        .arg(LaunchAtLogin::program()));
            } else {
                LaunchAtLogin::setEnabled(true);
                settings.setValue(QStringLiteral("hasLaunchedBefore"), true);
            }
        }
    }

    // 7. One client per user.
    if (options_.singleInstance) {
        pm.exitAppIfAlreadyOpen();
    }

    // 8. Older systems end the client after a while.
    if (!options_.isMacOS13) {
        clock_->singleShot(options_.olderSystemLifetime, this, [this] {
            if (options_.terminate) {
                options_.terminate();
            } else {
                QCoreApplication::exit(0);
            }
        });
    }

    supervisor::BinaryPreparation preparation(
        [this](const QString &line) { log(line); },
        options_.resources ? options_.resources
                           : supervisor::BinaryPreparation::defaultResourceLookup(),
        options_.dataDirectory ? options_.dataDirectory
                               : supervisor::BinaryPreparation::defaultDataDirectoryLookup());
    supervisor::BackendLauncher::Hooks hooks;
    hooks.log = [this](const QString &line) { log(line); };
    hooks.sendPing = [this](std::function<void()> done) { sendPing(std::move(done)); };
    hooks.setError = [this](const QString &message) { setError(message); };
    hooks.choosePort = [this](bool fresh) -> std::optional<int> { return choosePort(fresh); };
    launcher_ = std::make_unique<supervisor::BackendLauncher>(pm, std::move(preparation),
                                                              std::move(hooks), options_.isMacOS13);
    launcher_->setClock(*clock_);
    launcher_->setRelaunchDelay(options_.relaunchDelay);
    connect(launcher_.get(), &supervisor::BackendLauncher::stateChanged, this,
            &ItemsProvider::backendFailedChanged);
    // A fresh start has said nothing yet: what the model shows is the last run's.
    connect(launcher_.get(), &supervisor::BackendLauncher::launched, this,
            [this] { setBackendAnswered(false); });

    // 9. The backend launch runs once the event loop does.
    if (options_.launchBackend) {
        QMetaObject::invokeMethod(this, &ItemsProvider::launchTask, Qt::QueuedConnection);
    }
}

QString ItemsProvider::architecture() const {
    if (options_.architecture) {
        return *options_.architecture;
    }
    return text(session_->pollManager().systemArchitecture());
}

void ItemsProvider::launchTask() {
    launcher_->prepareAndLaunch(architecture());
}

bool ItemsProvider::backendFailed() const {
    // Failed for good, or stopped because its copy could not be made: either way nothing
    // runs until the user restarts it.
    using State = supervisor::BackendLauncher::State;
    return launcher_ &&
           (launcher_->state() == State::failed ||
            (launcher_->state() == State::stopped && !launcher_->failureText().isEmpty()));
}

void ItemsProvider::restartBackend() {
    if (!error_.isEmpty() && error_ == launcher_->failureText()) {
        setError(QString());
    }
    if (launcher_->state() != supervisor::BackendLauncher::State::running &&
        launcher_->state() != supervisor::BackendLauncher::State::recovering) {
        setBackendAnswered(false);
    }
    launcher_->restartBackend(architecture());
}

std::optional<int> ItemsProvider::choosePort(bool freshNeeded) {
    if (!freshNeeded && port_ != 0 && runwarden::CanListenOnLoopback(port_)) {
        return port_;
    }
    const int old = port_;
    const std::optional<int> fresh =
        runwarden::DrawOpenPort(kPortLower, kPortUpper, [old](int port) {
            return port != old && runwarden::IsOpenPort(port);
        });
    if (!fresh) {
        log(QStringLiteral("No free local port from %1 to %2 for the backend")
                .arg(kPortLower)
                .arg(kPortUpper - 1));
        return std::nullopt;
    }
    if (port_ != 0) {
        log(QStringLiteral("Port %1 is taken by another program; the backend will listen on "
                           "port %2")
                .arg(port_)
                .arg(*fresh));
    }
    port_ = *fresh;
    session_->setPort(port_);
    runwarden::ProcessManager &runner = session_->pollManager().processManager();
    QStringList arguments = runner.arguments();
    const QString key = QStringLiteral("-port=");
    for (QString &argument : arguments) {
        if (argument.startsWith(key)) {
            argument = key + QString::number(port_);
        }
    }
    runner.setArguments(arguments);
    return port_;
}

// ---- Observable state

void ItemsProvider::setError(const QString &error) {
    if (error_ != error || errorSourceText_ != error) {
        error_ = error;
        errorSourceText_ = error;
        emit errorChanged();
    }
}

void ItemsProvider::setOwnError(const char *source, const QString &argument, bool loginMessage) {
    QString english = QString::fromUtf8(source);
    QString shown = tr(source);
    if (!argument.isNull()) {
        english = english.arg(argument);
        shown = shown.arg(argument);
    }
    if (loginMessage) {
        loginMessage_ = shown;
    }
    if (error_ != shown || errorSourceText_ != english) {
        error_ = shown;
        errorSourceText_ = english;
        emit errorChanged();
    }
}

void ItemsProvider::setUserName(const QString &userName) {
    if (userName_ != userName) {
        userName_ = userName;
        emit userNameChanged();
    }
}

void ItemsProvider::setIsWaiting(bool value) {
    if (isWaiting_ != value) {
        isWaiting_ = value;
        emit isWaitingChanged();
    }
}

void ItemsProvider::setIsLoggedIn(bool value) {
    if (isLoggedIn_ != value) {
        isLoggedIn_ = value;
        emit isLoggedInChanged();
    }
}

void ItemsProvider::setLoginMessage(const char *source, const QString &argument) {
    setOwnError(source, argument, true);
}

void ItemsProvider::setIsLoading(bool value) {
    if (isLoading_ != value) {
        isLoading_ = value;
        emit isLoadingChanged();
    }
}

void ItemsProvider::setMenuBarString() {
    const QString symbol =
        isLoading_ ? QStringLiteral("arrow.clockwise") : QStringLiteral("internaldrive");
    if (menuBarString_ != symbol) {
        menuBarString_ = symbol;
        emit menuBarStringChanged();
    }
}

// ---- Folder list

const std::string &ItemsProvider::pingPayload() const {
    // The list's text as encodeDirItems writes it, kept with where each row's text ends: while
    // no row came or went, a row that did not change since the last encoding keeps its text,
    // and only changed rows are written again.
    const std::uint64_t revision = dirItems_->revision();
    if (pingPayloadRevision_ == revision) {
        return pingPayload_;
    }
    const std::vector<DirItem> &items = dirItems();
    const bool sameRows = pingPayloadRevision_ &&
                          pingPayloadLayout_ == dirItems_->layoutRevision() &&
                          pingPayloadRowEnds_.size() == items.size();
    // Written into the buffers of the encoding before last, whose memory is warm already.
    std::string &next = pingPayloadSpare_;
    next.clear();
    next.reserve(sameRows ? pingPayload_.size() + 256 : 2 + items.size() * 160);
    std::vector<std::size_t> &ends = pingPayloadRowEndsSpare_;
    ends.clear();
    ends.reserve(items.size());
    next.push_back('[');
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (i != 0) {
            next.push_back(',');
        }
        // The rows' texts lie apart from the rows: those a few rows ahead are fetched while
        // this one is written.
        if (constexpr std::size_t ahead = 8; i + ahead < items.size()) {
            prefetchTexts(items[i + ahead]);
        }
        if (sameRows && dirItems_->rowRevision(i) <= *pingPayloadRevision_) {
            const std::size_t start = i == 0 ? 1 : pingPayloadRowEnds_[i - 1] + 1;
            next.append(pingPayload_, start, pingPayloadRowEnds_[i] - start);
        } else {
            appendDirItemJSON(next, items[i]);
        }
        ends.push_back(next.size());
    }
    next.push_back(']');
    pingPayload_.swap(next);
    pingPayloadRowEnds_.swap(ends);
    pingPayloadRevision_ = revision;
    pingPayloadLayout_ = dirItems_->layoutRevision();
    return pingPayload_;
}

void ItemsProvider::sendPing(std::function<void()> done) {
    publishAttempt(pingCommand(), 1,
                   [done = std::move(done)](const CommandOutcome &) {
                       if (done) {
                           done();
                       }
                   },
                   {});
}

void ItemsProvider::prepareNextPing(const TypeIDAndData &command) {
    // A ping whose reply changed the list: the next ping's text is written right after, while
    // the loop waits, not when the ping is due (a list that changes again in the meantime is
    // written again then).
    if (!commands::isPing(command) || pingCommandRevision_ == dirItems_->revision()) {
        return;
    }
    QPointer<ItemsProvider> self(this);
    QMetaObject::invokeMethod(
        this,
        [self] {
            if (self && !self->destroying_) {
                self->session_->prepare(self->pingCommand());
            }
        },
        Qt::QueuedConnection);
}

std::shared_ptr<const TypeIDAndData> ItemsProvider::pingCommand() {
    // While the list stays as it is, the very command of the last ping goes out again: no copy
    // of the list's text is taken, and the session reuses the envelope's JSON text without
    // comparing it (each ping is still sealed afresh).
    const std::uint64_t revision = dirItems_->revision();
    if (!pingCommand_ || pingCommandRevision_ != revision) {
        pingCommand_ = std::make_shared<const TypeIDAndData>(commands::ping(pingPayload()));
        pingCommandRevision_ = revision;
    }
    return pingCommand_;
}

void ItemsProvider::update(const std::vector<DirItem> &report) {
    dirItems_->merge(report);
    refreshLoading();
}

void ItemsProvider::refreshLoading() {
    // Looked for again only when the list changed since.
    if (pendingRevision_ != dirItems_->revision()) {
        const auto &items = dirItems();
        pending_ = std::any_of(items.begin(), items.end(),
                               [](const DirItem &item) { return item.progress() != 1.0; });
        pendingRevision_ = dirItems_->revision();
    }
    if (pending_ != isLoading_) {
        setIsLoading(pending_);
        setMenuBarString();
    }
}

namespace {

// Length of the longest common start of a and b.
std::size_t commonPrefix(std::string_view a, std::string_view b) {
    const std::size_t n = std::min(a.size(), b.size());
    std::size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        if (std::memcmp(a.data() + i, b.data() + i, 8) != 0) {
            break;
        }
    }
    while (i < n && a[i] == b[i]) {
        ++i;
    }
    return i;
}

// Length of the longest common end of a and b, at most `limit`.
std::size_t commonSuffix(std::string_view a, std::string_view b, std::size_t limit) {
    std::size_t i = 0;
    const char *ea = a.data() + a.size();
    const char *eb = b.data() + b.size();
    for (; i + 8 <= limit; i += 8) {
        if (std::memcmp(ea - i - 8, eb - i - 8, 8) != 0) {
            break;
        }
    }
    while (i < limit &&
           ea[-1 - static_cast<std::ptrdiff_t>(i)] == eb[-1 - static_cast<std::ptrdiff_t>(i)]) {
        ++i;
    }
    return i;
}

} // namespace

bool ItemsProvider::applyChangedElements(std::string &report) {
    const std::string &last = lastReport_;
    const std::size_t head = commonPrefix(last, report);
    const std::size_t tail =
        commonSuffix(last, report, std::min(last.size(), report.size()) - head);
    // The changed bytes: [head, lastEnd) of the last report, [head, reportEnd) of this one.
    const std::size_t lastEnd = last.size() - tail;
    // Where much changed, one decode of the whole is cheaper than finding the pieces.
    if (lastEnd - head > last.size() / 4 || report.size() - tail - head > report.size() / 4) {
        return false;
    }
    if (!lastReportSpans_) {
        lastReportSpans_ = arrayElementSpans(last);
        if (!lastReportSpans_ || lastReportSpans_->size() != lastReportRows_.size()) {
            lastReportSpans_.reset();
            return false;
        }
    }
    std::vector<ElementSpan> &spans = *lastReportSpans_;
    // The elements the change touches: from the one holding its first byte to the one
    // holding its last. A change in the commas or brackets between elements (a folder added,
    // removed or moved) is left to the whole decode.
    const auto first =
        std::upper_bound(spans.begin(), spans.end(), head,
                         [](std::size_t at, const ElementSpan &span) { return at < span.end; });
    if (first == spans.end() || first->begin > head) {
        return false;
    }
    auto stop =
        std::lower_bound(spans.begin(), spans.end(), lastEnd,
                         [](const ElementSpan &span, std::size_t at) { return span.begin < at; });
    if (stop <= first) {
        stop = first + 1;
    }
    const std::size_t from = static_cast<std::size_t>(first - spans.begin());
    const std::size_t to = static_cast<std::size_t>(stop - spans.begin()); // exclusive
    if (spans[to - 1].end < lastEnd) {
        return false;
    }
    const std::size_t after = last.size() - spans[to - 1].end; // bytes after the last element
    if (report.size() < spans[from].begin + after) {
        return false;
    }
    // Those elements of this report, read as an array of their own.
    const std::string_view window(report.data() + spans[from].begin,
                                  report.size() - after - spans[from].begin);
    std::string &text = windowScratch_;
    text.assign(1, '[');
    text.append(window);
    text.push_back(']');
    const std::size_t textSize = text.size();
    text.append(jsonPadding, '\0');
    std::vector<DirItem> records;
    std::optional<std::vector<ElementSpan>> windowSpans;
    try {
        decodeDirItemsInto(std::string_view(text.data(), textSize), records);
        windowSpans = arrayElementSpans(std::string_view(text.data(), textSize));
    } catch (const DecodingError &) {
        return false;
    }
    const std::size_t count = to - from;
    if (records.size() != count || !windowSpans || windowSpans->size() != count) {
        return false;
    }
    // Each element names the folder it named before (the row it went to holds that path
    // still, as nothing changed the list since): the report names no folder twice, as the
    // last one did not.
    const std::vector<DirItem> &rows = dirItems();
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint32_t row = lastReportRows_[from + i];
        if (row >= rows.size() || records[i].path != rows[row].path) {
            return false;
        }
    }
    // The other elements are the last report's, already merged and settled: merging them again
    // would change nothing.
    dirItems_->merge(records);
    refreshLoading();
    const std::size_t shift = spans[from].begin - 1; // the window's '[' stands before it
    for (std::size_t i = 0; i < count; ++i) {
        spans[from + i] = {(*windowSpans)[i].begin + shift, (*windowSpans)[i].end + shift};
    }
    const auto grown =
        static_cast<std::ptrdiff_t>(report.size()) - static_cast<std::ptrdiff_t>(last.size());
    for (std::size_t i = to; i < spans.size(); ++i) {
        spans[i].begin =
            static_cast<std::size_t>(static_cast<std::ptrdiff_t>(spans[i].begin) + grown);
        spans[i].end = static_cast<std::size_t>(static_cast<std::ptrdiff_t>(spans[i].end) + grown);
    }
    lastReport_.swap(report);
    lastReportRevision_ = dirItems_->revision();
    ++reportsAppliedInPart_;
    return true;
}

void ItemsProvider::deleteItem(const QString &path) {
    const std::string key = utf8(path);
    groups_->removeWalkPath(key);
    dirItems_->removePath(key);
    // Once more shortly after: a status report already in flight may bring
    // the folder back.
    clock_->singleShot(kDeleteRepeat, this, [this, key] { dirItems_->removePath(key); });
}

QString ItemsProvider::walkDirIcon(const QString &path) const {
    const int row = dirItems_->indexOf(utf8(path));
    if (row < 0) {
        return QStringLiteral("internaldrive");
    }
    return QString::fromLatin1(dirItems()[static_cast<std::size_t>(row)].icon());
}

void ItemsProvider::markRetentionUpdatePending(qint64 groupID) {
    pendingRetentionUpdates_.insert(groupID);
}

void ItemsProvider::clearRetentionUpdatePending(qint64 groupID) {
    pendingRetentionUpdates_.remove(groupID);
}

void ItemsProvider::replaceGroups(std::vector<GroupItem> incoming) {
    // Keep the user's retention edit on screen until the server confirmed it.
    for (GroupItem &group : incoming) {
        if (!pendingRetentionUpdates_.contains(group.groupID)) {
            continue;
        }
        const int row = groups_->indexOf(group.groupID);
        if (row < 0) {
            continue;
        }
        group.retentionSettings = groups()[static_cast<std::size_t>(row)].retentionSettings;
        log(QStringLiteral("Preserving optimistic retention update for group %1")
                .arg(group.groupID));
    }
    groups_->replace(std::move(incoming));
    emit groupsReplaced();
}

// ---- Commands

tidepost::PollManager &ItemsProvider::pm() {
    return session_->pollManager();
}

void ItemsProvider::publishAndWaitThrows(const TypeIDAndData &command, Completion done) {
    publishAndWaitThrows(std::make_shared<const TypeIDAndData>(command), std::move(done));
}

void ItemsProvider::publishAndWaitThrows(std::shared_ptr<const TypeIDAndData> command,
                                         Completion done) {
    // The session keeps one request on the wire at a time and lets a user's
    // command pass a waiting ping.
    const auto priority = commands::isPing(*command)
                              ? tidepost::BackendSession::Priority::background
                              : tidepost::BackendSession::Priority::command;
    QPointer<ItemsProvider> self(this);
    session_->send(command, priority,
                   [self, command, done = std::move(done)](tidepost::Exchange &exchange) {
                       if (!self || self->destroying_) {
                           return;
                       }
                       self->applyReply(*command, exchange, done);
                   });
}

void ItemsProvider::publishAndWaitThrows(const QString &type, const QString &id,
                                         const QString &data, Completion done) {
    publishAndWaitThrows(TypeIDAndData{utf8(type), utf8(id), utf8(data)}, std::move(done));
}

void ItemsProvider::applyReply(const TypeIDAndData &command, tidepost::Exchange &exchange,
                               const Completion &done) {
    using Result = tidepost::Exchange::Result;
    const auto finish = [&done](const CommandOutcome &outcome) {
        if (done) {
            done(outcome);
        }
    };
    switch (exchange.result) {
    case Result::failed:
        finish(exchange.error);
        return;
    case Result::skipped:
        // A ping that gave way to a command: the next one carries the news.
        finish(std::nullopt);
        return;
    case Result::unreadable:
        break;
    case Result::opened: {
        setBackendAnswered(true);
        // The reply's shapes, tried in order; the first that decodes wins.
        const std::string &plain = exchange.plaintext;
        const bool onLastReport =
            lastReportRevision_ == dirItems_->revision() && dirItems_->lastMergeSettled();
        if (onLastReport && plain == lastReport_) {
            // The very report applied last, on the list it left, which merging it again would
            // not change. A ping at rest costs a comparison, not a decode and a merge.
            setIsLoggedIn(true);
            emit loginStateReported(true);
            refreshLoading();
            finish(std::nullopt);
            return;
        }
        if (onLastReport && applyChangedElements(exchange.plaintext)) {
            setIsLoggedIn(true);
            emit loginStateReported(true);
            prepareNextPing(command);
            finish(std::nullopt);
            return;
        }
        try {
            // The report goes to the merge as views into the reader: no text is copied on the
            // way. A report read while the merge runs (a slot running a nested event loop) is
            // read by a reader of its own, so these views stay what they were.
            std::optional<DirItemReader> nested;
            DirItemReader &reader = readingReport_ ? nested.emplace() : reportReader_;
            const bool padded = plain.capacity() - plain.size() >= jsonPadding;
            const std::span<const DirItemView> report = reader.read(plain, padded);
            // Restored on the way out, unless a slot below deleted the model.
            const QPointer<ItemsProvider> self(this);
            const auto reading = qScopeGuard([self, was = std::exchange(readingReport_, true)] {
                if (self) {
                    self->readingReport_ = was;
                }
            });
            setIsLoggedIn(true);
            emit loginStateReported(true);
            // The command is done once its reply is read as a folder list; the list follows at
            // once, before anything else runs. The ping loop starts its wait from here.
            finish(std::nullopt);
            if (!self || destroying_) {
                return;
            }
            std::vector<std::uint32_t> rows;
            dirItems_->merge(report, &rows);
            refreshLoading();
            // Kept without a copy: the session opens a later reply into the buffer it gets back.
            lastReport_.swap(exchange.plaintext);
            lastReportRows_ = std::move(rows);
            lastReportRevision_ = dirItems_->revision();
            lastReportSpans_.reset();
            prepareNextPing(command);
            return;
        } catch (const DecodingError &) {
            // Not a folder list; nothing was merged.
        }
        try {
            std::vector<GroupItem> list = decodeGroupItems(plain);
            setIsLoggedIn(true);
            emit loginStateReported(true);
            replaceGroups(std::move(list));
            finish(std::nullopt);
            return;
        } catch (const DecodingError &) {
        }
        try {
            const TypeIDAndData message = TypeIDAndData::fromJSON(plain);
            if (message.type == commands::authRequestMessage) {
                setIsLoggedIn(false);
                emit loginStateReported(false);
            } else if (message.type == commands::pingMessage) {
                setIsLoggedIn(true);
                emit loginStateReported(true);
                if (dirItems().empty() && isLoading_) {
                    setIsLoading(false);
                    setMenuBarString();
                }
            } else {
                finish(tarnwickError(TarnwickError::unknownRequestType));
                return;
            }
            finish(std::nullopt);
            return;
        } catch (const DecodingError &) {
        }
        try {
            const ServerResponse response = ServerResponse::fromJSON(plain);
            if (response.isSuccess()) {
                finish(std::nullopt);
                return;
            }
            if (response.error) {
                log(QStringLiteral("Server error for type '%1': %2")
                        .arg(text(command.type), text(*response.error)));
                finish(serverError(*response.error));
                return;
            }
        } catch (const DecodingError &) {
        }
        break;
    }
    }
    // Nothing decoded: only a command whose reply carries nothing is done.
    if (commands::expectsEmptyReply(command)) {
        finish(std::nullopt);
        return;
    }
    finish(tarnwickError(TarnwickError::decodeError));
}

void ItemsProvider::publishAndWait(const TypeIDAndData &command, Completion done) {
    publishAttempt(std::make_shared<const TypeIDAndData>(command), 1, std::move(done), {});
}

void ItemsProvider::publishAndWait(TypeIDAndData &&command, Completion done) {
    publishAttempt(std::make_shared<const TypeIDAndData>(std::move(command)), 1, std::move(done),
                   {});
}

void ItemsProvider::publishAndWait(const TypeIDAndData &command, Completion done,
                                   std::shared_ptr<const bool> cancelled) {
    publishAttempt(std::make_shared<const TypeIDAndData>(command), 1, std::move(done),
                   std::move(cancelled));
}

void ItemsProvider::publishAndWait(const QString &type, const QString &id, const QString &data,
                                   std::function<void()> done) {
    publishAndWait(TypeIDAndData{utf8(type), utf8(id), utf8(data)},
                   [done = std::move(done)](const CommandOutcome &) {
                       if (done) {
                           done();
                       }
                   });
}

void ItemsProvider::publishAttempt(std::shared_ptr<const TypeIDAndData> command, int attempt,
                                   Completion done, std::shared_ptr<const bool> cancelled) {
    if (cancelled && *cancelled) {
        log(QStringLiteral("Request '%1' given up by its caller; no further attempt")
                .arg(text(command->type)));
        if (done) {
            done(cancelledError());
        }
        return;
    }
    publishAndWaitThrows(command, [this, command, attempt, cancelled,
                                   done = std::move(done)](const CommandOutcome &outcome) mutable {
        if (outcome && attempt < kPublishAttempts) {
            // Tried again at once; only the last failure is reported.
            publishAttempt(command, attempt + 1, std::move(done), std::move(cancelled));
            return;
        }
        if (outcome) {
            log(QStringLiteral("warning: %1").arg(text(outcome->description)));
        }
        if (done) {
            done(outcome);
        }
    });
}

bool ItemsProvider::publish(const TypeIDAndData &command, Completion done) {
    if (isWaiting_) {
        log(QStringLiteral("Publish request ignored.  Waiting for previous request to finish ..."));
        return false;
    }
    setIsWaiting(true);
    ++publishNumber_;
    auto cancelled = std::make_shared<bool>(false);
    publishCancelled_ = cancelled;
    QMetaObject::invokeMethod(
        this,
        [this, command, cancelled, done = std::move(done)] {
            publishAndWait(
                command,
                [this, done](const CommandOutcome &outcome) {
                    setIsWaiting(false);
                    if (done) {
                        done(outcome);
                    }
                },
                cancelled);
        },
        Qt::QueuedConnection);
    return true;
}

quint64 ItemsProvider::currentPublish() const {
    return isWaiting_ ? publishNumber_ : 0;
}

void ItemsProvider::cancelPublish(quint64 number) {
    if (number != 0 && number == currentPublish()) {
        if (const auto cancelled = publishCancelled_.lock()) {
            *cancelled = true;
        }
    }
}

void ItemsProvider::setBackendAnswered(bool answered) {
    if (backendAnswered_ != answered) {
        backendAnswered_ = answered;
        emit backendAnsweredChanged();
    }
}

void ItemsProvider::publish(const QString &type, const QString &id, const QString &data) {
    publish(TypeIDAndData{utf8(type), utf8(id), utf8(data)});
}

bool ItemsProvider::publish(const QString &type, const QString &id, const QString &data,
                            std::function<void()> done) {
    return publish(TypeIDAndData{utf8(type), utf8(id), utf8(data)},
                   [done = std::move(done)](const CommandOutcome &) {
                       if (done) {
                           done();
                       }
                   });
}

void ItemsProvider::openDirPath(const QString &path) {
    publish(commands::openDirPath(path));
}

void ItemsProvider::openWeb(const QString &groupID) {
    publish(commands::openWeb(groupID));
}

void ItemsProvider::requestCodeViaEmail(const QString &email) {
    requestCodeViaEmail(email, {});
}

void ItemsProvider::requestCodeViaEmail(const QString &email, Completion done,
                                        std::shared_ptr<const bool> cancelled) {
    setLoginMessage(QT_TR_NOOP("Sending 6-digit code to %1 ..."), email);
    publishAndWait(
        commands::requestCode(email),
        [this, email, done = std::move(done)](const CommandOutcome &outcome) {
            // The login screen's line reads the same whatever the outcome;
            // the caller hears the backend's answer.
            setOwnError(QT_TR_NOOP("6-digit code sent to %1. Check your email."), email, false);
            if (done) {
                done(outcome);
            }
        },
        std::move(cancelled));
}

void ItemsProvider::performLogin(const QString &code) {
    performLogin(code, {});
}

void ItemsProvider::performLogin(const QString &code, Completion sent) {
    // The code goes as typed: the backend is the judge of it.
    publish(commands::auth(userName_, code), std::move(sent));
    QMetaObject::invokeMethod(
        this, [this] { setLoginMessage(QT_TR_NOOP("Authenticating ...")); }, Qt::QueuedConnection);
    clock_->singleShot(kLoginFailureDelay, this, [this] {
        if (!isLoggedIn_) {
            setLoginMessage(loginFailedText);
            emit loginFailed();
        }
    });
}

bool ItemsProvider::logout() {
    if (isWaiting_) {
        return false;
    }
    clock_->singleShot(std::chrono::milliseconds(100), this, [this] {
        publish(commands::logoutAndExit(),
                [this](const CommandOutcome &) { emit quitRequested(); });
    });
    return true;
}

void ItemsProvider::updateGroupRetentionSettings(const GroupItem &group, Completion done) {
    const std::int64_t days = group.retentionSettings && group.retentionSettings->retentionDays
                                  ? *group.retentionSettings->retentionDays
                                  : 0;
    log(QStringLiteral("Sending updateGroup request for group %1, retention: %2 days")
            .arg(group.groupID)
            .arg(days));
    publishAndWaitThrows(commands::updateGroup(group),
                         [this, done = std::move(done)](const CommandOutcome &outcome) {
                             if (!outcome) {
                                 log(QStringLiteral("updateGroup request completed successfully"));
                             }
                             if (done) {
                                 done(outcome);
                             }
                         });
}

} // namespace tarnwick
