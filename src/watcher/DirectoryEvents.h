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

    /// One subscription. Must be destroyed before its DirectoryEvents.
    class Source
    {
    public:
        ~Source();
        Source(const Source&) = delete;
        Source& operator=(const Source&) = delete;

        /// Returns the inotify watch descriptor. All sources of one folder share it.
        [[nodiscard]] int descriptor() const { return m_descriptor; }

        /// Returns whether the folder at `path` is the watched one. The check uses the watch descriptor,
        /// which differs even if a new folder reuses the inode number. Thread-safe. May block on a disk or
        /// server.
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

    /// Watches the names in the folder at `path`, and whether the folder is renamed, deleted or unmounted.
    /// With `name`, ignores changes of all other names.
    ///
    /// `handler` runs on the reading thread and must return quickly. It runs after changes of the folder,
    /// after each change of the mount table, and after lost events. One call can cover several changes. A
    /// call can still run after the source is destroyed.
    ///
    /// The call may watch another folder if one replaces the folder at `path` meanwhile. The caller must list
    /// the folder afterwards and check isFor() for the listed one. This check is not needed with `name` if
    /// another source watches the folder's own name in its parent.
    ///
    /// Fails with the errno of inotify (no such folder, no read permission, limit of watches or instances),
    /// or of the other calls that start the reading thread. Thread-safe. May block on a disk or server;
    /// blocks no other thread meanwhile.
    [[nodiscard]] Outcome<std::shared_ptr<Source>> watch(const std::string& path, Handler handler,
                                                         const std::string& name = {});

    /// Returns whether `path` is known to be a folder: a source with a name watches it, and no watched name
    /// has changed since. `path` must contain no symbolic link. Thread-safe.
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

    Outcome<void> openIfNeeded() REQUIRES(m_mutex);
    std::shared_ptr<Source> add(int descriptor, Handler handler, const std::string& name) REQUIRES(m_mutex);
    void remove(const Source& source) REQUIRES(m_mutex);
    void readEvents();
    Handlers affectedBy(const char* buffer, size_t size) REQUIRES(m_mutex);
    Handlers all() REQUIRES(m_mutex);
    void forgetFolders() REQUIRES(m_mutex);

    Mutex m_mutex;
    FileDescriptor m_inotify;
    FileDescriptor m_mountInfo;
    /// Eventfd that stops the reading thread.
    FileDescriptor m_wakeUp;
    std::map<int, Watch> m_watches GUARDED_BY(m_mutex);
    /// Cache: watch descriptor by path, for sources with a name. Many watched folders share their parent
    /// folders. Cleared when a watched name changes.
    std::map<std::string, int> m_folders GUARDED_BY(m_mutex);
    /// Number of times that m_folders was cleared. A result from before a clearing must not enter the cache.
    uint64_t m_pathChanges GUARDED_BY(m_mutex) = 0;
    std::shared_ptr<const MountTable> m_mounts GUARDED_BY(m_mutex);
    std::thread m_reader;
};

} // namespace harbex
