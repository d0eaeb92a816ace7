/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Makes the demo's material:
//   zav-screensaver-samples images DIR
//       a few generated pictures of different sizes and shapes: a landscape
//       larger than a screen, a small one, a portrait, a tiny tile pattern
//   zav-screensaver-samples contact-sheet OUT.png FRAME...
//       the frames side by side, each labelled with its file name

#include <QDir>
#include <QFileInfo>
#include <QGuiApplication>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QRadialGradient>

#include <cstdio>

namespace
{
QImage landscape()
{
    QImage image(2400, 1350, QImage::Format_RGB32);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    QLinearGradient sky(0, 0, 0, 1350);
    sky.setColorAt(0.0, QColor(20, 40, 110));
    sky.setColorAt(0.6, QColor(240, 150, 90));
    painter.fillRect(image.rect(), sky);
    QRadialGradient sun(1700, 520, 180);
    sun.setColorAt(0.0, QColor(255, 250, 210));
    sun.setColorAt(1.0, QColor(255, 190, 80, 0));
    painter.setBrush(sun);
    painter.setPen(Qt::NoPen);
    painter.drawEllipse(QPointF(1700, 520), 180, 180);
    painter.setBrush(QColor(40, 70, 50));
    QPolygonF hills;
    hills << QPointF(0, 1350) << QPointF(0, 900) << QPointF(500, 760) << QPointF(1100, 980) << QPointF(1700, 820) << QPointF(2400, 1000) << QPointF(2400, 1350);
    painter.drawPolygon(hills);
    return image;
}

QImage small()
{
    QImage image(320, 240, QImage::Format_RGB32);
    image.fill(QColor(250, 245, 230));
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(200, 40, 60));
    painter.drawEllipse(QRectF(30, 40, 120, 120));
    painter.setBrush(QColor(30, 120, 200));
    painter.drawRect(QRectF(170, 80, 110, 110));
    return image;
}

QImage portrait()
{
    QImage image(700, 1100, QImage::Format_RGB32);
    QPainter painter(&image);
    QLinearGradient gradient(0, 0, 700, 1100);
    gradient.setColorAt(0.0, QColor(60, 20, 90));
    gradient.setColorAt(1.0, QColor(20, 160, 150));
    painter.fillRect(image.rect(), gradient);
    painter.setPen(QPen(QColor(255, 255, 255, 120), 14));
    for (int y = 100; y < 1100; y += 140) {
        painter.drawLine(60, y, 640, y + 60);
    }
    return image;
}

QImage tile()
{
    QImage image(24, 24, QImage::Format_RGB32);
    for (int y = 0; y < 24; ++y) {
        for (int x = 0; x < 24; ++x) {
            image.setPixel(x, y, ((x / 12) + (y / 12)) % 2 ? qRgb(230, 200, 60) : qRgb(60, 60, 70));
        }
    }
    return image;
}

int makeImages(const QString &dir)
{
    if (!QDir().mkpath(dir)) {
        std::fprintf(stderr, "cannot create %s\n", qUtf8Printable(dir));
        return 1;
    }
    const QList<QPair<QString, QImage>> images = {
        {QStringLiteral("a-landscape.jpg"), landscape()},
        {QStringLiteral("b-small.png"), small()},
        {QStringLiteral("c-portrait.jpg"), portrait()},
        {QStringLiteral("d-tile.png"), tile()},
    };
    for (const auto &image : images) {
        const QString path = QDir(dir).filePath(image.first);
        if (!image.second.save(path)) {
            std::fprintf(stderr, "cannot write %s\n", qUtf8Printable(path));
            return 1;
        }
        std::printf("%s %dx%d\n", qUtf8Printable(path), image.second.width(), image.second.height());
    }
    return 0;
}

int makeContactSheet(const QString &out, const QStringList &frames)
{
    const int thumbWidth = 480;
    const int columns = qMin(3, int(frames.size()));
    const int rows = (int(frames.size()) + columns - 1) / columns;
    int thumbHeight = 270;
    QList<QImage> thumbs;
    for (const QString &frame : frames) {
        const QImage image(frame);
        if (image.isNull()) {
            std::fprintf(stderr, "cannot read %s\n", qUtf8Printable(frame));
            return 1;
        }
        thumbs.append(image.scaledToWidth(thumbWidth, Qt::SmoothTransformation));
        thumbHeight = qMax(thumbHeight, thumbs.constLast().height());
    }
    const int label = 28;
    QImage sheet(columns * (thumbWidth + 16) + 16, rows * (thumbHeight + label + 16) + 16, QImage::Format_RGB32);
    sheet.fill(QColor(32, 32, 32));
    QPainter painter(&sheet);
    painter.setPen(Qt::white);
    for (int i = 0; i < thumbs.size(); ++i) {
        const int x = 16 + (i % columns) * (thumbWidth + 16);
        const int y = 16 + (i / columns) * (thumbHeight + label + 16);
        painter.drawImage(QPoint(x, y), thumbs.at(i));
        painter.drawText(QRect(x, y + thumbHeight, thumbWidth, label), Qt::AlignCenter, QFileInfo(frames.at(i)).fileName());
    }
    painter.end();
    if (!sheet.save(out)) {
        std::fprintf(stderr, "cannot write %s\n", qUtf8Printable(out));
        return 1;
    }
    std::printf("%s\n", qUtf8Printable(out));
    return 0;
}
}

int main(int argc, char **argv)
{
    // Nothing here is shown: no screen is needed.
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QGuiApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() == 3 && arguments.at(1) == QLatin1String("images")) {
        return makeImages(arguments.at(2));
    }
    if (arguments.size() >= 4 && arguments.at(1) == QLatin1String("contact-sheet")) {
        return makeContactSheet(arguments.at(2), arguments.mid(3));
    }
    std::fprintf(stderr, "usage: %s images DIR | contact-sheet OUT.png FRAME...\n", argv[0]);
    return 2;
}
