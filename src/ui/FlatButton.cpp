#include "ui/FlatButton.h"

#include "ui/FocusRing.h"

#include <QPainter>

namespace harbex
{

FlatButton::FlatButton(QWidget* parent) : QToolButton(parent)
{
    setAutoRaise(true);
    setFocusPolicy(Qt::StrongFocus);
}

void FlatButton::paintEvent(QPaintEvent* event)
{
    QToolButton::paintEvent(event);
    QPainter painter(this);
    drawFocusRing(painter, *this, rect(), QPalette::Highlight);
}

} // namespace harbex
