// The settings tab end to end: the real model launching the development
// backend, the real screen, and the folder picker answered by the test. A
// folder added through the screen syncs to "Up to date" in the model the
// status tab lists, and a retention change shows at once and is still there
// in the backend's next group list.
#include "DevBackendEnvironment.h"
#include "ItemsProvider.h"
#include "Pickers.h"
#include "PollManager.h"
#include "ScreenObjects.h"
#include "SettingsActions.h"
#include "SettingsController.h"
#include "UiHarness.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace tarnwick;
using tarnwick::ui::Pickers;
using tarnwick::ui::SettingsController;
using tarnwick::ui::test::UiHarness;

namespace {

void writeFile(const QString &path, const QByteArray &bytes) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        qFatal("cannot write %s", qPrintable(path));
    }
    file.write(bytes);
}

QQuickItem *findIn(QObject *object, const QString &name) {
    if (object == nullptr) {
        return nullptr;
    }
    auto *item = qobject_cast<QQuickItem *>(object);
    if (item && object->objectName() == name && UiHarness::isShown(item)) {
        return item;
    }
    if (item) {
        for (QQuickItem *child : item->childItems()) {
            if (QQuickItem *found = findIn(child, name)) {
                return found;
            }
        }
    }
    for (QObject *child : object->children()) {
        if (QQuickItem *found = findIn(child, name)) {
            return found;
        }
    }
    return nullptr;
}

const DirItem *findFolder(const ItemsProvider &model, const QString &path) {
    for (const DirItem &item : model.dirItems()) {
        if (QString::fromStdString(item.path) == path) {
            return &item;
        }
    }
    return nullptr;
}

std::optional<std::int64_t> retentionDays(const ItemsProvider &model, std::int64_t id) {
    const int row = model.groupsModel()->indexOf(id);
    if (row < 0) {
        return std::nullopt;
    }
    const auto &settings = model.groups()[std::size_t(row)].retentionSettings;
    return settings ? settings->retentionDays : std::nullopt;
}

} // namespace

namespace {

// The real model over the development backend, signed in, with the settings
// screen in a window as the app shows it.
struct SettingsScreen {
    QStringList log;
    std::unique_ptr<ItemsProvider> model;
    std::unique_ptr<SettingsActions> actions;
    Pickers pickers;
    std::optional<QString> choice;
    QQmlEngine engine;
    tarnwick::ui::ScreenObjects screenObjects;
    QQuickWindow window;
    std::unique_ptr<QObject> object;
    QQuickItem *view = nullptr;
    SettingsController *controller = nullptr;

    // Fails the test (returns false) when a step does not happen.
    bool open() {
        ItemsProvider::Options options;
        options.singleInstance = false;
        options.log = [this](const QString &line) { log << line; };
        model = std::make_unique<ItemsProvider>(options);
        actions = std::make_unique<SettingsActions>(*model);
        pickers.setRunner([this](const Pickers::Request &) { return choice; });

        // Signed in against the development backend (whose state may already
        // have a user): the first reply says which.
        QSignalSpy reported(model.get(), &ItemsProvider::loginStateReported);
        if (!QTest::qWaitFor([&] { return reported.count() > 0; }, 15000)) {
            return false;
        }
        if (!model->isLoggedIn()) {
            model->setUserName("ana@example.org");
            model->requestCodeViaEmail("ana@example.org");
            if (!QTest::qWaitFor(
                    [&] {
                        return model->error() ==
                               "6-digit code sent to ana@example.org. Check your email.";
                    },
                    15000)) {
                return false;
            }
            model->performLogin("123456");
        }
        if (!QTest::qWaitFor([&] { return model->isLoggedIn() && !model->isWaiting(); }, 15000)) {
            return false;
        }

        // Where the statically linked Tarnwick module keeps its qmldir.
        engine.addImportPath("qrc:/qt/qml");
        // The settings screen binds to the model, the settings actions and
        // the pickers only.
        screenObjects.model = model.get();
        screenObjects.settingsActions = actions.get();
        screenObjects.pickers = &pickers;
        tarnwick::ui::ScreenObjects::install(engine, screenObjects);
        window.resize(450, 650);
        QQmlComponent component(&engine);
        component.setData("import Tarnwick\nSettingsView {}\n",
                          QUrl("qrc:/tarnwick-test/SettingsViewHost.qml"));
        if (!component.isReady()) {
            qWarning("%s", qPrintable(component.errorString()));
            return false;
        }
        object.reset(component.createWithInitialProperties({{"initialRefreshDelay", 500}}));
        view = qobject_cast<QQuickItem *>(object.get());
        if (!view) {
            return false;
        }
        view->setParentItem(window.contentItem());
        view->setSize(QSizeF(450, 650));
        window.show();
        controller = qvariant_cast<SettingsController *>(view->property("controller"));
        return QTest::qWaitForWindowExposed(&window) && controller;
    }

    ~SettingsScreen() {
        object.reset();
        actions.reset();
        model.reset();
    }

    void click(QQuickItem *item) {
        QVERIFY(item);
        const QPointF centre = item->mapToScene(QPointF(item->width() / 2, item->height() / 2));
        QTest::mouseClick(&window, Qt::LeftButton, Qt::NoModifier, centre.toPoint());
    }

    // The paths the group's card lists.
    QStringList rows(const QString &card) {
        QStringList paths;
        collectRows(findIn(view, card), paths);
        return paths;
    }
    static void collectRows(QQuickItem *item, QStringList &paths) {
        if (!item) {
            return;
        }
        if (item->objectName() == "folderRow" && UiHarness::isShown(item)) {
            paths << item->property("path").toString();
        }
        for (QQuickItem *child : item->childItems()) {
            collectRows(child, paths);
        }
    }
};

} // namespace

class SettingsEndToEndTest : public QObject {
    Q_OBJECT
    QTemporaryDir state_;

private slots:
    void initTestCase() {
        UiHarness::prepareApplication();
        QVERIFY2(tarnwick::test::developmentBackendBuilt(),
                 "the development backend must be built into the resources directory");
        QVERIFY(state_.isValid());
        tarnwick::test::useFreshHome(state_);
        qputenv("KOVRIT_DEV_STATE", state_.filePath("sync").toUtf8());
        qputenv("KOVRIT_DEV_CODE", "123456");
        qunsetenv("KOVRIT_DEV_FAULT");
    }

    void addAFolderAndChangeRetentionThroughTheScreen() {
        SettingsScreen screen;
        QVERIFY(screen.open());
        QStringList &log = screen.log;
        auto &model = screen.model;
        auto &choice = screen.choice;
        auto &window = screen.window;
        QQuickItem *view = screen.view;
        SettingsController *controller = screen.controller;
        const auto click = [&screen](QQuickItem *item) { screen.click(item); };

        // A new account's two groups, listed by ID.
        QTRY_VERIFY_WITH_TIMEOUT(findIn(view, "groupCard1") && findIn(view, "groupCard2"), 15000);
        QCOMPARE(findIn(findIn(view, "groupCard1"), "groupName")->property("text").toString(),
                 "Personal");
        QCOMPARE(findIn(view, "groupCountText")->property("text").toString(), "2 groups");

        // A real folder with a few files, chosen in the folder picker.
        const QString folder = state_.filePath("Documents");
        QVERIFY(QDir().mkpath(folder + "/notes"));
        writeFile(folder + "/a.txt", "alpha");
        writeFile(folder + "/notes/b.md", "beta");
        choice = folder;
        QTRY_VERIFY_WITH_TIMEOUT(!model->isWaiting() && controller->hasTimeElapsed(), 15000);
        QQuickItem *card = findIn(view, "groupCard1");
        click(findIn(card, "folderButton"));
        QTRY_VERIFY_WITH_TIMEOUT(findFolder(*model, folder) &&
                                     findFolder(*model, folder)->status == "Up to date",
                                 30000);
        QCOMPARE(findFolder(*model, folder)->progress(), 1.0);
        QCOMPARE(findFolder(*model, folder)->groupID, 1);
        // Its row shows in the Personal card once the groups are refreshed.
        QTRY_VERIFY_WITH_TIMEOUT(findIn(findIn(view, "groupCard1"), "folderRow"), 15000);
        QCOMPARE(findIn(findIn(view, "groupCard1"), "folderRow")->property("path").toString(),
                 folder);
        QVERIFY(!findIn(findIn(view, "groupCard2"), "folderRow"));
        QDir().mkpath(UiHarness::screenshotDirectory());
        window.grabWindow().save(UiHarness::screenshotDirectory() +
                                 "/settings_end_to_end_folder_added.png");

        // Retention: 30 days for Personal.
        QTRY_VERIFY_WITH_TIMEOUT(!model->isWaiting(), 15000);
        click(findIn(findIn(view, "groupCard1"), "retentionButton"));
        QTRY_VERIFY(findIn(view, "retentionDaysField"));
        click(findIn(view, "retentionDaysField"));
        QTest::keyClick(&window, Qt::Key_A, Qt::ControlModifier);
        UiHarness::typeText(&window, "30");
        QCOMPARE(findIn(view, "retentionStatusPanel")->property("title").toString(),
                 "Retention Active");
        click(findIn(view, "retentionSaveButton"));
        // At once: the list is back and the model has the new value.
        QVERIFY(!controller->showRetentionSettings());
        QCOMPARE(retentionDays(*model, 1).value_or(-1), 30);
        QVERIFY(log.contains("Updating retention for group 1: 30 days"));
        // The request completes ...
        QTRY_VERIFY_WITH_TIMEOUT(log.contains("updateGroup request completed successfully"), 15000);
        QTRY_VERIFY_WITH_TIMEOUT(!controller->isUpdatingRetention(), 15000);
        QVERIFY(!model->pendingRetentionUpdates().contains(1));
        // ... and the next group list, now unprotected, still says 30.
        QSignalSpy replaced(model.get(), &ItemsProvider::groupsReplaced);
        QTRY_VERIFY_WITH_TIMEOUT(!model->isWaiting(), 15000);
        model->publish("getGroups", "", "");
        QTRY_VERIFY_WITH_TIMEOUT(replaced.size() >= 1, 15000);
        QCOMPARE(retentionDays(*model, 1).value_or(-1), 30);
        // Reopened, the screen shows the stored value.
        QTRY_VERIFY_WITH_TIMEOUT(!model->isWaiting(), 15000);
        click(findIn(findIn(view, "groupCard1"), "retentionButton"));
        QTRY_VERIFY(findIn(view, "retentionDaysField"));
        QCOMPARE(findIn(view, "retentionDaysField")->property("text").toString(), "30");
        click(findIn(view, "retentionCancelButton"));
    }

    void aSlowBackendStillListsTheNewFolderAndARefusalIsShown() {
        // Every answer takes 400 ms: the add waits behind the ping on the
        // wire and both group refreshes meet the one-request gate.
        qputenv("KOVRIT_DEV_FAULT", "slow=400");
        SettingsScreen screen;
        const bool opened = screen.open();
        qunsetenv("KOVRIT_DEV_FAULT");
        QVERIFY(opened);
        QTRY_VERIFY_WITH_TIMEOUT(findIn(screen.view, "groupCard2"), 15000);

        const QString folder = state_.filePath("Slow");
        QVERIFY(QDir().mkpath(folder));
        screen.choice = folder;
        QTRY_VERIFY_WITH_TIMEOUT(!screen.model->isWaiting() && screen.controller->hasTimeElapsed(),
                                 15000);
        screen.click(findIn(findIn(screen.view, "groupCard2"), "folderButton"));
        QTRY_VERIFY_WITH_TIMEOUT(screen.rows("groupCard2").contains(folder), 15000);
        QVERIFY(!findIn(screen.view, "settingsErrorPanel"));

        // The same folder in the other group: the backend says no, and the
        // screen shows its reason.
        QTRY_VERIFY_WITH_TIMEOUT(!screen.model->isWaiting(), 15000);
        screen.click(findIn(findIn(screen.view, "groupCard1"), "folderButton"));
        QTRY_VERIFY_WITH_TIMEOUT(findIn(screen.view, "settingsErrorPanel"), 30000);
        QCOMPARE(findIn(screen.view, "settingsErrorPanel")->property("message").toString(),
                 "Folder is already watched in group Family: " + folder);
        QVERIFY(!screen.rows("groupCard1").contains(folder));
        QDir().mkpath(UiHarness::screenshotDirectory());
        screen.window.grabWindow().save(UiHarness::screenshotDirectory() +
                                        "/settings_end_to_end_refused.png");

        // The next change that succeeds clears it.
        QTRY_VERIFY_WITH_TIMEOUT(!screen.model->isWaiting(), 15000);
        screen.click(findIn(findIn(screen.view, "groupCard2"), "removeFolderButton"));
        QTRY_VERIFY_WITH_TIMEOUT(!findIn(screen.view, "settingsErrorPanel"), 30000);
        QTRY_VERIFY_WITH_TIMEOUT(!screen.rows("groupCard2").contains(folder), 15000);
    }
};

QTEST_MAIN(SettingsEndToEndTest)
#include "tst_settings_end_to_end.moc"
