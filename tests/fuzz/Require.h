#pragma once

#include <cstdio>
#include <cstdlib>

namespace harbex::test
{

/// Prints the line and aborts if a requirement is false. A fuzzer reports this as a crash.
inline void require(bool holds, int line = __builtin_LINE())
{
    if (holds) return;
    std::fprintf(stderr, "what must hold does not: line %d\n", line);
    std::abort();
}

} // namespace harbex::test
