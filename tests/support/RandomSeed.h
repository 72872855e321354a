#pragma once

#include <QDebug>

#include <random>

namespace harbex::test
{

/// The random numbers of one test. They are others in each run, unless the environment variable HARBEX_SEED
/// fixes them; the seed is printed so that a failure can be repeated.
[[nodiscard]] inline std::mt19937 seededRandom()
{
    bool isSet = false;
    unsigned seed = qEnvironmentVariable("HARBEX_SEED").toUInt(&isSet);
    if (!isSet) seed = std::random_device()();
    qInfo("HARBEX_SEED=%u", seed);
    return std::mt19937(seed);
}

/// A number from 0 up to, but not including, `end`.
[[nodiscard]] inline size_t randomBelow(std::mt19937& random, size_t end)
{
    return std::uniform_int_distribution<size_t>(0, end - 1)(random);
}

} // namespace harbex::test
