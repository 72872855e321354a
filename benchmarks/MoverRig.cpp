#include "MoverRig.h"

#include <chrono>
#include <poll.h>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace harbex::bench
{

namespace
{

QString text(const std::filesystem::path& path)
{
    return QString::fromStdString(path.string());
}

std::filesystem::path filled(std::filesystem::path folder, int count)
{
    makeFiles(folder, "old", count);
    return folder;
}

} // namespace

MoverRig::MoverRig(const char* program, int present)
    : m_in(filled(m_scratch.folder("in"), present)), m_out(m_scratch.folder("out")),
      m_process(program, {text(m_in), text(m_out)}), m_events(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{
    if (::inotify_add_watch(m_events.get(), m_out.c_str(), IN_MOVED_TO) < 0)
        fail(m_out.string(), "cannot be watched");
    m_reader = std::jthread([this](const std::stop_token& stop) { readEvents(stop); });
    m_process.waitUntilStopped();
    m_process.resume();
}

void MoverRig::readEvents(const std::stop_token& stop)
{
    // Upper limit for the wait in the destructor.
    constexpr int stopMilliseconds = 100;
    while (!stop.stop_requested()) {
        pollfd polled{.fd = m_events.get(), .events = POLLIN, .revents = 0};
        if (::poll(&polled, 1, stopMilliseconds) <= 0) continue;
        alignas(inotify_event) char buffer[64 * 1024];
        const ssize_t size = ::read(m_events.get(), buffer, sizeof buffer);
        const auto now = Clock::now();
        {
            const std::lock_guard lock(m_mutex);
            for (ssize_t at = 0; at < size;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
                at += static_cast<ssize_t>(sizeof *event + event->len);
                if (event->mask & IN_Q_OVERFLOW) fail(m_out.string(), "tells more than can be read");
                m_moves.push_back({event->name, now});
            }
        }
        m_changed.notify_one();
        // Reads moves in batches, because a wake-up for each of 10,000 moves would slow the moves down.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

std::vector<MoverRig::Move> MoverRig::waitForMoves(std::size_t count)
{
    std::unique_lock lock(m_mutex);
    for (std::size_t before = m_moves.size(); before < count; before = m_moves.size())
        if (!m_changed.wait_for(lock, std::chrono::seconds(30), [&] { return m_moves.size() > before; }))
            fail(std::to_string(count - before) + " entries", "have not been moved");
    if (m_moves.size() > count) fail(m_out.string(), "has got more than was expected");
    return std::exchange(m_moves, {});
}

void MoverRig::rest()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
}

BurstRig::BurstRig(int count)
    : m_count(count), m_rig(HARBEX_BENCH_ENGINE), m_stage(m_rig.folder("stage")), m_bare(m_rig.folder("bare"))
{
    makeFiles(m_stage, "photo", m_count);
}

double BurstRig::secondsToMove()
{
    MoverRig::rest();
    renameFiles(m_stage, m_rig.in(), "photo", m_count);
    return finish(Clock::now());
}

double BurstRig::secondsToMoveAfterStop()
{
    MoverRig::rest();
    m_rig.process().stop();
    renameFiles(m_stage, m_rig.in(), "photo", m_count);
    const auto begin = Clock::now();
    m_rig.process().resume();
    return finish(begin);
}

double BurstRig::finish(Clock::time_point begin)
{
    const double seconds =
        secondsBetween(begin, m_rig.waitForMoves(static_cast<std::size_t>(m_count)).back().at);
    renameFiles(m_rig.out(), m_stage, "photo", m_count);
    return seconds;
}

double BurstRig::secondsOfBareRenames()
{
    const auto begin = Clock::now();
    renameFiles(m_stage, m_bare, "photo", m_count);
    const double seconds = secondsSince(begin);
    renameFiles(m_bare, m_stage, "photo", m_count);
    return seconds;
}

} // namespace harbex::bench
