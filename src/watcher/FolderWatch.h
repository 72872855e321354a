#pragma once

#include "model/FileUrl.h"
#include "watcher/DirectoryEvents.h"
#include "watcher/EntryPipeline.h"
#include "watcher/WatchedDirectory.h"

#include <QUuid>

#include <atomic>
#include <chrono>
#include <ctime>
#include <memory>
#include <optional>
#include <vector>

namespace harbex
{

/// One watched folder, from a start to the next stop. It is a URL: whatever directory stands there is
/// watched, and as long as none does, it is waited for. Everything but the functions of the main thread runs
/// on a queue of its own.
class FolderWatch : public std::enable_shared_from_this<FolderWatch>
{
public:
    using Token = SerialQueue::Token;

    /// Where the folder stands. Every change of it is in FolderWatch.cpp: `cancelled` is final and comes from
    /// the main thread, the others from the queue.
    enum class State {
        /// Nothing that can be watched stands at the URL.
        waiting,
        watched,
        cancelled,
    };

    /// Begins to watch the folder at `url`; `id` names its queue. A directory on a local volume is watched,
    /// and its names are known, when this returns; one on a remote volume soon after. Main thread.
    [[nodiscard]] static std::shared_ptr<FolderWatch> start(const EntryPipeline::Services& services,
                                                            const FileUrl& url, const QUuid& id,
                                                            const std::vector<FilterRule>& rules);

    /// Sets the rules for what arrives from now on. Main thread.
    void setRules(const std::vector<FilterRule>& rules);

    /// Ends the watch: no scan begins after this. Entries that were found before are still brought to their
    /// end. Main thread.
    void cancel();

    /// The descriptor of the watch; negative while none stands. Any thread.
    [[nodiscard]] int descriptor() const { return m_descriptor; }

private:
    FolderWatch(const EntryPipeline::Services& services, const FileUrl& url, const QUuid& id,
                const std::vector<FilterRule>& rules);

    void requestLook();
    void lookAt(SerialQueue::Clock::time_point when);
    void look(Token token);
    void open(Token token);
    void watchPath();
    void scanForNewFiles(Token token);
    void setState(State state);
    void retryLater();
    void pollLater();
    void poll(Token token);
    [[nodiscard]] bool isPollDue();

    const EntryPipeline::Services m_services;
    const std::string m_path;
    const std::string m_name;
    const std::shared_ptr<SerialQueue> m_queue;
    const std::shared_ptr<EntryPipeline> m_pipeline;

    std::atomic<State> m_state = State::waiting;
    std::atomic<int> m_descriptor = -1;
    /// A look waits in the queue: further events need none of their own.
    std::atomic<bool> m_lookWaits = false;

    // Used on the queue only.
    EntryPipeline::Rules m_rules;
    /// Requests a look.
    DirectoryEvents::Handler m_handler;
    /// What stands at the URL; null unless the state is `watched`.
    std::shared_ptr<WatchedDirectory> m_directory;
    /// Tell of changes of every name on the path to the folder.
    std::vector<std::shared_ptr<DirectoryEvents::Source>> m_pathSources;
    /// Before this no further look begins.
    SerialQueue::Clock::time_point m_nextLook;
    bool m_isRefusalLogged = false;
    /// Others may change the folder without an event here.
    bool m_isRemote = false;
    bool m_isPolling = false;
    SerialQueue::Clock::time_point m_lastScan;
    /// The folder's modification time at the last poll, and whether it had changed.
    std::optional<timespec> m_lastModified;
    bool m_wasChanged = false;
};

} // namespace harbex
