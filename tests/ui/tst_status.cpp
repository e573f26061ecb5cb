// The status list over the model in known states: the spinner while
// loading, the empty state before and after the grace period, the heading's
// singular and plural, the cards' badges and buttons and what they send, the
// hover mark, a list of ten thousand folders, and the footer-less tab's
// failure view; the cards' tooltips, their second line (where a folder is
// when another has its name, what it is doing while it syncs) and their
// error mark.
#include "RecordBuilders.h"
#include "ScreenTestSupport.h"

#include "FolderStatusModel.h"
#include "Models.h"

#include <QQmlProperty>
#include <QTest>

using namespace tarnwick::ui::test;
using tarnwick::DirItem;
using tarnwick::test::folder;
using tarnwick::test::group;
using tarnwick::ui::FolderStatusModel;

namespace {

QString textOf(UiHarness &h, const QString &name) {
    QObject *object = h.findVisible(name);
    return object ? object->property("text").toString() : QStringLiteral("<hidden %1>").arg(name);
}

// The visible card whose name is `name`.
QQuickItem *cardNamed(UiHarness &h, const QString &name) {
    for (QObject *object : h.findAll(QStringLiteral("syncItemCard"))) {
        auto *card = qobject_cast<QQuickItem *>(object);
        if (card && UiHarness::isShown(card) && card->property("name").toString() == name) {
            return card;
        }
    }
    return nullptr;
}

QQuickItem *childNamed(QQuickItem *parent, const QString &objectName) {
    if (parent == nullptr) {
        return nullptr;
    }
    for (QQuickItem *child : parent->childItems()) {
        if (child->objectName() == objectName) {
            return child;
        }
        if (QQuickItem *found = childNamed(child, objectName)) {
            return found;
        }
    }
    return nullptr;
}

QString detailOf(QQuickItem *card) {
    QQuickItem *detail = childNamed(card, QStringLiteral("cardDetail"));
    return detail && UiHarness::isShown(detail) ? detail->property("text").toString()
                                                : QStringLiteral("<no second line>");
}

// A visible text anywhere in the window (tooltips live in its overlay, not
// below the loaded screen).
QQuickItem *shownText(QQuickItem *item, const QString &text) {
    if (item == nullptr || !item->isVisible() || item->opacity() <= 0.0) {
        return nullptr;
    }
    if (item->inherits("QQuickText") && item->property("text").toString() == text) {
        return item;
    }
    for (QQuickItem *child : item->childItems()) {
        if (QQuickItem *found = shownText(child, text)) {
            return found;
        }
    }
    return nullptr;
}

DirItem withError(DirItem item, const std::string &error) {
    item.error = error;
    return item;
}

// Pixels of the grabbed window inside an item's rectangle that are close to
// a colour.
int pixelsNear(const QImage &image, QQuickItem *item, const QColor &color) {
    const QRectF scene = item->mapRectToScene(QRectF(0, 0, item->width(), item->height()));
    const qreal dpr = image.devicePixelRatio();
    const QRect area =
        QRectF(scene.x() * dpr, scene.y() * dpr, scene.width() * dpr, scene.height() * dpr)
            .toAlignedRect()
            .intersected(image.rect());
    int count = 0;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x) {
            const QColor c = image.pixelColor(x, y);
            if (std::abs(c.red() - color.red()) < 40 && std::abs(c.green() - color.green()) < 40 &&
                std::abs(c.blue() - color.blue()) < 40) {
                ++count;
            }
        }
    }
    return count;
}

} // namespace

class StatusTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { UiHarness::prepareApplication(); }

    void spinnerWhileLoading() {
        UiHarness h;
        h.model().setIsLoading(true);
        QVERIFY2(h.load(QStringLiteral("ContentView")), qPrintable(h.errors().join('\n')));
        QVERIFY(h.findVisible("loadingState"));
        QVERIFY(h.findVisible("loadingSpinner"));
        QVERIFY(h.findVisible("loadingSpinner")->property("running").toBool());
        QCOMPARE(textOf(h, "loadingText"), "Loading...");
        QVERIFY(!h.findVisible("emptyState"));
        QVERIFY(!h.findVisible("listState"));
    }

    void spinnerStopsWhileTheWindowIsHidden() {
        UiHarness h;
        h.model().setIsLoading(true);
        QVERIFY2(h.load(QStringLiteral("ContentView")), qPrintable(h.errors().join('\n')));
        QObject *spinner = h.findVisible("loadingSpinner");
        QVERIFY(spinner);
        QVERIFY(spinner->property("running").toBool());
        h.window()->hide();
        QTRY_VERIFY(!spinner->property("running").toBool());
        h.window()->show();
        QTRY_VERIFY(spinner->property("running").toBool());
    }

    void emptyStateAfterTheGracePeriod() {
        UiHarness h;
        h.model().setIsLoading(false);
        QVERIFY(h.load(QStringLiteral("ContentView"), QSize(450, 650), {{"gracePeriod", 600}}));
        QVERIFY(!h.findVisible("loadingState"));
        QVERIFY(h.findVisible("emptyState"));
        QCOMPARE(h.findVisible("emptyState")->property("icon").toString(), "folder.badge.plus");
        QCOMPARE(textOf(h, "emptyStateTitle"), "Loading...");
        QCOMPARE(textOf(h, "emptyStateMessage"), "Please wait while we load your sync status");
        QTRY_COMPARE_WITH_TIMEOUT(textOf(h, "emptyStateTitle"), "No Folders Syncing", 3000);
        QCOMPARE(textOf(h, "emptyStateMessage"), "Add folders to sync from the Settings tab");
        // Nothing resets it: loading again and idle again keeps the words.
        h.model().setIsLoading(true);
        QVERIFY(h.findVisible("loadingState"));
        h.model().setIsLoading(false);
        QCOMPARE(textOf(h, "emptyStateTitle"), "No Folders Syncing");
    }

    void theGracePeriodIsFiveSecondsAndStartsOnScreen() {
        UiHarness h;
        h.model().setIsLoading(false);
        QQuickItem *view = h.load(QStringLiteral("ContentView"));
        QVERIFY(view);
        QCOMPARE(view->property("gracePeriod").toInt(), 5000);
        QVERIFY(view->property("appeared").toBool());

        // A view that is not shown yet (another tab is in front) has not
        // started waiting; the first appearance starts the grace period.
        UiHarness hidden;
        hidden.model().setIsLoading(false);
        QQuickItem *later = hidden.load(QStringLiteral("ContentView"), QSize(450, 650),
                                        {{"gracePeriod", 100}, {"visible", false}});
        QVERIFY(later);
        hidden.settle(300);
        QVERIFY(!later->property("appeared").toBool());
        QVERIFY(!later->property("hasTimeElapsed").toBool());
        later->setVisible(true);
        QVERIFY(later->property("appeared").toBool());
        QVERIFY(!later->property("hasTimeElapsed").toBool());
        QTRY_VERIFY(later->property("hasTimeElapsed").toBool());
    }

    void headingSingularAndPlural() {
        UiHarness h;
        h.model().setIsLoading(false);
        h.model().update({folder("/home/u/Documents", "Up to date")});
        QVERIFY(h.load(QStringLiteral("ContentView")));
        QVERIFY(h.findVisible("listState"));
        QVERIFY(!h.findVisible("emptyState"));
        QCOMPARE(textOf(h, "headingAppName"), "Tarnwick");
        QCOMPARE(textOf(h, "folderCountText"), "1 folder");
        h.model().update({folder("/home/u/Pictures", "Up to date")});
        QTRY_COMPARE(textOf(h, "folderCountText"), "2 folders");
        h.model().deleteItem(QStringLiteral("/home/u/Documents"));
        QTRY_COMPARE(textOf(h, "folderCountText"), "1 folder");
        h.model().deleteItem(QStringLiteral("/home/u/Pictures"));
        QTRY_VERIFY(h.findVisible("emptyState"));
    }

    void listAppearsEvenWhileLoading() {
        UiHarness h;
        h.model().setIsLoading(true);
        h.model().update({folder("/a/b", "1 of 6 - Scanning files (3)")});
        QVERIFY(h.model().isLoading());
        QVERIFY(h.load(QStringLiteral("ContentView")));
        QVERIFY(h.findVisible("listState"));
        QVERIFY(!h.findVisible("loadingState"));
    }

    void cardsBadgesAndSymbols() {
        UiHarness h;
        h.model().update({folder("/d/pending", "Waiting"),
                          folder("/d/scanning", "1 of 6 - Scanning files (10)"),
                          folder("/d/synced", "Up to date")});
        QVERIFY(h.load(QStringLiteral("ContentView")));
        struct Expect {
            const char *name;
            const char *word;
            const char *icon;
        };
        for (const Expect &e : {Expect{"pending", "Pending", "arrow.clockwise"},
                                Expect{"scanning", "Syncing", "arrow.clockwise"},
                                Expect{"synced", "Synced", "internaldrive"}}) {
            QQuickItem *card = cardNamed(h, e.name);
            QVERIFY2(card, e.name);
            QCOMPARE(childNamed(card, "statusBadgeText")->property("text").toString(),
                     QString(e.word));
            QCOMPARE(childNamed(card, "cardName")->property("text").toString(), QString(e.name));
            // The card's symbol is the folder's icon, as walkDirIcon tells.
            QCOMPARE(childNamed(card, "cardIcon")->property("name").toString(), QString(e.icon));
            QCOMPARE(h.model().walkDirIcon(card->property("path").toString()), QString(e.icon));
            QCOMPARE(childNamed(card, "openFolderButton")->property("helpText").toString(),
                     "Open folder");
            QCOMPARE(childNamed(card, "openWebButton")->property("helpText").toString(),
                     "Open in tarnwick.app");
            QCOMPARE(childNamed(card, "openWebButton")->property("symbol").toString(), "network");
            QCOMPARE(card->property("padding").toReal(), 16.0);
        }
        // The model's order.
        auto *list = h.find<QQuickItem>("folderList");
        QCOMPARE(list->property("count").toInt(), 3);
        QVERIFY(cardNamed(h, "pending")->mapToScene({0, 0}).y() <
                cardNamed(h, "scanning")->mapToScene({0, 0}).y());
        QVERIFY(cardNamed(h, "scanning")->mapToScene({0, 0}).y() <
                cardNamed(h, "synced")->mapToScene({0, 0}).y());
        // A status change redraws the card.
        h.model().update({folder("/d/pending", "Up to date")});
        QTRY_COMPARE(
            childNamed(cardNamed(h, "pending"), "statusBadgeText")->property("text").toString(),
            "Synced");
    }

    void openButtonsSendTheirRequests() {
        ScreenWithBackend screen;
        UiHarness &h = screen.h;
        h.model().update({folder("/home/u/Work", "Up to date", 7),
                          folder("/home/u/Big", "Up to date", 9007199254740993LL)});
        QVERIFY(h.load(QStringLiteral("ContentView")));

        h.click(childNamed(cardNamed(h, "Work"), "openFolderButton"));
        QTRY_COMPARE(screen.requests("openDirPath").size(), std::size_t(1));
        QCOMPARE(screen.requests("openDirPath")[0].id, "/home/u/Work");
        QCOMPARE(screen.requests("openDirPath")[0].data, "");
        QTRY_VERIFY(!h.model().isWaiting());

        h.click(childNamed(cardNamed(h, "Work"), "openWebButton"));
        QTRY_COMPARE(screen.requests("openWeb").size(), std::size_t(1));
        QCOMPARE(screen.requests("openWeb")[0].id, "7");
        QCOMPARE(screen.requests("openWeb")[0].data, "");
        QTRY_VERIFY(!h.model().isWaiting());

        // A group ID beyond what a script number holds goes out exactly.
        h.click(childNamed(cardNamed(h, "Big"), "openWebButton"));
        QTRY_COMPARE(screen.requests("openWeb").size(), std::size_t(2));
        QCOMPARE(screen.requests("openWeb")[1].id, "9007199254740993");
    }

    void hoverEnlargesExactlyOneCard() {
        UiHarness h;
        h.model().update({folder("/h/one", "Up to date"), folder("/h/two", "Up to date")});
        QQuickItem *view = h.load(QStringLiteral("ContentView"));
        QVERIFY(view);
        QQuickItem *one = cardNamed(h, "one");
        QQuickItem *two = cardNamed(h, "two");
        QVERIFY(one && two);
        QCOMPARE(one->scale(), 1.0);

        h.hover(childNamed(one, "cardName"));
        QTRY_COMPARE(view->property("hoveredItem").toString(), "/h/one");
        QTRY_COMPARE(one->scale(), 1.01);
        QCOMPARE(two->scale(), 1.0);

        // From one card to the next: one enlarged card, the other back.
        h.hover(childNamed(two, "cardName"));
        QTRY_COMPARE(view->property("hoveredItem").toString(), "/h/two");
        QTRY_COMPARE(two->scale(), 1.01);
        QTRY_COMPARE(one->scale(), 1.0);
        // Animated, not a jump: a fresh hover is not at full size at once.
        QTest::mouseMove(h.window(), QPoint(5, 5));
        QTRY_COMPARE(view->property("hoveredItem").toString(), "");
        QTRY_COMPARE(two->scale(), 1.0);
        QTest::mouseMove(h.window(), childNamed(one, "cardName")->mapToScene({5, 5}).toPoint());
        QTRY_COMPARE(view->property("hoveredItem").toString(), "/h/one");
        QVERIFY(one->scale() < 1.01);
        QTRY_COMPARE(one->scale(), 1.01);
    }

    void tenThousandFoldersMakeOnlyAScreenfulOfCards() {
        UiHarness h;
        std::vector<DirItem> items;
        items.reserve(10000);
        for (int i = 0; i < 10000; ++i) {
            items.push_back(folder("/many/folder" + std::to_string(i),
                                   i % 3 == 0 ? "Up to date" : "2 of 6 - Uploading file (x) ..."));
        }
        h.model().update(items);
        QVERIFY(h.load(QStringLiteral("ContentView")));
        auto *list = h.find<QQuickItem>("folderList");
        QCOMPARE(list->property("count").toInt(), 10000);
        QCOMPARE(textOf(h, "folderCountText"), "10000 folders");
        const int made = int(h.findAll(QStringLiteral("syncItemCard")).size());
        QVERIFY2(made > 3 && made < 60, qPrintable(QString::number(made)));
        // Scrolling to the end shows the last folder without making the rest.
        QMetaObject::invokeMethod(list, "positionViewAtEnd");
        h.settle();
        QVERIFY(cardNamed(h, "folder9999"));
        QVERIFY(int(h.findAll(QStringLiteral("syncItemCard")).size()) < 60);
    }

    void cardTooltipAndSecondLine() {
        UiHarness h;
        const std::string uploading = "2 of 6 - Uploading 20000 changed files (5.7 MB)";
        h.model().update({folder("/home/ana/Documents", uploading, 7),
                          folder("/home/ana/Music", "Up to date", 7),
                          folder("/home/ana/Notes", "Waiting", 8)});
        h.model().groupsModel()->replace({group(7, "Family")});
        QVERIFY2(h.load(QStringLiteral("ContentView")), qPrintable(h.errors().join('\n')));

        // While it syncs, the step under the name, in smaller type.
        QQuickItem *documents = cardNamed(h, "Documents");
        QVERIFY(documents);
        QCOMPARE(detailOf(documents), QString::fromStdString(uploading));
        QQuickItem *name = childNamed(documents, "cardName");
        QQuickItem *detail = childNamed(documents, "cardDetail");
        QVERIFY(detail->mapToScene({0, 0}).y() >= name->mapToScene({0, name->height()}).y());
        QVERIFY(detail->property("font").value<QFont>().pointSizeF() <
                name->property("font").value<QFont>().pointSizeF());
        // An idle or pending folder has its one row and nothing more.
        QCOMPARE(detailOf(cardNamed(h, "Music")), "<no second line>");
        QCOMPARE(detailOf(cardNamed(h, "Notes")), "<no second line>");
        QVERIFY(cardNamed(h, "Music")->height() < documents->height());

        // The tooltip: full path, group and status line (a group not known
        // yet is left out).
        const QString tip = QStringLiteral("/home/ana/Documents\nGroup: Family\n") +
                            QString::fromStdString(uploading);
        QCOMPARE(documents->property("toolTipText").toString(), tip);
        QCOMPARE(cardNamed(h, "Notes")->property("toolTipText").toString(),
                 "/home/ana/Notes\nWaiting");
        QVERIFY(!shownText(h.window()->contentItem(), tip));
        h.hover(name);
        QTRY_VERIFY(shownText(h.window()->contentItem(), tip));
        h.grab(QStringLiteral("status-card-tooltip"));
        // The buttons keep their own help: no card tooltip over them.
        h.hover(childNamed(documents, "openFolderButton"));
        QTRY_VERIFY(!shownText(h.window()->contentItem(), tip));
        QVERIFY(!documents->property("showsToolTip").toBool());

        // The groups arrive later: the tooltip names the group then.
        h.model().groupsModel()->replace({group(7, "Family"), group(8, "Work")});
        QTRY_COMPARE(cardNamed(h, "Notes")->property("toolTipText").toString(),
                     "/home/ana/Notes\nGroup: Work\nWaiting");

        // An upload adds the file under way below the step: the card keeps
        // to the step, the tooltip tells both.
        h.model().update({folder("/home/ana/Documents", "2 of 6 - Uploading file (a.pdf) 40%", 7)});
        QTRY_COMPARE(documents->property("status").toString(),
                     QString::fromStdString(uploading) + "\nUploading file (a.pdf) 40%");
        QCOMPARE(detailOf(documents), QString::fromStdString(uploading));
        QCOMPARE(documents->property("toolTipText").toString(),
                 tip + "\nUploading file (a.pdf) 40%");

        // The step moves on; done, the second line goes.
        h.model().update({folder("/home/ana/Documents", "5 of 6 - Verifying", 7)});
        QTRY_COMPARE(detailOf(documents), "5 of 6 - Verifying");
        h.model().update({folder("/home/ana/Documents", "Up to date", 7)});
        QTRY_COMPARE(detailOf(documents), "<no second line>");
    }

    void cardsWithTheSameNameAreToldApart() {
        UiHarness h;
        h.model().update({folder("/home/ana/Documents", "Up to date"),
                          folder("/home/ana/Work/Documents", "1 of 6 - Scanning files (3)"),
                          folder("/home/ana/Pictures", "Up to date")});
        QVERIFY(h.load(QStringLiteral("ContentView")));
        const auto cardAt = [&h](const QString &path) -> QQuickItem * {
            for (QObject *object : h.findAll(QStringLiteral("syncItemCard"))) {
                auto *card = qobject_cast<QQuickItem *>(object);
                if (card && UiHarness::isShown(card) && card->property("path").toString() == path) {
                    return card;
                }
            }
            return nullptr;
        };
        QCOMPARE(detailOf(cardAt("/home/ana/Documents")), "in ana");
        QCOMPARE(detailOf(cardAt("/home/ana/Work/Documents")),
                 QStringLiteral("in Work  \u00b7  1 of 6 - Scanning files (3)"));
        QCOMPARE(detailOf(cardAt("/home/ana/Pictures")), "<no second line>");
        h.grab(QStringLiteral("status-duplicate-names"));

        // A third one whose parent has the same name: as many folders as
        // it takes.
        h.model().update({folder("/mnt/backup/ana/Documents", "Up to date")});
        QTRY_COMPARE(detailOf(cardAt("/mnt/backup/ana/Documents")), "in backup/ana");
        // (All of a folder's parents: its path from the root.)
        QTRY_COMPARE(detailOf(cardAt("/home/ana/Documents")), "in /home/ana");
        QCOMPARE(detailOf(cardAt("/home/ana/Work/Documents")),
                 QStringLiteral("in Work  \u00b7  1 of 6 - Scanning files (3)"));

        // A folder the backend renames into a name another one in the same
        // folder has: their own paths tell them apart.
        DirItem renamed = folder("/home/ana/Pictures", "Up to date");
        renamed.name = "Documents";
        h.model().update({renamed});
        QTRY_COMPARE(detailOf(cardAt("/home/ana/Pictures")), "in /home/ana/Pictures");
        QCOMPARE(detailOf(cardAt("/home/ana/Documents")), "in /home/ana/Documents");
        QCOMPARE(detailOf(cardAt("/mnt/backup/ana/Documents")), "in backup/ana");
        // Renamed back, it stands alone again.
        renamed.name = "Pictures";
        h.model().update({renamed});
        QTRY_COMPARE(detailOf(cardAt("/home/ana/Pictures")), "<no second line>");
        QCOMPARE(detailOf(cardAt("/home/ana/Documents")), "in /home/ana");

        // Alone again, a name needs no place.
        h.model().deleteItem(QStringLiteral("/mnt/backup/ana/Documents"));
        h.model().deleteItem(QStringLiteral("/home/ana/Work/Documents"));
        QTRY_COMPARE(detailOf(cardAt("/home/ana/Documents")), "<no second line>");
    }

    void theShortestPlaceThatTellsFoldersApart() {
        using M = FolderStatusModel;
        QCOMPARE(M::distinguishingParent("/a/x/Docs", {"/a/x/Docs"}), "");
        QCOMPARE(M::distinguishingParent("/a/x/Docs", {"/a/x/Docs", "/a/y/Docs"}), "x");
        QCOMPARE(M::distinguishingParent("/m/a/x/Docs", {"/m/a/x/Docs", "/m/b/x/Docs"}), "a/x");
        // It takes every parent: the path from the root.
        QCOMPARE(M::distinguishingParent("/a/x/Docs", {"/a/x/Docs", "/b/x/Docs"}), "/a/x");
        // One folder's parents are the end of the other's.
        QCOMPARE(M::distinguishingParent("/x/Docs", {"/x/Docs", "/a/x/Docs"}), "/x");
        QCOMPARE(M::distinguishingParent("/a/x/Docs", {"/x/Docs", "/a/x/Docs"}), "/a/x");
        QCOMPARE(M::distinguishingParent("/y/a/x/Docs", {"/x/Docs", "/y/a/x/Docs"}), "a/x");
        QCOMPARE(M::distinguishingParent("/Docs", {"/Docs", "/a/Docs"}), "/");
        QCOMPARE(M::distinguishingParent("/a/Docs/", {"/a/Docs/", "/b/Docs"}), "/a");
        // The same parent: the folder's own path.
        QCOMPARE(M::distinguishingParent("/a/x/Docs/", {"/a/x/Docs/", "/a/x/Other"}), "/a/x/Docs");
    }

    void aFolderInErrorCarriesAMark() {
        UiHarness h;
        h.model().update({withError(folder("/d/broken", "Up to date"), "Permission denied"),
                          folder("/d/fine", "Up to date")});
        QVERIFY(h.load(QStringLiteral("ContentView")));
        QQuickItem *broken = cardNamed(h, "broken");
        QQuickItem *fine = cardNamed(h, "fine");
        QVERIFY(broken && fine);
        QQuickItem *mark = childNamed(broken, "cardErrorMark");
        QVERIFY(mark && UiHarness::isShown(mark));
        QVERIFY(!UiHarness::isShown(childNamed(fine, "cardErrorMark")));
        QCOMPARE(broken->property("toolTipText").toString(),
                 "/d/broken\nUp to date\nError: Permission denied");
        QCOMPARE(fine->property("toolTipText").toString(), "/d/fine\nUp to date");

        // The mark is drawn in red over the folder's symbol.
        const QColor red = themeColor(h.engine(), "red");
        const QImage shot = h.grab(QStringLiteral("status-folder-error"));
        QVERIFY(pixelsNear(shot, mark, red) > 10);
        QCOMPARE(pixelsNear(shot, childNamed(fine, "cardIcon"), red), 0);

        h.hover(childNamed(broken, "cardIcon"));
        QTRY_VERIFY(shownText(h.window()->contentItem(),
                              "/d/broken\nUp to date\nError: Permission denied"));

        // The backend no longer reports it: the mark goes.
        h.model().update({folder("/d/broken", "Up to date")});
        QTRY_VERIFY(!UiHarness::isShown(childNamed(broken, "cardErrorMark")));
        QCOMPARE(broken->property("toolTipText").toString(), "/d/broken\nUp to date");
    }
};

QTEST_MAIN(StatusTest)
#include "tst_status.moc"
