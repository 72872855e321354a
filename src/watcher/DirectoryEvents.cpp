#include "watcher/DirectoryEvents.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace harbex
{

namespace
{

// No IN_MODIFY and no IN_CLOSE_WRITE: a growing download must not cause events. IN_MASK_ADD, because the
// kernel otherwise clears the events of an existing watch for a moment, and an arrival at that moment would
// be lost.
constexpr uint32_t watchedEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MOVE_SELF |
                                   IN_DELETE_SELF | IN_ONLYDIR | IN_MASK_ADD;

} // namespace

DirectoryEvents::Source::Source(DirectoryEvents& events, int descriptor, std::string name, Handler handler)
    : m_events(events), m_descriptor(descriptor), m_name(std::move(name)), m_handler(std::move(handler))
{
}

DirectoryEvents::Source::~Source()
{
    const MutexLock lock(m_events.m_mutex);
    m_events.remove(*this);
}

bool DirectoryEvents::Source::isFor(const std::string& path) const
{
    // The kernel returns the existing descriptor for a watched folder. For another folder the call adds a
    // watch without a source. Removing it here could remove the watch of a concurrent watch() call.
    return ::inotify_add_watch(m_events.m_inotify.get(), path.c_str(), watchedEvents) == m_descriptor;
}

DirectoryEvents::~DirectoryEvents()
{
    if (!m_reader.joinable()) return;
    const uint64_t one = 1;
    // The write fails only when the counter is full. The reader is awake in that case.
    if (::write(m_wakeUp.get(), &one, sizeof one) < 0) {
    }
    m_reader.join();
}

Outcome<std::unique_ptr<DirectoryEvents::Source>>
DirectoryEvents::watch(const std::string& path, Handler handler, const std::string& name)
{
    uint64_t changes = 0;
    {
        const MutexLock lock(m_mutex);
        if (const Outcome<void> opened = openIfNeeded(); !opened) return opened.error();
        const auto known = m_folderCache.find(path);
        if (!name.empty() && known != m_folderCache.end())
            return add(known->second, std::move(handler), name);
        changes = m_changes;
    }
    for (;;) {
        // Not under the lock: the call may block on a server.
        const int descriptor = ::inotify_add_watch(m_inotify.get(), path.c_str(), watchedEvents);
        if (descriptor < 0) return SystemError::last();
        std::unique_ptr<Source> source;
        {
            const MutexLock lock(m_mutex);
            source = add(descriptor, handler, name);
            if (changes == m_changes) {
                if (!name.empty()) m_folderCache[path] = descriptor;
                return source;
            }
        }
        // The watch may have been removed before add().
        if (source->isFor(path)) return source;
    }
}

std::unique_ptr<DirectoryEvents::Source> DirectoryEvents::add(int descriptor, Handler handler,
                                                              const std::string& name)
{
    std::unique_ptr<Source> source(new Source(*this, descriptor, name, std::move(handler)));
    m_watches[descriptor].sources.push_back(source.get());
    return source;
}

void DirectoryEvents::remove(const Source& source)
{
    // The cache must not contain paths whose changes are no longer reported.
    if (!source.m_name.empty()) clearFolderCache();
    const auto found = m_watches.find(source.m_descriptor);
    Watch& watch = found->second;
    std::erase(watch.sources, &source);
    if (!watch.sources.empty()) return;
    ++m_changes;
    // Fails if the watch is removed already, by the kernel or by an earlier last source.
    if (!watch.gone) ::inotify_rm_watch(m_inotify.get(), source.m_descriptor);
    m_watches.erase(found);
}

bool DirectoryEvents::isKnownFolder(const std::string& path)
{
    const MutexLock lock(m_mutex);
    return m_folderCache.contains(path);
}

std::shared_ptr<const MountTable> DirectoryEvents::mounts()
{
    const MutexLock lock(m_mutex);
    return m_mounts ? m_mounts : std::make_shared<const MountTable>(MountTable::read());
}

// watch() calls this, not the constructor, so that the next start tries again after a failure.
Outcome<void> DirectoryEvents::openIfNeeded()
{
    if (m_reader.joinable()) return {};

    FileDescriptor inotify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!inotify) return SystemError::last();
    FileDescriptor wakeUp(::eventfd(0, EFD_CLOEXEC));
    if (!wakeUp) return SystemError::last();

    FileDescriptor mountInfo(::open(MountTable::kernelTable, O_RDONLY | O_CLOEXEC));
    if (!mountInfo) return SystemError::last();

    m_inotify = std::move(inotify);
    m_wakeUp = std::move(wakeUp);
    m_mountInfo = std::move(mountInfo);
    try {
        m_reader = std::thread([this] { readEvents(); });
    } catch (const std::system_error& error) {
        return SystemError{error.code().value()};
    }
    // The reader, which already runs, replaces this table after each change.
    m_mounts = std::make_shared<const MountTable>(MountTable::read(m_mountInfo.get()));
    return {};
}

void DirectoryEvents::readEvents()
{
    constexpr int pauseMilliseconds = 1;
    alignas(inotify_event) char buffer[64 * 1024];
    std::array<pollfd, 3> polled = {
        {{m_inotify.get(), POLLIN, 0}, {m_mountInfo.get(), POLLPRI, 0}, {m_wakeUp.get(), POLLIN, 0}}};
    for (;;) {
        if (::poll(polled.data(), polled.size(), -1) < 0) continue;
        if (polled[2].revents != 0) return;

        Handlers handlers;
        if (polled[1].revents != 0) {
            auto mounts = std::make_shared<const MountTable>(MountTable::read(m_mountInfo.get()));
            const MutexLock lock(m_mutex);
            m_mounts = std::move(mounts);
            handlers = allHandlers();
        }
        const ssize_t size = ::read(m_inotify.get(), buffer, sizeof buffer);
        if (size > 0) {
            const MutexLock lock(m_mutex);
            Handlers affected = handlersFor(buffer, static_cast<size_t>(size));
            handlers.insert(handlers.end(), affected.begin(), affected.end());
        }
        // Not under the lock: a handler may destroy a source, and ~Source() takes the lock.
        for (const auto& handler : handlers)
            (*handler)();
        // The pause collects the events of a burst. Without it each event would wake this thread.
        (void)::poll(&polled[2], 1, pauseMilliseconds);
    }
}

DirectoryEvents::Handlers DirectoryEvents::handlersFor(const char* buffer, size_t size)
{
    Handlers handlers;
    for (size_t offset = 0; offset < size;) {
        inotify_event event;
        std::memcpy(&event, buffer + offset, sizeof event);
        // The name is padded with NULs. It is empty for an event of the folder itself.
        const std::string_view name = event.len == 0 ? "" : buffer + offset + sizeof event;
        offset += sizeof event + event.len;

        // Events of unknown folders were lost.
        if (event.mask & IN_Q_OVERFLOW) return allHandlers();
        if (event.mask & IN_IGNORED) ++m_changes;
        // The watch of a queued event may have been removed, so its descriptor can be unknown.
        const auto found = m_watches.find(event.wd);
        if (found == m_watches.end()) continue;
        if (event.mask & IN_IGNORED) found->second.gone = true;
        for (const Source* source : found->second.sources) {
            if (!source->m_name.empty() && !name.empty() && source->m_name != name) continue;
            if (!source->m_name.empty()) clearFolderCache();
            // Consecutive events often belong to the same folder: call its handler once for them.
            if (handlers.empty() || handlers.back() != source->m_handler)
                handlers.push_back(source->m_handler);
        }
    }
    return handlers;
}

DirectoryEvents::Handlers DirectoryEvents::allHandlers()
{
    clearFolderCache();
    Handlers handlers;
    for (const auto& [descriptor, watch] : m_watches)
        for (const Source* source : watch.sources)
            handlers.push_back(source->m_handler);
    return handlers;
}

void DirectoryEvents::clearFolderCache()
{
    ++m_changes;
    m_folderCache.clear();
}

} // namespace harbex
