#pragma once

#include "ChildProcess.h"
#include "EngineRig.h"
#include "Measure.h"
#include "base/FileDescriptor.h"

#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

namespace harbex::bench
{

/// A process that moves entries from one folder to another. It is measured from outside, by the inotify
/// events of the destination, so any program can be measured in the same way. Call the functions on one
/// thread.
class MoverRig
{
public:
    struct Move {
        std::string name;
        /// Time at which the move was noticed. It is never before the move, and at most 1 ms after it if a
        /// processor is free. The first move after rest() is noticed at once.
        Clock::time_point at;
    };

    /// Creates both folders and `present` files in IN, runs `program IN OUT`, and returns when it watches IN.
    explicit MoverRig(const char* program, int present = 0);

    [[nodiscard]] const std::filesystem::path& in() const { return m_in; }
    [[nodiscard]] const std::filesystem::path& out() const { return m_out; }
    [[nodiscard]] const ChildProcess& process() const { return m_process; }

    /// Returns a folder on the same volume that is not watched.
    [[nodiscard]] std::filesystem::path folder(const std::string& name) const
    {
        return m_scratch.folder(name);
    }

    /// Waits until `count` entries have arrived in OUT since the last call, and returns them in order. Ends
    /// the benchmark if no entry arrives for 30 seconds, or if there are too many.
    [[nodiscard]] std::vector<Move> waitForMoves(std::size_t count);

    /// Waits until all work after a move, including cooldowns, has ended.
    static void rest();

private:
    void readEvents(const std::stop_token& stop);

    const ScratchFolder m_scratch;
    const std::filesystem::path m_in;
    const std::filesystem::path m_out;
    const ChildProcess m_process;

    FileDescriptor m_events;
    std::mutex m_mutex;
    std::condition_variable_any m_changed;
    /// Moves that waitForMoves() has not returned yet. Guarded by m_mutex.
    std::vector<Move> m_moves;
    /// Declared last, because its thread uses the members above.
    std::jthread m_reader;
};

/// Files that arrive in a watched folder immediately one after another. Each measurement can be repeated.
class BurstRig
{
public:
    explicit BurstRig(int count);

    /// Returns the seconds from the last arrival to the last move.
    [[nodiscard]] double secondsToMove();

    /// Lets the files arrive while the process is stopped. Returns the seconds from resuming to the last
    /// move.
    [[nodiscard]] double secondsToMoveAfterStop();

    /// Returns the seconds that the same number of rename(2) calls takes.
    [[nodiscard]] double secondsOfBareRenames();

private:
    [[nodiscard]] double finish(Clock::time_point begin);

    const int m_count;
    MoverRig m_rig;
    const std::filesystem::path m_stage;
    const std::filesystem::path m_bare;
};

} // namespace harbex::bench
