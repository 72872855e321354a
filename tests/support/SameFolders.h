#pragma once

#include "model/WatchedFolder.h"

#include <algorithm>
#include <vector>

namespace harbex::test
{

/// Returns whether two lists have the same folders in the same order, with all that is stored of them.
[[nodiscard]] inline bool isSame(const std::vector<WatchedFolder>& a, const std::vector<WatchedFolder>& b)
{
    return std::ranges::equal(a, b, [](const WatchedFolder& x, const WatchedFolder& y) {
        return x.id == y.id && x.url == y.url && x.bookmarkData == y.bookmarkData && x.rules == y.rules;
    });
}

} // namespace harbex::test
