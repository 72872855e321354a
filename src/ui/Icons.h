#pragma once

#include <QIcon>
#include <QPalette>

namespace harbex
{

/// The meaning of an icon, independent of its look.
enum class Symbol { folder, plus, trash, minusCircle };

/// Returns the icon of a symbol: the symbolic icon of the desktop theme, or else a bundled one. Drawn in the
/// current colours of the application's palette, sharp at any scale. `activeInk` is the colour while the
/// pointer is over the icon: QPalette::HighlightedText in a menu. `group` is QPalette::Inactive for an
/// inactive window. Main thread only.
[[nodiscard]] QIcon symbolIcon(Symbol symbol, QPalette::ColorRole activeInk = QPalette::WindowText,
                               QPalette::ColorGroup group = QPalette::Active);

} // namespace harbex
