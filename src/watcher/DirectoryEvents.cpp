#include "watcher/DirectoryEvents.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace harbex
{

namespace
{

// What is written into a file is left out on purpose: a growing download costs nothing until it is renamed.
constexpr uint32_t watchedEvents =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MOVE_SELF | IN_DELETE_SELF | IN_ONLYDIR;

} // namespace

void DirectoryEvents::Source::resume()
{
    const MutexLock lock(m_events.m_mutex);
    m_resumed = true;
    if (std::exchange(m_pending, false)) m_handler();
}

void DirectoryEvents::Source::cancel()
{
    const MutexLock lock(m_events.m_mutex);
    if (std::exchange(m_cancelled, true)) return;

    const auto found = m_events.m_watches.find(m_descriptor);
    Watch& watch = found->second;
    std::erase(watch.sources, this);
    if (!watch.sources.empty()) return;
    // Can only fail for a watch that the kernel has dropped in this moment.
    if (!watch.gone) ::inotify_rm_watch(m_events.m_inotify.get(), m_descriptor);
    m_events.m_watches.erase(found);
}

DirectoryEvents::~DirectoryEvents()
{
    if (!m_reader.joinable()) return;
    const uint64_t one = 1;
    // An eventfd takes this unless its counter is full, and then the reader is awake already.
    if (::write(m_wakeUp.get(), &one, sizeof one) < 0) {
    }
    m_reader.join();
}

Outcome<std::unique_ptr<DirectoryEvents::Source>> DirectoryEvents::watch(const std::string& path,
                                                                         Handler handler)
{
    const MutexLock lock(m_mutex);
    if (const Outcome<void> opened = openIfNeeded(); !opened) return opened.error();

    const int descriptor = ::inotify_add_watch(m_inotify.get(), path.c_str(), watchedEvents);
    if (descriptor < 0) return SystemError::last();

    std::unique_ptr<Source> source(new Source(*this, descriptor, std::move(handler)));
    m_watches[descriptor].sources.push_back(source.get());
    return source;
}

// Opened by the first watch rather than by the constructor, so that an instance the system refused once is
// asked for again at the next start.
Outcome<void> DirectoryEvents::openIfNeeded()
{
    if (m_reader.joinable()) return {};

    FileDescriptor inotify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!inotify) return SystemError::last();
    FileDescriptor wakeUp(::eventfd(0, EFD_CLOEXEC));
    if (!wakeUp) return SystemError::last();

    m_inotify = std::move(inotify);
    m_wakeUp = std::move(wakeUp);
    try {
        m_reader = std::thread([this] { readEvents(); });
    } catch (const std::system_error& error) {
        return SystemError{error.code().value()};
    }
    return {};
}

void DirectoryEvents::readEvents()
{
    constexpr int restMilliseconds = 1;
    alignas(inotify_event) char buffer[64 * 1024];
    std::array<pollfd, 2> polled = {{{m_inotify.get(), POLLIN, 0}, {m_wakeUp.get(), POLLIN, 0}}};
    for (;;) {
        if (::poll(polled.data(), polled.size(), -1) < 0) continue;
        if (polled[1].revents != 0) return;

        const ssize_t size = ::read(m_inotify.get(), buffer, sizeof buffer);
        if (size <= 0) continue;
        {
            const MutexLock lock(m_mutex);
            deliver(buffer, static_cast<size_t>(size));
        }
        // What comes in quick succession is read together: each of ten thousand renames would wake this
        // thread.
        (void)::poll(&polled[1], 1, restMilliseconds);
    }
}

void DirectoryEvents::deliver(const char* buffer, size_t size)
{
    for (size_t offset = 0; offset < size;) {
        inotify_event event;
        std::memcpy(&event, buffer + offset, sizeof event);
        offset += sizeof event + event.len;

        if (event.mask & IN_Q_OVERFLOW) {
            // Events were lost, nobody knows whose.
            for (auto& [descriptor, watch] : m_watches)
                if (!watch.gone) signal(watch);
            continue;
        }
        // Unknown descriptors are of watches that were cancelled while their events waited here.
        const auto found = m_watches.find(event.wd);
        if (found == m_watches.end()) continue;
        if (event.mask & IN_IGNORED) found->second.gone = true;
        signal(found->second);
    }
}

void DirectoryEvents::signal(const Watch& watch)
{
    for (Source* source : watch.sources) {
        if (source->m_resumed)
            source->m_handler();
        else
            source->m_pending = true;
    }
}

} // namespace harbex
