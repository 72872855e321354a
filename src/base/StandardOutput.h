#pragma once

#include <string_view>

namespace harbex
{

/// Writes `line` and a line end to standard output. Thread-safe: lines of different threads never mix. Waits
/// up to one second for a reader that does not read, then drops lines until it reads again. Also drops a
/// line, or the end of a long one, when standard output is closed or full.
void printLine(std::string_view line);

} // namespace harbex
