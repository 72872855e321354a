#pragma once

#include <QString>

#include <string>
#include <string_view>

namespace harbex
{

/// The text of a name or path, for comparing: bytes that are no UTF-8 become U+FFFD, everything else is as it
/// stands, a byte-order mark at the beginning included.
[[nodiscard]] QString textOfName(std::string_view bytes);

/// The text of a name or path as people read it: bytes that are no UTF-8 become U+FFFD, and every
/// character that would break or reorder a line (controls, line and paragraph separators,
/// bidirectional marks) is written as an escape such as \n or \u{202e}. For showing and logging only;
/// it cannot be turned back into the name.
[[nodiscard]] QString readableName(std::string_view bytes);

/// The same for text that is Unicode already.
[[nodiscard]] QString readableText(const QString& text);

} // namespace harbex
