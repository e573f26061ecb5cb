// The group cards give the group's name the room it needs: when the name and
// the three labelled buttons do not fit, the buttons show only their symbols
// (named by their help texts), and the name carries its full text in a
// tooltip. The retention screen's last-run values line up in one column.
#include "ScreenTestSupport.h"

#include "Models.h"
#include "SettingsController.h"

#include <QQmlContext>
#include <QQmlProperty>
#include <QTest>

using namespace tarnwick;
using namespace tarnwick::ui::test;
using tarnwick::ui::SettingsController;

namespace {

QVariantMap groupVariant(std::int64_t id, const std::string &name,
                         std::optional<RetentionSettings> settings = std::nullopt) {
    GroupItem g;
    g.groupID = id;
    g.name = name;
    g.retentionSettings = std::move(settings);
    return SettingsController::groupToVariant(g);
}

QQuickItem *child(QQuickItem *item, const QString &name) {
    if (item == nullptr) {
        return nullptr;
    }
    for (QQuickItem *c : item->childItems()) {
        if (c->objectName() == name) {
            return c;
        }
        if (QQuickItem *found = child(c, name)) {
            return found;
        }
    }
    return nullptr;
}

QVariant attached(QQuickItem *item, const char *name) {
    return QQmlProperty(item, QString::fromLatin1(name), qmlContext(item)).read();
}

QQuickItem *loadCard(UiHarness &h, const std::string &name, int width) {
    QQuickItem *card = h.load(QStringLiteral("GroupCard"), QSize(width, 200),
                              {{"groupIDText", "7"},
                               {"groupName", QString::fromStdString(name)},
                               {"walkPaths", QStringList{}}});
    if (card != nullptr) {
        card->setHeight(card->implicitHeight());
        h.settle();
    }
    return card;
}

} // namespace

class GroupLayoutTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        UiHarness::prepareApplication();
        QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    }

    void aShortNameKeepsTheLabelledButtons() {
        UiHarness h;
        QQuickItem *card = loadCard(h, "Home", 418);
        QVERIFY2(card, qPrintable(h.errors().join('\n')));
        QCOMPARE(child(card, "retentionButton")->property("text").toString(), "Retention");
        QCOMPARE(child(card, "photosButton")->property("text").toString(), "Photos");
        QCOMPARE(child(card, "folderButton")->property("text").toString(), "Folder");
        QVERIFY(!child(card, "groupName")->property("truncated").toBool());
    }

    void aLongNameGetsTheRoomAndTheButtonsTheirSymbols() {
        UiHarness h;
        QQuickItem *card = loadCard(h, "Family photos and videos", 418);
        QVERIFY2(card, qPrintable(h.errors().join('\n')));
        QVERIFY(card->property("compactButtons").toBool());
        for (const auto &[name, help] :
             {std::pair{"retentionButton", "Configure retention settings"},
              std::pair{"photosButton", "Add Photos library"},
              std::pair{"folderButton", "Add folder"}}) {
            QQuickItem *button = child(card, QString::fromLatin1(name));
            QVERIFY(UiHarness::isShown(button));
            QCOMPARE(button->property("text").toString(), "");
            QCOMPARE(button->property("helpText").toString(), QString::fromLatin1(help));
            QCOMPARE(attached(button, "Accessible.name").toString(), QString::fromLatin1(help));
        }
        // The whole name shows, and its tooltip holds it.
        QQuickItem *title = child(card, "groupName");
        QVERIFY(!title->property("truncated").toBool());
        QCOMPARE(attached(title, "ToolTip.text").toString(), "Family photos and videos");

        // The same name with labelled buttons would have been cut short:
        // in a wider card the labels come back.
        card->setWidth(700);
        h.settle();
        QVERIFY(!card->property("compactButtons").toBool());
        QCOMPARE(child(card, "retentionButton")->property("text").toString(), "Retention");
    }

    void aNameTooLongEvenSoIsCutWithItsTooltip() {
        UiHarness h;
        const std::string name = "Family photos and videos from the summer house by the lake";
        QQuickItem *card = loadCard(h, name, 418);
        QVERIFY(card);
        QQuickItem *title = child(card, "groupName");
        QVERIFY(title->property("truncated").toBool());
        QCOMPARE(attached(title, "ToolTip.text").toString(), QString::fromStdString(name));
    }

    void retentionValuesFormAColumn() {
        UiHarness h;
        RetentionSettings settings;
        settings.retentionDays = 30;
        settings.lastRetentionTime = *parseISO8601("2024-05-01T14:05:00Z");
        settings.lastRetentionFileCount = 1234;
        settings.lastRetentionByteCount = 1'234'567;
        settings.lastOrphanScanTime = *parseISO8601("2024-04-02T08:30:00Z");
        settings.lastOrphanScanCount = 12;
        QVERIFY(h.load(QStringLiteral("RetentionSettingsView"), QSize(450, 650),
                       {{"group", groupVariant(4, "Family", settings)}, {"isUpdating", false}}));
        QList<qreal> lefts;
        for (const char *name : {"lastRunLineValue", "filesRemovedLineValue", "spaceFreedLineValue",
                                 "initialCleanupLineValue", "orphansRemovedLineValue"}) {
            QQuickItem *value = h.findVisible(QString::fromLatin1(name));
            QVERIFY2(value, name);
            lefts << value->mapToScene(QPointF(0, 0)).x();
        }
        for (qreal x : lefts) {
            QCOMPARE(x, lefts.first());
        }
        // Right of the widest label, "Orphans removed:".
        QQuickItem *widestValue = h.findVisible(QStringLiteral("orphansRemovedLineValue"));
        QQuickItem *line = widestValue->parentItem();
        QQuickItem *label = line->childItems().first();
        QCOMPARE(label->property("text").toString(), "Orphans removed:");
        QVERIFY(label->mapToScene(QPointF(label->implicitWidth(), 0)).x() <= lefts.first());
    }
};

QTEST_MAIN(GroupLayoutTest)
#include "tst_group_layout.moc"
