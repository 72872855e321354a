#include "ui/FocusRing.h"

#include <QPainter>
#include <QWidget>

namespace harbex
{

void drawFocusRing(QPainter& painter, const QWidget& widget, const QRect& place, QPalette::ColorRole ink)
{
    if (widget.hasFocus() && widget.window()->testAttribute(Qt::WA_KeyboardFocusChange))
        drawRing(painter, place, widget.palette().color(ink));
}

void drawRing(QPainter& painter, const QRect& place, const QColor& ink)
{
    constexpr qreal width = 1.5;
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(ink, width));
    painter.setBrush(Qt::NoBrush);
    painter.drawRoundedRect(QRectF(place).marginsRemoved(QMarginsF(width, width, width, width)), 3, 3);
    painter.restore();
}

} // namespace harbex
