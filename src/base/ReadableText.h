#pragma once

#include <QString>

#include <string>
#include <string_view>

namespace harbex
{

/// Returns a name or path (raw bytes) as text for comparisons. Invalid UTF-8 becomes U+FFFD. All other
/// characters are kept, including a leading byte-order mark. Thread-safe.
[[nodiscard]] QString textOfName(std::string_view bytes);

/// Returns a name or path (raw bytes) as text for display and logs. Invalid UTF-8 becomes U+FFFD. Characters
/// that break or reorder a line (controls, line and paragraph separators, bidirectional marks) become escapes
/// such as \n or \u{202e}. The text cannot be converted back to the name. Thread-safe.
[[nodiscard]] QString readableName(std::string_view bytes);

/// Escapes `text` in the same way as readableName(). Thread-safe.
[[nodiscard]] QString readableText(const QString& text);

} // namespace harbex
