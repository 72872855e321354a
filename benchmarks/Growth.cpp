#include "Growth.h"

#include "EngineRig.h"
#include "MoverRig.h"
#include "watcher/RuleMatching.h"

#include <cstdlib>

namespace harbex::bench
{

namespace
{

using std::filesystem::path;

double medianOf(int rounds, const std::function<double()>& cost)
{
    return inTurn(rounds, [] { return 0; }, cost).ours;
}

void entries(Table& table, int count)
{
    const ScratchFolder scratch;
    const path folder = scratch.folder("in");
    makeFiles(folder, "IMG_20260", count);
    NameSnapshot known;
    (void)scan(folder, known);
    const double cost = medianOf(21, [&] {
        const auto begin = Clock::now();
        if (scan(folder, known) != 0) std::abort();
        return secondsSince(begin) * 1000;
    });
    table.addFigure("scan of an unchanged folder of " + std::to_string(count) + " entries", "ms", cost);
}

void folders(Table& table, int count)
{
    const ScratchFolder scratch;
    std::vector<WatchedFolder> watched;
    for (int i = 0; i < count; ++i) {
        const path folder = scratch.folder("in/" + std::to_string(i));
        makeFiles(folder, "old", 100);
        watched.push_back(picturesRule(folder, scratch.folder("out")));
    }
    const double cost = medianOf(9, [&] {
        const auto begin = Clock::now();
        const EngineRig rig(watched);
        return secondsSince(begin) * 1000;
    });
    table.addFigure("start with " + std::to_string(count) + " folders of 100 entries", "ms", cost);
}

void rules(Table& table, int count)
{
    FilterRule rule;
    rule.destination = FileUrl::fromPath("/out");
    rule.value = QStringLiteral("invoice");
    const std::vector<MatchableRule> all(static_cast<size_t>(count), MatchableRule(rule));
    const double cost = medianOf(101, [&] {
        const auto begin = Clock::now();
        const SplitName name("Holiday on the island 2026.jpeg");
        for (const MatchableRule& each : all)
            if (passesNameFilter(name, each)) std::abort();
        return secondsSince(begin) * 1'000'000;
    });
    table.addFigure("one name tried against " + std::to_string(count) + " rules", "us", cost);
}

void events(Table& table, int count)
{
    BurstRig burst(count);
    table.addFigure(std::to_string(count) + " arrivals at once, the last to the last move", "ms",
                    medianOf(5, [&] { return burst.secondsToMove() * 1000; }));
}

} // namespace

void measureGrowth(Table& table)
{
    for (const int count : {1'000, 10'000, 100'000})
        entries(table, count);
    for (const int count : {20, 200, 2'000})
        folders(table, count);
    for (const int count : {10, 100, 1'000})
        rules(table, count);
    for (const int count : {100, 1'000, 10'000})
        events(table, count);
}

} // namespace harbex::bench
