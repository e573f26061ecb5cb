#pragma once

#include "Commands.h"
#include "DirItemsModel.h"
#include "GroupsModel.h"
#include "Models.h"

#include <runwarden/Clock.h>

#include <QObject>
#include <QSet>
#include <QString>
#include <QUrl>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace tidepost {
class BackendSession;
class PollManager;
struct Error;
struct Exchange;
} // namespace tidepost

namespace tarnwick {
namespace supervisor {
class BackendLauncher;
class BinaryPreparation;
} // namespace supervisor

// The client's one model object. It owns the request client and through it the
// backend; it holds every piece of state the screens and the command line
// observe, and it is the only place where the backend's replies change that
// state. Everything here lives on the main thread.
class ItemsProvider : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString error READ error WRITE setError NOTIFY errorChanged)
    // The sign-in flow's own lines in their English words, before translation (any other
    // message as shown): the login screen picks its status symbol and colour by these words
    // in every language.
    Q_PROPERTY(QString errorSourceText READ errorSourceText NOTIFY errorChanged)
    Q_PROPERTY(bool isWaiting READ isWaiting NOTIFY isWaitingChanged)
    Q_PROPERTY(bool isLoggedIn READ isLoggedIn NOTIFY isLoggedInChanged)
    Q_PROPERTY(QString userName READ userName WRITE setUserName NOTIFY userNameChanged)
    Q_PROPERTY(tarnwick::DirItemsModel *dirItems READ dirItemsModel CONSTANT)
    Q_PROPERTY(tarnwick::GroupsModel *groups READ groupsModel CONSTANT)
    Q_PROPERTY(QUrl loginURL READ loginURL CONSTANT)
    Q_PROPERTY(bool isLoading READ isLoading NOTIFY isLoadingChanged)
    Q_PROPERTY(QString menuBarString READ menuBarString NOTIFY menuBarStringChanged)
    Q_PROPERTY(bool backendFailed READ backendFailed NOTIFY backendFailedChanged)
    Q_PROPERTY(bool backendAnswered READ backendAnswered NOTIFY backendAnsweredChanged)

public:
    // Hears how a command ended: nothing on success, else why it failed.
    using Completion = std::function<void(const CommandOutcome &outcome)>;

    // How the client starts. The defaults are the product; tests choose.
    struct Options {
        // Modern behaviour: -pid, runner retry, launch at login on first
        // launch. False selects the older-system paths.
        bool isMacOS13 = true;
        // Whether a second running instance ends this one.
        bool singleInstance = true;
        // Whether construction queues the backend launch.
        bool launchBackend = true;
        // Where lines of the log go (default: standard output).
        std::function<void(const QString &)> log;
        // Shipped resources and the per-user data directory.
        std::function<std::optional<QString>(const QString &)> resources;
        std::function<std::optional<QString>()> dataDirectory;
        // The processor name; default: the kernel's.
        std::optional<QString> architecture;
        // Ends the application (older systems end themselves after a while).
        std::function<void()> terminate;
        std::chrono::milliseconds olderSystemLifetime{600'000};
        // The time source of the model, its launcher, its request client's
        // freshness check and the screens' delays (the system's when null).
        runwarden::Clock *clock = nullptr;
        std::chrono::milliseconds relaunchDelay{1000};
        // The service's web site (the logout page is its /users/logout).
        QString serviceURL;
    };

    ItemsProvider();
    explicit ItemsProvider(Options options, QObject *parent = nullptr);
    ~ItemsProvider() override;

    // Observable state.
    QString error() const { return error_; }
    // Whether the message is the sign-in flow's own line (which the login
    // screen keeps after a sign-in, and a status report need not repeat).
    bool errorIsLoginMessage() const { return !loginMessage_.isEmpty() && error_ == loginMessage_; }
    void setError(const QString &error);
    QString errorSourceText() const { return errorSourceText_; }
    bool isWaiting() const { return isWaiting_; }
    bool isLoggedIn() const { return isLoggedIn_; }
    QString userName() const { return userName_; }
    void setUserName(const QString &userName);
    const std::vector<DirItem> &dirItems() const { return dirItems_->items(); }
    DirItemsModel *dirItemsModel() const { return dirItems_; }
    const std::vector<GroupItem> &groups() const { return groups_->items(); }
    GroupsModel *groupsModel() const { return groups_; }
    QUrl loginURL() const { return loginURL_; }
    bool isLoading() const { return isLoading_; }
    QString menuBarString() const { return menuBarString_; }
    bool backendFailed() const;
    // The backend's replies drive these; screens' tests and previews set
    // them directly to show the model in a known state.
    void setIsLoggedIn(bool value);
    void setIsLoading(bool value);
    void setBackendAnswered(bool answered);
    void setIsWaiting(bool value);

    // Plain state.
    bool isMacOS13() const { return options_.isMacOS13; }
    runwarden::Clock &clock() const { return *clock_; }
    tidepost::PollManager &pm();
    tidepost::BackendSession &session() { return *session_; }
    supervisor::BackendLauncher &launcher() { return *launcher_; }
    int port() const { return port_; }
    const QSet<qint64> &pendingRetentionUpdates() const { return pendingRetentionUpdates_; }
    static constexpr int maxCrashRetries = 3;
    // The login screen's text when no sign-in followed the code.
    static constexpr const char *loginFailedText =
        QT_TRANSLATE_NOOP("tarnwick::ItemsProvider", "Authentication failed. Please retry ...");

    // Merges a backend status report into the folder list.
    void update(const std::vector<DirItem> &dirItems);
    // Reports applied by decoding and merging only the elements that changed since the last
    // one (for tests and benchmarks).
    std::uint64_t reportsAppliedInPart() const { return reportsAppliedInPart_; }
    // The folder list the background ping carries (JSON text). Encoded once per change of the
    // list and reused while it stays as it is.
    const std::string &pingPayload() const;
    // The "ping" command carrying pingPayload(): the same object while the list is unchanged.
    std::shared_ptr<const TypeIDAndData> pingCommand();
    // The ping loop's step: publishes pingCommand() (retried as every command is) and calls
    // done after, whatever the outcome.
    void sendPing(std::function<void()> done);
    // Drops a folder from the local state at once, and again 0.5 s later.
    Q_INVOKABLE void deleteItem(const QString &path);
    Q_INVOKABLE QString walkDirIcon(const QString &path) const;
    void setMenuBarString();
    void markRetentionUpdatePending(qint64 groupID);
    void clearRetentionUpdatePending(qint64 groupID);

    // Commands (built with the functions of Commands.h). publishAndWaitThrows
    // sends one and applies its reply; publishAndWait retries (six attempts),
    // logs only the last failure and tells its caller the final outcome;
    // publish is the gated form the screens use: it returns false (and sends
    // nothing) while another publish is under way, else calls done with the
    // outcome once the command has ended.
    void publishAndWaitThrows(const TypeIDAndData &command, Completion done);
    void publishAndWait(const TypeIDAndData &command, Completion done = {});
    // A command given as a temporary is kept as it is, not copied (a ping carries the whole
    // folder list).
    void publishAndWait(TypeIDAndData &&command, Completion done = {});
    // The same, with no further attempt once *cancelled is true.
    void publishAndWait(const TypeIDAndData &command, Completion done,
                        std::shared_ptr<const bool> cancelled);
    bool publish(const TypeIDAndData &command, Completion done = {});
    // The number of the gated publish under way (0 when none), and its cancellation: a
    // caller that stops waiting (the command line giving up) ends its retries.
    quint64 currentPublish() const;
    void cancelPublish(quint64 number);
    // Whether the backend of the current start has answered a request yet: until then the
    // sign-in state shown is only the initial one.
    bool backendAnswered() const { return backendAnswered_; }
    // The same with the envelope's three strings.
    void publishAndWaitThrows(const QString &type, const QString &id, const QString &data,
                              Completion done);
    void publishAndWait(const QString &type, const QString &id, const QString &data,
                        std::function<void()> done = {});
    Q_INVOKABLE void publish(const QString &type, const QString &id, const QString &data);
    bool publish(const QString &type, const QString &id, const QString &data,
                 std::function<void()> done);
    // The status list's two actions.
    Q_INVOKABLE void openDirPath(const QString &path);
    Q_INVOKABLE void openWeb(const QString &groupID);
    // The login screen's first step. The screen's texts follow the model's
    // rule (the "sent" text also after a failure); done hears the outcome.
    Q_INVOKABLE void requestCodeViaEmail(const QString &email);
    void requestCodeViaEmail(const QString &email, Completion done,
                             std::shared_ptr<const bool> cancelled = {});

    // The login screen's action: sends the code with "auth", shows
    // "Authenticating ..." and, when no sign-in has arrived 5 s later,
    // "Authentication failed. Please retry ...".
    Q_INVOKABLE void performLogin(const QString &code);
    // The same; sent hears the outcome of the "auth" command itself.
    void performLogin(const QString &code, Completion sent);
    // The footer's "Logout": 0.1 s later "logoutAndExit" goes to the backend;
    // when it has answered, quitRequested() asks the application to end.
    // False when another request is under way.
    Q_INVOKABLE bool logout();
    void updateGroupRetentionSettings(const GroupItem &group, Completion done);

    // Starts the backend again after it failed or stopped (the count of
    // crashes starts over).
    Q_INVOKABLE void restartBackend();

    // The log line writer every part of the model uses.
    void log(const QString &line) const;

signals:
    void errorChanged();
    void isWaitingChanged();
    void isLoggedInChanged();
    void userNameChanged();
    void isLoadingChanged();
    void menuBarStringChanged();
    void backendFailedChanged();
    void backendAnsweredChanged();
    // A group list from the backend has been applied.
    void groupsReplaced();
    // A reply told whether a user is signed in (a folder or group list or a
    // "ping" says yes, "auth request" says no).
    void loginStateReported(bool loggedIn);
    // The application should end (after a logout).
    void quitRequested();
    // A sign-in attempt ended without a signed-in user (the login screen
    // shows its failure text).
    void loginFailed();

private:
    void startUp();
    void launchTask();
    void applyReply(const TypeIDAndData &command, tidepost::Exchange &exchange,
                    const Completion &done);
    // Applies a folder report that differs from the last one in a few of its elements only,
    // decoding and merging just those; false (nothing changed) when it cannot.
    // Takes the report into lastReport_ when it applies it (the caller's string gets the last one).
    bool applyChangedElements(std::string &report);
    // After a reply to `command` was applied: when it was a ping that changed the list, posts
    // the writing of the next ping's text.
    void prepareNextPing(const TypeIDAndData &command);
    // isLoading and the menu bar symbol after the folder list changed.
    void refreshLoading();
    void replaceGroups(std::vector<GroupItem> incoming);
    // The command is shared between its attempts, the handlers and the session: a ping's
    // folder list is not copied on its way out.
    void publishAttempt(std::shared_ptr<const TypeIDAndData> command, int attempt, Completion done,
                        std::shared_ptr<const bool> cancelled);
    void publishAndWaitThrows(std::shared_ptr<const TypeIDAndData> command, Completion done);
    // A line of the sign-in flow, `source` in English with %1 for `argument`: shown
    // translated, matched by its English words.
    void setLoginMessage(const char *source, const QString &argument = QString());
    void setOwnError(const char *source, const QString &argument, bool loginMessage);
    QString architecture() const;

    Options options_;
    runwarden::Clock *clock_;
    QString error_;
    // The sign-in flow's last line.
    QString loginMessage_;
    QString errorSourceText_;
    bool isWaiting_ = false;
    bool isLoggedIn_ = true;
    QString userName_;
    DirItemsModel *dirItems_;
    GroupsModel *groups_;
    QUrl loginURL_;
    bool isLoading_ = true;
    QString menuBarString_ = QStringLiteral("arrow.clockwise");
    QSet<qint64> pendingRetentionUpdates_;
    int port_ = 0;
    // The port for the next launch: the current one while free, else a fresh one.
    std::optional<int> choosePort(bool freshNeeded);
    bool destroying_ = false;
    bool backendAnswered_ = false;
    quint64 publishNumber_ = 0;
    std::weak_ptr<bool> publishCancelled_;
    // The ping's folder list as JSON, and the list's revision it was encoded at.
    mutable std::string pingPayload_;
    mutable std::optional<std::uint64_t> pingPayloadRevision_;
    // Where each row's text ends in pingPayload_, and the list's layout it was written for.
    mutable std::vector<std::size_t> pingPayloadRowEnds_;
    mutable std::uint64_t pingPayloadLayout_ = 0;
    mutable std::string pingPayloadSpare_;
    mutable std::vector<std::size_t> pingPayloadRowEndsSpare_;
    // The command of the last ping, or of the next one when it was written ahead while the loop
    // waited, and the list's revision its text was taken at.
    std::shared_ptr<const TypeIDAndData> pingCommand_;
    std::uint64_t pingCommandRevision_ = 0;
    // The last folder report applied, and the list's revision right after it: the same report
    // again on the same list changes nothing, and is not decoded or merged again.
    std::string lastReport_;
    // Reads whole reports for the merge, and the row each element of the last one went to.
    DirItemReader reportReader_;
    bool readingReport_ = false;
    std::vector<std::uint32_t> lastReportRows_;
    std::optional<std::uint64_t> lastReportRevision_;
    // Where the last report's elements lie in its text (found when first needed): a report
    // that differs from it in a few elements is decoded and merged in those elements only.
    std::optional<std::vector<ElementSpan>> lastReportSpans_;
    std::string windowScratch_;
    std::uint64_t reportsAppliedInPart_ = 0;
    // Whether some folder is still syncing, and the list's revision it was found at.
    bool pending_ = false;
    std::optional<std::uint64_t> pendingRevision_;
    std::unique_ptr<tidepost::BackendSession> session_;
    std::unique_ptr<supervisor::BackendLauncher> launcher_;
};

} // namespace tarnwick
