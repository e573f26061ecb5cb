// The shared components: badge words and colours at the edges of progress,
// panel colours by type, the empty state, the progress bar's fill and the
// two button styles (enabled, disabled, pressed).
#include "UiHarness.h"

#include <QColor>
#include <QQmlProperty>
#include <QTest>

using tarnwick::ui::test::UiHarness;

namespace {
QColor colorOf(QObject *object, const char *property) {
    return object ? object->property(property).value<QColor>() : QColor();
}
QColor themeColor(UiHarness &h, const QString &role) {
    // The Theme singleton through a throw-away binding.
    QQmlComponent component(&h.engine());
    component.setData("import QtQuick\nimport Tarnwick\nQtObject { property color c: Theme." +
                          role.toUtf8() + " }",
                      QUrl());
    std::unique_ptr<QObject> object(component.create());
    return object ? object->property("c").value<QColor>() : QColor();
}
bool sameRgb(const QColor &a, const QColor &b) {
    return a.isValid() && b.isValid() && a.rgb() == b.rgb();
}
} // namespace

class ComponentsTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { UiHarness::prepareApplication(); }

    void statusBadgeWords_data() {
        QTest::addColumn<double>("progress");
        QTest::addColumn<QString>("word");
        QTest::addColumn<QString>("symbol");
        QTest::addColumn<QString>("colorRole");
        QTest::newRow("negative") << -0.5 << "Pending"
                                  << "clock.fill"
                                  << "gray";
        QTest::newRow("zero") << 0.0 << "Pending"
                              << "clock.fill"
                              << "gray";
        QTest::newRow("just above zero") << 0.001 << "Syncing"
                                         << "arrow.triangle.2.circlepath"
                                         << "accent";
        QTest::newRow("half") << 0.5 << "Syncing"
                              << "arrow.triangle.2.circlepath"
                              << "accent";
        QTest::newRow("just below one") << 0.999 << "Syncing"
                                        << "arrow.triangle.2.circlepath"
                                        << "accent";
        QTest::newRow("one") << 1.0 << "Synced"
                             << "checkmark.circle.fill"
                             << "accent";
        QTest::newRow("above one") << 1.5 << "Synced"
                                   << "checkmark.circle.fill"
                                   << "accent";
    }
    void statusBadgeWords() {
        QFETCH(double, progress);
        QFETCH(QString, word);
        QFETCH(QString, symbol);
        QFETCH(QString, colorRole);
        UiHarness h;
        QQuickItem *badge =
            h.load(QStringLiteral("StatusBadge"), QSize(120, 30), {{"progress", progress}});
        QVERIFY2(badge, qPrintable(h.errors().join('\n')));
        auto *text = h.find("statusBadgeText");
        QVERIFY(text);
        QCOMPARE(text->property("text").toString(), word);
        QCOMPARE(h.find("statusBadgeIcon")->property("name").toString(), symbol);
        const QColor expected = themeColor(h, colorRole);
        QVERIFY(sameRgb(colorOf(text, "color"), expected));
        // The capsule: the status colour at 0.15 opacity.
        const QColor fill = colorOf(badge, "color");
        QVERIFY(sameRgb(fill, expected));
        QVERIFY(qAbs(fill.alphaF() - 0.15) < 0.01);
    }

    void infoPanelColours_data() {
        QTest::addColumn<QString>("type");
        QTest::addColumn<QString>("colorRole");
        QTest::newRow("info") << "info"
                              << "blue";
        QTest::newRow("warning") << "warning"
                                 << "orange";
        QTest::newRow("error") << "error"
                               << "red";
        QTest::newRow("success") << "success"
                                 << "green";
    }
    void infoPanelColours() {
        QFETCH(QString, type);
        QFETCH(QString, colorRole);
        UiHarness h;
        QQuickItem *panel = h.load(QStringLiteral("InfoPanel"), QSize(300, 80),
                                   {{"type", type},
                                    {"icon", "info.circle.fill"},
                                    {"title", "A title"},
                                    {"message", "A message"}});
        QVERIFY2(panel, qPrintable(h.errors().join('\n')));
        const QColor expected = themeColor(h, colorRole);
        const QColor background = colorOf(panel, "color");
        QVERIFY(sameRgb(background, expected));
        QVERIFY(qAbs(background.alphaF() - 0.1) < 0.01);
        const QColor border = QQmlProperty::read(panel, "border.color").value<QColor>();
        QVERIFY(sameRgb(border, expected));
        QVERIFY(qAbs(border.alphaF() - 0.3) < 0.01);
        QCOMPARE(QQmlProperty::read(panel, "border.width").toReal(), 1.0);
        QVERIFY(sameRgb(colorOf(h.find("infoPanelIcon"), "color"), expected));
        QCOMPARE(h.find("infoPanelTitle")->property("text").toString(), QString("A title"));
        QCOMPARE(h.find("infoPanelMessage")->property("text").toString(), QString("A message"));
    }

    void emptyState() {
        UiHarness h;
        QQuickItem *view = h.load(
            QStringLiteral("EmptyStateView"), QSize(300, 300),
            {{"icon", "folder.badge.plus"}, {"title", "Nothing"}, {"message", "Add something"}});
        QVERIFY2(view, qPrintable(h.errors().join('\n')));
        auto *icon = h.find<QQuickItem>("emptyStateIcon");
        QVERIFY(icon);
        QCOMPARE(icon->width(), 48.0);
        QVERIFY(sameRgb(colorOf(icon, "color"), themeColor(h, "secondary")));
        QVERIFY(sameRgb(colorOf(h.find("emptyStateMessage"), "color"), themeColor(h, "secondary")));
        QCOMPARE(h.find("emptyStateTitle")->property("text").toString(), QString("Nothing"));
        // Centred.
        const QPointF centre = icon->mapToScene(QPointF(24, 24));
        QVERIFY(qAbs(centre.x() - 150) < 1.0);
    }

    void progressBarFill() {
        UiHarness h;
        QQuickItem *bar =
            h.load(QStringLiteral("ModernProgressBar"), QSize(200, 8), {{"progress", 0.25}});
        QVERIFY2(bar, qPrintable(h.errors().join('\n')));
        auto *fill = h.find<QQuickItem>("progressFill");
        auto *track = h.find<QQuickItem>("progressTrack");
        QVERIFY(fill && track);
        QCOMPARE(track->width(), 200.0);
        QCOMPARE(track->height(), 8.0);
        QTRY_COMPARE(fill->width(), 50.0);
        bar->setProperty("progress", 1.0);
        // Animated: not there at once, there after the 0.3 s animation.
        QVERIFY(fill->width() < 200.0);
        QTRY_COMPARE_WITH_TIMEOUT(fill->width(), 200.0, 2000);
        bar->setProperty("progress", 7.0);
        h.settle(400);
        QCOMPARE(fill->width(), 200.0);
    }

    void primaryButtonStyle() {
        UiHarness h;
        QQuickItem *button =
            h.load(QStringLiteral("PrimaryButton"), QSize(120, 40), {{"text", "Go"}});
        QVERIFY2(button, qPrintable(h.errors().join('\n')));
        auto *background = h.find("primaryButtonBackground");
        QVERIFY(background);
        QVERIFY(sameRgb(colorOf(background, "color"), themeColor(h, "accent")));
        QCOMPARE(button->property("leftPadding").toReal(), 16.0);
        QCOMPARE(button->property("topPadding").toReal(), 8.0);
        QCOMPARE(button->opacity(), 1.0);
        QCOMPARE(button->scale(), 1.0);
        button->setProperty("down", true);
        QCOMPARE(button->opacity(), 0.8);
        QCOMPARE(button->scale(), 0.98);
        button->setProperty("down", QVariant());
        button->setEnabled(false);
        QVERIFY(sameRgb(colorOf(background, "color"), themeColor(h, "gray")));
    }

    void iconButtonStyle() {
        UiHarness h;
        QQuickItem *button = h.load(QStringLiteral("IconButton"), QSize(120, 40),
                                    {{"text", "Quit"}, {"symbol", "power"}});
        QVERIFY2(button, qPrintable(h.errors().join('\n')));
        auto *background = h.find("iconButtonBackground");
        QVERIFY(background);
        QCOMPARE(colorOf(background, "color").alpha(), 0);
        QCOMPARE(button->property("padding").toReal(), 8.0);
        QCOMPARE(QQmlProperty::read(background, "radius").toReal(), 6.0);
        QVERIFY(sameRgb(colorOf(button, "labelColor"), themeColor(h, "primary")));
        auto *content = qvariant_cast<QQuickItem *>(button->property("contentItem"));
        QVERIFY(content);
        QCOMPARE(content->opacity(), 1.0);

        // A real press tints and shrinks it.
        const QPoint centre = button->mapToScene(QPointF(10, 10)).toPoint();
        QTest::mousePress(h.window(), Qt::LeftButton, Qt::NoModifier, centre);
        QCOMPARE(button->scale(), 0.95);
        QVERIFY(sameRgb(colorOf(background, "color"), themeColor(h, "gray")));
        QVERIFY(qAbs(colorOf(background, "color").alphaF() - 0.2) < 0.01);
        QTest::mouseRelease(h.window(), Qt::LeftButton, Qt::NoModifier, centre);
        QCOMPARE(button->scale(), 1.0);

        // Disabled: half opacity, secondary colour; the pressed look is the
        // same as when enabled.
        button->setEnabled(false);
        QCOMPARE(content->opacity(), 0.5);
        QVERIFY(sameRgb(colorOf(button, "labelColor"), themeColor(h, "secondary")));
        button->setProperty("down", true);
        QCOMPARE(button->scale(), 0.95);
        QVERIFY(qAbs(colorOf(background, "color").alphaF() - 0.2) < 0.01);
    }

    void cardView() {
        UiHarness h;
        QQuickItem *card = h.load(QStringLiteral("CardView"), QSize(200, 100), {{"padding", 16}});
        QVERIFY2(card, qPrintable(h.errors().join('\n')));
        auto *background = h.find("cardBackground");
        QVERIFY(background);
        QCOMPARE(QQmlProperty::read(background, "radius").toReal(), 12.0);
        QVERIFY(sameRgb(colorOf(background, "color"), themeColor(h, "controlBackground")));
        auto *layout = qvariant_cast<QQuickItem *>(card->property("contentLayout"));
        QVERIFY(layout);
        QCOMPARE(layout->x(), 16.0);
        QCOMPARE(layout->width(), 200.0 - 32.0);
    }

    void symbolIcon() {
        UiHarness h;
        QQuickItem *icon = h.load(QStringLiteral("SymbolIcon"), QSize(32, 32),
                                  {{"name", "checkmark.circle.fill"}, {"color", "#ff0000"}});
        QVERIFY2(icon, qPrintable(h.errors().join('\n')));
        QVERIFY(icon->property("valid").toBool());
        const QImage image = h.grab(QStringLiteral("component-symbol"));
        QVERIFY(!image.isNull());
        // The middle of the filled circle is drawn in the asked colour
        // (the check mark is cut out, so look at the upper half).
        const QColor pixel = image.pixelColor(image.width() / 2, image.height() / 5);
        QCOMPARE(pixel.red(), 255);
        QCOMPARE(pixel.green(), 0);
        // An unknown name draws nothing and is not valid.
        icon->setProperty("name", "no.such.symbol");
        QVERIFY(!icon->property("valid").toBool());
        const QImage empty = h.grab(QStringLiteral("component-symbol-unknown"));
        QCOMPARE(empty.pixelColor(empty.width() / 2, empty.height() / 5).red(),
                 image.pixelColor(0, 0).red());
    }
};

QTEST_MAIN(ComponentsTest)
#include "tst_components.moc"
