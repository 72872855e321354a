#pragma once

#include <cstdio>
#include <cstdlib>
#include <source_location>

namespace harbex::test
{

/// Ends the program with the place where something does not hold that must: what a fuzzer takes for a crash.
inline void require(bool holds, const std::source_location& where = std::source_location::current())
{
    if (holds) return;
    std::fprintf(stderr, "what must hold does not: line %u\n", unsigned(where.line()));
    std::abort();
}

} // namespace harbex::test
