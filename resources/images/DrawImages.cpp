// Draws the agent's status-item and application-icon images into a folder,
// at build time:
//
//   kv_draw_images <folder>
//
// The status images are drawn on a 22-unit grid (22 px, and 44 px for scaled
// panels as name@2x.png) with their straight edges on whole pixels, so they
// stay sharp at panel size; the application icons on a 48-unit grid (48 px
// and 96 px). Each is a shield: grey while nothing is watched, green with a
// check mark while watching, blue with a scanning beam while files are
// scanned. The eight scanning frames move the beam down the shield in equal
// steps, so the indicator's to-and-fro cycle reads as one smooth sweep.

#include <QColor>
#include <QDir>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QPen>

#include <cstdio>
#include <functional>

namespace {

enum class Mark { Dash, Check, Beam };

struct Look {
    QColor fill;
    QColor edge;
    QColor mark;
    Mark kind;
    int beamStep = 0; // 0..7 for Mark::Beam
};

const QColor kRestingFill(0x98, 0xa2, 0xad), kRestingEdge(0x3b, 0x42, 0x4a);
const QColor kWatchingFill(0x22, 0x9a, 0x5e), kWatchingEdge(0x0e, 0x3f, 0x27);
const QColor kScanningFill(0x2a, 0x78, 0xd2), kScanningEdge(0x0c, 0x2e, 0x55);
const QColor kHighlight(0xff, 0xff, 0xff), kHighlightMark(0x1d, 0x23, 0x29);

// The status shield on the 22-unit grid: straight sides on x = 3.5 and 18.5,
// so a one-unit edge fills exactly the pixel columns 3 and 18.
QPainterPath statusShield()
{
    QPainterPath path;
    path.moveTo(11, 2.5);
    path.lineTo(18.5, 4.5);
    path.lineTo(18.5, 10.5);
    path.cubicTo(18.5, 15, 15.5, 18, 11, 20.5);
    path.cubicTo(6.5, 18, 3.5, 15, 3.5, 10.5);
    path.lineTo(3.5, 4.5);
    path.closeSubpath();
    return path;
}

QPainterPath dockShield()
{
    QPainterPath path;
    path.moveTo(24, 3.5);
    path.lineTo(41.5, 8.5);
    path.lineTo(41.5, 22);
    path.cubicTo(41.5, 33, 34, 40.5, 24, 45.5);
    path.cubicTo(14, 40.5, 6.5, 33, 6.5, 22);
    path.lineTo(6.5, 8.5);
    path.closeSubpath();
    return path;
}

// A horizontal beam across the shield: a bright core with a soft glow on
// both sides, since the beam travels both ways. Clipped to the shield.
void drawBeam(QPainter& painter, const QPainterPath& shield, double centre, double core, double glow, QColor colour)
{
    painter.save();
    painter.setClipPath(shield, Qt::IntersectClip);
    const QRectF box = shield.boundingRect();
    QLinearGradient halo(0, centre - core / 2 - glow, 0, centre + core / 2 + glow);
    QColor clear = colour;
    clear.setAlphaF(0.0);
    QColor soft = colour;
    soft.setAlphaF(0.55);
    const double total = core + 2 * glow;
    halo.setColorAt(0.0, clear);
    halo.setColorAt(glow / total, soft);
    halo.setColorAt((glow + core) / total, soft);
    halo.setColorAt(1.0, clear);
    painter.fillRect(QRectF(box.left(), centre - core / 2 - glow, box.width(), total), halo);
    painter.fillRect(QRectF(box.left(), centre - core / 2, box.width(), core), QColor(Qt::white));
    painter.restore();
}

void drawStatus(QPainter& painter, const Look& look)
{
    const QPainterPath shield = statusShield();
    painter.setPen(Qt::NoPen);
    painter.setBrush(look.fill);
    painter.drawPath(shield);
    switch (look.kind) {
    case Mark::Dash:
        painter.fillRect(QRectF(7, 10, 8, 2), look.mark);
        break;
    case Mark::Check: {
        QPen pen(look.mark, 2.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
        painter.setPen(pen);
        painter.setBrush(Qt::NoBrush);
        QPainterPath check;
        check.moveTo(7, 11);
        check.lineTo(10, 14);
        check.lineTo(15, 8);
        painter.drawPath(check);
        painter.setPen(Qt::NoPen);
        break;
    }
    case Mark::Beam:
        // Core rows 4-5, 6-7, ... 18-19: two pixels a step.
        drawBeam(painter, shield, 5 + 2 * look.beamStep, 2, 1.5, QColor(0x9f, 0xdc, 0xff));
        break;
    }
    painter.setPen(QPen(look.edge, 1.0, Qt::SolidLine, Qt::FlatCap, Qt::MiterJoin));
    painter.setBrush(Qt::NoBrush);
    painter.drawPath(shield);
}

void drawDock(QPainter& painter, const Look& look)
{
    const QPainterPath shield = dockShield();
    QLinearGradient body(0, 3, 0, 46);
    body.setColorAt(0.0, look.fill.lighter(125));
    body.setColorAt(1.0, look.fill.darker(115));
    painter.setPen(Qt::NoPen);
    painter.setBrush(body);
    painter.drawPath(shield);

    // A light inner rim gives the shield its edge on a dark background.
    QTransform inset;
    inset.translate(24, 24);
    inset.scale(0.9, 0.9);
    inset.translate(-24, -24);
    QColor rim(Qt::white);
    rim.setAlphaF(0.35);
    painter.setPen(QPen(rim, 1.5));
    painter.setBrush(Qt::NoBrush);
    painter.drawPath(inset.map(shield));
    painter.setPen(Qt::NoPen);

    switch (look.kind) {
    case Mark::Dash:
        painter.setBrush(look.mark);
        painter.drawRoundedRect(QRectF(15, 21, 18, 5), 2.5, 2.5);
        break;
    case Mark::Check: {
        QPainterPath check;
        check.moveTo(15, 24);
        check.lineTo(21.5, 30.5);
        check.lineTo(33, 16.5);
        QColor shade(Qt::black);
        shade.setAlphaF(0.3);
        painter.setBrush(Qt::NoBrush);
        painter.setPen(QPen(shade, 5.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        painter.drawPath(check.translated(0, 1));
        painter.setPen(QPen(look.mark, 5.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        painter.drawPath(check);
        painter.setPen(Qt::NoPen);
        break;
    }
    case Mark::Beam:
        drawBeam(painter, shield, 9 + 4.25 * look.beamStep, 3, 4, QColor(0x9f, 0xdc, 0xff));
        break;
    }
    painter.setPen(QPen(look.edge, 1.5, Qt::SolidLine, Qt::FlatCap, Qt::MiterJoin));
    painter.setBrush(Qt::NoBrush);
    painter.drawPath(shield);
}

bool save(const QString& folder, const QString& name, int units, int pixels,
          const std::function<void(QPainter&)>& draw)
{
    QImage image(pixels, pixels, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    {
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.scale(double(pixels) / units, double(pixels) / units);
        draw(painter);
    }
    const QString path = folder + "/" + name;
    if (!image.save(path, "PNG")) {
        std::fprintf(stderr, "kv_draw_images: cannot write %s\n", qPrintable(path));
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: kv_draw_images <folder>\n");
        return 2;
    }
    const QString folder = QString::fromLocal8Bit(argv[1]);
    if (!QDir().mkpath(folder)) {
        std::fprintf(stderr, "kv_draw_images: cannot create %s\n", argv[1]);
        return 1;
    }

    struct Image {
        QString name;
        Look look;
    };
    std::vector<Image> images = {
        {"default", {kRestingFill, kRestingEdge, Qt::white, Mark::Dash}},
        {"watching", {kWatchingFill, kWatchingEdge, Qt::white, Mark::Check}},
        // The highlighted images, for a menu bar that shows its open item
        // inverted: white shields with dark marks.
        {"alt", {kHighlight, kHighlightMark, kHighlightMark, Mark::Check}},
        {"alt2", {kHighlight, kHighlightMark, kHighlightMark, Mark::Dash}},
    };
    for (int step = 0; step < 8; ++step)
        images.push_back({QString("scanning%1").arg(step + 1), {kScanningFill, kScanningEdge, Qt::white, Mark::Beam, step}});

    bool written = true;
    for (const Image& image : images) {
        auto status = [&image](QPainter& painter) { drawStatus(painter, image.look); };
        written &= save(folder, image.name + ".png", 22, 22, status);
        written &= save(folder, image.name + "@2x.png", 22, 44, status);
        // "alt2" shares its application icon with "alt".
        if (image.name == "alt2")
            continue;
        Look dockLook = image.look;
        if (image.name == "alt")
            dockLook = {QColor(0xe4, 0xe8, 0xec), QColor(0x4a, 0x52, 0x5a), kWatchingFill, Mark::Check};
        auto dock = [&dockLook](QPainter& painter) { drawDock(painter, dockLook); };
        written &= save(folder, "dock_" + image.name + ".png", 48, 48, dock);
        written &= save(folder, "dock_" + image.name + "@2x.png", 48, 96, dock);
    }
    return written ? 0 : 1;
}
