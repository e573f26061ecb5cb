// What a screen reader finds: the accessibility tree of every screen is
// walked, and any control a user can act on (button, tab, switch, check box,
// field, card) that is on screen without a name fails the test. Icon-only
// buttons are named by their help texts, and status cards read as
// "<name>, <status word>, <progress>".
#include "RecordBuilders.h"
#include "ScreenTestSupport.h"

#include "UpdaterViewModel.h"

#include <QAccessible>
#include <QDir>
#include <QFile>
#include <QTest>

using namespace tarnwick::ui::test;
using tarnwick::test::folder;
using tarnwick::test::group;
using tarnwick::ui::UpdaterViewModel;

namespace {

bool isInteractive(QAccessible::Role role) {
    switch (role) {
    case QAccessible::Button:
    case QAccessible::CheckBox:
    case QAccessible::RadioButton:
    case QAccessible::EditableText:
    case QAccessible::PageTab:
    case QAccessible::ComboBox:
    case QAccessible::SpinBox:
    case QAccessible::Slider:
    case QAccessible::Link:
    case QAccessible::ListItem:
    case QAccessible::MenuItem:
    case QAccessible::ButtonMenu:
    case QAccessible::ButtonDropDown:
        return true;
    default:
        return false;
    }
}

struct Control {
    QAccessible::Role role;
    QString name;
    QString objectName;
};

// Every control on screen below the interface, in tree order.
void walk(QAccessibleInterface *node, QList<Control> &out, int depth = 0) {
    if (node == nullptr || !node->isValid() || depth > 200) {
        return;
    }
    if (node->state().invisible) {
        return;
    }
    if (isInteractive(node->role())) {
        QObject *object = node->object();
        out.append({node->role(), node->text(QAccessible::Name),
                    object ? object->objectName() : QString()});
    }
    for (int i = 0; i < node->childCount(); ++i) {
        walk(node->child(i), out, depth + 1);
    }
}

QList<Control> controlsOf(UiHarness &h) {
    h.settle();
    QList<Control> controls;
    walk(QAccessible::queryAccessibleInterface(h.window()), controls);
    return controls;
}

// The controls without a name, described for the failure message.
QString unnamed(const QList<Control> &controls) {
    QStringList out;
    for (const Control &c : controls) {
        if (c.name.trimmed().isEmpty()) {
            out << QStringLiteral("role %1 (%2)").arg(int(c.role)).arg(c.objectName);
        }
    }
    return out.join(QStringLiteral(", "));
}

QStringList namesOf(const QList<Control> &controls) {
    QStringList names;
    for (const Control &c : controls) {
        names << c.name;
    }
    return names;
}

#define VERIFY_ALL_NAMED(controls)                                                                 \
    do {                                                                                           \
        const QString missing = unnamed(controls);                                                 \
        QVERIFY2(missing.isEmpty(), qPrintable(QStringLiteral("unnamed: ") + missing));            \
    } while (false)

UiHarness::Options manualClock() {
    UiHarness::Options options;
    options.manualClock = true;
    return options;
}

} // namespace

class AccessibilityTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        UiHarness::prepareApplication();
        // As a screen reader would switch it on (the offscreen platform has
        // no bridge to report it active, the tree is there all the same).
        QAccessible::setActive(true);
    }

    void loginScreen() {
        UiHarness h(manualClock());
        h.model().setIsLoggedIn(false);
        h.model().setUserName(QStringLiteral("ana@example.org"));
        QVERIFY(h.load(QStringLiteral("MenuBarView")));
        const QList<Control> controls = controlsOf(h);
        VERIFY_ALL_NAMED(controls);
        const QStringList names = namesOf(controls);
        for (const char *name : {"Email", "Send 6-digit code via email", "6-Digit Code", "Login",
                                 "Quit", "Launch at login", "Logout"}) {
            QVERIFY2(names.contains(QString::fromUtf8(name)),
                     qPrintable(QStringLiteral("%1 not in %2").arg(name, names.join('|'))));
        }
    }

    void statusTabCardsAndIconButtons() {
        UiHarness h(manualClock());
        h.model().setIsLoggedIn(true);
        h.model().update({folder("/home/ana/Documents", "Up to date"),
                          folder("/home/ana/Music", "3 of 6 - Checking uploaded files (12)")});
        QVERIFY(h.load(QStringLiteral("MenuBarView")));
        QTRY_VERIFY(h.findVisible(QStringLiteral("syncItemCard")));
        const QList<Control> controls = controlsOf(h);
        VERIFY_ALL_NAMED(controls);
        const QStringList names = namesOf(controls);
        QVERIFY2(names.contains("Status") && names.contains("Settings"),
                 qPrintable(names.join('|')));
        // The two icon-only buttons of each card carry their help texts.
        QCOMPARE(names.count(QStringLiteral("Open folder")), 2);
        QCOMPARE(names.count(QStringLiteral("Open in ") +
                             tarnwick::ui::AppController::siteName(h.model().loginURL())),
                 2);
        // The cards: name, status word, progress.
        QVERIFY2(names.contains(QStringLiteral("Documents, Synced, 100%")),
                 qPrintable(names.join('|')));
        bool syncingCard = false;
        for (const QString &name : names) {
            if (name.startsWith(QStringLiteral("Music, Syncing, ")) && name.endsWith('%') &&
                name != QStringLiteral("Music, Syncing, 0%") &&
                name != QStringLiteral("Music, Syncing, 100%")) {
                syncingCard = true;
            }
        }
        QVERIFY2(syncingCard, qPrintable(names.join('|')));
    }

    void settingsTabRetentionAndPhotosInstructions() {
        ScreenWithBackend s(manualClock());
        UiHarness &h = s.h;
        h.model().setIsLoggedIn(true);
        h.model().groupsModel()->replace(
            {group(1, "Personal", {"/home/ana/Documents"}), group(2, "Family", {}, 30)});
        QVERIFY(h.load(QStringLiteral("MenuBarView")));
        h.click(h.findVisible(QStringLiteral("settingsTabButton")));
        QTRY_VERIFY(h.findVisible(QStringLiteral("groupCard2")));
        QTRY_VERIFY_WITH_TIMEOUT(!h.model().isWaiting(), 10000);

        QList<Control> controls = controlsOf(h);
        VERIFY_ALL_NAMED(controls);
        QStringList names = namesOf(controls);
        for (const char *name :
             {"Retention", "Photos", "Folder", "Open folder", "Stop watching this folder"}) {
            QVERIFY2(names.contains(QString::fromUtf8(name)),
                     qPrintable(QStringLiteral("%1 not in %2").arg(name, names.join('|'))));
        }

        // The retention screen.
        h.click(h.findVisible(QStringLiteral("retentionButton")));
        QTRY_VERIFY(h.findVisible(QStringLiteral("retentionSettingsView")));
        controls = controlsOf(h);
        VERIFY_ALL_NAMED(controls);
        names = namesOf(controls);
        for (const char *name : {"Back", "Delete files older than", "Cancel", "Save"}) {
            QVERIFY2(names.contains(QString::fromUtf8(name)),
                     qPrintable(QStringLiteral("%1 not in %2").arg(name, names.join('|'))));
        }
        h.click(h.findVisible(QStringLiteral("retentionCancelButton")));
        QTRY_VERIFY(h.findVisible(QStringLiteral("groupCard1")));

        // The Photos instructions.
        h.click(h.findVisible(QStringLiteral("photosButton")));
        QTRY_VERIFY(h.findVisible(QStringLiteral("photoLibraryInstructionsView")));
        controls = controlsOf(h);
        VERIFY_ALL_NAMED(controls);
        names = namesOf(controls);
        QVERIFY2(names.contains("Back") && names.contains("I Have Downloaded Originals"),
                 qPrintable(names.join('|')));
    }

    void iCloudAlert() {
        ICloudAlertScreen alert(manualClock());
        UiHarness &h = alert.h;
        QVERIFY(alert.open());
        const QList<Control> controls = controlsOf(h);
        VERIFY_ALL_NAMED(controls);
        const QStringList names = namesOf(controls);
        QVERIFY2(names.contains("Cancel") && names.contains("Add Anyway"),
                 qPrintable(names.join('|')));
    }

    void updatePanelAndFailureView() {
        UpdaterViewModel::Options options = unansweredFeedUpdater();
        UpdaterViewModel updater(std::move(options));
        UiHarness h(manualClock());
        h.setUpdater(&updater);
        h.model().setIsLoggedIn(true);
        QVERIFY(h.load(QStringLiteral("MenuBarView"), QSize(540, 650)));
        h.click(h.findVisible(QStringLiteral("checkForUpdatesButton")));
        QTRY_VERIFY(h.find(QStringLiteral("updatesPanel"))->property("opened").toBool());
        QList<Control> controls = controlsOf(h);
        VERIFY_ALL_NAMED(controls);
        QStringList names = namesOf(controls);
        for (const char *name : {"Check for Updates", "Automatically check for updates",
                                 "Automatically download updates"}) {
            QVERIFY2(names.contains(QString::fromUtf8(name)),
                     qPrintable(QStringLiteral("%1 not in %2").arg(name, names.join('|'))));
        }

        UiHarness failed(manualClock());
        QVERIFY(failed.load(QStringLiteral("BackendFailedView")));
        controls = controlsOf(failed);
        VERIFY_ALL_NAMED(controls);
        QVERIFY2(namesOf(controls).contains("Restart backend"),
                 qPrintable(namesOf(controls).join('|')));
    }
};

QTEST_MAIN(AccessibilityTest)
#include "tst_accessibility.moc"
