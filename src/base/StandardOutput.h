#pragma once

#include <string_view>

namespace harbex
{

/// Writes one diagnostic line to standard output; the line end is added here. Any thread; lines of
/// different threads never mix. A standard output that is closed or full, or that nobody reads for a second,
/// loses the line and nothing else.
void printLine(std::string_view line);

} // namespace harbex
