#pragma once

#include "base/FileDescriptor.h"
#include "base/Outcome.h"

#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <vector>

namespace harbex
{

// Shared by move, copy and removal. Entries are addressed relative to open folders. Only openFolder() follows
// symbolic links. Paths and names are raw bytes. The functions fail with the errno of the failed system call
// and may block on a disk or server. Thread-safe.

/// Maximum depth of folders in a tree that is copied or removed. A copy holds two descriptors for each level,
/// and a process usually has at most 1024.
inline constexpr size_t maximumTreeDepth = 400;

/// A directory entry: a name in the open folder `folder`, or a path when `folder` is AT_FDCWD. Does not own
/// the descriptor.
struct DirEntry {
    int folder = AT_FDCWD;
    std::string name;
};

/// The status of one entry at one moment. For a symbolic link: of the link itself.
struct EntryStatus {
    uint64_t device = 0;
    uint64_t inode = 0;
    /// File type and permissions.
    mode_t mode = 0;
    uint32_t links = 0;
    uid_t owner = 0;
    gid_t group = 0;
    uint64_t size = 0;
    timespec accessTime = {};
    timespec modificationTime = {};
    timespec changeTime = {};
    /// The entry is a mount point, bind mounts included.
    bool isMountPoint = false;
    /// The entry has the immutable or the append-only flag and cannot be removed.
    bool isProtected = false;

    /// Returns the current status of the entry at `place`. Asks the server of a remote volume.
    [[nodiscard]] static Outcome<EntryStatus> of(const DirEntry& place);
    /// The same for the open file or folder `fd`.
    [[nodiscard]] static Outcome<EntryStatus> ofOpen(int fd);

    [[nodiscard]] bool isFolder() const { return S_ISDIR(mode); }
    [[nodiscard]] bool isRegularFile() const { return S_ISREG(mode); }
    [[nodiscard]] bool isLink() const { return S_ISLNK(mode); }

    /// Returns whether device, inode and type are the same. The content may differ.
    [[nodiscard]] bool isSameEntry(const EntryStatus& other) const;
    /// Returns whether type, size and modification time are the same. The inode is not compared: a
    /// replacement with the same values passes.
    [[nodiscard]] bool hasSameContent(const EntryStatus& other) const;
    /// Returns whether content and change time are the same: names, owner, permissions and attributes did not
    /// change, and the entry was not replaced.
    [[nodiscard]] bool isUnchanged(const EntryStatus& other) const;
};

/// Opens the folder at `path`. Follows symbolic links.
[[nodiscard]] Outcome<FileDescriptor> openFolder(const std::string& path);

/// Opens the folder at `place`. Fails with EBUSY when it is not the folder that `expected` describes.
[[nodiscard]] Outcome<FileDescriptor> openSubfolder(const DirEntry& place, const EntryStatus& expected);

/// Returns the names in an open folder, without "." and "..".
[[nodiscard]] Outcome<std::vector<std::string>> namesIn(int folder);

/// Removes `place` only if it is still the entry that `ours` describes, with the same content. Not for
/// folders. Ignores failures: the callers report the error that made them undo their change.
void unlinkIfOurs(const DirEntry& place, const EntryStatus& ours);

} // namespace harbex
