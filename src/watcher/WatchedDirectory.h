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

/// One watched directory with a snapshot of its names. Another directory at the same path is not this one.
/// The directory is open only during a call, because an open descriptor would prevent an unmount. Paths and
/// names are raw bytes.
class WatchedDirectory
{
public:
    using Token = SerialQueue::Token;

    /// Why open() failed.
    struct Failure {
        SystemError error;
        /// The directory can be opened, but inotify failed.
        bool isWatchRefused = false;
    };

    /// Watches the directory at `path` and takes the first snapshot, without a browser's placeholders.
    /// DirectoryEvents::watch() describes the calls of `handler`. Fails with the errno of the failed call.
    /// Thread-safe. May block on a disk or server.
    [[nodiscard]] static Outcome<std::shared_ptr<WatchedDirectory>, Failure>
    open(DirectoryEvents& events, MoveHistory& history, const std::string& path,
         DirectoryEvents::Handler handler);

    ~WatchedDirectory();
    WatchedDirectory(const WatchedDirectory&) = delete;
    WatchedDirectory& operator=(const WatchedDirectory&) = delete;

    [[nodiscard]] const std::string& path() const { return m_path; }
    [[nodiscard]] const FileIdentity& identity() const { return m_identity; }

    /// Returns the inotify watch descriptor.
    [[nodiscard]] int descriptor() const { return m_source->descriptor(); }

    /// Returns the path of the entry `name`.
    [[nodiscard]] std::string pathOf(const std::string& name) const;

    /// Lists the directory, updates the snapshot and returns the new names. Fails with ENOENT if the path
    /// leads to another directory, otherwise with the errno of the listing. A failure keeps the snapshot.
    /// Call on the folder's queue. May block on a disk or server.
    [[nodiscard]] Outcome<std::vector<std::string>> takeNewNames(Token token);

    /// Removes a name from the snapshot. The next listing reports it as new. Call on the folder's queue.
    void forget(Token, std::string_view name) { m_names.remove(name); }

    /// Returns whether the directory is still at its path. Thread-safe. May block on a disk or server.
    [[nodiscard]] bool isAtPath() const;

    /// Lists the directory and returns the downloadBase() of each unfinished download in it. An empty file
    /// with such a base is a placeholder. Thread-safe. May block on a disk or server.
    [[nodiscard]] Outcome<std::set<std::string, std::less<>>> downloadsUnderWay() const;

private:
    WatchedDirectory(MoveHistory& history, std::string path, std::unique_ptr<DirectoryEvents::Source> source,
                     const FileIdentity& identity);

    /// Removes the browsers' placeholders from the snapshot. `downloads` has the downloadBase() of each
    /// partial download.
    void forgetPlaceholders(const std::set<std::string, std::less<>>& downloads);

    /// Drops the expected returns of names that a listing knows already: the entry left and returned between
    /// two listings, so its name is not new. The record would count for the next entry of that name.
    /// `listed` is the start of the listing.
    void dropExpectationsOfKnownNames(MoveHistory::Clock::time_point listed,
                                      const std::vector<std::string>& newNames);

    MoveHistory& m_history;
    const std::string m_path;
    const std::unique_ptr<DirectoryEvents::Source> m_source;
    const FileIdentity m_identity;
    /// Use on the folder's queue only.
    NameSnapshot m_names;
};

} // namespace harbex
