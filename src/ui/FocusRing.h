#pragma once

#include <QColor>
#include <QPalette>

class QPainter;
class QRect;
class QWidget;

namespace harbex
{

/// Draws a ring around `place` if `widget` has the focus and the user navigates with the keyboard. `ink` is a
/// colour of the widget's palette. For widgets whose focus the styles mark too faintly. Main thread only.
void drawFocusRing(QPainter& painter, const QWidget& widget, const QRect& place, QPalette::ColorRole ink);

/// Draws the same ring in the colour `ink`, whatever has the focus.
void drawRing(QPainter& painter, const QRect& place, const QColor& ink);

} // namespace harbex
