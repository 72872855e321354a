#pragma once

#include <QByteArray>
#include <QDebug>

#include <iterator>
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

/// Returns `bytes` after one to four random changes. Some of them insert parts of JSON or repeat a part.
[[nodiscard]] inline QByteArray randomlyDamaged(std::mt19937& random, QByteArray bytes)
{
    static const char* const pieces[] = {"\"", "\\",  "{",    "}",       "[",   "]",           ":",
                                         ",",  "\\n", "null", "\\ud800", "1e9", "\xef\xbb\xbf"};
    for (size_t changes = 1 + randomBelow(random, 4); changes > 0; --changes) {
        const auto place = qsizetype(randomBelow(random, size_t(bytes.size()) + 1));
        const char byte = char(randomBelow(random, 256));
        switch (randomBelow(random, 6)) {
        case 0:
            bytes.insert(place, byte);
            break;
        case 1:
            bytes.replace(place, 1, QByteArray(1, byte));
            break;
        case 2:
            bytes.remove(place, 1 + qsizetype(randomBelow(random, 8)));
            break;
        case 3:
            bytes.truncate(place);
            break;
        case 4:
            bytes.insert(place, bytes.mid(place / 2, place / 3));
            break;
        default:
            bytes.insert(place, pieces[randomBelow(random, std::size(pieces))]);
            break;
        }
    }
    return bytes;
}

} // namespace harbex::test
