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

// What moving, copying and removing have in common: entries are reached from folders that are open, and
// links are never followed. Names are raw bytes. Everything here may be called from any thread.

/// How many levels of folders a tree may have that is copied or removed. Each level of a copy holds two
/// descriptors, of which a process has 1024 as a rule.
inline constexpr size_t maximumTreeDepth = 400;

/// Where an entry stands: its name in a folder that is open, or a path (the folder is AT_FDCWD then).
/// The descriptor is borrowed.
struct DirEntry {
    int folder = AT_FDCWD;
    std::string name;
};

/// What the file system says of one entry at one moment; of a link itself, not of what it leads to.
struct EntryStatus {
    uint64_t device = 0;
    uint64_t inode = 0;
    /// Type and permissions.
    mode_t mode = 0;
    uint32_t links = 0;
    uid_t owner = 0;
    gid_t group = 0;
    uint64_t size = 0;
    timespec accessTime = {};
    timespec modificationTime = {};
    timespec changeTime = {};
    /// Another file system, or another part of one, is mounted here.
    bool isMountPoint = false;
    /// Nobody may remove it: it carries the immutable or the append-only flag.
    bool isProtected = false;

    [[nodiscard]] static Outcome<EntryStatus> of(const DirEntry& place);
    [[nodiscard]] static Outcome<EntryStatus> ofOpen(int fd);

    [[nodiscard]] bool isFolder() const { return S_ISDIR(mode); }
    [[nodiscard]] bool isRegularFile() const { return S_ISREG(mode); }
    [[nodiscard]] bool isLink() const { return S_ISLNK(mode); }

    /// Whether both are about the same inode, whatever was written into it in between.
    [[nodiscard]] bool isSameEntry(const EntryStatus& other) const;
    /// Whether type, size and modification time are the same: nobody has written into it, and what was put in
    /// its place, if anything, passes for it.
    [[nodiscard]] bool hasSameContent(const EntryStatus& other) const;
    /// The same content and change time: no other name, owner, permission or attribute was given to it
    /// either, and nothing was put in its place.
    [[nodiscard]] bool isUnchanged(const EntryStatus& other) const;
};

/// Opens a folder by its path to work in it.
[[nodiscard]] Outcome<FileDescriptor> openFolder(const std::string& path);

/// Opens the folder that stands at `place`; EBUSY when it is not the one that `expected` is about.
[[nodiscard]] Outcome<FileDescriptor> openSubfolder(const DirEntry& place, const EntryStatus& expected);

/// The names in an open folder, without "." and "..".
[[nodiscard]] Outcome<std::vector<std::string>> namesIn(int folder);

/// Takes a name away again that was given to an entry of our own: only while it is still the name of that
/// entry, with the content it had. Not for folders. That it could not be taken away is not reported: the
/// callers are about to report the reason why they try.
void unlinkIfOurs(const DirEntry& place, const EntryStatus& ours);

} // namespace harbex
