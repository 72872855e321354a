#pragma once

#include <QIcon>
#include <QPalette>

namespace harbex
{

/// What an icon says, whatever it looks like.
enum class Symbol { folder, plus, trash, minusCircle };

/// The icon of a symbol: the desktop theme's own symbolic one, else one that comes with the program. It is
/// drawn in the colours of the application's palette as they are at the time of drawing, sharp at any scale.
/// While it is pointed at it has the colour `activeInk`, which is QPalette::HighlightedText in a menu.
/// `group` is QPalette::Inactive for a window that is not the active one. Main thread only.
[[nodiscard]] QIcon symbolIcon(Symbol symbol, QPalette::ColorRole activeInk = QPalette::WindowText,
                               QPalette::ColorGroup group = QPalette::Active);

} // namespace harbex
