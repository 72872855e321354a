#pragma once

#include <QSize>
#include <QWidget>

class QEvent;

namespace harbex
{

/// Returns `length` in proportion to the widget's font, for lengths that must hold text. The result equals
/// `length` at the toolkit's normal font (9 points at 96 DPI) and is never less. In device-independent
/// pixels.
[[nodiscard]] int scaledToFont(const QWidget& widget, int length);

/// Returns the edge of a small icon beside text in the widget's font. In device-independent pixels.
[[nodiscard]] QSize iconSizeFor(const QWidget& widget);

/// Returns whether lengths that depend on the font or the style must be measured again after this event.
[[nodiscard]] bool changesMetrics(const QEvent& event);

/// Returns the size that a window's content can have on the widget's screen, with room for desktop panels and
/// for the window's frame. In device-independent pixels.
[[nodiscard]] QSize availableSizeFor(const QWidget& widget);

} // namespace harbex
