#pragma once

#include <string_view>

namespace harbex
{

/// Writes `line` and a line end to standard output. Thread-safe: lines of different threads never mix. Waits
/// up to one second for a reader that does not read. Drops the line, or the end of a long line, when standard
/// output is closed or full or the wait times out.
void printLine(std::string_view line);

} // namespace harbex
