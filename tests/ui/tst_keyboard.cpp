// The window by keyboard alone: the order in which Tab visits the controls of
// each screen, a focus ring on every control that has the focus (so Space and
// Enter only ever act on a control that shows it), Enter in the login fields,
// Enter and Space on buttons, and Escape closing the popup, the update panel
// and the retention screen.
#include "RecordBuilders.h"
#include "ScreenTestSupport.h"

#include "UpdaterViewModel.h"

#include <QSignalSpy>
#include <QTest>
#include <QWindow>

#include <algorithm>

using namespace tarnwick::ui::test;
using tarnwick::test::folder;
using tarnwick::test::group;
using tarnwick::ui::UpdaterViewModel;

namespace {

UiHarness::Options manualClock() {
    UiHarness::Options options;
    options.manualClock = true;
    return options;
}

QQuickItem *descendantNamed(QQuickItem *item, const QString &name) {
    if (item == nullptr) {
        return nullptr;
    }
    for (QQuickItem *child : item->childItems()) {
        if (child->objectName() == name) {
            return child;
        }
        if (QQuickItem *found = descendantNamed(child, name)) {
            return found;
        }
    }
    return nullptr;
}

QQuickItem *focused(UiHarness &h) {
    return h.window()->activeFocusItem();
}

QString focusedName(UiHarness &h) {
    QQuickItem *item = focused(h);
    return item ? item->objectName() : QStringLiteral("<nothing>");
}

// Whether the item with the keyboard focus draws its focus ring.
bool focusShown(UiHarness &h) {
    return UiHarness::isShown(descendantNamed(focused(h), QStringLiteral("focusRing")));
}

void press(UiHarness &h, Qt::Key key) {
    QTest::keyClick(h.window(), key);
    QCoreApplication::processEvents();
}

// Presses Tab `count` times and returns the names of the controls it
// reached, failing (with an empty list) when one of them shows no focus.
QStringList tabThrough(UiHarness &h, int count) {
    QStringList names;
    for (int i = 0; i < count; ++i) {
        press(h, Qt::Key_Tab);
        if (!focusShown(h)) {
            qWarning().noquote() << "no focus ring on" << focusedName(h);
            return {};
        }
        names << focusedName(h);
    }
    return names;
}

bool activate(UiHarness &h) {
    h.window()->requestActivate();
    return QTest::qWaitFor([&] { return h.window()->isActive(); }, 5000);
}

} // namespace

class KeyboardTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { UiHarness::prepareApplication(); }

    void loginScreenFocusOrderAndEnter() {
        ScreenWithBackend s(manualClock());
        UiHarness &h = s.h;
        h.model().setIsLoggedIn(false);
        QVERIFY2(h.load(QStringLiteral("MenuBarView")), qPrintable(h.errors().join('\n')));
        QVERIFY(activate(h));
        // The e-mail field has the focus as the screen appears.
        QTRY_COMPARE(focusedName(h), "emailField");
        QVERIFY(focusShown(h));

        // Another window takes the keyboard and gives it back: the field has
        // it again.
        {
            QWindow other;
            other.resize(100, 100);
            other.show();
            other.requestActivate();
            QTRY_VERIFY(other.isActive());
            QVERIFY(!h.window()->isActive());
        }
        QVERIFY(activate(h));
        QTRY_COMPARE(focusedName(h), "emailField");

        UiHarness::typeText(h.window(), QStringLiteral("ana@example.org"));
        QCOMPARE(h.model().userName(), "ana@example.org");
        // Enter in the e-mail field sends the code.
        press(h, Qt::Key_Return);
        QTRY_COMPARE_WITH_TIMEOUT(s.requests("requestCode").size(), std::size_t(1), 10000);
        QCOMPARE(s.requests("requestCode")[0].id, "ana@example.org");
        QTRY_VERIFY_WITH_TIMEOUT(!h.model().isWaiting(), 10000);

        // Tab: the send button, the code, "Login", "Quit", then the footer,
        // and round again.
        QCOMPARE(tabThrough(h, 8),
                 (QStringList{"sendCodeButton", "codeField", "loginButton", "loginQuitButton",
                              "launchAtLoginToggle", "logoutButton", "quitButton", "emailField"}));
        // Back to the code field, which signs in on Enter.
        QCOMPARE(tabThrough(h, 2), (QStringList{"sendCodeButton", "codeField"}));
        UiHarness::typeText(h.window(), QStringLiteral("417203"));
        press(h, Qt::Key_Enter);
        QTRY_COMPARE_WITH_TIMEOUT(s.requests("auth").size(), std::size_t(1), 10000);
        QCOMPARE(s.requests("auth")[0].id, "ana@example.org");
        QCOMPARE(s.requests("auth")[0].data, "417203");
    }

    void aClickGivesNoFocusThatSpaceCouldUse() {
        ScreenWithBackend s(manualClock());
        UiHarness &h = s.h;
        h.model().setIsLoggedIn(true);
        QVERIFY(h.load(QStringLiteral("MenuBarView")));
        QVERIFY(activate(h));
        QQuickItem *settingsTab = h.findVisible(QStringLiteral("settingsTabButton"));
        h.click(settingsTab);
        QCOMPARE(h.root()->property("currentTab").toInt(), 1);
        // The tab the pointer chose does not hold the keyboard focus.
        QVERIFY(focused(h) != settingsTab);
        // Whatever holds it is the screen itself, or shows that it does.
        QVERIFY(focused(h) == nullptr || focused(h) == h.root() || focusShown(h));
        press(h, Qt::Key_Space);
        QCOMPARE(h.root()->property("currentTab").toInt(), 1);
    }

    void settingsTabThenSpaceShowsWhatItActivates() {
        ScreenWithBackend s(manualClock());
        UiHarness &h = s.h;
        QVERIFY(openSettingsTab(h, {group(1, "Personal", {"/home/ana/Documents"})}, QSize(450, 650),
                                true));

        // One Tab: the first control of the window shows its focus before
        // Space does anything with it.
        press(h, Qt::Key_Tab);
        QCOMPARE(focusedName(h), "statusTabButton");
        QVERIFY(focusShown(h));
        QCOMPARE(h.root()->property("currentTab").toInt(), 1);
        press(h, Qt::Key_Space);
        QCOMPARE(h.root()->property("currentTab").toInt(), 0);
        QVERIFY(s.requests("stopWatching").empty());

        // Back to the settings by keyboard, then on through the group's
        // controls to the folder's "stop watching", each with its ring.
        press(h, Qt::Key_Tab);
        QCOMPARE(focusedName(h), "settingsTabButton");
        press(h, Qt::Key_Enter);
        QCOMPARE(h.root()->property("currentTab").toInt(), 1);
        QTRY_VERIFY(h.findVisible(QStringLiteral("groupCard1")));
        QTRY_VERIFY_WITH_TIMEOUT(!h.model().isWaiting(), 10000);
        QCOMPARE(tabThrough(h, 5), (QStringList{"retentionButton", "photosButton", "folderButton",
                                                "openFolderButton", "removeFolderButton"}));
        QVERIFY(s.requests("stopWatching").empty());
        press(h, Qt::Key_Space);
        QTRY_COMPARE_WITH_TIMEOUT(s.requests("stopWatching").size(), std::size_t(1), 10000);
        QCOMPARE(s.requests("stopWatching")[0].id, "/home/ana/Documents");
    }

    void statusTabOrderAndActivation() {
        ScreenWithBackend s(manualClock());
        UiHarness &h = s.h;
        h.model().setIsLoggedIn(true);
        h.model().update(
            {folder("/home/ana/Documents", "Up to date"), folder("/home/ana/Music", "Up to date")});
        QVERIFY(h.load(QStringLiteral("MenuBarView")));
        QVERIFY(activate(h));
        QTRY_VERIFY(h.findVisible(QStringLiteral("syncItemCard")));

        // The tabs, then each card and its two buttons, then the footer.
        QCOMPARE(
            tabThrough(h, 11),
            (QStringList{"statusTabButton", "settingsTabButton", "syncItemCard", "openFolderButton",
                         "openWebButton", "syncItemCard", "openFolderButton", "openWebButton",
                         "launchAtLoginToggle", "logoutButton", "quitButton"}));
        // Shift+Tab goes back; Enter on the second card's web button and
        // Space on its folder button send their requests for that folder.
        QTest::keyClick(h.window(), Qt::Key_Backtab, Qt::ShiftModifier);
        QCOMPARE(focusedName(h), "logoutButton");
        QTest::keyClick(h.window(), Qt::Key_Backtab, Qt::ShiftModifier);
        QTest::keyClick(h.window(), Qt::Key_Backtab, Qt::ShiftModifier);
        QCOMPARE(focusedName(h), "openWebButton");
        QVERIFY(focusShown(h));
        press(h, Qt::Key_Return);
        QTRY_COMPARE_WITH_TIMEOUT(s.requests("openWeb").size(), std::size_t(1), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(!h.model().isWaiting(), 10000);
        QTest::keyClick(h.window(), Qt::Key_Backtab, Qt::ShiftModifier);
        QCOMPARE(focusedName(h), "openFolderButton");
        press(h, Qt::Key_Space);
        QTRY_COMPARE_WITH_TIMEOUT(s.requests("openDirPath").size(), std::size_t(1), 10000);
        QCOMPARE(s.requests("openDirPath")[0].id, "/home/ana/Music");
    }

    void tabThroughALongListScrollsItAlong() {
        UiHarness h(manualClock());
        h.model().setIsLoggedIn(true);
        std::vector<tarnwick::DirItem> items;
        QStringList names;
        for (int i = 0; i < 30; ++i) {
            const std::string name = "Folder-" + std::to_string(i);
            items.push_back(folder("/home/ana/" + name, "Up to date"));
            names << QString::fromStdString(name);
        }
        h.model().update(items);
        QVERIFY(h.load(QStringLiteral("MenuBarView"), QSize(450, 500)));
        QVERIFY(activate(h));
        auto *list = h.find<QQuickItem>(QStringLiteral("folderList"));
        QVERIFY(list);
        QCOMPARE(tabThrough(h, 2), (QStringList{"statusTabButton", "settingsTabButton"}));
        // Each card and its two buttons: every card is reached, in order, and
        // shown inside the list when it has the focus.
        QStringList reached;
        for (int i = 0; i < 30 * 3; ++i) {
            press(h, Qt::Key_Tab);
            QVERIFY2(focusShown(h), qPrintable(focusedName(h)));
            QQuickItem *item = focused(h);
            if (item->objectName() != QLatin1String("syncItemCard")) {
                continue;
            }
            reached << item->property("name").toString();
            const QRectF inList =
                item->mapRectToItem(list, QRectF(0, 0, item->width(), item->height()));
            QVERIFY2(inList.top() >= 0 && inList.bottom() <= list->height(),
                     qPrintable(QStringLiteral("%1 at %2..%3 outside 0..%4")
                                    .arg(reached.last())
                                    .arg(inList.top())
                                    .arg(inList.bottom())
                                    .arg(list->height())));
        }
        QCOMPARE(reached, names);
        press(h, Qt::Key_Tab);
        QCOMPARE(focusedName(h), "launchAtLoginToggle");

        // And back with Shift+Tab, from the last card's last button to the
        // first card, then out to the tabs.
        QStringList back;
        for (int i = 0; i < 30 * 3; ++i) {
            QTest::keyClick(h.window(), Qt::Key_Backtab, Qt::ShiftModifier);
            QCoreApplication::processEvents();
            QVERIFY2(focusShown(h), qPrintable(focusedName(h)));
            QQuickItem *item = focused(h);
            if (item->objectName() != QLatin1String("syncItemCard")) {
                continue;
            }
            back.prepend(item->property("name").toString());
            const QRectF inList =
                item->mapRectToItem(list, QRectF(0, 0, item->width(), item->height()));
            QVERIFY(inList.top() >= 0 && inList.bottom() <= list->height());
        }
        QVERIFY2(back == names, qPrintable(back.join(QLatin1Char(','))));
        QTest::keyClick(h.window(), Qt::Key_Backtab, Qt::ShiftModifier);
        QCoreApplication::processEvents();
        QCOMPARE(focusedName(h), "settingsTabButton");
    }

    // Twelve groups in a short window: Tab walks every group's controls in the list's
    // order and Shift+Tab walks them back, although scrolling has made the list's
    // delegates in another order.
    void settingsTabWalksEveryGroupInOrder() {
        ScreenWithBackend s(manualClock());
        UiHarness &h = s.h;
        std::vector<tarnwick::GroupItem> groups;
        QStringList expected;
        for (int i = 1; i <= 12; ++i) {
            groups.push_back(
                group(i, "Group " + std::to_string(i), {"/home/ana/Folder-" + std::to_string(i)}));
            expected << QStringLiteral("groupCard%1").arg(i);
        }
        QVERIFY(openSettingsTab(h, groups, QSize(450, 500), true));
        auto *list = h.find<QQuickItem>(QStringLiteral("groupList"));
        QVERIFY(list);
        QMetaObject::invokeMethod(list, "positionViewAtEnd");
        h.settle(50);
        QMetaObject::invokeMethod(list, "positionViewAtBeginning");
        h.settle(50);

        // The card a control belongs to, or "" outside the list.
        const auto cardOf = [](QQuickItem *item) {
            for (; item != nullptr; item = item->parentItem()) {
                if (item->objectName().startsWith(QLatin1String("groupCard"))) {
                    return item->objectName();
                }
            }
            return QString();
        };
        const auto walk = [&](bool forward, const QString &end) {
            QStringList cards;
            for (int i = 0; i < 200 && focusedName(h) != end; ++i) {
                if (forward) {
                    press(h, Qt::Key_Tab);
                } else {
                    QTest::keyClick(h.window(), Qt::Key_Backtab, Qt::ShiftModifier);
                    QCoreApplication::processEvents();
                }
                if (!focusShown(h)) {
                    qWarning().noquote() << "no focus ring on" << focusedName(h);
                    return QStringList();
                }
                const QString card = cardOf(focused(h));
                if (!card.isEmpty() && (cards.isEmpty() || cards.last() != card)) {
                    cards << card;
                }
            }
            return cards;
        };
        QCOMPARE(walk(true, QStringLiteral("launchAtLoginToggle")), expected);
        QStringList backwards = expected;
        std::reverse(backwards.begin(), backwards.end());
        QCOMPARE(walk(false, QStringLiteral("settingsTabButton")), backwards);
    }

    // Opened by keyboard, the Photos instructions take the focus: Tab reaches
    // their own buttons before anything else, and Enter on "Back" closes them.
    void photosInstructionsTakeTheKeyboard() {
        ScreenWithBackend s(manualClock());
        UiHarness &h = s.h;
        QVERIFY(openSettingsTab(h, {group(1, "Personal", {"/home/ana/Documents"})}, QSize(450, 650),
                                true));
        QCOMPARE(tabThrough(h, 3),
                 (QStringList{"statusTabButton", "settingsTabButton", "retentionButton"}));
        press(h, Qt::Key_Tab);
        QCOMPARE(focusedName(h), "photosButton");
        press(h, Qt::Key_Space);
        QTRY_VERIFY(h.findVisible(QStringLiteral("photoLibraryInstructionsView")));
        QCOMPARE(tabThrough(h, 2),
                 (QStringList{"photoLibraryBackButton", "photoLibraryContinueButton"}));
        QTest::keyClick(h.window(), Qt::Key_Backtab, Qt::ShiftModifier);
        QCoreApplication::processEvents();
        QCOMPARE(focusedName(h), "photoLibraryBackButton");
        press(h, Qt::Key_Return);
        QTRY_VERIFY(h.findVisible(QStringLiteral("groupCard1")));
        QVERIFY(!h.findVisible(QStringLiteral("photoLibraryInstructionsView")));
    }

    void escapeClosesThePopupButAnOpenPanelFirst() {
        UpdaterViewModel::Options options = unansweredFeedUpdater();
        UpdaterViewModel updater(std::move(options));
        UiHarness h(manualClock());
        h.setUpdater(&updater);
        h.model().setIsLoggedIn(true);
        QVERIFY(h.load(QStringLiteral("MenuBarView"), QSize(540, 650)));
        QVERIFY(activate(h));
        QSignalSpy closes(&h.app(), &tarnwick::ui::AppController::closeWindowRequested);

        h.click(h.findVisible(QStringLiteral("checkForUpdatesButton")));
        QObject *panel = h.find(QStringLiteral("updatesPanel"));
        QTRY_VERIFY(panel->property("opened").toBool());
        press(h, Qt::Key_Escape);
        QTRY_VERIFY(!panel->property("visible").toBool());
        QCOMPARE(closes.count(), 0);

        press(h, Qt::Key_Escape);
        QCOMPARE(closes.count(), 1);
    }

    void anOrdinaryWindowStaysOnEscape() {
        UiHarness h(manualClock());
        h.app().setFramed(true);
        h.model().setIsLoggedIn(true);
        QVERIFY(h.load(QStringLiteral("MenuBarView")));
        QVERIFY(activate(h));
        QSignalSpy closes(&h.app(), &tarnwick::ui::AppController::closeWindowRequested);
        press(h, Qt::Key_Tab);
        press(h, Qt::Key_Escape);
        QCOMPARE(closes.count(), 0);
    }

    void retentionScreenByKeyboardAndEscapeAsCancel() {
        ScreenWithBackend s(manualClock());
        UiHarness &h = s.h;
        QVERIFY(openSettingsTab(h, {group(1, "Personal", {}, 30)}, QSize(450, 650), true));
        QSignalSpy closes(&h.app(), &tarnwick::ui::AppController::closeWindowRequested);

        QCOMPARE(tabThrough(h, 3),
                 (QStringList{"statusTabButton", "settingsTabButton", "retentionButton"}));
        press(h, Qt::Key_Return);
        QTRY_VERIFY(h.findVisible(QStringLiteral("retentionSettingsView")));
        // The number of days takes the keyboard as the screen opens.
        QTRY_COMPARE(focusedName(h), "retentionDaysField");
        QVERIFY(focusShown(h));
        // The controls in order: back, the number of days, Cancel, Save.
        QTest::keyClick(h.window(), Qt::Key_Backtab, Qt::ShiftModifier);
        QCOMPARE(focusedName(h), "retentionBackButton");
        QVERIFY(focusShown(h));
        QCOMPARE(tabThrough(h, 3), (QStringList{"retentionDaysField", "retentionCancelButton",
                                                "retentionSaveButton"}));
        press(h, Qt::Key_Escape);
        QTRY_VERIFY(!h.findVisible(QStringLiteral("retentionSettingsView")));
        QVERIFY(h.findVisible(QStringLiteral("groupCard1")));
        QCOMPARE(closes.count(), 0);
        h.passTime(std::chrono::milliseconds(1000));
        QVERIFY(s.requests("updateGroup").empty());
    }
};

QTEST_MAIN(KeyboardTest)
#include "tst_keyboard.moc"
