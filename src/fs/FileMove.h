#pragma once

#include "base/Mutex.h"
#include "base/Outcome.h"

#include <set>
#include <stop_token>
#include <string>

namespace harbex
{

/// Moves files, folders and symbolic links. Never replaces an entry. Thread-safe.
class FileMove
{
public:
    /// A stop request cancels copies to another volume with ECANCELED and deletes the partial copies.
    explicit FileMove(std::stop_token stop = {});

    /// Moves the entry at `source` (a file, a folder with its content, or a symbolic link itself) to
    /// `target`. The folder of `target` must exist. Paths and names are raw bytes, without a slash at the
    /// end.
    ///
    /// Renames the entry. Makes a cross-device move only if the rename fails with EXDEV: copies the entry,
    /// publishes the complete copy, and removes the source. Fails with EEXIST when `target` exists, otherwise
    /// with the error of the system call. The entry stays at `source` on failure, with the exceptions of
    /// renameWithoutReplacing() and moveAcrossDevices(). A cross-device move also fails with EBUSY when the
    /// content of the source changes, and with EOPNOTSUPP for pipes, sockets and devices.
    ///
    /// Blocks until the move has ended.
    Outcome<void> moveItem(const std::string& source, const std::string& target);

private:
    /// Removes the staging directories that killed processes left in `folder`, at its first call for
    /// `folder`.
    void removeLeftoversOnce(const std::string& folder);
    bool isFirstMoveInto(const std::string& folder) EXCLUDES(m_mutex);

    const std::stop_token m_stop;
    Mutex m_mutex;
    /// Paths of the folders that were searched. The set stays small: it has only destinations of rules.
    std::set<std::string> m_searchedFolders GUARDED_BY(m_mutex);
};

} // namespace harbex
