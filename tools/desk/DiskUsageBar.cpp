#include "DiskUsageBar.h"

#include "DeskFormat.h"

#include <QPainter>
#include <QPainterPath>

namespace {
const int kBarHeight = 14;
const int kSwatch = 9;
} // namespace

DiskUsageBar::DiskUsageBar(QWidget* parent) : QWidget(parent)
{
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

void DiskUsageBar::setUsage(const QList<Segment>& segments, quint64 capacity)
{
    mSegments = segments;
    mCapacity = capacity;
    QStringList lines;
    for (const Segment& s : segments)
        lines << s.label + QStringLiteral(": ") + DeskFormat::bytes(s.bytes);
    setToolTip(lines.join(QLatin1Char('\n')));
    updateGeometry();
    update();
}

QSize DiskUsageBar::sizeHint() const
{
    const int legendRows = (mSegments.size() + 2) / 3;
    return QSize(200, kBarHeight + 4 + legendRows * (fontMetrics().height() + 2));
}

void DiskUsageBar::paintEvent(QPaintEvent*)
{
    if (mCapacity == 0)
        return;
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF bar(0.5, 0.5, width() - 1.0, kBarHeight);
    QPainterPath outline;
    outline.addRoundedRect(bar, 4, 4);
    p.fillPath(outline, palette().color(QPalette::Base));
    p.save();
    p.setClipPath(outline);
    double x = bar.left();
    for (const Segment& s : mSegments) {
        const double w = bar.width() * double(s.bytes) / double(mCapacity);
        p.fillRect(QRectF(x, bar.top(), w, bar.height()), s.color);
        x += w;
    }
    p.restore();
    p.setPen(palette().color(QPalette::Mid));
    p.drawPath(outline);

    // Legend: three entries a row.
    p.setPen(palette().color(QPalette::WindowText));
    const int rowHeight = fontMetrics().height() + 2;
    const int column = width() / 3;
    for (int i = 0; i < mSegments.size(); ++i) {
        const int left = (i % 3) * column;
        const int top = kBarHeight + 4 + (i / 3) * rowHeight;
        p.fillRect(QRect(left, top + (rowHeight - kSwatch) / 2, kSwatch, kSwatch),
                   mSegments[i].color);
        p.drawText(
            QRect(left + kSwatch + 4, top, column - kSwatch - 4, rowHeight),
            Qt::AlignVCenter | Qt::AlignLeft,
            fontMetrics().elidedText(mSegments[i].label, Qt::ElideRight, column - kSwatch - 4));
    }
}
