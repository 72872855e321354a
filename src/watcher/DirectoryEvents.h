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

/// The one inotify instance of an engine, the kernel's table of mounts, and the thread that reads both. Turns
/// whatever happens to the names of a folder, or to the folder itself, into one call: "look there again".
class DirectoryEvents
{
public:
    using Handler = std::shared_ptr<const std::function<void()>>;

    /// One subscription, from its making to its end. Must end before its DirectoryEvents does.
    class Source
    {
    public:
        ~Source();
        Source(const Source&) = delete;
        Source& operator=(const Source&) = delete;

        /// The inotify watch descriptor; the same for every source of one folder.
        [[nodiscard]] int descriptor() const { return m_descriptor; }

        /// Whether the folder at `path` is the one that is watched. Two folders never have the same watch
        /// descriptor, even if the one got the inode number of the other. Any thread; may wait for the disk
        /// or server that has the folder.
        [[nodiscard]] bool isFor(const std::string& path) const;

    private:
        friend class DirectoryEvents;
        Source(DirectoryEvents& events, int descriptor, std::string name, Handler handler);

        DirectoryEvents& m_events;
        const int m_descriptor;
        /// The name whose changes are told; empty for those of the whole folder.
        const std::string m_name;
        const Handler m_handler;
    };

    DirectoryEvents() = default;
    ~DirectoryEvents();
    DirectoryEvents(const DirectoryEvents&) = delete;
    DirectoryEvents& operator=(const DirectoryEvents&) = delete;

    /// Watches the folder at `path` (raw bytes): its names, and whether it is renamed, deleted or unmounted.
    /// With `name`, only what happens to that name in it. `handler` runs on the reading thread, briefly, for
    /// each change, for every change of the table of mounts, and when events were lost; one call may still be
    /// under way when the source has ended.
    ///
    /// A folder that takes the place of this one during the call may be the one that is watched: list it
    /// afterwards and ask isFor() about what was listed. Not so with a name: whatever happens to the folder
    /// itself is told then by the source of its name in the folder above. Fails with the errno of inotify: no
    /// such folder, no permission to read it, the user's limit of watches or instances. Any thread; waits for
    /// the disk or server that has the folder, and holds up nobody else meanwhile.
    [[nodiscard]] Outcome<std::shared_ptr<Source>> watch(const std::string& path, Handler handler,
                                                         const std::string& name = {});

    /// Whether names are watched in the folder at `path`, which has no link in it, so that it is known to be
    /// there: a change would be told. Any thread.
    [[nodiscard]] bool isKnownFolder(const std::string& path);

    /// The mounts as they are now, shortly after a change. Any thread.
    [[nodiscard]] std::shared_ptr<const MountTable> mounts();

private:
    struct Watch {
        std::vector<const Source*> sources;
        /// The kernel has dropped the watch: the folder was deleted or its volume unmounted.
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
    /// Written to end the reading thread.
    FileDescriptor m_wakeUp;
    std::map<int, Watch> m_watches GUARDED_BY(m_mutex);
    /// The watches of folders by path, as long as no name on any watched path has changed: thousands of
    /// folders have few paths to them.
    std::map<std::string, int> m_folders GUARDED_BY(m_mutex);
    /// How often such a change was told: what was found out before one is not entered there after it.
    uint64_t m_pathChanges GUARDED_BY(m_mutex) = 0;
    std::shared_ptr<const MountTable> m_mounts GUARDED_BY(m_mutex);
    std::thread m_reader;
};

} // namespace harbex
