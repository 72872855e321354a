#pragma once

#include "base/Mutex.h"
#include "base/Outcome.h"

#include <set>
#include <stop_token>
#include <string>

namespace harbex
{

/// Moves entries of the file system without ever replacing anything. Any number of threads may call it at
/// once.
class FileMove
{
public:
    /// Once `stop` is asked to stop, a copy to another volume is given up and thrown away (ECANCELED).
    explicit FileMove(std::stop_token stop = {});

    /// Moves the entry at `source` (a file, a folder with all that is in it, a link itself) to the path
    /// `target`, whose folder must exist. Paths are raw bytes, without a slash at the end.
    ///
    /// On one volume that is a rename; when the system says that the volumes differ (EXDEV) it is a copy that
    /// appears under its name when it is complete, and then the removal of the source. A rename that is
    /// refused for any other reason is never tried as a copy. Fails with EEXIST when anything stands at
    /// `target`, and with the reason of the system otherwise; the entry is then left where it was, with the
    /// exceptions that renameWithoutReplacing() and moveAcrossDevices() tell of. Across volumes: EBUSY when
    /// the content of the source changed meanwhile, EOPNOTSUPP for pipes, sockets and devices.
    ///
    /// Blocks for as long as it takes.
    Outcome<void> moveItem(const std::string& source, const std::string& target);

private:
    /// What killed processes left in `folder` is looked for after the first move into it.
    void removeLeftoversOnce(const std::string& folder);
    bool isFirstMoveInto(const std::string& folder) EXCLUDES(m_mutex);

    const std::stop_token m_stop;
    Mutex m_mutex;
    /// The paths of the folders that were looked through; few, as they are the destinations of rules.
    std::set<std::string> m_visited GUARDED_BY(m_mutex);
};

} // namespace harbex
