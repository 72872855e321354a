#pragma once

#include <QDebug>
#include <QtGlobal>

#include <cstddef>

namespace harbex::test
{

/// How much an attack does: `brief` in every test run, `full` where HARBEX_ATTACK is set to "full".
template <class Amount>
[[nodiscard]] Amount attackSize(Amount brief, Amount full)
{
    return qEnvironmentVariable("HARBEX_ATTACK") == QLatin1String("full") ? full : brief;
}

/// Says how often a test function attacked: a line that scripts/attack counts.
inline void reportRuns(size_t runs)
{
    qInfo("attack: runs: %zu", runs);
}

} // namespace harbex::test
