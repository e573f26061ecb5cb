// The client's model: start-up, status merging, the reply shapes and every
// command, against a scripted backend endpoint on loopback.
#include "BackendSession.h"
#include "DirItemsModel.h"
#include "FakeBackend.h"
#include "ItemsProvider.h"
#include "LaunchAtLogin.h"
#include "PollManager.h"
#include "RecordBuilders.h"
#include "SettingsActions.h"

#include <QCoreApplication>
#include <QFile>
#include <QSettings>
#include <QSignalSpy>

#include <QTemporaryDir>
#include <QTest>
#include <random>

#include <atomic>
#include <thread>

#include <unistd.h>

using namespace tarnwick;
using tarnwick::test::folder;
using tarnwick::test::group;

namespace {

// One model with a scripted backend listening on its port.
struct Fixture {
    QStringList log;
    // Real timers; a wall time that the backend's replies move on.
    FakeBackendClock clock;
    std::unique_ptr<ItemsProvider> provider;
    std::unique_ptr<FakeBackend> backend;

    explicit Fixture(bool listen = true, bool modern = true) {
        ItemsProvider::Options options;
        options.launchBackend = false;
        options.singleInstance = false;
        options.isMacOS13 = modern;
        options.log = [this](const QString &line) { log << line; };
        options.clock = &clock;
        provider = std::make_unique<ItemsProvider>(options);
        backend = std::make_unique<FakeBackend>(provider->pm().kes.LocalPublicKey());
        backend->stampFrom(clock);
        provider->pm().kes.setExternalPublicKey(backend->publicKey());
        if (listen && !backend->listen(provider->port())) {
            qFatal("could not listen on the model's port");
        }
    }

    ~Fixture() {
        // The client goes first, closing its kept-alive connection, so the
        // server stops at once.
        provider.reset();
        backend.reset();
    }

    // Runs one publishAndWaitThrows to its end.
    std::optional<tidepost::Error> call(const QString &type, const QString &id = {},
                                        const QString &data = {}) {
        std::optional<std::optional<tidepost::Error>> result;
        provider->publishAndWaitThrows(
            type, id, data, [&](const std::optional<tidepost::Error> &error) { result = error; });
        if (!QTest::qWaitFor([&] { return result.has_value(); }, 10000)) {
            qFatal("request did not end");
        }
        return *result;
    }
    void answer(const std::string &plaintext) {
        backend->setHandler(
            [plaintext](const FakeRequest &) { return FakeReply::sealed(plaintext); });
    }
    int count(const QString &line) const { return int(log.count(line)); }
};

} // namespace

class ItemsProviderTest : public QObject {
    Q_OBJECT
    QTemporaryDir home_;

private slots:
    void initTestCase() {
        // Settings and the autostart entry go to a home of the test's own,
        // also when the test is run by hand outside CTest.
        QVERIFY(home_.isValid());
        for (const char *name :
             {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME"}) {
            qputenv(name, home_.filePath(QString::fromLatin1(name)).toUtf8());
        }
    }

    void initialState() {
        Fixture f(false);
        ItemsProvider &p = *f.provider;
        QCOMPARE(p.error(), QString());
        QVERIFY(!p.isWaiting());
        QVERIFY(p.isLoggedIn());
        QVERIFY(p.isLoading());
        QCOMPARE(p.menuBarString(), "arrow.clockwise");
        QCOMPARE(p.loginURL().path(), "/users/logout");
        QVERIFY(p.port() >= 8001 && p.port() < 9000);
        QVERIFY(p.dirItems().empty());
        QVERIFY(p.groups().empty());
    }

    void commandLineOrder() {
        Fixture modern(false, true);
        const QStringList args = modern.provider->pm().processManager().arguments();
        QCOMPARE(args.size(), 3);
        QCOMPARE(args[0], QStringLiteral("-pid=%1").arg(::getpid()));
        QCOMPARE(args[1],
                 "-token=" + QString::fromStdString(modern.provider->pm().kes.LocalPublicKey()));
        QCOMPARE(args[2], QStringLiteral("-port=%1").arg(modern.provider->port()));

        Fixture older(false, false);
        const QStringList olderArgs = older.provider->pm().processManager().arguments();
        QCOMPARE(olderArgs.size(), 2);
        QVERIFY(olderArgs[0].startsWith("-token="));
    }

    void firstLaunchSwitchesLaunchAtLoginOnOnce() {
        QSettings(QStringLiteral("tarnwick"), QStringLiteral("tarnwick")).clear();
        QFile::remove(LaunchAtLogin::entryPath());
        { Fixture f(false, true); }
        QVERIFY(LaunchAtLogin::isEnabled());
        QVERIFY(QSettings(QStringLiteral("tarnwick"), QStringLiteral("tarnwick"))
                    .value("hasLaunchedBefore")
                    .toBool());
        // The user switches it off; later launches leave it off.
        LaunchAtLogin::setEnabled(false);
        { Fixture f(false, true); }
        QVERIFY(!LaunchAtLogin::isEnabled());
    }

    void olderSystemsEndAfterTheirLifetime() {
        QSettings(QStringLiteral("tarnwick"), QStringLiteral("tarnwick")).clear();
        QFile::remove(LaunchAtLogin::entryPath());
        bool terminated = false;
        ItemsProvider::Options options;
        options.isMacOS13 = false;
        options.launchBackend = false;
        options.singleInstance = false;
        options.log = [](const QString &) {};
        options.olderSystemLifetime = std::chrono::milliseconds(50);
        options.terminate = [&] { terminated = true; };
        ItemsProvider provider(options);
        QVERIFY(QTest::qWaitFor([&] { return terminated; }, 5000));
        QVERIFY(!LaunchAtLogin::isEnabled()); // no first-launch switch on older systems
    }

    void uploadLineShowsUnderTheStepHeadline() {
        Fixture f(false);
        f.provider->update({folder("/a", "2 of 6 - Uploading files (3)\n(older upload line)")});
        f.provider->update({folder("/a", "2 of 6 - Uploading file (report.pdf) 40%")});
        QCOMPARE(f.provider->dirItems().size(), 1u);
        QCOMPARE(f.provider->dirItems()[0].status,
                 std::string("2 of 6 - Uploading files (3)\nUploading file (report.pdf) 40%"));
    }

    void uploadLineForAnUnknownPathIsAppendedAsIs() {
        Fixture f(false);
        f.provider->update({folder("/known", "Up to date")});
        f.provider->update({folder("/new", "2 of 6 - Uploading file (a.txt)")});
        QCOMPARE(f.provider->dirItems().size(), 2u);
        QCOMPARE(f.provider->dirItems()[1].status, std::string("2 of 6 - Uploading file (a.txt)"));
    }

    void otherStatusesReplaceWholeRecords() {
        Fixture f(false);
        f.provider->update({folder("/a", "2 of 6 - Uploading files", 1)});
        f.provider->update({folder("/a", "3 of 6 - Checking", 2)});
        QCOMPARE(f.provider->dirItems()[0].status, std::string("3 of 6 - Checking"));
        QCOMPARE(f.provider->dirItems()[0].groupID, 2);
        // Entries missing from a report stay.
        f.provider->update({folder("/b", "Up to date")});
        QCOMPARE(f.provider->dirItems().size(), 2u);
    }

    void loadingSettlesWhenEverythingIsUpToDate() {
        Fixture f(false);
        QSignalSpy icon(f.provider.get(), &ItemsProvider::menuBarStringChanged);
        f.provider->update({folder("/a", "3 of 6 - Checking"), folder("/b", "Up to date")});
        QVERIFY(f.provider->isLoading());
        QCOMPARE(icon.count(), 0);
        f.provider->update({folder("/a", "Up to date"), folder("/b", "Server status check ...")});
        QVERIFY(!f.provider->isLoading());
        QCOMPARE(f.provider->menuBarString(), "internaldrive");
        QCOMPARE(icon.count(), 1);
        f.provider->update({folder("/a", "Up to date"), folder("/b", "Server status check ...")});
        QCOMPARE(icon.count(), 1); // nothing changed, nothing announced
        f.provider->update({folder("/a", "1 of 6 - Scanning files (10)")});
        QVERIFY(f.provider->isLoading());
        QCOMPARE(f.provider->menuBarString(), "arrow.clockwise");
    }

    void walkDirIcon() {
        Fixture f(false);
        QCOMPARE(f.provider->walkDirIcon("/unknown"), "internaldrive");
        f.provider->update({folder("/a", "4 of 6 - Indexing")});
        QCOMPARE(f.provider->walkDirIcon("/a"), "arrow.clockwise");
        f.provider->update({folder("/a", "Up to date")});
        QCOMPARE(f.provider->walkDirIcon("/a"), "internaldrive");
    }

    void aReportInAnotherOrderUpdatesTheRightRows() {
        // Rows are matched by path wherever a folder stands in the report: a report that lists
        // the folders in another order, or with one more in front, changes the rows whose
        // records changed and no others, and the list keeps its own order.
        Fixture f(false);
        f.provider->update({folder("/a", "Up to date", 1), folder("/b", "Up to date", 1),
                            folder("/c", "Up to date", 1)});
        QSignalSpy changed(f.provider->dirItemsModel(), &QAbstractItemModel::dataChanged);
        f.provider->update({folder("/c", "1 of 6 - Scanning", 1), folder("/a", "Up to date", 1),
                            folder("/b", "Up to date", 3)});
        const auto &items = f.provider->dirItems();
        QCOMPARE(items.size(), 3u);
        QCOMPARE(items[0].path, std::string("/a"));
        QCOMPARE(items[0].status, std::string("Up to date"));
        QCOMPARE(items[1].groupID, 3);
        QCOMPARE(items[2].status, std::string("1 of 6 - Scanning"));
        QCOMPARE(changed.count(), 1);
        QCOMPARE(changed[0][0].value<QModelIndex>().row(), 1);
        QCOMPARE(changed[0][1].value<QModelIndex>().row(), 2);
        changed.clear();
        f.provider->update({folder("/new", "Up to date", 1), folder("/a", "Up to date", 1),
                            folder("/b", "Up to date", 3), folder("/c", "Up to date", 1)});
        QCOMPARE(items.size(), 4u);
        QCOMPARE(items[3].path, std::string("/new"));
        QCOMPARE(items[2].status, std::string("Up to date"));
        QCOMPARE(changed.count(), 1);
        QCOMPARE(changed[0][0].value<QModelIndex>().row(), 2);
        QCOMPARE(changed[0][1].value<QModelIndex>().row(), 2);
    }

    void bigReportChangingOneStatusSignalsOneRow() {
        Fixture f(false);
        std::vector<DirItem> report;
        for (int i = 0; i < 10000; ++i) {
            report.push_back(folder("/data/folder" + std::to_string(i), "Up to date"));
        }
        f.provider->update(report);
        QCOMPARE(f.provider->dirItemsModel()->rowCount(), 10000);
        QSignalSpy changed(f.provider->dirItemsModel(), &QAbstractItemModel::dataChanged);
        QSignalSpy reset(f.provider->dirItemsModel(), &QAbstractItemModel::modelReset);
        QSignalSpy inserted(f.provider->dirItemsModel(), &QAbstractItemModel::rowsInserted);
        report[4321].status = "1 of 6 - Scanning files (2)";
        f.provider->update(report);
        QCOMPARE(reset.count(), 0);
        QCOMPARE(inserted.count(), 0);
        QCOMPARE(changed.count(), 1);
        QCOMPARE(changed[0][0].value<QModelIndex>().row(), 4321);
        QCOMPARE(changed[0][1].value<QModelIndex>().row(), 4321);
        QCOMPARE(f.provider->dirItemsModel()
                     ->data(f.provider->dirItemsModel()->index(4321), DirItemsModel::ProgressRole)
                     .toDouble(),
                 0.15);
    }

    void pingPayloadIsEncodedOncePerChange() {
        Fixture f(false);
        f.provider->update({folder("/a", "Up to date"), folder("/b", "4 of 6 - Indexing")});
        const std::string &first = f.provider->pingPayload();
        QCOMPARE(first, encodeDirItems(f.provider->dirItems()));
        const char *buffer = first.data();
        // Unchanged list: the same text, not written again.
        f.provider->update({folder("/a", "Up to date")});
        QCOMPARE(f.provider->pingPayload().data(), buffer);
        QCOMPARE(f.provider->pingPayload(), encodeDirItems(f.provider->dirItems()));
        // A changed status, a new folder, a removed folder: each shows in the next payload.
        f.provider->update({folder("/b", "Up to date")});
        QCOMPARE(f.provider->pingPayload(), encodeDirItems(f.provider->dirItems()));
        QVERIFY(QByteArray::fromStdString(f.provider->pingPayload()).contains("Up to date"));
        QVERIFY(!QByteArray::fromStdString(f.provider->pingPayload()).contains("Indexing"));
        f.provider->update({folder("/c", "Up to date")});
        QVERIFY(QByteArray::fromStdString(f.provider->pingPayload()).contains("\"/c\""));
        f.provider->deleteItem("/a");
        QCOMPARE(f.provider->pingPayload(), encodeDirItems(f.provider->dirItems()));
        QVERIFY(!QByteArray::fromStdString(f.provider->pingPayload()).contains("\"/a\""));
    }

    void pingCommandIsTheSameWhileTheListIsUnchanged() {
        Fixture f(false);
        f.provider->update({folder("/a", "Up to date"), folder("/b", "4 of 6 - Indexing")});
        const std::shared_ptr<const TypeIDAndData> first = f.provider->pingCommand();
        QCOMPARE(first->type, std::string("ping"));
        QCOMPARE(first->id, std::string());
        QCOMPARE(first->data, encodeDirItems(f.provider->dirItems()));
        // The same report again leaves the list as it is: the same command goes out.
        f.provider->update({folder("/a", "Up to date"), folder("/b", "4 of 6 - Indexing")});
        QCOMPARE(f.provider->pingCommand(), first);
        // A change gives a new command with the new text; the one sent before stays as it was.
        const std::string before = first->data;
        f.provider->update({folder("/b", "Up to date")});
        const std::shared_ptr<const TypeIDAndData> second = f.provider->pingCommand();
        QVERIFY(second != first);
        QCOMPARE(second->data, encodeDirItems(f.provider->dirItems()));
        QCOMPARE(first->data, before);
        f.provider->deleteItem("/a");
        QCOMPARE(f.provider->pingCommand()->data, encodeDirItems(f.provider->dirItems()));
        QVERIFY(!QByteArray::fromStdString(f.provider->pingCommand()->data).contains("\"/a\""));
    }

    void theNextPingIsWrittenWhileTheLoopWaits() {
        // A reply that changes the list has the next ping's text written soon after, not when
        // the ping is due; the ping then carries the list as it is when it leaves.
        Fixture f;
        std::vector<std::string> sent;
        std::string report = encodeDirItems({folder("/a", "1 of 6 - x"), folder("/b", "y")});
        f.backend->setHandler([&](const FakeRequest &request) {
            sent.push_back(request.data);
            return FakeReply::sealed(report);
        });
        const auto ping = [&f] {
            bool done = false;
            f.provider->sendPing([&done] { done = true; });
            if (!QTest::qWaitFor([&done] { return done; }, 10000)) {
                qFatal("ping did not end");
            }
        };
        ping();
        QCOMPARE(f.provider->dirItems().size(), 2u);
        report = encodeDirItems({folder("/a", "2 of 6 - x"), folder("/b", "y")});
        ping();
        QCoreApplication::processEvents();
        // Had it not been written, asking for it now would make a new command, one that the
        // session has not seen.
        const std::shared_ptr<const TypeIDAndData> next = f.provider->pingCommand();
        QVERIFY(f.provider->session().isPrepared(next));
        QCOMPARE(next->data, encodeDirItems(f.provider->dirItems()));
        ping();
        QCOMPARE(sent.back(), encodeDirItems({folder("/a", "2 of 6 - x"), folder("/b", "y")}));
        // The same after a report that changes too much to be read in part (read whole).
        const std::uint64_t inPart = f.provider->reportsAppliedInPart();
        report = encodeDirItems(
            {folder("/a", "Up to date"), folder("/b", "Checking"), folder("/c", "1 of 6 - new")});
        ping();
        QCOMPARE(f.provider->reportsAppliedInPart(), inPart);
        QCoreApplication::processEvents();
        QVERIFY(f.provider->session().isPrepared(f.provider->pingCommand()));
        ping();
        QCOMPARE(sent.back(), report);
        // A folder removed after the text was written is not in the ping.
        report = encodeDirItems({folder("/a", "3 of 6 - x"), folder("/b", "y"), folder("/c", "z")});
        ping();
        QCoreApplication::processEvents();
        QVERIFY(f.provider->session().isPrepared(f.provider->pingCommand()));
        f.provider->deleteItem("/b");
        ping();
        QCOMPARE(sent.back(), encodeDirItems({folder("/a", "3 of 6 - x"), folder("/c", "z")}));
    }

    void aPingIsDoneWhenItsReplyIsReadAndTheListFollowsAtOnce() {
        // The ping loop starts its wait when the ping is done, which is as soon as its reply is
        // read as a folder list; the list is merged right after, before anything else runs.
        Fixture f;
        f.answer(encodeDirItems({folder("/a", "Up to date"), folder("/b", "1 of 6 - x")}));
        std::optional<std::size_t> atDone, atNextEvent;
        f.provider->sendPing([&] {
            atDone = f.provider->dirItems().size();
            QMetaObject::invokeMethod(
                f.provider.get(), [&] { atNextEvent = f.provider->dirItems().size(); },
                Qt::QueuedConnection);
        });
        QVERIFY(QTest::qWaitFor([&] { return atNextEvent.has_value(); }, 10000));
        QCOMPARE(*atDone, 0u);
        QCOMPARE(*atNextEvent, 2u);
        QVERIFY(f.provider->isLoggedIn());
    }

    void pingPayloadRewritesOnlyChangedRowsAndStaysTheListsText() {
        // A long run of reports that change some rows, add folders, repeat themselves, and of
        // removals: after each, the payload is exactly the list's own text.
        Fixture f(false);
        std::mt19937 rng(5);
        std::vector<DirItem> report;
        for (int i = 0; i < 300; ++i) {
            report.push_back(folder("/data/f" + std::to_string(i), "Up to date", 1 + i % 4));
        }
        f.provider->update(report);
        QCOMPARE(f.provider->pingPayload(), encodeDirItems(f.provider->dirItems()));
        for (int round = 0; round < 200; ++round) {
            const int kind = round % 5;
            if (kind == 0 || kind == 1) {
                for (int k = 0; k < 1 + round % 7; ++k) {
                    DirItem &item = report[rng() % report.size()];
                    item.status = "3 of 6 - \"" + std::to_string(rng() % 1000) + "\" Документы";
                    if (k == 2) {
                        item.error = "denied";
                    }
                }
            } else if (kind == 2) {
                report.push_back(folder("/data/new" + std::to_string(round), "1 of 6 - x"));
            } else if (kind == 3 && f.provider->dirItems().size() > 10) {
                const std::string path =
                    f.provider->dirItems()[rng() % f.provider->dirItems().size()].path;
                f.provider->deleteItem(QString::fromStdString(path));
                std::erase_if(report, [&](const DirItem &item) { return item.path == path; });
            }
            f.provider->update(report);
            QVERIFY2(f.provider->pingPayload() == encodeDirItems(f.provider->dirItems()),
                     std::to_string(round).c_str());
        }
    }

    void sameReportAgainChangesNothingAndSignalsNothing() {
        Fixture f;
        const std::string report =
            encodeDirItems({folder("/a", "Up to date"), folder("/b", "4 of 6 - Indexing")});
        f.answer(report);
        QVERIFY(!f.call("ping", "", "[]"));
        QCOMPARE(f.provider->dirItems().size(), 2u);
        QSignalSpy changed(f.provider->dirItemsModel(), &QAbstractItemModel::dataChanged);
        QSignalSpy inserted(f.provider->dirItemsModel(), &QAbstractItemModel::rowsInserted);
        QSignalSpy loggedIn(f.provider.get(), &ItemsProvider::loginStateReported);
        QVERIFY(!f.call("ping", "", "[]"));
        QCOMPARE(changed.count(), 0);
        QCOMPARE(inserted.count(), 0);
        // The reply still says a user is signed in.
        QCOMPARE(loggedIn.count(), 1);
        QCOMPARE(loggedIn[0][0].toBool(), true);
        // A folder dropped here in the meantime comes back with the same report, as with any
        // report already on its way: the list it was applied to has changed.
        f.provider->deleteItem("/b");
        QCOMPARE(f.provider->dirItems().size(), 1u);
        QVERIFY(!f.call("ping", "", "[]"));
        QCOMPARE(f.provider->dirItems().size(), 2u);
        QCOMPARE(inserted.count(), 1);
        // One status moving is applied.
        f.answer(encodeDirItems({folder("/a", "Up to date"), folder("/b", "Up to date")}));
        QVERIFY(!f.call("ping", "", "[]"));
        QCOMPARE(f.provider->dirItems()[1].status, std::string("Up to date"));
        QVERIFY(!f.provider->isLoading());
    }

    void everyFieldOfAKnownFolderFollowsTheReport() {
        // Each field on its own, then all at once: the row ends equal to the report's record.
        Fixture f(false);
        const DirItem base = folder("/a", "Up to date", 3);
        f.provider->update({base, folder("/b", "Up to date")});
        std::vector<DirItem> variants(5, base);
        variants[0].status = "2 of 6 - Scanning";
        variants[1].name = "Renamed";
        variants[2].error = "open /a: permission denied";
        variants[3].groupID = 9;
        variants[4].enabled = false;
        DirItem all = base;
        all.status = "4 of 6 - Indexing";
        all.name = "Other";
        all.error = "disk full";
        all.groupID = 12;
        all.enabled = false;
        variants.push_back(all);
        variants.push_back(base);
        for (const DirItem &variant : variants) {
            f.provider->update({variant, folder("/b", "Up to date")});
            QVERIFY(DirItemsModel::sameRecord(f.provider->dirItems()[0], variant));
            QVERIFY(
                DirItemsModel::sameRecord(f.provider->dirItems()[1], folder("/b", "Up to date")));
        }
    }

    void sameUploadReportAgainMergesAsTheRuleSays() {
        // An upload line that replaced a status before the upload started is merged again when
        // the same report comes back: the line already shown is then the headline above it.
        Fixture f;
        f.answer(encodeDirItems({folder("/a", "1 of 6 - Checking changes")}));
        QVERIFY(!f.call("ping", "", "[]"));
        f.answer(encodeDirItems({folder("/a", "2 of 6 - Uploading file (a.txt)")}));
        QVERIFY(!f.call("ping", "", "[]"));
        QCOMPARE(f.provider->dirItems()[0].status, std::string("2 of 6 - Uploading file (a.txt)"));
        QSignalSpy changed(f.provider->dirItemsModel(), &QAbstractItemModel::dataChanged);
        QVERIFY(!f.call("ping", "", "[]"));
        QCOMPARE(f.provider->dirItems()[0].status,
                 std::string("2 of 6 - Uploading file (a.txt)\nUploading file (a.txt)"));
        QCOMPARE(changed.count(), 1);
        // From there on the same report changes nothing.
        QVERIFY(!f.call("ping", "", "[]"));
        QVERIFY(!f.call("ping", "", "[]"));
        QCOMPARE(f.provider->dirItems()[0].status,
                 std::string("2 of 6 - Uploading file (a.txt)\nUploading file (a.txt)"));
        QCOMPARE(changed.count(), 1);
    }

    void reportNamingAFolderTwiceIsMergedEveryTime() {
        // Both entries merge into the one row, each time the report comes.
        Fixture f;
        f.answer(encodeDirItems({folder("/a", "2 of 6 - Scanning")}));
        QVERIFY(!f.call("ping", "", "[]"));
        const std::string twice = encodeDirItems(
            {folder("/a", "3 of 6 - Checking"), folder("/a", "2 of 6 - Uploading file (b)")});
        f.answer(twice);
        QVERIFY(!f.call("ping", "", "[]"));
        QCOMPARE(f.provider->dirItems()[0].status, std::string("2 of 6 - Uploading file (b)"));
        QVERIFY(!f.provider->dirItemsModel()->lastMergeSettled());
        QVERIFY(!f.call("ping", "", "[]"));
        QCOMPARE(f.provider->dirItems()[0].status, std::string("2 of 6 - Uploading file (b)"));
        QCOMPARE(f.provider->dirItems().size(), 1u);
    }

    void reportsThatChangeAFewFoldersMergeAsWholeReportsWould() {
        // Reports that move a few statuses (applied element by element), with now and then a
        // folder added, left out or moved, a folder named twice, spaces between the elements,
        // upload lines, texts that look like JSON, or a folder dropped here: after each, the
        // list is what merging every report whole gives.
        Fixture f;
        DirItemsModel reference;
        std::mt19937 rng(11);
        const std::vector<std::string> statuses = {
            "Up to date",         "1 of 6 - Checking \"x\" },{ [",
            "2 of 6 - Scanning",  "2 of 6 - Uploading file (a \\\"b\\\")",
            "3 of 6 - Документы", "2 of 6 - Uploading file (c.txt) 40%"};
        std::vector<DirItem> report;
        int added = 0;
        for (; added < 60; ++added) {
            report.push_back(
                folder("/data/f" + std::to_string(added), "Up to date", 1 + added % 3));
        }
        const auto spaced = [](const std::vector<DirItem> &items) {
            std::string text = "[\n  ";
            for (std::size_t i = 0; i < items.size(); ++i) {
                if (i != 0) {
                    text += " ,\n  ";
                }
                appendDirItemJSON(text, items[i]);
            }
            return text + "\n]\n";
        };
        for (int round = 0; round < 400; ++round) {
            const int kind = round % 10;
            if (kind < 6) {
                for (int k = 0; k < 1 + round % 3; ++k) {
                    DirItem &item = report[rng() % report.size()];
                    item.status = statuses[rng() % statuses.size()];
                    if (k == 1) {
                        item.error =
                            rng() % 2 ? std::optional<std::string>("denied \"},{\"") : std::nullopt;
                    }
                }
            } else if (kind == 6) {
                report.push_back(folder("/data/f" + std::to_string(added++), statuses[1]));
            } else if (kind == 7 && report.size() > 10) {
                report.erase(report.begin() + static_cast<std::ptrdiff_t>(rng() % report.size()));
            } else if (kind == 8) {
                std::swap(report[rng() % report.size()], report[rng() % report.size()]);
            } else if (kind == 9 && report.size() > 10) {
                const std::size_t at = rng() % report.size();
                const std::string path = report[at].path;
                report.erase(report.begin() + static_cast<std::ptrdiff_t>(at));
                f.provider->deleteItem(QString::fromStdString(path));
                reference.removePath(path);
            }
            std::vector<DirItem> sent = report;
            if (round % 17 == 0) {
                sent.push_back(report[rng() % report.size()]); // named twice
                sent.back().status = statuses[5];
            }
            const std::string text = round % 13 == 0 ? spaced(sent) : encodeDirItems(sent);
            f.answer(text);
            QVERIFY(!f.call("ping", "", "[]"));
            reference.merge(decodeDirItems(text));
            QVERIFY2(encodeDirItems(f.provider->dirItems()) == encodeDirItems(reference.items()),
                     std::to_string(round).c_str());
        }
        // Many of them were applied in part (the others followed a layout change, an upload
        // line not yet settled, a folder named twice, or changed too much).
        QVERIFY2(f.provider->reportsAppliedInPart() > 50,
                 std::to_string(f.provider->reportsAppliedInPart()).c_str());
    }

    void aReportThatMovesOneStatusIsAppliedInPart() {
        Fixture f;
        std::vector<DirItem> report;
        for (int i = 0; i < 100; ++i) {
            report.push_back(folder("/data/f" + std::to_string(i), "4 of 6 - Indexing", 1));
        }
        f.answer(encodeDirItems(report));
        QVERIFY(!f.call("ping", "", "[]"));
        QCOMPARE(f.provider->reportsAppliedInPart(), 0u);
        QSignalSpy changed(f.provider->dirItemsModel(), &QAbstractItemModel::dataChanged);
        // Neighbours one after the other, and one far off: each text is shorter than the last,
        // so what follows a changed element moves.
        for (const int row : {17, 18, 19, 16, 80, 20}) {
            report[std::size_t(row)].status = "Up to date";
            f.answer(encodeDirItems(report));
            QVERIFY(!f.call("ping", "", "[]"));
            QCOMPARE(f.provider->reportsAppliedInPart(), std::uint64_t(changed.count()));
            QCOMPARE(changed.last()[0].value<QModelIndex>().row(), row);
            QCOMPARE(f.provider->dirItems()[std::size_t(row)].status, std::string("Up to date"));
        }
        QCOMPARE(changed.count(), 6);
        QCOMPARE(encodeDirItems(f.provider->dirItems()), encodeDirItems(report));
    }

    void aReplyThatIsNotAReportLeavesTheNextReportToTheWholeDecode() {
        // A reply that starts like a report but is none changes nothing; a report after it
        // that names a folder twice is merged as a whole, not in part.
        Fixture f;
        std::vector<DirItem> first = {folder("/a", "4 of 6 - Indexing"),
                                      folder("/b", "4 of 6 - Indexing"),
                                      folder("/c", "Up to date")};
        for (int i = 0; i < 20; ++i) {
            first.push_back(folder("/more/f" + std::to_string(i), "Up to date"));
        }
        f.answer(encodeDirItems(first));
        QVERIFY(!f.call("ping", "", "[]"));
        f.answer("[{\"Path\":\"/c\"}]");
        QVERIFY(f.call("getGroups").has_value());
        std::vector<DirItem> second = first;
        second[0].path = "/c";
        second[0].status = "1 of 6 - Checking";
        f.answer(encodeDirItems(second));
        QVERIFY(!f.call("ping", "", "[]"));
        DirItemsModel reference;
        reference.merge(first);
        reference.merge(second);
        QCOMPARE(encodeDirItems(f.provider->dirItems()), encodeDirItems(reference.items()));
        QCOMPARE(f.provider->dirItems()[2].status, std::string("Up to date"));
    }

    void aReportWithABadLastRecordChangesNothing() {
        // Every record is read and checked before the first is merged: a report whose last
        // record is broken moves no status of the good records before it.
        Fixture f;
        const std::vector<DirItem> first = {folder("/a", "4 of 6 - Indexing"),
                                            folder("/b", "Up to date")};
        f.answer(encodeDirItems(first));
        QVERIFY(!f.call("ping", "", "[]"));
        QSignalSpy changed(f.provider->dirItemsModel(), &QAbstractItemModel::dataChanged);
        QSignalSpy inserted(f.provider->dirItemsModel(), &QAbstractItemModel::rowsInserted);
        std::string broken = encodeDirItems({folder("/a", "Up to date"), folder("/c", "new")});
        broken.insert(broken.size() - 1, R"(,{"Path":"/d","Enabled":"yes"})");
        f.answer(broken);
        const auto error = f.call("ping", "", "[]");
        QVERIFY(error);
        QCOMPARE(error->description, std::string("decodeError"));
        QCOMPARE(encodeDirItems(f.provider->dirItems()), encodeDirItems(first));
        QCOMPARE(changed.count(), 0);
        QCOMPARE(inserted.count(), 0);
        // The last good report still stands: the next, which moves one status, is read in that
        // element only.
        const std::uint64_t inPart = f.provider->reportsAppliedInPart();
        const std::vector<DirItem> next = {folder("/a", "Up to date"), folder("/b", "Up to date")};
        f.answer(encodeDirItems(next));
        QVERIFY(!f.call("ping", "", "[]"));
        QCOMPARE(encodeDirItems(f.provider->dirItems()), encodeDirItems(next));
        QCOMPARE(f.provider->reportsAppliedInPart(), inPart + 1);
    }

    void deleteItemRemovesFromEveryGroupAndAgainLater() {
        Fixture f;
        f.answer(encodeGroupItems(
            {group(1, "Personal", {"/shared", "/mine"}), group(2, "Family", {"/shared"})}));
        QVERIFY(!f.call("getGroups"));
        f.provider->update({folder("/shared", "Up to date"), folder("/mine", "Up to date")});

        f.provider->deleteItem("/shared");
        QCOMPARE(f.provider->groups()[0].walkPaths, std::vector<std::string>{"/mine"});
        QVERIFY(f.provider->groups()[1].walkPaths.empty());
        QCOMPARE(f.provider->dirItems().size(), 1u);
        // A report already in flight brings it back; the repeat drops it again.
        f.provider->update({folder("/shared", "Up to date")});
        QCOMPARE(f.provider->dirItems().size(), 2u);
        QTRY_COMPARE_WITH_TIMEOUT(f.provider->dirItems().size(), 1u, 2000);
        QCOMPARE(f.provider->dirItems()[0].path, std::string("/mine"));
    }

    void folderReportLogsIn() {
        Fixture f;
        f.answer(R"({"Type":"auth request","ID":"","Data":""})");
        QVERIFY(!f.call("getGroups"));
        QVERIFY(!f.provider->isLoggedIn());
        // An empty array is an empty folder report: nothing changes, but the
        // user is signed in again.
        f.answer("[]");
        QVERIFY(!f.call("ping", {}, "[]"));
        QVERIFY(f.provider->isLoggedIn());
        QVERIFY(f.provider->dirItems().empty());
    }

    void pingWithNoFoldersSettlesLoading() {
        Fixture f;
        f.answer(R"({"Type":"auth request","ID":"","Data":""})");
        QVERIFY(!f.call("ping"));
        f.answer(R"({"Type":"ping","ID":"","Data":""})");
        QVERIFY(!f.call("ping"));
        QVERIFY(f.provider->isLoggedIn());
        QVERIFY(!f.provider->isLoading());
        QCOMPARE(f.provider->menuBarString(), "internaldrive");
    }

    void unknownBackendMessage() {
        Fixture f;
        f.answer(R"({"Type":"surprise","ID":"","Data":""})");
        const auto error = f.call("getGroups");
        QVERIFY(error);
        QCOMPARE(error->domain, std::string("TarnwickError"));
        QCOMPARE(error->description, std::string("unknownRequestType"));
    }

    void successStatusChangesNothing() {
        Fixture f;
        f.provider->update({folder("/a", "Up to date")});
        f.answer(R"({"status":"success"})");
        QVERIFY(!f.call("addWatchDir", "Personal", "/tmp"));
        QCOMPARE(f.provider->dirItems().size(), 1u);
        QVERIFY(f.provider->isLoggedIn());
        QCOMPARE(f.backend->requests().back().id, std::string("Personal"));
        QCOMPARE(f.backend->requests().back().data, std::string("/tmp"));
    }

    void serverErrorIsReported() {
        Fixture f;
        f.answer(R"({"status":"error","error":"Unknown group"})");
        const auto error = f.call("addWatchDir", "Nope", "/tmp");
        QVERIFY(error);
        QCOMPARE(error->domain, std::string("ServerError"));
        QCOMPARE(error->code, 1);
        QCOMPARE(error->description, std::string("Unknown group"));
        QCOMPARE(f.count("Server error for type 'addWatchDir': Unknown group"), 1);
        // A failure without a reason is a reply that matches nothing.
        f.answer(R"({"status":"error"})");
        QCOMPARE(f.call("getGroups")->description, std::string("decodeError"));
        f.answer(R"({"Status":"success"})");
        QCOMPARE(f.call("getGroups")->description, std::string("decodeError"));
    }

    void openDirPathAcceptsAnEmptyReply() {
        Fixture f;
        f.backend->setHandler([](const FakeRequest &) { return FakeReply::raw(""); });
        QVERIFY(!f.call("openDirPath", "/a"));
        QCOMPARE(f.call("getGroups")->description, std::string("decodeError"));
        f.answer("not json at all");
        QVERIFY(!f.call("openDirPath", "/a"));
        QCOMPARE(f.call("getGroups")->description, std::string("decodeError"));
    }

    void repliesWithAStaleTimestampAreRefused() {
        Fixture f;
        f.backend->setHandler([](const FakeRequest &) {
            FakeReply reply = FakeReply::sealed(R"({"Type":"auth request","ID":"","Data":""})");
            reply.timestampOffsetMs = -1000;
            return reply;
        });
        QCOMPARE(f.call("getGroups")->description, std::string("decodeError"));
        QVERIFY(f.provider->isLoggedIn());
        QVERIFY(f.log.filter("authTimestamp error:").size() >= 1);
    }

    void httpFailureIsATransportError() {
        Fixture f;
        f.backend->setHandler([](const FakeRequest &) { return FakeReply::raw("", 500); });
        const auto error = f.call("getGroups");
        QVERIFY(error);
        QCOMPARE(error->description, std::string("publishFailure"));
    }

    void publishIsSingleFlight() {
        Fixture f;
        f.answer(R"({"status":"success"})");
        QSignalSpy waiting(f.provider.get(), &ItemsProvider::isWaitingChanged);
        f.provider->publish("getGroups", {}, {});
        QVERIFY(f.provider->isWaiting());
        f.provider->publish("openWeb", "2", {});
        QCOMPARE(f.count("Publish request ignored.  Waiting for previous request to finish ..."),
                 1);
        QTRY_VERIFY_WITH_TIMEOUT(!f.provider->isWaiting(), 10000);
        QCOMPARE(f.backend->requestCount("getGroups"), 1);
        QCOMPARE(f.backend->requestCount("openWeb"), 0);
        QCOMPARE(waiting.count(), 2);
    }

    void publishAndWaitTriesSixTimesAndWarnsOnce() {
        Fixture f;
        f.backend->setHandler([](const FakeRequest &) { return FakeReply::raw("", 503); });
        bool done = false;
        f.provider->publishAndWait("getGroups", {}, {}, [&] { done = true; });
        QVERIFY(QTest::qWaitFor([&] { return done; }, 10000));
        QCOMPARE(f.backend->requestCount("getGroups"), 6);
        QCOMPARE(f.log.filter("warning:").size(), 1);
        QCOMPARE(f.log.filter("warning:").first(), QString("warning: publishFailure"));
    }

    void aCancelledPublishMakesNoFurtherAttempt() {
        Fixture f;
        // Each request fails, the first only once the test lets it.
        auto release = std::make_shared<std::atomic<bool>>(false);
        f.backend->setHandler([release](const FakeRequest &) {
            while (!release->load()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            return FakeReply::raw("", 503);
        });
        std::optional<CommandOutcome> outcome;
        QVERIFY(f.provider->publish(commands::getGroups(),
                                    [&](const CommandOutcome &result) { outcome = result; }));
        const quint64 number = f.provider->currentPublish();
        QVERIFY(number != 0);
        QTRY_COMPARE_WITH_TIMEOUT(f.backend->requestCount("getGroups"), 1, 10000);
        // The caller (a command line that timed out) stops waiting: a stale number does nothing.
        f.provider->cancelPublish(number + 1);
        f.provider->cancelPublish(number);
        release->store(true);
        QTRY_VERIFY_WITH_TIMEOUT(outcome.has_value(), 10000);
        QVERIFY(outcome->has_value());
        QCOMPARE(QString::fromStdString((*outcome)->domain), QString("Cancelled"));
        QVERIFY(!f.provider->isWaiting());
        QCOMPARE(f.provider->currentPublish(), quint64(0));
        QCOMPARE(f.backend->requestCount("getGroups"), 1); // not six
        QCOMPARE(f.count("Request 'getGroups' given up by its caller; no further attempt"), 1);
    }

    void codeRequestEndsWithTheSentMessageEvenWhenUnreachable() {
        Fixture f(false); // nothing listens on the port
        QSignalSpy errors(f.provider.get(), &ItemsProvider::errorChanged);
        f.provider->requestCodeViaEmail("ana@example.org");
        QCOMPARE(f.provider->error(), "Sending 6-digit code to ana@example.org ...");
        QTRY_COMPARE_WITH_TIMEOUT(f.provider->error(),
                                  "6-digit code sent to ana@example.org. Check your email.", 10000);
        QCOMPARE(f.log.filter("warning:").size(), 1);
        QCOMPARE(errors.count(), 2);
    }

    void codeRequestCarriesTheAddress() {
        Fixture f;
        f.answer(R"({"status":"success"})");
        f.provider->requestCodeViaEmail("ana@example.org");
        QTRY_COMPARE_WITH_TIMEOUT(f.provider->error(),
                                  "6-digit code sent to ana@example.org. Check your email.", 10000);
        QCOMPARE(f.backend->requests().back().type, std::string("requestCode"));
        QCOMPARE(f.backend->requests().back().id, std::string("ana@example.org"));
        QCOMPARE(f.backend->requests().back().data, std::string());
        QCOMPARE(f.backend->requests().back().authorization,
                 "Bearer " + f.provider->pm().kes.LocalPublicKey());
    }

    void pendingRetentionEditSurvivesAGroupList() {
        Fixture f;
        f.answer(encodeGroupItems({group(7, "Work", {"/w"}, 30), group(8, "Home", {}, 5)}));
        QVERIFY(!f.call("getGroups"));

        // The user edits group 7 to 90 days; the request is still open.
        GroupItem edited = f.provider->groups()[0];
        edited.retentionSettings->retentionDays = 90;
        f.provider->markRetentionUpdatePending(7);
        f.provider->groupsModel()->setRetentionSettings(7, edited.retentionSettings);

        // A list with the old value arrives meanwhile.
        f.answer(encodeGroupItems({group(7, "Work", {"/w", "/x"}, 30), group(8, "Home", {}, 6)}));
        QVERIFY(!f.call("getGroups"));
        QCOMPARE(*f.provider->groups()[0].retentionSettings->retentionDays, 90);
        QCOMPARE(f.provider->groups()[0].walkPaths.size(), 2u); // the rest is the server's
        QCOMPARE(*f.provider->groups()[1].retentionSettings->retentionDays, 6);
        QCOMPARE(f.count("Preserving optimistic retention update for group 7"), 1);

        f.provider->clearRetentionUpdatePending(7);
        QVERIFY(!f.call("getGroups"));
        QCOMPARE(*f.provider->groups()[0].retentionSettings->retentionDays, 30);
    }

    void requestsGoOutOneAtATime() {
        Fixture f;
        std::atomic<int> inFlight = 0;
        std::atomic<int> most = 0;
        f.backend->setHandler([&](const FakeRequest &) {
            const int now = ++inFlight;
            most = std::max(most.load(), now);
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            --inFlight;
            return FakeReply::sealed(R"({"status":"success"})");
        });
        QStringList finished;
        for (const char *type : {"getGroups", "openWeb", "addWatchDir", "stopWatching"}) {
            f.provider->publishAndWaitThrows(
                type, {}, {}, [&finished, type](const std::optional<tidepost::Error> &e) {
                    finished << (e ? QString("failed") : QString(type));
                });
        }
        QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 4, 10000);
        QCOMPARE(finished, (QStringList{"getGroups", "openWeb", "addWatchDir", "stopWatching"}));
        QCOMPARE(most.load(), 1);
        std::vector<std::string> order;
        for (const auto &request : f.backend->requests()) {
            order.push_back(request.type);
        }
        QCOMPARE(order,
                 (std::vector<std::string>{"getGroups", "openWeb", "addWatchDir", "stopWatching"}));
    }

    void aDuePingGivesWayToAQueuedCommand() {
        Fixture f;
        std::atomic<bool> release = false;
        f.backend->setHandler([&](const FakeRequest &request) {
            // The first request stays on the wire until the test has queued the rest.
            while (request.type == "getGroups" && !release) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            return FakeReply::sealed(R"({"status":"success"})");
        });
        QStringList finished;
        const auto note = [&finished](const char *what) {
            return [&finished, what](const CommandOutcome &outcome) {
                finished << (outcome ? QString("failed") : QString(what));
            };
        };
        f.provider->publishAndWaitThrows(commands::getGroups(), note("getGroups"));
        QTRY_COMPARE_WITH_TIMEOUT(f.backend->requestCount("getGroups"), 1, 10000);
        f.provider->publishAndWaitThrows(commands::addWatchDir("Personal", "/a"),
                                         note("addWatchDir"));
        // Due while the command waits: skipped, never sent before it.
        f.provider->publishAndWaitThrows(commands::ping("[]"), note("ping"));
        release = true;
        QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 3, 10000);
        QCOMPARE(finished, (QStringList{"ping", "getGroups", "addWatchDir"}));
        std::vector<std::string> order;
        for (const auto &request : f.backend->requests()) {
            order.push_back(request.type);
        }
        QCOMPARE(order, (std::vector<std::string>{"getGroups", "addWatchDir"}));
    }

    void aWaitingPingGivesWayToANewCommand() {
        Fixture f;
        std::atomic<bool> release = false;
        f.backend->setHandler([&](const FakeRequest &request) {
            while (request.type == "getGroups" && !release) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            return FakeReply::sealed(R"({"Type":"ping","ID":"","Data":""})");
        });
        int ended = 0;
        const auto count = [&ended](const CommandOutcome &) { ++ended; };
        f.provider->publishAndWaitThrows(commands::getGroups(), count);
        QTRY_COMPARE_WITH_TIMEOUT(f.backend->requestCount("getGroups"), 1, 10000);
        // Nothing waits yet: the ping queues behind the request on the wire...
        f.provider->publishAndWaitThrows(commands::ping("[]"), count);
        // ...and gives way to the user's command that comes after it.
        f.provider->publishAndWaitThrows(commands::openWeb("2"), count);
        release = true;
        QTRY_COMPARE_WITH_TIMEOUT(ended, 3, 10000);
        std::vector<std::string> order;
        for (const auto &request : f.backend->requests()) {
            order.push_back(request.type);
        }
        QCOMPARE(order, (std::vector<std::string>{"getGroups", "openWeb"}));

        // With nothing else waiting, pings go out.
        f.provider->publishAndWaitThrows(commands::ping("[]"), count);
        QTRY_COMPARE_WITH_TIMEOUT(ended, 4, 10000);
        QCOMPARE(f.backend->requestCount("ping"), 1);
        QCOMPARE(f.backend->requests().back().data, std::string("[]"));
    }

    void refreshesRefusedDuringAnAddAreMadeUpForWhenItEnds() {
        Fixture f;
        SettingsActions actions(*f.provider);
        std::atomic<bool> release = false;
        f.backend->setHandler([&](const FakeRequest &request) {
            if (request.type == "addWatchDir") {
                // The add stays under way until both refreshes were turned away.
                while (!release) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(5));
                }
                return FakeReply::sealed(R"({"status":"success"})");
            }
            return FakeReply::sealed(encodeGroupItems({group(1, "Personal", {"/a"})}));
        });
        std::optional<CommandOutcome> added;
        QVERIFY(actions.addFolderToSync("/a", "Personal",
                                        [&](const CommandOutcome &outcome) { added = outcome; }));
        const QString ignored =
            "Publish request ignored.  Waiting for previous request to finish ...";
        QTRY_COMPARE_WITH_TIMEOUT(f.count(ignored), 2, 10000);
        QCOMPARE(f.backend->requestCount("getGroups"), 0);
        release = true;
        QTRY_VERIFY_WITH_TIMEOUT(added.has_value(), 10000);
        QVERIFY(!*added);
        // One refresh follows the add, and its list is applied.
        QTRY_COMPARE_WITH_TIMEOUT(f.backend->requestCount("getGroups"), 1, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(f.provider->groups().size(), std::size_t(1), 10000);
        QCOMPARE(f.provider->groups()[0].walkPaths, std::vector<std::string>{"/a"});
        QCOMPARE(f.backend->requests().front().type, std::string("addWatchDir"));
    }

    void aRefusedAddReportsTheBackendsReason() {
        Fixture f;
        SettingsActions actions(*f.provider);
        f.backend->setHandler([](const FakeRequest &request) {
            if (request.type == "addWatchDir") {
                return FakeReply::sealed(
                    R"({"status":"error","error":"Refusing to sync the whole file system"})");
            }
            return FakeReply::sealed(encodeGroupItems({group(1, "Personal", {})}));
        });
        QSignalSpy failed(&actions, &SettingsActions::actionFailed);
        QSignalSpy succeeded(&actions, &SettingsActions::actionSucceeded);
        std::optional<CommandOutcome> added;
        QVERIFY(actions.addFolderToSync("/", "Personal",
                                        [&](const CommandOutcome &outcome) { added = outcome; }));
        QTRY_VERIFY_WITH_TIMEOUT(added.has_value(), 10000);
        QVERIFY(*added);
        QCOMPARE((*added)->domain, std::string("ServerError"));
        QCOMPARE(failureText(**added), QString("Refusing to sync the whole file system"));
        QCOMPARE(failed.count(), 1);
        QCOMPARE(failed.first().first().toString(),
                 QString("Refusing to sync the whole file system"));
        QCOMPARE(succeeded.count(), 0);
        // The six attempts of every command, then one warning.
        QCOMPARE(f.backend->requestCount("addWatchDir"), 6);
        QCOMPARE(f.log.filter("warning:").size(), 1);
    }

    void aRequestSentBackIsNotAReply() {
        // Both directions derive their keys from one secret: a process on the
        // backend's port that echoes the request makes it open as a reply. A
        // ping sent back reads as the backend's "ping" message, which would
        // sign the user in.
        Fixture f;
        f.provider->setIsLoggedIn(false);
        f.backend->setHandler(
            [](const FakeRequest &request) { return FakeReply::raw(request.body); });
        std::optional<CommandOutcome> outcome;
        f.provider->publishAndWait(commands::ping("[]"),
                                   [&](const CommandOutcome &o) { outcome = o; });
        QTRY_VERIFY_WITH_TIMEOUT(outcome.has_value(), 10000);
        QVERIFY(*outcome);
        QVERIFY(!f.provider->isLoggedIn());
        // Refused like a reply that does not open: six attempts, one warning.
        QCOMPARE(f.backend->requestCount("ping"), 6);
        QCOMPARE(f.log.filter("warning: decodeError").size(), 1);
        QCOMPARE(
            f.log.filter("warning: refused a reply that is a request of ours sent back").size(), 1);

        // The real backend's replies still go through.
        f.answer(R"({"Type":"ping","ID":"","Data":""})");
        QVERIFY(!f.call("ping", {}, "[]"));
        QVERIFY(f.provider->isLoggedIn());
    }

    void noBackendKeyYet() {
        Fixture f;
        f.provider->pm().kes.clearExternalPublicKey();
        const auto error = f.call("getGroups");
        QVERIFY(error);
        QCOMPARE(error->description, std::string("publicKeyNotSet"));
        QCOMPARE(f.backend->requests().size(), 0u);
    }

    void updateGroupSendsTheWholeGroup() {
        Fixture f;
        f.answer(R"({"status":"success"})");
        const GroupItem g = group(7, "Work", {"/home/ana/Documents"}, 30);
        std::optional<std::optional<tidepost::Error>> result;
        f.provider->updateGroupRetentionSettings(
            g, [&](const std::optional<tidepost::Error> &error) { result = error; });
        QVERIFY(QTest::qWaitFor([&] { return result.has_value(); }, 10000));
        QVERIFY(!*result);
        QCOMPARE(f.backend->requests().back().type, std::string("updateGroup"));
        QCOMPARE(f.backend->requests().back().data, g.toJSON());
        QCOMPARE(f.count("Sending updateGroup request for group 7, retention: 30 days"), 1);
        QCOMPARE(f.count("updateGroup request completed successfully"), 1);

        f.answer(R"({"status":"error","error":"nope"})");
        result.reset();
        f.provider->updateGroupRetentionSettings(
            group(8, "Home", {}),
            [&](const std::optional<tidepost::Error> &error) { result = error; });
        QVERIFY(QTest::qWaitFor([&] { return result.has_value(); }, 10000));
        QVERIFY(*result);
        QCOMPARE(f.count("Sending updateGroup request for group 8, retention: 0 days"), 1);
        QCOMPARE(f.count("updateGroup request completed successfully"), 1);
    }
};

QTEST_GUILESS_MAIN(ItemsProviderTest)
#include "tst_items_provider.moc"
