#pragma once

#include <QDebug>
#include <QtGlobal>

#include <cstddef>

namespace harbex::test
{

/// Returns `full` if HARBEX_STRESS is "full", otherwise `brief`.
template <class Amount>
[[nodiscard]] Amount stressSize(Amount brief, Amount full)
{
    return qEnvironmentVariable("HARBEX_STRESS") == QLatin1String("full") ? full : brief;
}

/// Reports how often a test function ran its case. scripts/stress parses the line.
inline void reportRuns(size_t runs)
{
    qInfo("stress: runs: %zu", runs);
}

} // namespace harbex::test
