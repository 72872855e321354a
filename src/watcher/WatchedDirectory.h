#pragma once

#include "base/FileIdentity.h"
#include "base/Outcome.h"
#include "watcher/DirectoryEvents.h"
#include "watcher/MoveHistory.h"
#include "watcher/NameSnapshot.h"
#include "watcher/SerialQueue.h"

#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace harbex
{

/// One directory that is watched, with the names that were in it at its last listing. A directory that takes
/// its place at the path is another one. The directory is open only during a call, so that nothing keeps its
/// volume from being unmounted.
class WatchedDirectory
{
public:
    using Token = SerialQueue::Token;

    struct Failure {
        SystemError error;
        /// The directory can be listed, and the system refuses to watch it.
        bool isWatchRefused = false;
    };

    /// Asks for the events of the directory at `path` (raw bytes) and takes the first snapshot of its names,
    /// a browser's placeholders left out. `handler` is called as DirectoryEvents::watch() says. Waits for the
    /// disk or server that has the directory.
    [[nodiscard]] static Outcome<std::shared_ptr<WatchedDirectory>, Failure>
    open(DirectoryEvents& events, MoveHistory& history, const std::string& path,
         DirectoryEvents::Handler handler);

    ~WatchedDirectory();
    WatchedDirectory(const WatchedDirectory&) = delete;
    WatchedDirectory& operator=(const WatchedDirectory&) = delete;

    [[nodiscard]] const std::string& path() const { return m_path; }
    [[nodiscard]] const FileIdentity& identity() const { return m_identity; }

    /// The descriptor of the watch.
    [[nodiscard]] int descriptor() const { return m_source->descriptor(); }

    /// The path of the entry of this name.
    [[nodiscard]] std::string pathOf(const std::string& name) const;

    /// Lists the directory and gives the names that are new since the last time. ENOENT when another
    /// directory stands at the path; the errno of the listing otherwise. The snapshot stays as it is then.
    [[nodiscard]] Outcome<std::vector<std::string>> takeNewNames(Token token);

    /// Makes a name count as new when it is listed next.
    void forget(Token, std::string_view name) { m_names.remove(name); }

    /// Whether the directory still stands at its path. Any thread.
    [[nodiscard]] bool isAtPath() const;

    /// What the names begin with of the downloads that are under way in the directory at this moment: an
    /// empty file whose name begins so is the placeholder of one. Takes a listing of its own. Any thread.
    [[nodiscard]] Outcome<std::set<std::string, std::less<>>> downloadsUnderWay() const;

private:
    WatchedDirectory(MoveHistory& history, std::string path, std::shared_ptr<DirectoryEvents::Source> source,
                     const FileIdentity& identity);

    void forgetPlaceholders();

    MoveHistory& m_history;
    const std::string m_path;
    const std::shared_ptr<DirectoryEvents::Source> m_source;
    const FileIdentity m_identity;
    /// Used on the queue of the folder only.
    NameSnapshot m_names;
};

} // namespace harbex
