#include "ui/FocusRing.h"

#include <QPainter>
#include <QWidget>

namespace harbex
{

void drawFocusRing(QPainter& painter, const QWidget& widget, const QRect& place, QPalette::ColorRole ink)
{
    if (!widget.hasFocus() || !widget.window()->testAttribute(Qt::WA_KeyboardFocusChange)) return;
    constexpr qreal width = 1.5;
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(widget.palette().color(ink), width));
    painter.setBrush(Qt::NoBrush);
    painter.drawRoundedRect(QRectF(place).marginsRemoved(QMarginsF(width, width, width, width)), 3, 3);
    painter.restore();
}

} // namespace harbex
