#include "Measure.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace harbex::bench
{

namespace
{

// A smaller excess over the target is noise.
constexpr double tolerance = 1.1;

std::string format(const char* pattern, double value, const std::string& unit = {})
{
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text + (unit.empty() ? std::string() : ' ' + unit);
}

} // namespace

double secondsBetween(Clock::time_point begin, Clock::time_point end)
{
    return std::chrono::duration<double>(end - begin).count();
}

double secondsSince(Clock::time_point begin)
{
    return secondsBetween(begin, Clock::now());
}

void fail(const std::string& who, const char* what)
{
    std::fprintf(stderr, "harbex_bench: %s %s\n", who.c_str(), what);
    std::exit(2);
}

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

Pair inTurn(int rounds, const std::function<double()>& baseline, const std::function<double()>& ours)
{
    std::vector<double> baselines;
    std::vector<double> own;
    for (int i = 0; i < rounds; ++i) {
        baselines.push_back(baseline());
        own.push_back(ours());
    }
    return {.ours = median(own), .baseline = median(baselines)};
}

void Table::addRatio(const std::string& what, const std::string& unit, Pair pair, double target)
{
    const double ratio = pair.ours / pair.baseline;
    print(what, format("%.4g", pair.ours, unit), format("%.4g", pair.baseline, unit), format("%.2f", ratio),
          format("<= %.2f x", target), verdict(ratio, target));
}

void Table::addLimit(const std::string& what, const std::string& unit, double ours, double target)
{
    print(what, format("%.4g", ours, unit), "-", "-", format("<= %.4g", target, unit), verdict(ours, target));
}

void Table::addFigure(const std::string& what, const std::string& unit, double ours)
{
    print(what, format("%.4g", ours, unit), "-", "-", "-", "");
}

void Table::addImpossible(const std::string& what, const std::string& why)
{
    print(what, "not measured", why, "-", "-", verdict(1, 0));
}

const char* Table::verdict(double value, double target)
{
    if (value <= target) return "met";
    if (value <= target * tolerance) return "nearly";
    m_allMet = false;
    return "MISSED";
}

void Table::print(const std::string& what, const std::string& ours, const std::string& baseline,
                  const std::string& ratio, const std::string& target, const char* verdict)
{
    const auto row = [](const char* a, const char* b, const char* c, const char* d, const char* e,
                        const char* f) {
        std::printf("%-58s %14s %14s %7s %14s  %s\n", a, b, c, d, e, f);
        std::fflush(stdout);
    };
    if (!m_begun) row("what", "ours", "baseline", "ratio", "target", "");
    m_begun = true;
    row(what.c_str(), ours.c_str(), baseline.c_str(), ratio.c_str(), target.c_str(), verdict);
}

} // namespace harbex::bench
