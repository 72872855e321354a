#pragma once

#include <QDebug>

#include <random>

namespace harbex::test
{

/// Returns a random generator and prints its seed. The environment variable HARBEX_SEED sets the seed, to
/// repeat a failure.
[[nodiscard]] inline std::mt19937 seededRandom()
{
    bool isSet = false;
    unsigned seed = qEnvironmentVariable("HARBEX_SEED").toUInt(&isSet);
    if (!isSet) seed = std::random_device()();
    qInfo("HARBEX_SEED=%u", seed);
    return std::mt19937(seed);
}

/// Returns a random number from 0 to `end` - 1.
[[nodiscard]] inline size_t randomBelow(std::mt19937& random, size_t end)
{
    return std::uniform_int_distribution<size_t>(0, end - 1)(random);
}

} // namespace harbex::test
