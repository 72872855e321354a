#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace harbex::bench
{

using Clock = std::chrono::steady_clock;

/// Seconds from `begin` to `end`.
[[nodiscard]] double secondsBetween(Clock::time_point begin, Clock::time_point end);

/// Seconds since `begin`.
[[nodiscard]] double secondsSince(Clock::time_point begin);

/// Ends the benchmark with "WHO WHAT" on standard error: nothing can be measured.
[[noreturn]] void fail(const std::string& who, const char* what);

/// The middle one of the values, of which there is at least one.
[[nodiscard]] double median(std::vector<double> values);

/// What two ways of doing a thing cost, measured in turn so that both meet the same machine: medians.
struct Pair {
    double ours = 0;
    double baseline = 0;
};

/// Calls both `rounds` times, one after the other; each gives its cost.
[[nodiscard]] Pair inTurn(int rounds, const std::function<double()>& baseline,
                          const std::function<double()>& ours);

/// The table of all that was measured.
class Table
{
public:
    /// A measure that is met when ours / baseline is at most `target`.
    void addRatio(const std::string& what, const std::string& unit, Pair pair, double target);

    /// A measure that is met when ours is at most `target`.
    void addLimit(const std::string& what, const std::string& unit, double ours, double target);

    /// A figure without a target.
    void addFigure(const std::string& what, const std::string& unit, double ours);

    /// A measure that this machine cannot take. It counts as missed.
    void addImpossible(const std::string& what, const std::string& why);

    /// Whether every row met its target, give or take a tenth.
    [[nodiscard]] bool allMet() const { return m_allMet; }

private:
    void print(const std::string& what, const std::string& ours, const std::string& baseline,
               const std::string& ratio, const std::string& target, const char* verdict);
    /// Takes note of whether the target is met, and gives the word for it.
    const char* verdict(double value, double target);

    bool m_allMet = true;
    bool m_begun = false;
};

} // namespace harbex::bench
