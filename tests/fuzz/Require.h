#pragma once

#include <cstdio>
#include <cstdlib>

namespace harbex::test
{

/// Ends the program with the line where something does not hold that must: what a fuzzer takes for a crash.
inline void require(bool holds, int line = __builtin_LINE())
{
    if (holds) return;
    std::fprintf(stderr, "what must hold does not: line %d\n", line);
    std::abort();
}

} // namespace harbex::test
