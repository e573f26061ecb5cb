#include "ControlServer.h"

#include "BackendLauncher.h"
#include "FileSystemUtils.h"
#include "ItemsProvider.h"
#include "SettingsActions.h"

#include <runwarden/ExitAppIfAlreadyOpen.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QTimer>

#include <algorithm>
#include <memory>

namespace tarnwick {
namespace {

using runwarden::GuardConnection;

// Records exactly as they travel on the wire, as JSON values of the
// control protocol.
const char *const notSignedInText = "Not signed in (sign in with: tarnwick login EMAIL)";
const char *const busyText = "Another request is under way; try again.";

QJsonArray wireArray(const std::string &json) {
    return QJsonDocument::fromJson(QByteArray::fromStdString(json)).array();
}

void reply(GuardConnection *connection, const QJsonObject &line) {
    if (connection->isOpen()) {
        connection->sendLine(line);
        connection->finish();
    }
}

void fail(GuardConnection *connection, const QString &message) {
    if (connection->isOpen()) {
        connection->sendError(message);
        connection->finish();
    }
}

void failWith(GuardConnection *connection, const tidepost::Error &error) {
    fail(connection, failureText(error));
}

QJsonObject ok(const QString &message = {}) {
    QJsonObject line{{QStringLiteral("ok"), true}};
    if (!message.isEmpty()) {
        line.insert(QStringLiteral("message"), message);
    }
    return line;
}

const GroupItem *groupNamed(const ItemsProvider &model, const QString &name) {
    const auto &groups = model.groups();
    const auto found = std::find_if(groups.begin(), groups.end(), [&](const GroupItem &g) {
        return QString::fromStdString(g.name) == name;
    });
    return found == groups.end() ? nullptr : &*found;
}

bool groupHasPath(const ItemsProvider &model, const QString &group, const QString &path) {
    const GroupItem *g = groupNamed(model, group);
    return g && std::find(g->walkPaths.begin(), g->walkPaths.end(), path.toStdString()) !=
                    g->walkPaths.end();
}

bool anyGroupHasPath(const ItemsProvider &model, const QString &path) {
    const std::string key = path.toStdString();
    return std::any_of(model.groups().begin(), model.groups().end(), [&](const GroupItem &g) {
        return std::find(g.walkPaths.begin(), g.walkPaths.end(), key) != g.walkPaths.end();
    });
}

} // namespace

ControlServer::ControlServer(ItemsProvider &model, SettingsActions &actions,
                             runwarden::InstanceGuard &guard, QObject *parent)
    : QObject(parent), model_(model), actions_(actions) {
    const std::pair<const char *, void (ControlServer::*)(GuardConnection *)> commands[] = {
        {"status", &ControlServer::status},
        {"groups", &ControlServer::groups},
        {"login", &ControlServer::login},
        {"auth", &ControlServer::auth},
        {"add", &ControlServer::add},
        {"remove", &ControlServer::remove},
        {"retention", &ControlServer::retention},
        {"open", &ControlServer::open},
        {"logout", &ControlServer::logout},
        {"quit", &ControlServer::quit},
        {"restart-backend", &ControlServer::restartBackend},
    };
    for (const auto &[name, handler] : commands) {
        guard.setCommandHandler(
            QString::fromLatin1(name),
            [this, handler = handler](GuardConnection *c) { (this->*handler)(c); });
    }
    connect(&model_, &ItemsProvider::quitRequested, this, &ControlServer::modelQuit);
}

QJsonObject ControlServer::statusObject(const ItemsProvider &model) {
    QJsonArray folders = wireArray(encodeDirItems(model.dirItems()));
    for (qsizetype i = 0; i < folders.size(); ++i) {
        QJsonObject folder = folders.at(i).toObject();
        folder.insert(QStringLiteral("progress"),
                      model.dirItems()[static_cast<std::size_t>(i)].progress());
        folders.replace(i, folder);
    }
    return {
        {QStringLiteral("version"), QCoreApplication::applicationVersion()},
        {QStringLiteral("isLoggedIn"), model.isLoggedIn()},
        {QStringLiteral("userName"), model.userName()},
        {QStringLiteral("error"), model.error()},
        {QStringLiteral("isLoading"), model.isLoading()},
        {QStringLiteral("isWaiting"), model.isWaiting()},
        {QStringLiteral("menuBarString"), model.menuBarString()},
        {QStringLiteral("backendFailed"), model.backendFailed()},
        {QStringLiteral("backendAnswered"), model.backendAnswered()},
        {QStringLiteral("dirItems"), folders},
        {QStringLiteral("groups"), wireArray(encodeGroupItems(model.groups()))},
    };
}

void ControlServer::status(GuardConnection *connection) {
    QJsonObject line = ok();
    line.insert(QStringLiteral("status"), statusObject(model_));
    // For the readable report: the message is only the sign-in's progress.
    line.insert(QStringLiteral("errorIsLoginMessage"), model_.errorIsLoginMessage());
    reply(connection, line);
}

void ControlServer::withFreshGroups(GuardConnection *connection,
                                    std::function<void(GuardConnection *)> action) {
    QPointer<GuardConnection> guard(connection);
    model_.publishAndWait(
        commands::getGroups(),
        [this, guard, action = std::move(action)](const CommandOutcome &outcome) {
            if (!guard) {
                return;
            }
            if (outcome) {
                failWith(guard, *outcome);
                return;
            }
            if (!model_.isLoggedIn()) {
                fail(guard, QString::fromLatin1(notSignedInText));
                return;
            }
            action(guard);
        },
        closedFlag(connection));
}

std::shared_ptr<const bool> ControlServer::closedFlag(GuardConnection *connection) {
    auto closed = std::make_shared<bool>(false);
    connect(connection, &GuardConnection::closed, connection, [closed] { *closed = true; });
    connect(connection, &QObject::destroyed, [closed] { *closed = true; });
    return closed;
}

void ControlServer::cancelOnClose(GuardConnection *connection) {
    const quint64 started = model_.currentPublish();
    if (started == 0 || !connection) {
        return;
    }
    const auto cancel = [model = QPointer<ItemsProvider>(&model_), started] {
        if (model) {
            model->cancelPublish(started);
        }
    };
    connect(connection, &GuardConnection::closed, this, cancel);
    connect(connection, &QObject::destroyed, this, cancel);
}

void ControlServer::groups(GuardConnection *connection) {
    // A fresh list first, so the answer is the backend's current one.
    withFreshGroups(connection, [this](GuardConnection *guard) {
        QJsonObject line = ok();
        line.insert(QStringLiteral("groups"), wireArray(encodeGroupItems(model_.groups())));
        reply(guard, line);
    });
}

void ControlServer::login(GuardConnection *connection) {
    const QString email = connection->request().value(QStringLiteral("email")).toString();
    if (email.isEmpty()) {
        fail(connection, QStringLiteral("An e-mail address is needed."));
        return;
    }
    // What the login screen does: the address goes into the model, then the
    // code is requested.
    model_.setUserName(email);
    QPointer<GuardConnection> guard(connection);
    model_.requestCodeViaEmail(
        email,
        [this, guard](const CommandOutcome &outcome) {
            if (!guard) {
                return;
            }
            if (outcome) {
                // The address (or the request) was refused: no code is on its way.
                failWith(guard, *outcome);
                return;
            }
            reply(guard, ok(model_.error()));
        },
        closedFlag(connection));
}

void ControlServer::auth(GuardConnection *connection) {
    const QString code = connection->request().value(QStringLiteral("code")).toString();
    // The address the code was sent to, as the login screen's e-mail field.
    const QString email = connection->request().value(QStringLiteral("email")).toString();
    if (!email.isEmpty()) {
        model_.setUserName(email);
    }
    QPointer<GuardConnection> guard(connection);
    whenIdle(connection, [this, guard, code] {
        if (!guard) {
            return;
        }
        // Success is the next reply that says a user is signed in after the
        // code was accepted; failure is the backend's refusal of the code, or
        // no sign-in within the login screen's wait.
        auto sent = std::make_shared<bool>(false);
        auto connections = std::make_shared<std::vector<QMetaObject::Connection>>();
        const auto finish = [guard, connections](const QJsonObject &line) {
            for (const auto &c : *connections) {
                QObject::disconnect(c);
            }
            if (guard) {
                reply(guard, line);
            }
        };
        connections->push_back(connect(
            &model_, &ItemsProvider::loginStateReported, this, [this, sent, finish](bool loggedIn) {
                if (*sent && loggedIn) {
                    finish(ok(QStringLiteral("Signed in as %1").arg(model_.userName())));
                }
            }));
        connections->push_back(connect(&model_, &ItemsProvider::loginFailed, this, [this, finish] {
            finish(QJsonObject{{QStringLiteral("error"), model_.error()}});
        }));
        connections->push_back(connect(guard.data(), &GuardConnection::closed, this, [connections] {
            for (const auto &c : *connections) {
                QObject::disconnect(c);
            }
        }));
        model_.performLogin(code, [sent, finish](const CommandOutcome &outcome) {
            if (outcome) {
                // The backend's reason, then what the login screen will say.
                finish(QJsonObject{
                    {QStringLiteral("error"),
                     QStringLiteral("%1\n%2").arg(failureText(*outcome),
                                                  QLatin1String(ItemsProvider::loginFailedText))}});
                return;
            }
            *sent = true;
        });
    });
}

void ControlServer::add(GuardConnection *connection) {
    const QJsonObject request = connection->request();
    const QString group = request.value(QStringLiteral("group")).toString();
    const QString path = QDir::cleanPath(request.value(QStringLiteral("path")).toString());
    const bool force = request.value(QStringLiteral("force")).toBool();
    if (group.isEmpty() || !QDir::isAbsolutePath(path)) {
        fail(connection, QStringLiteral("A group name and an absolute path are needed."));
        return;
    }
    // The groups as the backend has them now, to check the name against.
    withFreshGroups(connection, [=, this](GuardConnection *answering) {
        QPointer<GuardConnection> guard(answering);
        if (!groupNamed(model_, group)) {
            QStringList names;
            for (const GroupItem &g : model_.groups()) {
                names << QString::fromStdString(g.name);
            }
            fail(guard, QStringLiteral("No group named \"%1\" (groups: %2).")
                            .arg(group, names.isEmpty() ? QStringLiteral("none")
                                                        : names.join(QStringLiteral(", "))));
            return;
        }
        SettingsActions::AddCheck check;
        if (pathcheck::FileSystemUtils::isPhotosLibrary(path)) {
            check = SettingsActions::checkPhotoLibrary(path);
        } else if (!QFileInfo(path).isDir()) {
            check.message = QFileInfo::exists(path)
                                ? QStringLiteral("The selected path is not a folder.")
                                : QStringLiteral("The selected path does not exist.");
        } else {
            check = SettingsActions::checkFolder(path);
        }
        if (check.verdict == SettingsActions::AddCheck::Verdict::invalid) {
            fail(guard, check.message);
            return;
        }
        if (check.verdict == SettingsActions::AddCheck::Verdict::needsConfirmation && !force) {
            QJsonObject line;
            line.insert(QStringLiteral("error"), QStringLiteral("iCloud Sync Detected"));
            line.insert(QStringLiteral("warning"), check.message);
            line.insert(QStringLiteral("needsForce"), true);
            reply(guard, line);
            return;
        }
        const QString watched = check.path;
        whenIdle(guard, [=, this] {
            if (!guard) {
                return;
            }
            changeAndConfirm(
                guard,
                [=, this](SettingsActions::Completion done) {
                    return actions_.addFolderToSync(watched, group, std::move(done));
                },
                [=, this] { return groupHasPath(model_, group, watched); },
                [=] {
                    QJsonObject line = ok(QStringLiteral("Added %1 to %2").arg(watched, group));
                    line.insert(QStringLiteral("path"), watched);
                    if (!check.message.isEmpty()) {
                        line.insert(QStringLiteral("warning"), check.message);
                    }
                    reply(guard, line);
                },
                QStringLiteral("The backend did not confirm the new folder."));
        });
    });
}

void ControlServer::remove(GuardConnection *connection) {
    const QString path =
        QDir::cleanPath(connection->request().value(QStringLiteral("path")).toString());
    if (!anyGroupHasPath(model_, path) && model_.dirItemsModel()->indexOf(path.toStdString()) < 0) {
        fail(connection, QStringLiteral("Not a watched folder: %1").arg(path));
        return;
    }
    QPointer<GuardConnection> guard(connection);
    whenIdle(connection, [=, this] {
        if (!guard) {
            return;
        }
        changeAndConfirm(
            guard,
            [=, this](SettingsActions::Completion done) {
                return actions_.removeFolder(path, std::move(done));
            },
            [=, this] { return !anyGroupHasPath(model_, path); },
            [=] { reply(guard, ok(QStringLiteral("Stopped watching %1").arg(path))); },
            QStringLiteral("The backend did not confirm the removal."));
    });
}

void ControlServer::retention(GuardConnection *connection) {
    const QJsonObject request = connection->request();
    const qint64 groupID = request.value(QStringLiteral("groupID")).toInteger(-1);
    const qint64 days = request.value(QStringLiteral("days")).toInteger(-1);
    if (days < 0) {
        fail(connection, QStringLiteral("Days must be 0 (keep forever) or more."));
        return;
    }
    const int row = model_.groupsModel()->indexOf(groupID);
    if (row < 0) {
        fail(connection, QStringLiteral("No group with ID %1.").arg(groupID));
        return;
    }
    GroupItem edited = model_.groups()[static_cast<std::size_t>(row)];
    RetentionSettings settings =
        edited.retentionSettings.value_or(RetentionSettings::defaultSettings());
    settings.retentionDays = days;
    edited.retentionSettings = settings;
    QPointer<GuardConnection> guard(connection);
    actions_.saveRetention(edited, [guard, groupID, days](std::optional<QString> error) {
        if (!guard) {
            return;
        }
        if (error) {
            fail(guard, QStringLiteral("Error updating retention settings: %1").arg(*error));
            return;
        }
        reply(guard, ok(QStringLiteral("Group %1 keeps deleted files %2")
                            .arg(groupID)
                            .arg(days == 0 ? QStringLiteral("forever")
                                           : QStringLiteral("for %1 days").arg(days))));
    });
    cancelOnClose(connection);
}

void ControlServer::open(GuardConnection *connection) {
    const QString path =
        QDir::cleanPath(connection->request().value(QStringLiteral("path")).toString());
    QPointer<GuardConnection> guard(connection);
    whenIdle(connection, [=, this] {
        if (!guard) {
            return;
        }
        const bool sent =
            model_.publish(commands::openDirPath(path), [guard](const CommandOutcome &outcome) {
                if (!guard) {
                    return;
                }
                if (outcome) {
                    failWith(guard, *outcome);
                } else {
                    reply(guard, ok());
                }
            });
        if (!sent) {
            fail(guard, QString::fromLatin1(busyText));
        }
    });
}

void ControlServer::logout(GuardConnection *connection) {
    QPointer<GuardConnection> guard(connection);
    whenIdle(connection, [this, guard] {
        if (!guard) {
            return;
        }
        if (!model_.logout()) {
            fail(guard, QString::fromLatin1(busyText));
            return;
        }
        pendingLogout_ = guard;
    });
}

void ControlServer::modelQuit() {
    // A command-line logout hears its answer before the client ends.
    if (pendingLogout_ && pendingLogout_->isOpen()) {
        endAfter(pendingLogout_, ok(QStringLiteral("Signed out")));
        return;
    }
    emit quitRequested();
}

void ControlServer::endAfter(GuardConnection *connection, const QJsonObject &line) {
    connect(connection, &GuardConnection::closed, this, &ControlServer::quitRequested,
            Qt::QueuedConnection);
    reply(connection, line);
}

void ControlServer::quit(GuardConnection *connection) {
    endAfter(connection, ok());
}

void ControlServer::restartBackend(GuardConnection *connection) {
    using State = supervisor::BackendLauncher::State;
    const State state = model_.launcher().state();
    if (state == State::running || state == State::recovering) {
        fail(connection, QStringLiteral("The backend is running."));
        return;
    }
    model_.restartBackend();
    // The answer waits until the backend has come up (it answered a request) or has failed
    // again, so that the command line tells the truth either way.
    QPointer<GuardConnection> guard(connection);
    auto links = std::make_shared<std::vector<QMetaObject::Connection>>();
    auto done = std::make_shared<bool>(false);
    const auto settle = [this, guard, links, done] {
        if (*done) {
            return;
        }
        const State now = model_.launcher().state();
        QString failure;
        if (now == State::failed || now == State::stopped) {
            // The launcher's own words: the model's error text follows them a moment later.
            failure = model_.launcher().failureText();
            if (failure.isEmpty()) {
                failure = model_.error().isEmpty() ? QStringLiteral("The backend did not start.")
                                                   : model_.error();
            }
        } else if (!model_.backendAnswered()) {
            return;
        }
        *done = true;
        for (const auto &link : *links) {
            QObject::disconnect(link);
        }
        if (!guard) {
            return;
        }
        if (failure.isEmpty()) {
            reply(guard, ok(QStringLiteral("Backend restarted")));
        } else {
            fail(guard, QStringLiteral("The backend did not come up: %1").arg(failure));
        }
    };
    links->push_back(connect(&model_, &ItemsProvider::backendAnsweredChanged, this, settle));
    links->push_back(connect(&model_, &ItemsProvider::backendFailedChanged, this, settle));
    links->push_back(
        connect(&model_.launcher(), &supervisor::BackendLauncher::stateChanged, this, settle));
    // A backend that runs but never answers is not up either.
    model_.clock().singleShot(restartTimeout, this, [guard, links, done] {
        if (*done) {
            return;
        }
        *done = true;
        for (const auto &link : *links) {
            QObject::disconnect(link);
        }
        if (guard) {
            fail(
                guard,
                QStringLiteral("The backend did not come up: it has not answered within "
                               "%1 seconds.")
                    .arg(std::chrono::duration_cast<std::chrono::seconds>(restartTimeout).count()));
        }
    });
    settle();
}

void ControlServer::whenIdle(GuardConnection *connection, std::function<void()> action) {
    QPointer<GuardConnection> guard(connection);
    const auto run = [this, guard, action = std::move(action)] {
        action();
        if (guard) {
            cancelOnClose(guard);
        }
    };
    if (!model_.isWaiting()) {
        run();
        return;
    }
    auto link = std::make_shared<QMetaObject::Connection>();
    *link = connect(&model_, &ItemsProvider::isWaitingChanged, connection, [this, link, run] {
        if (!model_.isWaiting()) {
            QObject::disconnect(*link);
            run();
        }
    });
}

void ControlServer::changeAndConfirm(GuardConnection *connection,
                                     const std::function<bool(SettingsActions::Completion)> &send,
                                     std::function<bool()> check, std::function<void()> success,
                                     const QString &unconfirmed) {
    QPointer<GuardConnection> guard(connection);
    const bool sent = send([=, this](const CommandOutcome &outcome) {
        if (!guard) {
            return;
        }
        if (outcome) {
            // The backend's refusal (or the transport's error), at once.
            failWith(guard, *outcome);
            return;
        }
        waitForGroups(guard, check, success, unconfirmed);
    });
    if (!sent) {
        fail(guard, QString::fromLatin1(busyText));
    }
}

void ControlServer::waitForGroups(GuardConnection *connection, std::function<bool()> check,
                                  std::function<void()> success, const QString &timeoutMessage) {
    auto done = std::make_shared<bool>(false);
    auto link = std::make_shared<QMetaObject::Connection>();
    *link =
        connect(&model_, &ItemsProvider::groupsReplaced, connection, [done, link, check, success] {
            if (!*done && check()) {
                *done = true;
                QObject::disconnect(*link);
                success();
            }
        });
    QPointer<GuardConnection> guard(connection);
    QTimer::singleShot(confirmTimeoutMs_, connection, [done, link, guard, timeoutMessage] {
        if (!*done) {
            *done = true;
            QObject::disconnect(*link);
            if (guard) {
                fail(guard, timeoutMessage);
            }
        }
    });
}

} // namespace tarnwick
