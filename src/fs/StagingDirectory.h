#pragma once

#include "base/FileDescriptor.h"
#include "base/Outcome.h"
#include "fs/DirEntry.h"

#include <utility>

namespace harbex
{

/// A hidden folder ".harbex-<32 hexadecimal digits>.part" in which a copy is built before it gets its name
/// in the folder around. The ending tells watchers to leave it alone; the process that works in it holds its
/// lock (flock), which is free again when that process was killed. Used by one thread; several may have one
/// each in the same folder.
///
/// Where others may write into the folder around, they may move a staging directory away, put another folder
/// in its place, or give its kind of name to one. Whatever they do, no file is removed but one built here.
class StagingDirectory
{
public:
    /// Makes one in `folder`, which must stay open longer.
    [[nodiscard]] static Outcome<StagingDirectory> create(int folder);

    /// Whether the folder of `place`, which is open, can hold an entry of its name. It fails as the file
    /// system does for a name that is too long or has characters that it does not take. The name is tried in
    /// a staging directory, so that nothing ever appears at `place`.
    [[nodiscard]] static Outcome<void> expectPossible(const DirEntry& place);

    /// Removes the staging directories that killed processes of this user left in `folder`, as far as that is
    /// possible. Those that somebody still works in stay, and so does a folder that others may write into.
    static void removeLeftovers(int folder);

    StagingDirectory(StagingDirectory&& other) noexcept;
    StagingDirectory(const StagingDirectory&) = delete;
    StagingDirectory& operator=(const StagingDirectory&) = delete;

    /// Removes the staging directory with its content. What cannot be removed now, a later move removes.
    ~StagingDirectory();

    /// Where the copy is to be built: the only name that may be made in the staging directory, which is open,
    /// empty at first and closed to other users.
    [[nodiscard]] DirEntry content() const;

private:
    explicit StagingDirectory(DirEntry place) : m_place(std::move(place)) {}

    /// Opens and locks what was just made; false when it was removed meanwhile by somebody who took it for a
    /// leftover.
    Outcome<bool> occupy();

    DirEntry m_place;
    FileDescriptor m_opened;
};

} // namespace harbex
