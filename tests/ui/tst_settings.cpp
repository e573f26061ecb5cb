// The settings tab over the real model: the group list and its states, the
// cards and folder rows, adding folders and Photos libraries with the pickers
// replaced by scripted answers, the iCloud alert, stopping and opening
// folders, and the retention flow. What the screen sends is observed on a
// scripted backend endpoint on loopback that keeps a small group list.
#include "FakeBackend.h"
#include "ItemsProvider.h"
#include "Models.h"
#include "Pickers.h"
#include "PollManager.h"
#include "RecordBuilders.h"
#include "SettingsActions.h"
#include "SettingsController.h"
#include "UiHarness.h"

#include <QDir>
#include <QFile>
#include <QQuickItem>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <mutex>

using namespace tarnwick;
using tarnwick::test::folder;
using tarnwick::test::group;
using tarnwick::ui::Pickers;
using tarnwick::ui::SettingsController;
using tarnwick::ui::test::UiHarness;

namespace {

void touch(const QString &path) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        qFatal("cannot create %s", qPrintable(path));
    }
    file.write("x");
}

// A backend that keeps groups the way the real one does: folders are added
// and stopped, retention is stored, and "getGroups" answers the list.
class GroupsBackend {
public:
    explicit GroupsBackend(std::vector<GroupItem> groups) : groups_(std::move(groups)) {}

    FakeReply handle(const FakeRequest &request) {
        std::lock_guard lock(mutex_);
        if (request.type == "getGroups") {
            return FakeReply::sealed(encodeGroupItems(groups_));
        }
        if (request.type == "addWatchDir") {
            for (auto &g : groups_) {
                if (g.name == request.id) {
                    g.walkPaths.push_back(request.data);
                    return FakeReply::sealed(R"({"status":"success"})");
                }
            }
            return FakeReply::sealed(R"({"status":"error","error":"Unknown group"})");
        }
        if (request.type == "stopWatching") {
            for (auto &g : groups_) {
                std::erase(g.walkPaths, request.id);
            }
            return FakeReply::sealed(R"({"status":"success"})");
        }
        if (request.type == "updateGroup") {
            if (updateError_) {
                return FakeReply::sealed(R"({"status":"error","error":")" + *updateError_ +
                                         R"("})");
            }
            const GroupItem edited = GroupItem::fromJSON(request.data);
            for (auto &g : groups_) {
                if (g.groupID == edited.groupID) {
                    g.retentionSettings = edited.retentionSettings;
                }
            }
            return FakeReply::sealed(R"({"status":"success"})");
        }
        if (request.type == "openDirPath") {
            return FakeReply::sealed("");
        }
        return FakeReply::sealed(R"({"status":"success"})");
    }

    void setGroups(std::vector<GroupItem> groups) {
        std::lock_guard lock(mutex_);
        groups_ = std::move(groups);
    }
    void failUpdates(std::string error) {
        std::lock_guard lock(mutex_);
        updateError_ = std::move(error);
    }

private:
    std::mutex mutex_;
    std::vector<GroupItem> groups_;
    std::optional<std::string> updateError_;
};

// Everything below the item (itself included) with this objectName.
void collect(QObject *object, const QString &name, QList<QQuickItem *> &out) {
    if (object == nullptr) {
        return;
    }
    auto *item = qobject_cast<QQuickItem *>(object);
    if (item && object->objectName() == name) {
        out.append(item);
    }
    QSet<QObject *> seen;
    if (item) {
        for (QQuickItem *child : item->childItems()) {
            seen.insert(child);
            collect(child, name, out);
        }
    }
    for (QObject *child : object->children()) {
        if (!seen.contains(child)) {
            collect(child, name, out);
        }
    }
}

QQuickItem *findIn(QObject *root, const QString &name) {
    QList<QQuickItem *> out;
    collect(root, name, out);
    return out.isEmpty() ? nullptr : out.first();
}

QList<QQuickItem *> findAllIn(QObject *root, const QString &name) {
    QList<QQuickItem *> out;
    collect(root, name, out);
    return out;
}

// The items in the order they are drawn, top to bottom.
QList<QQuickItem *> byPosition(QList<QQuickItem *> items) {
    std::sort(items.begin(), items.end(), [](QQuickItem *a, QQuickItem *b) {
        return a->mapToScene(QPointF()).y() < b->mapToScene(QPointF()).y();
    });
    return items;
}

QString textOf(const QObject *item) {
    return item ? item->property("text").toString() : QStringLiteral("<missing>");
}

// One settings screen over the model, with a scripted backend and pickers
// whose dialog is replaced by the next scripted answer.
struct Screen {
    std::unique_ptr<FakeBackend> backend;
    // The model's delays (the screen's second refresh, the follow-up
    // refreshes) run on a clock the test moves.
    UiHarness h{[] {
        UiHarness::Options options;
        options.manualClock = true;
        return options;
    }()};
    int refreshDelay = 300;
    Pickers pickers;
    GroupsBackend groups;
    std::vector<Pickers::Request> pickerRequests;
    std::optional<QString> nextChoice;

    explicit Screen(std::vector<GroupItem> initial) : groups(std::move(initial)) {
        backend = std::make_unique<FakeBackend>(h.model().pm().kes.LocalPublicKey());
        h.model().pm().kes.setExternalPublicKey(backend->publicKey());
        backend->stampFrom(*h.manualClock());
        backend->setHandler([this](const FakeRequest &r) { return groups.handle(r); });
        if (!backend->listen(h.model().port())) {
            qFatal("could not listen on the model's port");
        }
        pickers.setRunner([this](const Pickers::Request &request) {
            Pickers::Request seen = request;
            seen.dialog = nullptr; // gone once the picker returns
            pickerRequests.push_back(seen);
            return nextChoice;
        });
        h.setPickers(&pickers);
    }

    ~Screen() {
        // The screen and the model go before the backend they talk to.
        delete h.root();
    }

    QQuickItem *load(QSize size = QSize(450, 650), int initialRefreshDelay = 300) {
        refreshDelay = initialRefreshDelay;
        QQuickItem *root = h.load(QStringLiteral("SettingsView"), size,
                                  {{QStringLiteral("initialRefreshDelay"), initialRefreshDelay}});
        if (!root) {
            qWarning().noquote() << h.errors().join('\n');
        }
        return root;
    }

    SettingsController *controller() const {
        return h.root() ? qvariant_cast<SettingsController *>(h.root()->property("controller"))
                        : nullptr;
    }
    QQuickItem *card(std::int64_t id) const {
        return h.findVisible(QStringLiteral("groupCard%1").arg(id));
    }
    QQuickItem *in(QQuickItem *root, const QString &name) const { return findIn(root, name); }
    // Waits until the model's group list is the backend's, the screen's
    // start-up refreshes are done and no request is under way.
    bool waitForGroups(std::size_t count) {
        const auto listed = [&] {
            return h.model().groups().size() == count && !h.model().isWaiting() && controller();
        };
        if (!QTest::qWaitFor(listed, 10000)) {
            return false;
        }
        if (!controller()->hasTimeElapsed()) {
            h.passTime(std::chrono::milliseconds(refreshDelay));
        }
        return QTest::qWaitFor([&] { return listed() && controller()->hasTimeElapsed(); }, 10000);
    }
    // Time passes (the model's delays fall due).
    void pass(int milliseconds) { h.passTime(std::chrono::milliseconds(milliseconds)); }
    std::vector<FakeRequest> sent(const std::string &type) const {
        std::vector<FakeRequest> out;
        for (const auto &r : backend->requests()) {
            if (r.type == type) {
                out.push_back(r);
            }
        }
        return out;
    }
    // The paths of a card's folder rows, top to bottom.
    QStringList rowPaths(QQuickItem *card) const {
        QStringList paths;
        for (QQuickItem *row : byPosition(findAllIn(card, QStringLiteral("folderRow")))) {
            if (UiHarness::isShown(row)) {
                paths << row->property("path").toString();
            }
        }
        return paths;
    }
    QQuickItem *row(QQuickItem *card, const QString &path) const {
        for (QQuickItem *r : findAllIn(card, QStringLiteral("folderRow"))) {
            if (r->property("path").toString() == path) {
                return r;
            }
        }
        return nullptr;
    }
};

const QString kMobileDocumentsMessage =
    QStringLiteral("This folder is in iCloud Drive and may cause sync conflicts.");

} // namespace

class SettingsTest : public QObject {
    Q_OBJECT
    QTemporaryDir root_;

    QString make(const QString &relative) {
        const QString path = root_.filePath(relative);
        if (!QDir().mkpath(path)) {
            qFatal("cannot make %s", qPrintable(path));
        }
        return path;
    }

private slots:
    void initTestCase() {
        UiHarness::prepareApplication();
        QVERIFY(root_.isValid());
    }

    void asksForGroupsOnAppearingAndAgainLater() {
        Screen s({group(1, "Personal")});
        s.h.model().setIsLoading(false);
        QVERIFY(s.load(QSize(450, 650), 400));
        QTRY_COMPARE_WITH_TIMEOUT(s.backend->requestCount("getGroups"), 1, 5000);
        const auto first = s.sent("getGroups").front();
        QCOMPARE(first.id, "");
        QCOMPARE(first.data, "");
        QVERIFY(!s.controller()->hasTimeElapsed());
        QTRY_VERIFY_WITH_TIMEOUT(!s.h.model().isWaiting(), 5000);
        s.pass(399);
        QVERIFY(!s.controller()->hasTimeElapsed());
        s.pass(1);
        QTRY_COMPARE_WITH_TIMEOUT(s.backend->requestCount("getGroups"), 2, 5000);
        QVERIFY(s.controller()->hasTimeElapsed());
        QTRY_VERIFY_WITH_TIMEOUT(!s.h.model().isWaiting(), 5000);
        s.pass(600);
        QVERIFY(!s.h.model().isWaiting());
        QCOMPARE(s.backend->requestCount("getGroups"), 2);
    }

    void loadingThenNoGroupsFound() {
        Screen s({});
        QVERIFY(s.load(QSize(450, 650), 600));
        QQuickItem *empty = s.h.findVisible("groupsEmptyState");
        QVERIFY(empty);
        QCOMPARE(textOf(s.h.find("emptyStateTitle")), "Loading...");
        QCOMPARE(textOf(s.h.find("emptyStateMessage")), "Please wait while we load your groups");
        QCOMPARE(s.h.find("emptyStateIcon")->property("name").toString(), "person.3.fill");
        s.h.grab("settings_loading");
        // The empty list (taken as an empty folder report) ends the model's
        // loading state, but the grace period still runs.
        QTRY_VERIFY_WITH_TIMEOUT(!s.h.model().isLoading(), 5000);
        QVERIFY(!s.controller()->hasTimeElapsed());
        QCOMPARE(textOf(s.h.find("emptyStateTitle")), "Loading...");
        s.pass(600);
        QTRY_VERIFY_WITH_TIMEOUT(s.controller()->hasTimeElapsed(), 5000);
        QCOMPARE(textOf(s.h.find("emptyStateTitle")), "No Groups Found");
        // While the model says it is loading, the list keeps waiting.
        s.h.model().setIsLoading(true);
        QCOMPARE(textOf(s.h.find("emptyStateTitle")), "Loading...");
        s.h.model().setIsLoading(false);
        QCOMPARE(textOf(s.h.find("emptyStateTitle")), "No Groups Found");
        QVERIFY(textOf(s.h.find("emptyStateMessage")).contains("create a group"));
        QVERIFY(!s.h.findVisible("groupList"));
        s.h.grab("settings_no_groups");
    }

    void headingCountIsSingularForOneGroup() {
        Screen s({group(1, "Personal", {"/home/ana/Documents"})});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(1));
        QTRY_VERIFY(s.card(1));
        QCOMPARE(textOf(s.h.findVisible("settingsHeading")), "Sync Folders");
        QCOMPARE(textOf(s.h.findVisible("groupCountText")), "1 group");
        QVERIFY(!s.h.findVisible("groupsEmptyState"));
        QCOMPARE(textOf(s.in(s.card(1), "groupName")), "Personal");
        QCOMPARE(textOf(s.in(s.card(1), "groupNumber")), "Group #1");
        s.h.grab("settings_one_group");

        // With two, the plural.
        s.groups.setGroups({group(1, "Personal"), group(2, "Family")});
        s.h.model().publish("getGroups", "", "");
        QVERIFY(s.waitForGroups(2));
        QTRY_COMPARE(textOf(s.h.findVisible("groupCountText")), "2 groups");
        // And with none, no heading at all. (An empty list from the backend
        // reads as an empty folder report, so the model is emptied here.)
        s.h.model().groupsModel()->replace({});
        QTRY_VERIFY(s.h.findVisible("groupsEmptyState"));
        QVERIFY(!s.h.findVisible("groupCountText"));
    }

    void groupsAreSortedByIDAndPathsByCodePoint() {
        const std::string library = "/home/ana/Pictures/Photos Library.photoslibrary/originals";
        Screen s({group(30, "Work"),
                  group(2, "Family",
                        {"/srv/z", "/srv/\xc3\xa9t\xc3\xa9", library, "/Volumes/B", "/srv/a b"}),
                  group(10, "Personal", {"/home/ana/Documents"}),
                  group(9223372036854775807LL, "Archive")});
        QVERIFY(s.load(QSize(450, 900)));
        QVERIFY(s.waitForGroups(4));
        // Not the model's order: by ID, ascending, as numbers (2 < 10 < 30).
        QTRY_VERIFY(s.card(2) && s.card(10) && s.card(30));
        QCOMPARE(s.h.model().groups()[0].groupID, 30);
        auto cards = byPosition({s.card(2), s.card(10), s.card(30),
                                 s.h.find<QQuickItem>("groupCard9223372036854775807")});
        QCOMPARE(textOf(s.in(cards[0], "groupName")), "Family");
        QCOMPARE(textOf(s.in(cards[1], "groupName")), "Personal");
        QCOMPARE(textOf(s.in(cards[2], "groupName")), "Work");
        QVERIFY(cards[3]);
        QCOMPARE(textOf(s.in(cards[3], "groupNumber")), "Group #9223372036854775807");

        // Paths in code-point order: capitals before small letters, a space
        // before letters, accented letters after all of ASCII.
        QCOMPARE(s.rowPaths(s.card(2)),
                 QStringList({"/Volumes/B", QString::fromStdString(library), "/srv/a b", "/srv/z",
                              QString::fromUtf8("/srv/\xc3\xa9t\xc3\xa9")}));
        // A Photos library's originals folder shows the photo symbol.
        QQuickItem *photos = s.row(s.card(2), QString::fromStdString(library));
        QCOMPARE(s.in(photos, "folderSymbol")->property("name").toString(), "photo.on.rectangle");
        QCOMPARE(s.in(s.row(s.card(2), "/srv/z"), "folderSymbol")->property("name").toString(),
                 "folder.fill");
    }

    void emptyGroupShowsTheNoFoldersPanel() {
        Screen s({group(1, "Personal"), group(2, "Family", {"/home/ana/Pictures"})});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(2));
        QTRY_VERIFY(s.card(1) && s.card(2));
        QQuickItem *panel = s.in(s.card(1), "noFoldersPanel");
        QVERIFY(UiHarness::isShown(panel));
        QCOMPARE(panel->property("icon").toString(), "info.circle");
        QCOMPARE(panel->property("title").toString(), "No folders added yet");
        QCOMPARE(panel->property("message").toString(),
                 "Click the buttons above to add a Photos library or folder to sync");
        QVERIFY(s.rowPaths(s.card(1)).isEmpty());
        QVERIFY(!UiHarness::isShown(s.in(s.card(2), "noFoldersPanel")));
        QCOMPARE(s.rowPaths(s.card(2)), QStringList{"/home/ana/Pictures"});
    }

    void cardButtonsAreOffWhileARequestIsUnderWay() {
        Screen s({group(1, "Personal"), group(2, "Family")});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(2));
        QTRY_VERIFY(s.card(1) && s.card(2));
        const QStringList buttons{"retentionButton", "photosButton", "folderButton"};
        for (const auto id : {1, 2}) {
            for (const QString &name : buttons) {
                QVERIFY2(s.in(s.card(id), name)->isEnabled(), qPrintable(name));
            }
        }
        // Texts and help texts.
        QQuickItem *retention = s.in(s.card(1), "retentionButton");
        QCOMPARE(retention->property("text").toString(), "Retention");
        QCOMPARE(retention->property("symbol").toString(), "clock.arrow.circlepath");
        QCOMPARE(retention->property("helpText").toString(), "Configure retention settings");
        QQuickItem *photos = s.in(s.card(1), "photosButton");
        QCOMPARE(photos->property("text").toString(), "Photos");
        QCOMPARE(photos->property("symbol").toString(), "photo.on.rectangle.angled");
        QCOMPARE(photos->property("helpText").toString(), "Add Photos library");
        QQuickItem *folder = s.in(s.card(1), "folderButton");
        QCOMPARE(folder->property("text").toString(), "Folder");
        QCOMPARE(folder->property("symbol").toString(), "folder.badge.plus");
        QCOMPARE(folder->property("helpText").toString(), "Add folder");

        s.h.model().setIsWaiting(true);
        for (const auto id : {1, 2}) {
            for (const QString &name : buttons) {
                QVERIFY2(!s.in(s.card(id), name)->isEnabled(), qPrintable(name));
            }
        }
        // A click on a disabled button does nothing.
        s.nextChoice = make("waiting");
        s.h.click(s.in(s.card(1), "folderButton"));
        QVERIFY(s.pickerRequests.empty());
        s.h.model().setIsWaiting(false);
        QVERIFY(s.in(s.card(1), "folderButton")->isEnabled());
    }

    void addingAFolder() {
        Screen s({group(1, "Personal"), group(2, "Family")});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(2));
        QTRY_VERIFY(s.card(2));
        const QString folder = make("plain/Documents");
        s.nextChoice = folder;
        s.h.click(s.in(s.card(2), "folderButton"));
        // The folder picker, with no starting folder.
        QCOMPARE(s.pickerRequests.size(), std::size_t(1));
        QCOMPARE(s.pickerRequests[0].kind, Pickers::Kind::directory);
        QCOMPARE(s.pickerRequests[0].directory, QString());
        QVERIFY(!s.controller()->showICloudWarning());
        QTRY_COMPARE_WITH_TIMEOUT(s.sent("addWatchDir").size(), std::size_t(1), 5000);
        QCOMPARE(s.sent("addWatchDir")[0].id, "Family");
        QCOMPARE(QString::fromStdString(s.sent("addWatchDir")[0].data), folder);
        QVERIFY(s.h.logLines().contains(folder));
        // The immediate refresh meets the request still under way; the one
        // made up for when the add has ended brings the new folder (no time
        // passes here, so the half-second refresh has not come yet).
        QVERIFY(s.h.logLines().contains(
            "Publish request ignored.  Waiting for previous request to finish ..."));
        QTRY_COMPARE_WITH_TIMEOUT(s.rowPaths(s.card(2)), QStringList{folder}, 5000);
        QCOMPARE(s.in(s.row(s.card(2), folder), "folderSymbol")->property("name").toString(),
                 "folder.fill");
        QVERIFY(!UiHarness::isShown(s.in(s.row(s.card(2), folder), "iCloudBadge")));
        QVERIFY(s.rowPaths(s.card(1)).isEmpty());
        QVERIFY(!s.controller()->pendingICloudPath().has_value());
    }

    void cancellingThePickerChangesNothing() {
        Screen s({group(1, "Personal")});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(1));
        QTRY_VERIFY(s.card(1));
        const int before = int(s.backend->requests().size());
        s.nextChoice.reset();
        s.h.click(s.in(s.card(1), "folderButton"));
        QCOMPARE(s.pickerRequests.size(), std::size_t(1));
        s.pass(700);
        QCOMPARE(int(s.backend->requests().size()), before);
        QVERIFY(!s.controller()->showICloudWarning());
        QVERIFY(!s.h.find<QObject>("iCloudAlert")->property("visible").toBool());
    }

    void iCloudFolderAlertCancel() {
        Screen s({group(1, "Personal")});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(1));
        QTRY_VERIFY(s.card(1));
        const QString folder = make("home/Library/Mobile Documents/com~apple~CloudDocs/Notes");
        s.nextChoice = folder;
        s.h.click(s.in(s.card(1), "folderButton"));
        QVERIFY(s.controller()->showICloudWarning());
        QCOMPARE(s.controller()->pendingICloudPath().value_or(""), folder);
        QCOMPARE(s.controller()->pendingICloudGroupName().value_or(""), "Personal");
        QTRY_VERIFY(s.h.findVisible("iCloudAlertTitle"));
        QCOMPARE(textOf(s.h.findVisible("iCloudAlertTitle")), "iCloud Sync Detected");
        QCOMPARE(textOf(s.h.findVisible("iCloudAlertMessage")), kMobileDocumentsMessage);
        QCOMPARE(textOf(s.h.findVisible("iCloudAlertCancelButton")), "Cancel");
        QCOMPARE(textOf(s.h.findVisible("iCloudAlertAddAnywayButton")), "Add Anyway");
        s.h.grab("settings_icloud_alert");

        s.h.click(s.h.findVisible("iCloudAlertCancelButton"));
        QTRY_VERIFY(!s.h.findVisible("iCloudAlertTitle"));
        QVERIFY(!s.controller()->showICloudWarning());
        QVERIFY(!s.controller()->pendingICloudPath().has_value());
        QVERIFY(!s.controller()->pendingICloudGroupName().has_value());
        s.pass(700);
        QVERIFY(s.sent("addWatchDir").empty());
    }

    void iCloudFolderAlertAddAnyway() {
        Screen s({group(1, "Personal")});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(1));
        QTRY_VERIFY(s.card(1));
        const QString folder = make("home2/Library/Mobile Documents/com~apple~CloudDocs/Work");
        s.nextChoice = folder;
        s.h.click(s.in(s.card(1), "folderButton"));
        QTRY_VERIFY(s.h.findVisible("iCloudAlertAddAnywayButton"));
        QVERIFY(s.sent("addWatchDir").empty());
        s.h.click(s.h.findVisible("iCloudAlertAddAnywayButton"));
        QTRY_COMPARE_WITH_TIMEOUT(s.sent("addWatchDir").size(), std::size_t(1), 5000);
        QCOMPARE(s.sent("addWatchDir")[0].id, "Personal");
        QCOMPARE(QString::fromStdString(s.sent("addWatchDir")[0].data), folder);
        QTRY_VERIFY(!s.h.findVisible("iCloudAlertTitle"));
        QVERIFY(!s.controller()->pendingICloudPath().has_value());
        // The row carries the iCloud badge with its help text.
        QTRY_COMPARE_WITH_TIMEOUT(s.rowPaths(s.card(1)), QStringList{folder}, 5000);
        QQuickItem *badge = s.in(s.row(s.card(1), folder), "iCloudBadge");
        QVERIFY(UiHarness::isShown(badge));
        QCOMPARE(badge->property("name").toString(), "exclamationmark.icloud.fill");
        QCOMPARE(badge->property("helpText").toString(), "This folder is synced with iCloud");
    }

    void escapeClosesTheAlertLikeCancel() {
        Screen s({group(1, "Personal")});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(1));
        QTRY_VERIFY(s.card(1));
        // A placeholder among the folder's siblings makes it an iCloud folder
        // without any path rule; the alert then says so in general terms.
        const QString folder = make("placeholder/Reports");
        touch(root_.filePath("placeholder/.budget.xlsx.icloud"));
        s.nextChoice = folder;
        s.h.click(s.in(s.card(1), "folderButton"));
        QTRY_VERIFY(s.h.findVisible("iCloudAlertMessage"));
        QCOMPARE(textOf(s.h.findVisible("iCloudAlertMessage")),
                 "This folder appears to be synced with iCloud.");
        QTest::keyClick(s.h.window(), Qt::Key_Escape);
        QTRY_VERIFY(!s.controller()->showICloudWarning());
        QVERIFY(!s.controller()->pendingICloudPath().has_value());
        s.pass(700);
        QVERIFY(s.sent("addWatchDir").empty());
    }

    void photosLibraryInstructionsAndBack() {
        Screen s({group(1, "Personal")});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(1));
        QTRY_VERIFY(s.card(1));
        s.h.click(s.in(s.card(1), "photosButton"));
        QVERIFY(s.controller()->showPhotoLibraryInstructions());
        QCOMPARE(s.controller()->pendingICloudGroupName().value_or(""), "Personal");
        QVERIFY(s.pickerRequests.empty());
        QVERIFY(s.h.findVisible("photoLibraryInstructionsView"));
        QVERIFY(!s.h.findVisible("groupList"));

        QCOMPARE(textOf(s.h.findVisible("photoLibraryInstructionsTitle")),
                 "Before Adding Photos Library");
        QQuickItem *important = s.h.findVisible("importantSetupPanel");
        QCOMPARE(important->property("icon").toString(), "exclamationmark.triangle.fill");
        QCOMPARE(important->property("title").toString(), "Important Setup Required");
        QCOMPARE(important->property("message").toString(),
                 "You must download all original photos to your Mac before syncing your Photos "
                 "library.");
        QQuickItem *why = s.h.findVisible("whyNecessaryPanel");
        QCOMPARE(why->property("icon").toString(), "info.circle");
        QCOMPARE(why->property("title").toString(), "Why is this necessary?");
        QCOMPARE(why->property("message").toString(),
                 "tarnwick needs access to the original, full-resolution files to sync them "
                 "properly. If originals are not downloaded, only low-resolution previews will be "
                 "synced.");
        const QList<QPair<QString, QString>> steps{
            {"Open Photos App", "Launch the Photos application on your Mac"},
            {"Open Settings", "Click Photos in the menu bar, then select Settings..."},
            {"Enable Download Originals",
             "In the iCloud tab, select \"Download Originals to this Mac\""},
            {"Wait for Download",
             "Wait for all photos and videos to finish downloading. You can check progress at the "
             "bottom of the Photos app window."},
            {"Verify Completion",
             "Ensure the status shows all items are downloaded before continuing"}};
        QQuickItem *previous = nullptr;
        for (int i = 0; i < steps.size(); ++i) {
            QQuickItem *step = s.h.find<QQuickItem>(QStringLiteral("instructionStep%1").arg(i + 1));
            QVERIFY(step);
            QCOMPARE(textOf(s.in(step, "instructionStepNumber")), QString::number(i + 1));
            QCOMPARE(textOf(s.in(step, "instructionStepTitle")), steps[i].first);
            QCOMPARE(textOf(s.in(step, "instructionStepDescription")), steps[i].second);
            if (previous) {
                QVERIFY(step->mapToScene(QPointF()).y() > previous->mapToScene(QPointF()).y());
            }
            previous = step;
        }
        QCOMPARE(textOf(s.h.findVisible("photoLibraryBackButton")), "Back");
        QQuickItem *next = s.h.findVisible("photoLibraryContinueButton");
        QCOMPARE(textOf(next), "I Have Downloaded Originals");
        QCOMPARE(next->property("symbol").toString(), "arrow.right");
        s.h.grab("settings_photos_instructions");

        s.h.click(s.h.findVisible("photoLibraryBackButton"));
        QVERIFY(!s.controller()->showPhotoLibraryInstructions());
        QVERIFY(!s.controller()->pendingICloudGroupName().has_value());
        QVERIFY(s.h.findVisible("groupList"));
        QVERIFY(s.pickerRequests.empty());
    }

    void addingAPhotosLibrarySendsItsOriginalsFolder() {
        Screen s({group(1, "Personal"), group(2, "Family")});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(2));
        QTRY_VERIFY(s.card(2));
        const QString library = make("Pictures/Photos Library.photoslibrary");
        QVERIFY(QDir().mkpath(library + "/originals/0"));
        touch(library + "/originals/0/IMG_0001.HEIC");
        s.nextChoice = library;
        s.h.click(s.in(s.card(2), "photosButton"));
        s.h.click(s.h.findVisible("photoLibraryContinueButton"));
        // The library picker, starting in the user's Pictures folder.
        QCOMPARE(s.pickerRequests.size(), std::size_t(1));
        QCOMPARE(s.pickerRequests[0].kind, Pickers::Kind::photoLibrary);
        QCOMPARE(s.pickerRequests[0].directory, QDir::homePath() + "/Pictures");
        QVERIFY(!s.controller()->showPhotoLibraryInstructions());
        QVERIFY(!s.controller()->pendingICloudGroupName().has_value());
        QTRY_COMPARE_WITH_TIMEOUT(s.sent("addWatchDir").size(), std::size_t(1), 5000);
        QCOMPARE(s.sent("addWatchDir")[0].id, "Family");
        const QString originals = library + "/originals";
        QCOMPARE(QString::fromStdString(s.sent("addWatchDir")[0].data), originals);
        QVERIFY(originals.endsWith("/originals"));
        QTRY_COMPARE_WITH_TIMEOUT(s.rowPaths(s.card(2)), QStringList{originals}, 5000);
        QCOMPARE(s.in(s.row(s.card(2), originals), "folderSymbol")->property("name").toString(),
                 "photo.on.rectangle");
    }

    void aLibraryWithEmptyOriginalsIsAddedWithoutItsWarning() {
        Screen s({group(1, "Personal")});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(1));
        QTRY_VERIFY(s.card(1));
        const QString library = make("Pictures/Empty.PHOTOSLIBRARY/originals");
        touch(library + "/.DS_Store");
        s.nextChoice = root_.filePath("Pictures/Empty.PHOTOSLIBRARY");
        s.h.click(s.in(s.card(1), "photosButton"));
        s.h.click(s.h.findVisible("photoLibraryContinueButton"));
        QTRY_COMPARE_WITH_TIMEOUT(s.sent("addWatchDir").size(), std::size_t(1), 5000);
        QCOMPARE(QString::fromStdString(s.sent("addWatchDir")[0].data), library);
        QVERIFY(!s.controller()->showICloudWarning());
        for (const QString &line : s.h.logLines()) {
            QVERIFY2(!line.contains("Warning:"), qPrintable(line));
        }
    }

    void aLibraryWithoutOriginalsIsIgnoredSilently() {
        Screen s({group(1, "Personal")});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(1));
        QTRY_VERIFY(s.card(1));
        const int logged = int(s.h.logLines().size());
        s.nextChoice = make("Pictures/Broken.photoslibrary");
        s.h.click(s.in(s.card(1), "photosButton"));
        s.h.click(s.h.findVisible("photoLibraryContinueButton"));
        QCOMPARE(s.pickerRequests.size(), std::size_t(1));
        s.pass(700);
        QVERIFY(s.sent("addWatchDir").empty());
        QVERIFY(!s.controller()->showICloudWarning());
        QVERIFY(!s.controller()->showPhotoLibraryInstructions());
        QVERIFY(s.h.findVisible("groupList"));
        QCOMPARE(int(s.h.logLines().size()), logged);
        // A plain folder chosen in the library picker fares the same.
        s.nextChoice = make("Pictures/Holiday");
        s.h.click(s.in(s.card(1), "photosButton"));
        s.h.click(s.h.findVisible("photoLibraryContinueButton"));
        s.pass(700);
        QVERIFY(s.sent("addWatchDir").empty());
        // And a cancelled library picker.
        s.nextChoice.reset();
        s.h.click(s.in(s.card(1), "photosButton"));
        s.h.click(s.h.findVisible("photoLibraryContinueButton"));
        QCOMPARE(s.pickerRequests.size(), std::size_t(3));
        s.pass(700);
        QVERIFY(s.sent("addWatchDir").empty());
    }

    void aLibraryInsideICloudRaisesTheAlertButAddsNothing() {
        Screen s({group(1, "Personal")});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(1));
        QTRY_VERIFY(s.card(1));
        const QString library =
            make("cloud/Library/Mobile Documents/com~apple~CloudDocs/Shared.photoslibrary");
        QVERIFY(QDir().mkpath(library + "/originals/A"));
        touch(library + "/originals/A/IMG_0002.JPG");
        s.nextChoice = library;
        s.h.click(s.in(s.card(1), "photosButton"));
        s.h.click(s.h.findVisible("photoLibraryContinueButton"));
        QVERIFY(s.controller()->showICloudWarning());
        QCOMPARE(s.controller()->iCloudWarningMessage(), kMobileDocumentsMessage);
        QCOMPARE(s.controller()->pendingICloudPath().value_or(""), library + "/originals");
        // The continue action has cleared the group after the library flow.
        QVERIFY(!s.controller()->pendingICloudGroupName().has_value());
        QTRY_VERIFY(s.h.findVisible("iCloudAlertAddAnywayButton"));
        QCOMPARE(textOf(s.h.findVisible("iCloudAlertMessage")), kMobileDocumentsMessage);
        s.h.click(s.h.findVisible("iCloudAlertAddAnywayButton"));
        QTRY_VERIFY(!s.h.findVisible("iCloudAlertTitle"));
        QVERIFY(!s.controller()->showICloudWarning());
        s.pass(700);
        QVERIFY(s.sent("addWatchDir").empty());
    }

    void stoppingAndOpeningAFolder() {
        Screen s({group(1, "Personal", {"/home/ana/Documents", "/home/ana/Music"}),
                  group(2, "Family", {"/home/ana/Music"})});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(2));
        QTRY_COMPARE(s.rowPaths(s.card(1)),
                     QStringList({"/home/ana/Documents", "/home/ana/Music"}));
        QQuickItem *row = s.row(s.card(1), "/home/ana/Documents");
        QQuickItem *open = s.in(row, "openFolderButton");
        QVERIFY(open);
        s.h.click(open);
        QTRY_COMPARE_WITH_TIMEOUT(s.sent("openDirPath").size(), std::size_t(1), 5000);
        QCOMPARE(s.sent("openDirPath")[0].id, "/home/ana/Documents");
        QCOMPARE(s.sent("openDirPath")[0].data, "");
        QTRY_VERIFY(!s.h.model().isWaiting());

        QQuickItem *remove = s.in(s.row(s.card(1), "/home/ana/Music"), "removeFolderButton");
        QCOMPARE(remove->property("symbol").toString(), "trash");
        QCOMPARE(remove->property("helpText").toString(), "Stop watching this folder");
        s.h.click(remove);
        // Gone from both groups at once, before the backend has answered.
        QCOMPARE(s.rowPaths(s.card(1)), QStringList{"/home/ana/Documents"});
        QVERIFY(s.rowPaths(s.card(2)).isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(s.sent("stopWatching").size(), std::size_t(1), 5000);
        QCOMPARE(s.sent("stopWatching")[0].id, "/home/ana/Music");
        QCOMPARE(s.sent("stopWatching")[0].data, "");
        // The delayed refresh follows and agrees.
        QTRY_VERIFY_WITH_TIMEOUT(!s.h.model().isWaiting(), 5000);
        const int refreshes = int(s.sent("getGroups").size());
        s.pass(SettingsActions::refreshDelayMs);
        QTRY_VERIFY_WITH_TIMEOUT(int(s.sent("getGroups").size()) > refreshes, 5000);
        QVERIFY(s.waitForGroups(2));
        QCOMPARE(s.rowPaths(s.card(1)), QStringList{"/home/ana/Documents"});
    }

    void severalGroupsScreenshot() {
        Screen s({group(1, "Personal",
                        {"/home/ana/Documents",
                         "/home/ana/Pictures/Photos Library.photoslibrary/originals"}),
                  group(2, "Family",
                        {"/home/ana/Library/Mobile Documents/com~apple~CloudDocs/Family",
                         "/home/ana/Projects"}),
                  group(3, "Work")});
        QVERIFY(s.load(QSize(450, 650)));
        QVERIFY(s.waitForGroups(3));
        QTRY_VERIFY(s.card(1) && s.card(2));
        QCOMPARE(textOf(s.h.findVisible("groupCountText")), "3 groups");
        QVERIFY(UiHarness::isShown(
            s.in(s.row(s.card(2), "/home/ana/Library/Mobile Documents/com~apple~CloudDocs/Family"),
                 "iCloudBadge")));
        QVERIFY(!UiHarness::isShown(s.in(s.row(s.card(2), "/home/ana/Projects"), "iCloudBadge")));
        const QImage image = s.h.grab("settings_several_groups");
        QVERIFY(!image.isNull());
    }

    void retentionSaveShowsAtOnce() {
        Screen s({group(1, "Personal", {}, 0), group(2, "Family")});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(2));
        QTRY_VERIFY(s.card(1));
        s.h.click(s.in(s.card(1), "retentionButton"));
        QVERIFY(s.controller()->showRetentionSettings());
        QTRY_VERIFY(s.h.findVisible("retentionSettingsView"));
        QVERIFY(!s.h.findVisible("groupList"));
        QCOMPARE(textOf(s.h.findVisible("retentionTitle")), "Retention Settings: Personal");
        QQuickItem *panel = s.h.findVisible("retentionStatusPanel");
        QCOMPARE(panel->property("title").toString(), "Full Retention");

        QQuickItem *field = s.h.findVisible("retentionDaysField");
        QCOMPARE(textOf(field), "0");
        s.h.click(field);
        QTest::keyClick(s.h.window(), Qt::Key_A, Qt::ControlModifier);
        UiHarness::typeText(s.h.window(), "30");
        QCOMPARE(textOf(field), "30");
        // The panel follows the typed number before anything is saved.
        QCOMPARE(panel->property("title").toString(), "Retention Active");
        QCOMPARE(panel->property("message").toString(),
                 "Deleted files older than 30 days will be permanently removed");
        QCOMPARE(s.h.model().groups()[0].retentionSettings->retentionDays.value_or(-1), 0);

        // While the request is open: the group is marked pending, the model
        // already holds the new value and the screen says it is updating.
        bool pendingWhileOpen = false;
        std::optional<std::int64_t> daysWhileOpen;
        QList<bool> updating;
        connect(&s.h.settingsActions(), &SettingsActions::retentionUpdateStarted, this, [&] {
            pendingWhileOpen = s.h.model().pendingRetentionUpdates().contains(1);
            daysWhileOpen = s.h.model().groups()[0].retentionSettings->retentionDays;
        });
        connect(s.controller(), &SettingsController::isUpdatingRetentionChanged, this,
                [&] { updating << s.controller()->isUpdatingRetention(); });
        s.h.click(s.h.findVisible("retentionSaveButton"));
        // The list is back at once.
        QVERIFY(!s.controller()->showRetentionSettings());
        QVERIFY(!s.controller()->hasSelectedGroup());
        QVERIFY(pendingWhileOpen);
        QCOMPARE(daysWhileOpen.value_or(-1), 30);
        QCOMPARE(updating.value(0, false), true);
        QTRY_VERIFY(s.h.findVisible("groupList"));
        const int row = s.h.model().groupsModel()->indexOf(1);
        QCOMPARE(
            s.h.model().groups()[std::size_t(row)].retentionSettings->retentionDays.value_or(-1),
            30);
        QVERIFY(s.h.logLines().contains("Updating retention for group 1: 30 days"));

        QTRY_VERIFY_WITH_TIMEOUT(!s.controller()->isUpdatingRetention(), 5000);
        QCOMPARE(updating, QList<bool>({true, false}));
        QVERIFY(!s.h.model().pendingRetentionUpdates().contains(1));
        QCOMPARE(s.sent("updateGroup").size(), std::size_t(1));
        const GroupItem sent = GroupItem::fromJSON(s.sent("updateGroup")[0].data);
        QCOMPARE(sent.groupID, 1);
        QCOMPARE(sent.name, "Personal");
        QCOMPARE(sent.retentionSettings->retentionDays.value_or(-1), 30);
        QVERIFY(s.h.logLines().contains("updateGroup request completed successfully"));

        // Reopened, the screen shows the saved value.
        s.h.click(s.in(s.card(1), "retentionButton"));
        QTRY_VERIFY(s.h.findVisible("retentionDaysField"));
        QCOMPARE(textOf(s.h.findVisible("retentionDaysField")), "30");
        QCOMPARE(s.h.findVisible("retentionStatusPanel")->property("title").toString(),
                 "Retention Active");
    }

    void retentionCancelAndBackSendNothing() {
        Screen s({group(1, "Personal", {}, 14)});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(1));
        QTRY_VERIFY(s.card(1));
        for (const char *leave : {"retentionCancelButton", "retentionBackButton"}) {
            s.h.click(s.in(s.card(1), "retentionButton"));
            QTRY_VERIFY(s.h.findVisible("retentionDaysField"));
            QCOMPARE(textOf(s.h.findVisible("retentionDaysField")), "14");
            s.h.click(s.h.findVisible("retentionDaysField"));
            QTest::keyClick(s.h.window(), Qt::Key_A, Qt::ControlModifier);
            UiHarness::typeText(s.h.window(), "0");
            QCOMPARE(s.h.findVisible("retentionStatusPanel")->property("title").toString(),
                     "Full Retention");
            s.h.click(s.h.findVisible(leave));
            QVERIFY(!s.controller()->showRetentionSettings());
            QTRY_VERIFY(s.h.findVisible("groupList"));
            QCOMPARE(s.h.model().groups()[0].retentionSettings->retentionDays.value_or(-1), 14);
        }
        s.pass(300);
        QVERIFY(s.sent("updateGroup").empty());
        QVERIFY(!s.h.logLines().filter("Updating retention").size());
    }

    void retentionSaveForAVanishedGroup() {
        Screen s({group(1, "Personal"), group(2, "Family", {}, 7)});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(2));
        QTRY_VERIFY(s.card(2));
        s.h.click(s.in(s.card(2), "retentionButton"));
        QTRY_VERIFY(s.h.findVisible("retentionSaveButton"));
        // The group disappears while the screen is open.
        s.h.model().groupsModel()->replace({group(1, "Personal")});
        s.h.click(s.h.findVisible("retentionSaveButton"));
        QVERIFY(s.h.logLines().contains("Error: Group not found in ip.groups"));
        QVERIFY(!s.controller()->showRetentionSettings());
        QVERIFY(!s.controller()->hasSelectedGroup());
        QVERIFY(!s.controller()->isUpdatingRetention());
        s.pass(300);
        QVERIFY(s.sent("updateGroup").empty());
    }

    void retentionFailureIsLoggedAndTheEditStaysUntilTheNextList() {
        Screen s({group(1, "Personal", {}, 0)});
        QVERIFY(s.load());
        QVERIFY(s.waitForGroups(1));
        QTRY_VERIFY(s.card(1));
        s.groups.failUpdates("disk full");
        s.h.click(s.in(s.card(1), "retentionButton"));
        QTRY_VERIFY(s.h.findVisible("retentionDaysField"));
        s.h.click(s.h.findVisible("retentionDaysField"));
        QTest::keyClick(s.h.window(), Qt::Key_A, Qt::ControlModifier);
        UiHarness::typeText(s.h.window(), "9");
        s.h.click(s.h.findVisible("retentionSaveButton"));
        QCOMPARE(s.h.model().groups()[0].retentionSettings->retentionDays.value_or(-1), 9);
        QTRY_VERIFY_WITH_TIMEOUT(!s.controller()->isUpdatingRetention(), 5000);
        QVERIFY(s.h.logLines().contains("Error updating retention settings: disk full"));
        QCOMPARE(s.h.model().groups()[0].retentionSettings->retentionDays.value_or(-1), 9);
        // The backend's next list puts its own value back.
        s.h.model().publish("getGroups", "", "");
        QTRY_COMPARE_WITH_TIMEOUT(
            s.h.model().groups()[0].retentionSettings->retentionDays.value_or(-1), 0, 5000);
    }
};

QTEST_MAIN(SettingsTest)
#include "tst_settings.moc"
