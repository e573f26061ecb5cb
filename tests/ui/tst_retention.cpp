// The retention screen: the status panel that follows the typed number, the
// number field's parsing, the last-run lines with locale-formatted dates and
// byte counts, and its two exits ("Cancel"/back and "Save"/"Saving...").
// Runs in UTC (set by the test's environment) with American English.
#include "SettingsController.h"
#include "SettingsRetentionEditor.h"
#include "UiHarness.h"

#include <QLocale>
#include <QQuickItem>
#include <QSignalSpy>
#include <QTest>
#include <QTimeZone>

using namespace tarnwick;
using tarnwick::ui::RetentionEditor;
using tarnwick::ui::SettingsController;
using tarnwick::ui::test::UiHarness;

namespace {

QDateTime utc(int y, int m, int d, int h, int min) {
    return QDateTime(QDate(y, m, d), QTime(h, min), Qt::UTC);
}

Date date(const char *iso) {
    return *parseISO8601(iso);
}

QVariantMap groupWith(std::optional<RetentionSettings> settings) {
    GroupItem g;
    g.groupID = 4;
    g.name = "Family";
    g.walkPaths = {"/home/ana/Pictures"};
    g.retentionSettings = std::move(settings);
    return SettingsController::groupToVariant(g);
}

QString textOf(const QObject *item) {
    return item ? item->property("text").toString() : QStringLiteral("<missing>");
}

} // namespace

class RetentionTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        UiHarness::prepareApplication();
        QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
        QCOMPARE(qEnvironmentVariable("TZ"), "UTC");
    }

    void parsingTheNumberField() {
        const QLocale en(QLocale::English, QLocale::UnitedStates);
        QCOMPARE(RetentionEditor::parseDays("30", en), 30);
        QCOMPARE(RetentionEditor::parseDays(" 7 ", en), 7);
        QCOMPARE(RetentionEditor::parseDays("0", en), 0);
        QCOMPARE(RetentionEditor::parseDays("-3", en), -3);
        QVERIFY(!RetentionEditor::parseDays("", en));
        QVERIFY(!RetentionEditor::parseDays("abc", en));
        QVERIFY(!RetentionEditor::parseDays("3 days", en));
        QVERIFY(!RetentionEditor::parseDays("2.5", en));
        QVERIFY(!RetentionEditor::parseDays("99999999999999999999", en));
        // Plain: no grouping.
        QVERIFY(!RetentionEditor::parseDays("1,000", en));
        const QLocale de(QLocale::German, QLocale::Germany);
        QCOMPARE(RetentionEditor::parseDays("365", de), 365);
    }

    void formattingDatesAndSizes() {
        const QLocale en(QLocale::English, QLocale::UnitedStates);
        // Medium date and short time, in the user's time zone (UTC here).
        const QString when = RetentionEditor::formatDate(utc(2024, 5, 1, 14, 5), en);
        QVERIFY2(when.startsWith("May 1, 2024 2:05"), qPrintable(when));
        QVERIFY2(when.endsWith("PM"), qPrintable(when));
        const QLocale de(QLocale::German, QLocale::Germany);
        QCOMPARE(RetentionEditor::formatDate(utc(2024, 5, 1, 14, 5), de), "1. Mai 2024 14:05");

        // Decimal units as a file manager shows them.
        QCOMPARE(RetentionEditor::formatBytes(0, en), "Zero KB");
        QCOMPARE(RetentionEditor::formatBytes(1, en), "1 byte");
        QCOMPARE(RetentionEditor::formatBytes(999, en), "999 bytes");
        QCOMPARE(RetentionEditor::formatBytes(1000, en), "1 KB");
        QCOMPARE(RetentionEditor::formatBytes(1499, en), "1 KB");
        QCOMPARE(RetentionEditor::formatBytes(12'345, en), "12 KB");
        QCOMPARE(RetentionEditor::formatBytes(999'499, en), "999 KB");
        QCOMPARE(RetentionEditor::formatBytes(999'600, en), "1 MB");
        QCOMPARE(RetentionEditor::formatBytes(1'000'000, en), "1 MB");
        QCOMPARE(RetentionEditor::formatBytes(1'234'567, en), "1.2 MB");
        QCOMPARE(RetentionEditor::formatBytes(1'234'567'890, en), "1.23 GB");
        QCOMPARE(RetentionEditor::formatBytes(2'000'000'000'000, en), "2 TB");
        QCOMPARE(RetentionEditor::formatBytes(std::numeric_limits<qint64>::max(), en), "9.22 EB");
        QCOMPARE(RetentionEditor::formatBytes(1'234'567, de), "1,2 MB");
        QCOMPARE(RetentionEditor::formatBytes(-2'500, en), "-3 KB");
    }

    void panelFollowsTheEditedDays() {
        RetentionEditor editor;
        QSignalSpy changed(&editor, &RetentionEditor::retentionDaysChanged);
        RetentionSettings off;
        off.retentionDays = 0;
        editor.setGroup(groupWith(off));
        QCOMPARE(editor.fieldText(), "0");
        QVERIFY(!editor.isActive());
        QCOMPARE(editor.statusIcon(), "checkmark.circle");
        QCOMPARE(editor.statusTitle(), "Full Retention");
        QCOMPARE(editor.statusMessage(), "All deleted files are kept forever (0 = disabled)");

        editor.setTypedText("3");
        editor.setTypedText("30");
        QCOMPARE(editor.retentionDays(), 30);
        QCOMPARE(editor.statusIcon(), "info.circle");
        QCOMPARE(editor.statusTitle(), "Retention Active");
        QCOMPARE(editor.statusMessage(),
                 "Deleted files older than 30 days will be permanently removed");
        // Text that is no number leaves the value as it was.
        editor.setTypedText("30x");
        editor.setTypedText("");
        QCOMPARE(editor.retentionDays(), 30);
        editor.setTypedText("1");
        QCOMPARE(editor.statusMessage(),
                 "Deleted files older than 1 days will be permanently removed");
        editor.setTypedText("-5");
        QCOMPARE(editor.statusTitle(), "Full Retention");

        // A group without settings: nothing in the field, no retention.
        editor.setGroup(groupWith(std::nullopt));
        QCOMPARE(editor.fieldText(), "");
        QVERIFY(!editor.retentionDaysValue().isValid());
        QCOMPARE(editor.statusTitle(), "Full Retention");
        QVERIFY(!editor.hasLastRun());
        QVERIFY(!editor.hasOrphanScan());
    }

    void screenWithFullRetentionAndNoRun() {
        UiHarness h;
        RetentionSettings settings;
        settings.retentionDays = 0;
        QQuickItem *view = h.load("RetentionSettingsView", QSize(450, 650),
                                  {{"group", groupWith(settings)}, {"isUpdating", false}});
        QVERIFY2(view, qPrintable(h.errors().join('\n')));
        QCOMPARE(textOf(h.findVisible("retentionTitle")), "Retention Settings: Family");
        QQuickItem *panel = h.findVisible("retentionStatusPanel");
        QCOMPARE(panel->property("icon").toString(), "checkmark.circle");
        QCOMPARE(panel->property("title").toString(), "Full Retention");
        QCOMPARE(panel->property("message").toString(),
                 "All deleted files are kept forever (0 = disabled)");
        QQuickItem *field = h.findVisible("retentionDaysField");
        QCOMPARE(textOf(field), "0");
        QCOMPARE(field->width(), 80.0);
        QVERIFY(field->isEnabled());
        QCOMPARE(textOf(h.findVisible("noRetentionRunText")), "No retention run yet");
        QVERIFY(!h.findVisible("lastRunLine"));
        QVERIFY(!h.findVisible("filesRemovedLine"));
        QVERIFY(!h.findVisible("spaceFreedLine"));
        QVERIFY(!h.findVisible("orphanScanLines"));
        QQuickItem *save = h.findVisible("retentionSaveButton");
        QCOMPARE(textOf(save), "Save");
        QCOMPARE(save->property("symbol").toString(), "checkmark");
        QVERIFY(save->isEnabled());
        QCOMPARE(textOf(h.findVisible("retentionCancelButton")), "Cancel");
        QCOMPARE(h.findVisible("retentionBackButton")->property("symbol").toString(),
                 "chevron.left");
        h.grab("retention_full_retention");

        // Typing switches the panel at once; an unparsable text keeps it.
        h.click(field);
        QTest::keyClick(h.window(), Qt::Key_A, Qt::ControlModifier);
        UiHarness::typeText(h.window(), "30");
        QCOMPARE(panel->property("title").toString(), "Retention Active");
        QCOMPARE(panel->property("icon").toString(), "info.circle");
        QCOMPARE(panel->property("message").toString(),
                 "Deleted files older than 30 days will be permanently removed");
        UiHarness::typeText(h.window(), "x");
        QCOMPARE(textOf(field), "30x");
        QCOMPARE(panel->property("message").toString(),
                 "Deleted files older than 30 days will be permanently removed");

        // Save hands back the edited number; Cancel and back hand nothing.
        QSignalSpy saved(view, SIGNAL(save(QVariant)));
        QSignalSpy cancelled(view, SIGNAL(cancel()));
        h.click(save);
        QCOMPARE(saved.size(), 1);
        QCOMPARE(saved[0][0].toLongLong(), 30);
        h.click(h.findVisible("retentionCancelButton"));
        h.click(h.findVisible("retentionBackButton"));
        QCOMPARE(cancelled.size(), 2);
        QCOMPARE(saved.size(), 1);
    }

    void screenWithActiveRetentionAndLastRun() {
        UiHarness h;
        RetentionSettings settings;
        settings.retentionDays = 30;
        settings.lastRetentionTime = date("2024-05-01T14:05:00Z");
        settings.lastRetentionFileCount = 1234;
        settings.lastRetentionByteCount = 1'234'567;
        settings.lastOrphanScanTime = date("2024-04-02T08:30:00Z");
        settings.lastOrphanScanCount = 12;
        QQuickItem *view = h.load("RetentionSettingsView", QSize(450, 650),
                                  {{"group", groupWith(settings)}, {"isUpdating", false}});
        QVERIFY2(view, qPrintable(h.errors().join('\n')));
        QQuickItem *panel = h.findVisible("retentionStatusPanel");
        QCOMPARE(panel->property("title").toString(), "Retention Active");
        QCOMPARE(panel->property("message").toString(),
                 "Deleted files older than 30 days will be permanently removed");
        QVERIFY(!h.findVisible("noRetentionRunText"));
        QVERIFY(textOf(h.findVisible("lastRunLineValue")).startsWith("May 1, 2024 2:05"));
        QCOMPARE(textOf(h.findVisible("filesRemovedLineValue")), "1,234");
        QCOMPARE(textOf(h.findVisible("spaceFreedLineValue")), "1.2 MB");
        QVERIFY(textOf(h.findVisible("initialCleanupLineValue")).startsWith("Apr 2, 2024 8:30"));
        QCOMPARE(textOf(h.findVisible("orphansRemovedLineValue")), "12");
        QCOMPARE(textOf(h.findVisible("orphanScanCaption")),
                 "One-time scan when retention was first enabled");
        h.grab("retention_active");

        // A run without counts shows only its time.
        settings.lastRetentionFileCount.reset();
        settings.lastRetentionByteCount.reset();
        settings.lastOrphanScanTime.reset();
        view->setProperty("group", groupWith(settings));
        h.settle();
        QVERIFY(h.findVisible("lastRunLine"));
        QVERIFY(!h.findVisible("filesRemovedLine"));
        QVERIFY(!h.findVisible("spaceFreedLine"));
        QVERIFY(!h.findVisible("orphanScanLines"));
    }

    void savingState() {
        UiHarness h;
        RetentionSettings settings;
        settings.retentionDays = 7;
        QQuickItem *view = h.load("RetentionSettingsView", QSize(450, 650),
                                  {{"group", groupWith(settings)}, {"isUpdating", true}});
        QVERIFY2(view, qPrintable(h.errors().join('\n')));
        QQuickItem *save = h.findVisible("retentionSaveButton");
        QCOMPARE(textOf(save), "Saving...");
        QVERIFY(save->property("busy").toBool());
        QVERIFY(!save->isEnabled());
        QVERIFY(!h.findVisible("retentionDaysField")->isEnabled());
        h.settle(500); // the spinner fades in
        h.grab("retention_saving");
        QSignalSpy saved(view, SIGNAL(save(QVariant)));
        h.click(save);
        QCOMPARE(saved.size(), 0);
        view->setProperty("isUpdating", false);
        QCOMPARE(textOf(save), "Save");
        QVERIFY(save->isEnabled());
        QVERIFY(h.findVisible("retentionDaysField")->isEnabled());
    }
};

QTEST_MAIN(RetentionTest)
#include "tst_retention.moc"
