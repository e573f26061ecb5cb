#pragma once

#include <QColor>
#include <QImage>
#include <QQuickPaintedItem>
#include <QSize>
#include <QString>
#include <QtQml/qqmlregistration.h>

namespace tarnwick::ui {

// Symbol names ("internaldrive", "arrow.clockwise", ...) drawn from the SVGs
// bundled with the screens. Each SVG is a monochrome shape; drawing it fills
// the shape with the colour asked for, so one file serves every colour.
class SymbolIconRenderer {
public:
    // The resource path of a symbol's SVG (it may not exist).
    static QString resourcePath(const QString &name);
    // Whether a symbol of that name is bundled.
    static bool hasSymbol(const QString &name);
    // The symbol in one colour, centred in an image of the given pixel size.
    // An unknown name gives a transparent image and one log line per name.
    static QImage render(const QString &name, QSize pixelSize, const QColor &color);
    // The symbol with a contrasting outline around its shape, so that it
    // stays visible on both light and dark backgrounds (the tray icon).
    static QImage renderOutlined(const QString &name, QSize pixelSize, const QColor &fill,
                                 const QColor &outline);
};

// The item behind SymbolIcon.qml: paints one symbol at the item's size.
class SymbolIconItem : public QQuickPaintedItem {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QString name READ name WRITE setName NOTIFY nameChanged)
    Q_PROPERTY(QColor color READ color WRITE setColor NOTIFY colorChanged)
    Q_PROPERTY(bool valid READ valid NOTIFY nameChanged)

public:
    explicit SymbolIconItem(QQuickItem *parent = nullptr);

    QString name() const { return name_; }
    void setName(const QString &name);
    QColor color() const { return color_; }
    void setColor(const QColor &color);
    bool valid() const { return SymbolIconRenderer::hasSymbol(name_); }

    void paint(QPainter *painter) override;

signals:
    void nameChanged();
    void colorChanged();

private:
    QString name_;
    QColor color_{Qt::black};
};

} // namespace tarnwick::ui
