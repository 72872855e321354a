#pragma once

#include "fs/MountTable.h"
#include "store/FolderIdentity.h"

#include <QByteArray>

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>

namespace harbex
{

/// When a search ends at the latest.
struct SearchBounds {
    /// 0.1 second after the construction of this object, because the main window waits for the search.
    std::chrono::steady_clock::time_point deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
    /// How many folders are listed at most, without the parents.
    std::size_t folders = 20'000;
};

/// A folder that is not at its path.
struct LostFolder {
    /// Its last known path: absolute, raw bytes, on a local volume.
    std::string path;
    FolderIdentity identity;
    /// The result: its present path, or nullopt if it was not found.
    std::optional<std::string> foundAt;
};

/// Finds folders that were renamed or moved within their volume, and sets their `foundAt`. The keys are not
/// used. A folder whose identity is only an inode number is not found, because another folder may have got
/// the number.
///
/// First lists the parent folder of each once, outside of the bounds: most folders are only renamed. Then
/// searches breadth first below the nearest existing ancestor of each, then below its parent, and so on. The
/// last one is the home directory; for a folder outside of it, the root of the mount, but never "/", because
/// the search of a missing volume would become a search of the whole system. One search serves all folders.
/// After the parents it lists no folder twice.
///
/// Leaves out hidden folders, the trash, folders that cannot be read, and everything behind symbolic links
/// and mount points: a renaming never leaves a mount. No system call touches the remote volumes in `mounts`.
/// Mount points, and subvolumes of Btrfs, are not found themselves: a listing gives them other numbers. A
/// slow disk can delay the end by one listing. Thread-safe.
void findLostFolders(std::map<QByteArray, LostFolder>& lost, const MountTable& mounts,
                     const SearchBounds& bounds);

} // namespace harbex
