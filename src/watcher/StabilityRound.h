#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace harbex
{

/// Entries that share one wait to find out whether they have stopped growing: all of them have their size
/// read, time passes, all have it read again, and only then each goes on. Used by one thread at a time; the
/// time is the caller's.
class StabilityRound
{
public:
    /// What an entry does once it is known whether it is stable.
    using Result = std::function<void(bool stable)>;

    /// Adds the entry at `path` (raw bytes).
    void add(std::string path, Result result);

    [[nodiscard]] bool isEmpty() const { return m_entries.empty(); }

    /// Reads the first size of every entry.
    void readFirstSizes();

    /// Reads the second size of every entry, then calls every result: an entry is stable when both sizes
    /// could be read and are equal. The unstable ones go first: what is to be tried again later is not held
    /// up by the work that the stable ones set off.
    void finish();

private:
    struct Entry {
        std::string path;
        Result result;
        std::optional<uint64_t> firstSize;
    };

    std::vector<Entry> m_entries;
};

} // namespace harbex
