#include "ItemsProvider.h"

#include "BackendLauncher.h"
#include "BinaryPreparation.h"
#include "LaunchAtLogin.h"
#include "PollManager.h"

#include <lumacrypt/KeyExchangeStore.h>

#include <QCoreApplication>
#include <QPointer>
#include <QSettings>
#include <QTimer>

#include <cstdio>

#ifndef TARNWICK_DEFAULT_SERVICE_URL
#define TARNWICK_DEFAULT_SERVICE_URL "https://tarnwick.app"
#endif

namespace tarnwick {
namespace {

constexpr int kPortLower = 8001;
constexpr int kPortUpper = 9000; // exclusive
constexpr int kPublishAttempts = 6;
constexpr std::chrono::milliseconds kDeleteRepeat{500};
const char *const kCrashedText = "Binary crashed repeatedly. Please reinstall the app.";

std::string utf8(const QString &text) {
    return text.toStdString();
}

QString text(const std::string &value) {
    return QString::fromUtf8(value.data(), static_cast<qsizetype>(value.size()));
}

void writeLine(const QString &line) {
    const QByteArray bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

tidepost::Error tarnwickError(TarnwickError error) {
    return {"TarnwickError", static_cast<int>(error), toString(error)};
}

// A server-side failure: domain "ServerError", code 1, the server's text as
// its description.
tidepost::Error serverError(const std::string &message) {
    return {"ServerError", 1, message};
}

struct DirItemList {
    std::vector<DirItem> items;
    static DirItemList fromJSON(std::string_view json) { return {decodeDirItems(json)}; }
};

struct GroupItemList {
    std::vector<GroupItem> items;
    static GroupItemList fromJSON(std::string_view json) { return {decodeGroupItems(json)}; }
};

} // namespace

ItemsProvider::ItemsProvider() : ItemsProvider(Options{}) {}

ItemsProvider::ItemsProvider(Options options, QObject *parent)
    : QObject(parent), options_(std::move(options)), dirItems_(new DirItemsModel(this)),
      groups_(new GroupsModel(this)) {
    startUp();
}

ItemsProvider::~ItemsProvider() {
    // Stop the backend and drop pending replies while the rest still stands.
    destroying_ = true;
    launcher_.reset();
    pm_.reset();
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

    pm_ = std::make_unique<tidepost::PollManager>(
        tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    pm_->setLogSink([this](const std::string &line) { log(text(line)); });

    // 3.-5. The backend's command line: -pid, -token, -port.
    port_ = pm_->randomOpenPort(kPortLower, kPortUpper);
    if (options_.isMacOS13) {
        pm_->processManager().addPIDAsArgument(QStringLiteral("pid"));
    }
    pm_->processManager().addArgument(QStringLiteral("token"), pm_->kes.LocalPublicKey());
    pm_->processManager().addArgument(QStringLiteral("port"), port_);

    // 6. Launch at login is switched on once, at the very first launch.
    if (options_.isMacOS13) {
        QSettings settings(QStringLiteral("tarnwick"), QStringLiteral("tarnwick"));
        if (!settings.value(QStringLiteral("hasLaunchedBefore"), false).toBool()) {
            LaunchAtLogin::setEnabled(true);
            settings.setValue(QStringLiteral("hasLaunchedBefore"), true);
        }
    }

    // 7. One client per user.
    if (options_.singleInstance) {
        pm_->exitAppIfAlreadyOpen();
    }

    // 8. Older systems end the client after a while.
    if (!options_.isMacOS13) {
        QTimer::singleShot(options_.olderSystemLifetime, this, [this] {
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
    hooks.pingPayload = [this] { return encodeDirItems(dirItems()); };
    hooks.sendPing = [this](const std::string &payload, std::function<void()> done) {
        publishAndWait(QStringLiteral("ping"), QString(), text(payload), std::move(done));
    };
    hooks.setError = [this](const QString &message) { setError(message); };
    launcher_ = std::make_unique<supervisor::BackendLauncher>(*pm_, std::move(preparation),
                                                              std::move(hooks), options_.isMacOS13);
    if (options_.clock) {
        launcher_->setClock(options_.clock);
    }
    launcher_->setRelaunchDelay(options_.relaunchDelay);
    connect(launcher_.get(), &supervisor::BackendLauncher::stateChanged, this,
            &ItemsProvider::backendFailedChanged);

    // 9. The backend launch runs once the event loop does.
    if (options_.launchBackend) {
        QMetaObject::invokeMethod(this, &ItemsProvider::launchTask, Qt::QueuedConnection);
    }
}

QString ItemsProvider::architecture() const {
    if (options_.architecture) {
        return *options_.architecture;
    }
    return text(pm_->systemArchitecture());
}

void ItemsProvider::launchTask() {
    launcher_->prepareAndLaunch(architecture());
}

bool ItemsProvider::backendFailed() const {
    return launcher_ && launcher_->state() == supervisor::BackendLauncher::State::failed;
}

void ItemsProvider::restartBackend() {
    if (error_ == QLatin1String(kCrashedText)) {
        setError(QString());
    }
    launcher_->restartBackend(architecture());
}

// ---- Observable state

void ItemsProvider::setError(const QString &error) {
    if (error_ != error) {
        error_ = error;
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

void ItemsProvider::update(const std::vector<DirItem> &report) {
    dirItems_->merge(report);
    const auto &items = dirItems();
    const bool pending = std::any_of(items.begin(), items.end(),
                                     [](const DirItem &item) { return item.progress() != 1.0; });
    if (pending != isLoading_) {
        setIsLoading(pending);
        setMenuBarString();
    }
}

void ItemsProvider::deleteItem(const QString &path) {
    const std::string key = utf8(path);
    groups_->removeWalkPath(key);
    dirItems_->removePath(key);
    // Once more shortly after: a status report already in flight may bring
    // the folder back.
    QTimer::singleShot(kDeleteRepeat, this, [this, key] { dirItems_->removePath(key); });
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

void ItemsProvider::publishAndWaitThrows(const QString &type, const QString &id,
                                         const QString &data, Completion done) {
    // One request on the wire at a time. The backend stamps every reply with
    // a strictly increasing time and the client refuses a reply older than
    // the last one it accepted, so replies of concurrent requests (a ping
    // beside a user's command) could only race each other into refusals.
    requests_.push_back({type, id, data, std::move(done)});
    if (!requestInFlight_) {
        sendNextRequest();
    }
}

void ItemsProvider::sendNextRequest() {
    if (requests_.empty() || destroying_) {
        requestInFlight_ = false;
        return;
    }
    requestInFlight_ = true;
    PendingRequest request = std::move(requests_.front());
    requests_.pop_front();
    const auto finish = [this](const Completion &done,
                               const std::optional<tidepost::Error> &error) {
        done(error);
        sendNextRequest();
    };

    // Sealed as it leaves, so its timestamp is fresh when it arrives.
    std::string body;
    try {
        body = pm_->kes
                   .encodeJSONAndEncrypt(utf8(request.type), utf8(request.id), utf8(request.data),
                                         pm_->keyExchangeCurrentTimestampData())
                   .toJSON();
    } catch (...) {
        // Reported from the event loop, like every other outcome.
        QMetaObject::invokeMethod(
            this,
            [finish, done = std::move(request.done),
             error = tidepost::Error::fromCurrentException()] { finish(done, error); },
            Qt::QueuedConnection);
        return;
    }
    QPointer<ItemsProvider> self(this);
    pm_->publishLocal(body, port_, QStringLiteral("/request"), pm_->bearerToken,
                      [self, finish, type = request.type, done = std::move(request.done)](
                          std::optional<QByteArray> reply, std::optional<tidepost::Error> error) {
                          if (!self || self->destroying_) {
                              return;
                          }
                          if (error) {
                              finish(done, error);
                              return;
                          }
                          self->applyReply(type, reply.value_or(QByteArray()),
                                           [finish, done](const std::optional<tidepost::Error> &e) {
                                               finish(done, e);
                                           });
                      });
}

void ItemsProvider::applyReply(const QString &type, const QByteArray &body,
                               const Completion &done) {
    // The reply is opened once; its shapes are then tried in order, and the
    // first that decodes and carries a fresh timestamp wins.
    std::optional<std::string> plain;
    lumacrypt::KeyExchangeAEADStore record;
    try {
        record = lumacrypt::KeyExchangeAEADStore::fromJSON(
            std::string_view(body.constData(), static_cast<std::size_t>(body.size())));
        const lumacrypt::Bytes bytes = pm_->kes.decryptAEADStore(record);
        plain.emplace(bytes.begin(), bytes.end());
    } catch (...) {
        // Not a sealed record we can open: no shape matches.
    }
    const auto fresh = [&] { return pm_->authTimestamp(record.additionalData); };

    if (plain) {
        try {
            DirItemList report = DirItemList::fromJSON(*plain);
            if (fresh()) {
                setIsLoggedIn(true);
                emit loginStateReported(true);
                update(report.items);
                done(std::nullopt);
                return;
            }
        } catch (const std::exception &) {
        }
        try {
            GroupItemList list = GroupItemList::fromJSON(*plain);
            if (fresh()) {
                setIsLoggedIn(true);
                emit loginStateReported(true);
                replaceGroups(std::move(list.items));
                done(std::nullopt);
                return;
            }
        } catch (const std::exception &) {
        }
        try {
            const TypeIDAndData message = TypeIDAndData::fromJSON(*plain);
            if (fresh()) {
                if (message.type == "auth request") {
                    setIsLoggedIn(false);
                    emit loginStateReported(false);
                } else if (message.type == "ping") {
                    setIsLoggedIn(true);
                    emit loginStateReported(true);
                    if (dirItems().empty() && isLoading_) {
                        setIsLoading(false);
                        setMenuBarString();
                    }
                } else {
                    done(tarnwickError(TarnwickError::unknownRequestType));
                    return;
                }
                done(std::nullopt);
                return;
            }
        } catch (const std::exception &) {
        }
        try {
            const ServerResponse response = ServerResponse::fromJSON(*plain);
            if (fresh()) {
                if (response.isSuccess()) {
                    done(std::nullopt);
                    return;
                }
                if (response.error) {
                    log(QStringLiteral("Server error for type '%1': %2")
                            .arg(type, text(*response.error)));
                    done(serverError(*response.error));
                    return;
                }
            }
        } catch (const std::exception &) {
        }
    }
    // "openDirPath" is answered with nothing to decode.
    if (type == QLatin1String("openDirPath")) {
        done(std::nullopt);
        return;
    }
    done(tarnwickError(TarnwickError::decodeError));
}

void ItemsProvider::publishAndWait(const QString &type, const QString &id, const QString &data,
                                   std::function<void()> done) {
    publishAttempt(type, id, data, 1, std::move(done));
}

void ItemsProvider::publishAttempt(const QString &type, const QString &id, const QString &data,
                                   int attempt, std::function<void()> done) {
    publishAndWaitThrows(type, id, data,
                         [this, type, id, data, attempt,
                          done = std::move(done)](const std::optional<tidepost::Error> &error) {
                             if (!error) {
                                 if (done) {
                                     done();
                                 }
                                 return;
                             }
                             if (attempt < kPublishAttempts) {
                                 // Tried again at once; only the last failure is reported.
                                 publishAttempt(type, id, data, attempt + 1, done);
                                 return;
                             }
                             log(QStringLiteral("warning: %1").arg(text(error->description)));
                             if (done) {
                                 done();
                             }
                         });
}

void ItemsProvider::publish(const QString &type, const QString &id, const QString &data) {
    publish(type, id, data, {});
}

void ItemsProvider::openDirPath(const QString &path) {
    publish(QStringLiteral("openDirPath"), path, QString());
}

void ItemsProvider::openWeb(const QString &groupID) {
    publish(QStringLiteral("openWeb"), groupID, QString());
}

bool ItemsProvider::publish(const QString &type, const QString &id, const QString &data,
                            std::function<void()> done) {
    if (isWaiting_) {
        log(QStringLiteral("Publish request ignored.  Waiting for previous request to finish ..."));
        return false;
    }
    setIsWaiting(true);
    QMetaObject::invokeMethod(
        this,
        [this, type, id, data, done = std::move(done)] {
            publishAndWait(type, id, data, [this, done] {
                setIsWaiting(false);
                if (done) {
                    done();
                }
            });
        },
        Qt::QueuedConnection);
    return true;
}

void ItemsProvider::requestCodeViaEmail(const QString &email) {
    requestCodeViaEmail(email, {});
}

void ItemsProvider::requestCodeViaEmail(const QString &email, std::function<void()> done) {
    setError(QStringLiteral("Sending 6-digit code to %1 ...").arg(email));
    publishAndWait(
        QStringLiteral("requestCode"), email, QString(), [this, email, done = std::move(done)] {
            setError(QStringLiteral("6-digit code sent to %1. Check your email.").arg(email));
            if (done) {
                done();
            }
        });
}

void ItemsProvider::performLogin(const QString &code) {
    performLogin(code, {});
}

void ItemsProvider::performLogin(const QString &code, std::function<void()> sent) {
    // The code goes as typed: the backend is the judge of it.
    publish(QStringLiteral("auth"), userName_, code, std::move(sent));
    QMetaObject::invokeMethod(
        this, [this] { setError(QStringLiteral("Authenticating ...")); }, Qt::QueuedConnection);
    QTimer::singleShot(loginFailureDelay_, this, [this] {
        if (!isLoggedIn_) {
            setError(QStringLiteral("Authentication failed. Please retry ..."));
        }
    });
}

bool ItemsProvider::logout() {
    if (isWaiting_) {
        return false;
    }
    QTimer::singleShot(100, this, [this] {
        publish(QStringLiteral("logoutAndExit"), QString(), QString(),
                [this] { emit quitRequested(); });
    });
    return true;
}

void ItemsProvider::updateGroupRetentionSettings(const GroupItem &group, Completion done) {
    const QString payload = text(group.toJSON());
    const std::int64_t days = group.retentionSettings && group.retentionSettings->retentionDays
                                  ? *group.retentionSettings->retentionDays
                                  : 0;
    log(QStringLiteral("Sending updateGroup request for group %1, retention: %2 days")
            .arg(group.groupID)
            .arg(days));
    publishAndWaitThrows(
        QStringLiteral("updateGroup"), QString(), payload,
        [this, done = std::move(done)](const std::optional<tidepost::Error> &error) {
            if (!error) {
                log(QStringLiteral("updateGroup request completed successfully"));
            }
            done(error);
        });
}

} // namespace tarnwick
