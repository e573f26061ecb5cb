#include "SymbolIconRenderer.h"

#include <QFile>
#include <QHash>
#include <QMutex>
#include <QMutexLocker>
#include <QPainter>
#include <QQuickWindow>
#include <QSet>
#include <QSvgRenderer>
#include <QtDebug>
#include <QtMath>

#include <optional>

namespace tarnwick::ui {

namespace {

// Parsed SVGs, by name; a missing or unreadable file is remembered as absent
// and reported once.
struct SymbolCache {
    QMutex mutex;
    QHash<QString, QByteArray> svg;
    QSet<QString> missing;
};

SymbolCache &cache() {
    static SymbolCache instance;
    return instance;
}

// The SVG text of a symbol, or nothing (logged the first time).
std::optional<QByteArray> symbolData(const QString &name) {
    SymbolCache &c = cache();
    QMutexLocker lock(&c.mutex);
    if (const auto it = c.svg.constFind(name); it != c.svg.constEnd()) {
        return *it;
    }
    if (c.missing.contains(name)) {
        return std::nullopt;
    }
    QFile file(SymbolIconRenderer::resourcePath(name));
    if (name.isEmpty() || name.contains(QLatin1Char('/')) || !file.open(QIODevice::ReadOnly)) {
        c.missing.insert(name);
        qWarning().noquote() << "No icon for the symbol" << (name.isEmpty() ? "(empty)" : name);
        return std::nullopt;
    }
    const QByteArray data = file.readAll();
    c.svg.insert(name, data);
    return data;
}

// Paints the symbol in solid colour into a transparent image.
QImage solidSymbol(const QByteArray &svg, QSize pixelSize, const QColor &color) {
    QImage image(pixelSize, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QSvgRenderer renderer(svg);
    if (!renderer.isValid()) {
        return image;
    }
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    // Keep the symbol's aspect ratio, centred.
    QSizeF box = renderer.defaultSize();
    if (box.isEmpty()) {
        box = QSizeF(24, 24);
    }
    box.scale(QSizeF(pixelSize), Qt::KeepAspectRatio);
    const QRectF target((pixelSize.width() - box.width()) / 2.0,
                        (pixelSize.height() - box.height()) / 2.0, box.width(), box.height());
    renderer.render(&painter, target);
    painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
    painter.fillRect(image.rect(), color);
    return image;
}

} // namespace

QString SymbolIconRenderer::resourcePath(const QString &name) {
    return QStringLiteral(":/qt/qml/Tarnwick/icons/") + name + QStringLiteral(".svg");
}

bool SymbolIconRenderer::hasSymbol(const QString &name) {
    return symbolData(name).has_value();
}

QImage SymbolIconRenderer::render(const QString &name, QSize pixelSize, const QColor &color) {
    if (pixelSize.isEmpty()) {
        return {};
    }
    const std::optional<QByteArray> svg = symbolData(name);
    if (!svg) {
        QImage empty(pixelSize, QImage::Format_ARGB32_Premultiplied);
        empty.fill(Qt::transparent);
        return empty;
    }
    return solidSymbol(*svg, pixelSize, color);
}

QImage SymbolIconRenderer::renderOutlined(const QString &name, QSize pixelSize, const QColor &fill,
                                          const QColor &outline) {
    if (pixelSize.isEmpty()) {
        return {};
    }
    // The outline is the shape drawn in the outline colour at small offsets
    // all around; the symbol itself sits on top, slightly inset so that the
    // outline fits inside the image.
    const int border = std::max(1, pixelSize.width() / 16);
    const QSize inner(pixelSize.width() - 2 * border, pixelSize.height() - 2 * border);
    const QImage shape = render(name, inner, fill);
    const QImage halo = render(name, inner, outline);
    QImage image(pixelSize, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    for (int dx = -border; dx <= border; ++dx) {
        for (int dy = -border; dy <= border; ++dy) {
            if (dx != 0 || dy != 0) {
                painter.drawImage(border + dx, border + dy, halo);
            }
        }
    }
    painter.drawImage(border, border, shape);
    return image;
}

SymbolIconItem::SymbolIconItem(QQuickItem *parent) : QQuickPaintedItem(parent) {
    setAntialiasing(true);
}

void SymbolIconItem::setName(const QString &name) {
    if (name_ == name) {
        return;
    }
    name_ = name;
    emit nameChanged();
    update();
}

void SymbolIconItem::setColor(const QColor &color) {
    if (color_ == color) {
        return;
    }
    color_ = color;
    emit colorChanged();
    update();
}

void SymbolIconItem::paint(QPainter *painter) {
    const qreal ratio = window() ? window()->effectiveDevicePixelRatio() : 1.0;
    const QSize pixels(qCeil(width() * ratio), qCeil(height() * ratio));
    if (pixels.isEmpty() || name_.isEmpty()) {
        return;
    }
    QImage image = SymbolIconRenderer::render(name_, pixels, color_);
    image.setDevicePixelRatio(ratio);
    painter->drawImage(QPointF(0, 0), image);
}

} // namespace tarnwick::ui
