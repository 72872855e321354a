#pragma once

#include <QColor>
#include <QPalette>

namespace harbex
{

/// Returns the colour `ink` of a palette, dimmed towards the colour `ground` behind it. For placeholders.
/// The contrast stays at least 3 : 1, unless the palette's own is less.
[[nodiscard]] QColor dimmedInk(const QPalette& palette, QPalette::ColorRole ink, QPalette::ColorRole ground);

/// Returns the contrast of two opaque colours, from 1 to 21, as WCAG 2 defines it.
[[nodiscard]] qreal contrastOf(const QColor& a, const QColor& b);

} // namespace harbex
