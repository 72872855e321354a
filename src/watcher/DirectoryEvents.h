#pragma once

#include "base/FileDescriptor.h"
#include "base/Mutex.h"
#include "base/Outcome.h"
#include "fs/MountTable.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace harbex
{

/// Owns the inotify instance of an engine, its copy of the mount table, and the thread that reads both. Calls
/// a handler when names in a watched folder change or when the folder itself changes. Paths and names are raw
/// bytes.
class DirectoryEvents
{
public:
    using Handler = std::shared_ptr<const std::function<void()>>;

    /// One subscription. Destroy it before its DirectoryEvents, on any thread.
    class Source
    {
    public:
        ~Source();
        Source(const Source&) = delete;
        Source& operator=(const Source&) = delete;

        /// Returns the inotify watch descriptor. All sources of one folder share it.
        [[nodiscard]] int descriptor() const { return m_descriptor; }

        /// Returns whether the folder at `path` is the watched one. The check uses the watch descriptor,
        /// which differs even if a new folder reuses the inode number. Returns false if there is no folder.
        /// If there is another one, it gets an inotify watch without a source, which calls no handler.
        /// Thread-safe. May block on a disk or server.
        [[nodiscard]] bool isFor(const std::string& path) const;

    private:
        friend class DirectoryEvents;
        Source(DirectoryEvents& events, int descriptor, std::string name, Handler handler);

        DirectoryEvents& m_events;
        const int m_descriptor;
        /// The only name whose changes call the handler; empty for all names.
        const std::string m_name;
        const Handler m_handler;
    };

    DirectoryEvents() = default;
    ~DirectoryEvents();
    DirectoryEvents(const DirectoryEvents&) = delete;
    DirectoryEvents& operator=(const DirectoryEvents&) = delete;

    /// Watches the folder at `path`: which names it has, and whether it is renamed, deleted or unmounted.
    /// With `name`, ignores changes of all other names. The watch ends when the returned source is destroyed.
    ///
    /// `handler` runs on the reading thread and must return quickly. It runs after changes of the folder,
    /// after each change of the mount table, and after lost events. One call can cover several changes. A
    /// call can still run after the source is destroyed.
    ///
    /// If another folder replaces the one at `path` meanwhile, the call may watch either. To watch a certain
    /// folder, open it and take the path of its descriptor below /proc.
    ///
    /// Fails with the errno of inotify (no such folder, no read permission, limit of watches or instances),
    /// or of the calls that start the reading thread. Thread-safe. May block on a disk or server;
    /// blocks no other thread meanwhile.
    [[nodiscard]] Outcome<std::unique_ptr<Source>> watch(const std::string& path, Handler handler,
                                                         const std::string& name = {});

    /// Returns whether `path` is known to be a folder: watch() was called for it with a name, and since then
    /// no watched name has changed and no source with a name was destroyed. `path` must contain no symbolic
    /// link. Thread-safe.
    [[nodiscard]] bool isKnownFolder(const std::string& path);

    /// Returns the mount table; the reading thread follows its changes with a short delay. Thread-safe.
    [[nodiscard]] std::shared_ptr<const MountTable> mounts();

private:
    struct Watch {
        std::vector<const Source*> sources;
        /// The kernel has removed the watch: the folder was deleted or its volume unmounted.
        bool gone = false;
    };
    using Handlers = std::vector<Handler>;

    /// Opens the inotify instance and starts the reading thread, unless this is done already.
    Outcome<void> openIfNeeded() REQUIRES(m_mutex);
    std::unique_ptr<Source> add(int descriptor, Handler handler, const std::string& name) REQUIRES(m_mutex);
    void remove(const Source& source) REQUIRES(m_mutex);
    /// The reading thread.
    void readEvents();
    /// Returns the handlers to call for the events in the buffer.
    Handlers handlersFor(const char* buffer, size_t size) REQUIRES(m_mutex);
    Handlers allHandlers() REQUIRES(m_mutex);
    void clearFolderCache() REQUIRES(m_mutex);

    Mutex m_mutex;
    FileDescriptor m_inotify;
    FileDescriptor m_mountInfo;
    /// Eventfd that stops the reading thread.
    FileDescriptor m_wakeUp;
    std::map<int, Watch> m_watches GUARDED_BY(m_mutex);
    /// Watch descriptors by path, for sources with a name. Many watched folders share their parent folders.
    /// Cleared when a watched name changes or a source with a name is destroyed.
    std::map<std::string, int> m_folderCache GUARDED_BY(m_mutex);
    /// Number of removed watches and of times that the cache was cleared. If it has changed during watch(),
    /// the descriptor that inotify returned may be out of date.
    uint64_t m_changes GUARDED_BY(m_mutex) = 0;
    std::shared_ptr<const MountTable> m_mounts GUARDED_BY(m_mutex);
    std::thread m_reader;
};

} // namespace harbex
