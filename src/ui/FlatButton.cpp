#include "ui/FlatButton.h"

#include "ui/FocusRing.h"

#include <QStyleOptionToolButton>
#include <QStylePainter>

namespace harbex
{

FlatButton::FlatButton(QWidget* parent) : QToolButton(parent)
{
    setAutoRaise(true);
    setFocusPolicy(Qt::StrongFocus);
}

// Styles draw icon and text from the left end of the button, which has room for more. Here they are centred.
void FlatButton::paintEvent(QPaintEvent* /*event*/)
{
    QStylePainter painter(this);
    QStyleOptionToolButton panel;
    initStyleOption(&panel);
    panel.icon = {};
    panel.text.clear();
    painter.drawComplexControl(QStyle::CC_ToolButton, panel);

    const int gap = text().isEmpty() ? 0 : fontMetrics().horizontalAdvance(QLatin1Char(' '));
    const int textWidth = fontMetrics().horizontalAdvance(text());
    const QSize size(iconSize().width() + gap + textWidth, height());
    const QRect content = QStyle::alignedRect(layoutDirection(), Qt::AlignCenter, size, rect());
    const auto part = [&](Qt::Alignment side, int width) {
        return QStyle::alignedRect(layoutDirection(), side, {width, height()}, content);
    };
    const QRect iconPlace = part(Qt::AlignLeft, iconSize().width());
    icon().paint(&painter, QStyle::alignedRect(layoutDirection(), Qt::AlignCenter, iconSize(), iconPlace));
    painter.drawItemText(part(Qt::AlignRight, textWidth), Qt::AlignCenter, palette(), isEnabled(), text(),
                         QPalette::ButtonText);
    drawFocusRing(painter, *this, rect(), QPalette::Highlight);
}

} // namespace harbex
