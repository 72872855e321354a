#pragma once

#include "base/FileDescriptor.h"
#include "base/Mutex.h"
#include "base/Outcome.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace harbex
{

/// The one inotify instance of an engine and the thread that reads it. Turns whatever happens to the entries
/// of a folder, or to the folder itself, into one call: "something changed there".
class DirectoryEvents
{
public:
    using Handler = std::function<void()>;

    /// One folder that is watched. Cancelled at the end of its life; ends before its DirectoryEvents does.
    class Source
    {
    public:
        ~Source() { cancel(); }
        Source(const Source&) = delete;
        Source& operator=(const Source&) = delete;

        /// The inotify watch descriptor; the same for every source of one folder.
        [[nodiscard]] int descriptor() const { return m_descriptor; }

        /// Lets events through. One that came before leads to a call now.
        void resume();

        /// Ends the watch. The handler is not called again once this has returned.
        void cancel();

    private:
        friend class DirectoryEvents;
        Source(DirectoryEvents& events, int descriptor, Handler handler)
            : m_events(events), m_descriptor(descriptor), m_handler(std::move(handler))
        {
        }

        DirectoryEvents& m_events;
        const int m_descriptor;
        const Handler m_handler;
        // The three below are guarded by the mutex of m_events.
        bool m_resumed = false;
        bool m_pending = false;
        bool m_cancelled = false;
    };

    DirectoryEvents() = default;
    ~DirectoryEvents();
    DirectoryEvents(const DirectoryEvents&) = delete;
    DirectoryEvents& operator=(const DirectoryEvents&) = delete;

    /// Watches the folder at `path` (raw bytes) from now on; calls begin with Source::resume(). The handler
    /// runs on the reading thread, briefly, and must not call back in here. Fails with the errno of inotify:
    /// no such folder, no permission to read it, the user's limit of watches or instances. Any thread.
    [[nodiscard]] Outcome<std::unique_ptr<Source>> watch(const std::string& path, Handler handler);

private:
    struct Watch {
        std::vector<Source*> sources;
        /// The kernel has dropped the watch: the folder was deleted or its volume unmounted.
        bool gone = false;
    };

    Outcome<void> openIfNeeded() REQUIRES(m_mutex);
    void readEvents();
    void deliver(const char* buffer, size_t size) REQUIRES(m_mutex);
    static void signal(const Watch& watch);

    Mutex m_mutex;
    FileDescriptor m_inotify;
    /// Written to end the reading thread.
    FileDescriptor m_wakeUp;
    std::map<int, Watch> m_watches GUARDED_BY(m_mutex);
    std::thread m_reader;
};

} // namespace harbex
