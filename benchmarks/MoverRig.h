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

/// A process that moves what arrives in one folder to another, seen from outside: by what the kernel tells of
/// the destination, so that it makes no difference which program it is or what it says. Functions: one
/// thread.
class MoverRig
{
public:
    struct Move {
        std::string name;
        /// When it was noticed: never before it was done, and at most a millisecond after it where the
        /// machine has a processor free. The first move after a rest is noticed at once.
        Clock::time_point at;
    };

    /// Runs `program IN OUT` with folders of its own, `present` files in IN, and returns when it watches.
    explicit MoverRig(const char* program, int present = 0);

    [[nodiscard]] const std::filesystem::path& in() const { return m_in; }
    [[nodiscard]] const std::filesystem::path& out() const { return m_out; }
    [[nodiscard]] const ChildProcess& process() const { return m_process; }

    /// A folder on the same volume that is not watched.
    [[nodiscard]] std::filesystem::path folder(const std::string& name) const
    {
        return m_scratch.folder(name);
    }

    /// Returns when so many entries have come into OUT since the last call, with all of them in their order.
    /// Ends the benchmark when nothing comes for half a minute.
    [[nodiscard]] std::vector<Move> waitForMoves(std::size_t count);

    /// Waits long enough for the work that follows a move to end, and with it every cooldown.
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
    /// Those that nobody has waited for yet. Guarded by the mutex.
    std::vector<Move> m_moves;
    /// After all that it uses.
    std::jthread m_reader;
};

/// Files that arrive in a folder that the engine watches one right after the other, as often as it is asked
/// for.
class BurstRig
{
public:
    explicit BurstRig(int count);

    /// From the last arrival to the last move.
    [[nodiscard]] double secondsToMove();

    /// The files arrive while the process is stopped. From its going on to the last move.
    [[nodiscard]] double secondsToMoveAfterStop();

    /// Of as many calls of rename(2).
    [[nodiscard]] double secondsOfBareRenames();

private:
    [[nodiscard]] double finish(Clock::time_point begin);

    const int m_count;
    MoverRig m_rig;
    const std::filesystem::path m_stage;
    const std::filesystem::path m_bare;
};

} // namespace harbex::bench
