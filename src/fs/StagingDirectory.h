#pragma once

#include "base/FileDescriptor.h"
#include "base/Outcome.h"
#include "fs/DirEntry.h"

#include <utility>

namespace harbex
{

/// A hidden folder ".harbex-<32 hexadecimal digits>.part" in which a copy is built before it gets its name in
/// the parent folder. No rule matches a name with this suffix. The process that uses the directory holds an
/// flock() on it; the kernel releases the lock when the process ends. Use from one thread at a time. Several
/// staging directories may exist in one folder.
///
/// Other users who can write to the parent folder may rename or replace a staging directory, or create a
/// folder with such a name. Even then only files that were built in a staging directory are removed.
class StagingDirectory
{
public:
    /// Creates a staging directory in the open `folder`, which must outlive the result.
    [[nodiscard]] static Outcome<StagingDirectory> create(int folder);

    /// Checks that the file system accepts the name of `place`, whose folder is open. Fails with the error of
    /// the file system, for example for a name that is too long or has invalid characters. Tests the name in
    /// a staging directory and never creates an entry at `place`.
    [[nodiscard]] static Outcome<void> expectPossible(const DirEntry& place);

    /// Removes the staging directories that killed processes of this user left in `folder`. Skips directories
    /// that a process still uses and directories that other users can write to. Ignores failures.
    static void removeLeftovers(int folder);

    StagingDirectory(StagingDirectory&& other) noexcept;
    StagingDirectory(const StagingDirectory&) = delete;
    StagingDirectory& operator=(const StagingDirectory&) = delete;

    /// Removes the staging directory and the copy in it. Ignores failures: removeLeftovers() can try again.
    ~StagingDirectory();

    /// Returns the entry at which the copy is built. Create no other entry in the staging directory, which is
    /// initially empty and not accessible to other users. Valid during the lifetime of this object.
    [[nodiscard]] DirEntry content() const;

private:
    explicit StagingDirectory(DirEntry place) : m_place(std::move(place)) {}

    /// Opens and locks the new directory. Returns false when a concurrent removeLeftovers() has locked or
    /// removed it.
    Outcome<bool> openAndLock();

    DirEntry m_place;
    FileDescriptor m_directory;
};

} // namespace harbex
