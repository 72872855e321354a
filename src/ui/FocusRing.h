#pragma once

#include <QPalette>

class QPainter;
class QRect;
class QWidget;

namespace harbex
{

/// Outlines what has the focus, in a colour of the widget's palette, when the user goes about with the
/// keyboard. For what styles mark too faintly.
void drawFocusRing(QPainter& painter, const QWidget& widget, const QRect& place, QPalette::ColorRole ink);

} // namespace harbex
