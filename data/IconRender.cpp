// Renders the application's SVG icon into the PNG sizes of the hicolor icon
// theme, at build time: icon-render <svg> <output folder> <size>...
// writes <output folder>/<size>x<size>/apps/<svg's base name>.png.
#include <QDir>
#include <QFileInfo>
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>

#include <cstdio>

int main(int argc, char *argv[]) {
    if (argc < 4) {
        std::fputs("usage: icon-render <svg> <output folder> <size>...\n", stderr);
        return 2;
    }
    // Raster painting into an image: no application object, no display.
    const QString svg = QString::fromLocal8Bit(argv[1]);
    const QString output = QString::fromLocal8Bit(argv[2]);
    QSvgRenderer renderer(svg);
    if (!renderer.isValid()) {
        std::fprintf(stderr, "icon-render: %s is not a valid SVG file\n", argv[1]);
        return 1;
    }
    const QString name = QFileInfo(svg).completeBaseName() + QStringLiteral(".png");
    for (int i = 3; i < argc; ++i) {
        bool ok = false;
        const int size = QString::fromLocal8Bit(argv[i]).toInt(&ok);
        if (!ok || size <= 0) {
            std::fprintf(stderr, "icon-render: not a size: %s\n", argv[i]);
            return 2;
        }
        QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        renderer.render(&painter);
        painter.end();
        const QString folder = QStringLiteral("%1/%2x%2/apps").arg(output).arg(size);
        if (!QDir().mkpath(folder) || !image.save(folder + u'/' + name, "PNG")) {
            std::fprintf(stderr, "icon-render: cannot write %s\n",
                         qPrintable(folder + u'/' + name));
            return 1;
        }
    }
    return 0;
}
