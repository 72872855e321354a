#pragma once

#include "base/FileIdentity.h"
#include "base/Mutex.h"
#include "base/Outcome.h"
#include "model/WatchedFolder.h"
#include "watcher/DirectoryEvents.h"
#include "watcher/EntryWalks.h"
#include "watcher/NameSnapshot.h"
#include "watcher/SerialQueue.h"
#include "watcher/WorkerPool.h"

#include <atomic>
#include <chrono>
#include <ctime>
#include <memory>
#include <optional>

namespace harbex
{

/// The names that were in a folder at its last listing. Held from before a listing until its result is
/// written: two records of the same folder share this, and an older listing must never replace a newer one.
struct KnownItems {
    explicit KnownItems(const FileIdentity& listed) : folder(listed) {}

    const FileIdentity folder;
    Mutex mutex;
    NameSnapshot names GUARDED_BY(mutex);
};

/// One folder for as long as it is watched, from a start to the next stop: its URL and rules as they were
/// then, its queue and its source of events. Made and cancelled on the main thread.
class FolderWatch : public std::enable_shared_from_this<FolderWatch>
{
public:
    FolderWatch(const WatchedFolder& folder, WorkerPool& pool, FileMove& fileMove, EntryWalks::AddLog addLog);

    /// Asks for the events of the folder. Fails with the errno of the refusal. Nothing happens before
    /// begin().
    [[nodiscard]] Outcome<void> open(DirectoryEvents& events);

    /// Remembers which folder stands at the URL, and gives its names: `known`, from another record of the
    /// URL, or those of a first snapshot where that is null or of another folder. Fails when the folder
    /// cannot be listed.
    [[nodiscard]] Outcome<std::shared_ptr<KnownItems>> list(const std::shared_ptr<KnownItems>& known);

    /// Lets events through; first scans once where the snapshot is from before open().
    void begin();

    /// Ends the watch: no scan begins after this, and one that is under way finds nothing. Entries that were
    /// found before are still brought to their end.
    void cancel();

    /// The descriptor of the watch. Only after open().
    [[nodiscard]] int descriptor() const { return m_source->descriptor(); }

    [[nodiscard]] const std::string& queueLabel() const { return m_queue->label(); }

private:
    /// How many times as long as its last scan took a folder rests before it is scanned again.
    static constexpr int restPerScan = 3;

    /// How often a folder is looked at of whose changes the kernel does not tell.
    static constexpr std::chrono::seconds lookInterval{2};

    /// How long a scan waits that the system had no descriptor or memory for.
    static constexpr std::chrono::seconds shortageDelay{1};

    void requestScan();
    void scanAt(SerialQueue::Clock::time_point when);
    void look(SerialQueue::Token token);
    void scanForNewFiles(SerialQueue::Token token);
    /// Compares the folder with its snapshot, which is then the folder as it is now. Finds nothing in another
    /// folder that stands at the path, and after cancel().
    [[nodiscard]] Outcome<std::vector<std::string>> takeNewNames() const;

    const std::string m_path;
    const std::shared_ptr<SerialQueue> m_queue;
    const std::shared_ptr<EntryWalks> m_walks;
    std::shared_ptr<KnownItems> m_known;
    /// The folder that was listed first. Another one at the same path, after a rename or an unmount, holds
    /// entries that were there before: it is not looked at.
    FileIdentity m_identity;
    /// The snapshot is older than the source of events.
    bool m_mayHaveMissed = false;
    /// Others may change the folder without an event here.
    bool m_isRemote = false;
    std::unique_ptr<DirectoryEvents::Source> m_source;

    /// The folder's modification time at the last look. Used on the queue only.
    std::optional<timespec> m_lastModified;
    /// Whether that look found it changed. Used on the queue only.
    bool m_wasChanged = false;

    /// A scan waits: further events need none of their own.
    std::atomic<bool> m_scanWaits = false;
    /// Before this no further scan begins.
    std::atomic<SerialQueue::Clock::time_point> m_nextScan;
    std::atomic<bool> m_cancelled = false;
};

} // namespace harbex
