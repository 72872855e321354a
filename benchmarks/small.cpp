// Micro-benchmarks of the steps that the engine performs for every entry.

#include "watcher/NameSnapshot.h"
#include "watcher/RuleMatching.h"

#include <benchmark/benchmark.h>

#include <string>

using namespace harbex;

namespace
{

FilterRule nameRule()
{
    FilterRule rule;
    rule.value = QStringLiteral("invoice");
    rule.destination = FileUrl::fromPath("/out");
    return rule;
}

void splitName(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(SplitName("Screenshot 2026-11-21 at 10.14.png"));
}
BENCHMARK(splitName);

void nameFilter(benchmark::State& state)
{
    const MatchableRule rule(nameRule());
    const SplitName name("Screenshot 2026-11-21 at 10.14.png");
    for (auto _ : state)
        benchmark::DoNotOptimize(passesNameFilter(name, rule));
}
BENCHMARK(nameFilter);

/// Cost of a scan in addition to the listing, with no new name and with one new name in the middle.
void snapshotUpdate(benchmark::State& state, bool oneNew)
{
    std::vector<std::string> names;
    for (int i = 0; i < state.range(0); ++i)
        names.push_back("IMG_" + std::to_string(20'260'000 + i) + ".jpg");
    NameSnapshot known;
    NameSnapshot::Update first(known);
    for (const std::string& name : names)
        first.add(name);
    known = first.takeCurrent();
    if (oneNew) names.insert(names.begin() + state.range(0) / 2, "new.jpg");

    for (auto _ : state) {
        NameSnapshot::Update update(known);
        for (const std::string& name : names)
            update.add(name);
        if (update.isUnchanged()) continue;
        benchmark::DoNotOptimize(update.newNames());
        benchmark::DoNotOptimize(update.takeCurrent());
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK_CAPTURE(snapshotUpdate, unchanged, false)->RangeMultiplier(10)->Range(1000, 100'000)->Complexity();
BENCHMARK_CAPTURE(snapshotUpdate, oneNew, true)->RangeMultiplier(10)->Range(1000, 100'000)->Complexity();

} // namespace

BENCHMARK_MAIN();
