#pragma once

#include <QDebug>
#include <QtGlobal>

#include <cstddef>

namespace harbex::test
{

/// How much a stress test does: `brief` in every test run, `full` where HARBEX_STRESS is set to "full".
template <class Amount>
[[nodiscard]] Amount stressSize(Amount brief, Amount full)
{
    return qEnvironmentVariable("HARBEX_STRESS") == QLatin1String("full") ? full : brief;
}

/// Reports how often a test function ran its case: a line that scripts/stress counts.
inline void reportRuns(size_t runs)
{
    qInfo("stress: runs: %zu", runs);
}

} // namespace harbex::test
