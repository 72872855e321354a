#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace harbex::bench
{

using Clock = std::chrono::steady_clock;

/// Returns the seconds from `begin` to `end`.
[[nodiscard]] double secondsBetween(Clock::time_point begin, Clock::time_point end);

/// Returns the seconds since `begin`.
[[nodiscard]] double secondsSince(Clock::time_point begin);

/// Prints "harbex_bench: WHO WHAT" to standard error and ends the benchmark with status 2.
[[noreturn]] void fail(const std::string& who, const char* what);

/// Returns the median. There must be at least one value.
[[nodiscard]] double median(std::vector<double> values);

/// Median costs of Harbex and of a baseline. They are measured alternately, so that both have the same
/// conditions.
struct Pair {
    double ours = 0;
    double baseline = 0;
};

/// Calls both functions `rounds` times, alternately. Each returns its cost.
[[nodiscard]] Pair inTurn(int rounds, const std::function<double()>& baseline,
                          const std::function<double()>& ours);

/// The table of results. Prints each row at once.
class Table
{
public:
    /// Adds a measure. Its target is met if ours / baseline is at most `target`.
    void addRatio(const std::string& what, const std::string& unit, Pair pair, double target);

    /// Adds a measure. Its target is met if `ours` is at most `target`.
    void addLimit(const std::string& what, const std::string& unit, double ours, double target);

    /// Adds a value without a target.
    void addFigure(const std::string& what, const std::string& unit, double ours);

    /// Adds a measure that this machine cannot take. It counts as missed.
    void addImpossible(const std::string& what, const std::string& why);

    /// Returns whether every row met its target, with a tolerance of 10 %.
    [[nodiscard]] bool allMet() const { return m_allMet; }

private:
    void print(const std::string& what, const std::string& ours, const std::string& baseline,
               const std::string& ratio, const std::string& target, const char* verdict);
    /// Returns the word for the result and records a missed target.
    const char* verdict(double value, double target);

    bool m_allMet = true;
    bool m_begun = false;
};

} // namespace harbex::bench
