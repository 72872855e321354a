#include "fs/StagingDirectory.h"

#include "fs/TreeWalk.h"

#include <array>
#include <string_view>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

namespace harbex
{

namespace
{

constexpr std::string_view prefix = ".harbex-";
constexpr std::string_view suffix = ".part";
constexpr std::string_view contentSuffix = ".entry";
constexpr std::string_view hexDigits = "0123456789abcdef";
constexpr size_t randomBytes = 16;

Outcome<std::string> randomStagingName()
{
    std::array<unsigned char, randomBytes> bytes;
    // getrandom() returns all bytes of a request for up to 256.
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        return SystemError::last();
    std::string name(prefix);
    for (const unsigned char byte : bytes) {
        name += hexDigits[byte >> 4];
        name += hexDigits[byte & 15];
    }
    return name.append(suffix);
}

bool isStagingName(std::string_view name)
{
    if (name.size() != prefix.size() + 2 * randomBytes + suffix.size()) return false;
    if (!name.starts_with(prefix) || !name.ends_with(suffix)) return false;
    return name.substr(prefix.size(), 2 * randomBytes).find_first_not_of(hexDigits) == std::string_view::npos;
}

bool tryLock(int fd)
{
    return ::flock(fd, LOCK_EX | LOCK_NB) == 0;
}

/// Returns the name of the copy in the staging directory `staging`. The cleanup removes only this name,
/// therefore another folder with a name of this form keeps its content.
std::string contentNameFor(std::string_view staging)
{
    return std::string(staging.substr(0, staging.size() - suffix.size())).append(contentSuffix);
}

// Ignores failures: a leftover does no harm, and removeLeftovers() tries again.
void tryRemove(const DirEntry& staging, int descriptor)
{
    const Outcome<void> removed =
        removeTree({descriptor, contentNameFor(staging.name)}, [](const TreeEntry&) { return true; });
    static_cast<void>(removed);
    // The name may belong to another folder now. AT_REMOVEDIR removes only an empty folder.
    ::unlinkat(staging.folder, staging.name.c_str(), AT_REMOVEDIR);
}

void removeIfLeftover(const DirEntry& staging)
{
    const Outcome<EntryStatus> status = EntryStatus::of(staging);
    if (!status || !status->isFolder() || status->owner != ::geteuid()) return;
    // Other users could have put files into a folder that they can write to.
    if (status->mode & (S_IWGRP | S_IWOTH)) return;
    const Outcome<FileDescriptor> descriptor = openSubfolder(staging, *status);
    if (descriptor && tryLock(descriptor->get())) tryRemove(staging, descriptor->get());
}

} // namespace

Outcome<StagingDirectory> StagingDirectory::create(int folder)
{
    for (;;) {
        const Outcome<std::string> name = randomStagingName();
        if (!name) return name.error();
        if (::mkdirat(folder, name->c_str(), 0700) != 0) return SystemError::last();
        StagingDirectory staging({folder, *name});
        const Outcome<bool> locked = staging.openAndLock();
        if (!locked) return locked.error();
        if (*locked) return staging;
    }
}

Outcome<void> StagingDirectory::expectPossible(const DirEntry& place)
{
    const Outcome<StagingDirectory> staging = create(place.folder);
    if (!staging) return staging.error();
    // Uses the name of a copy: the cleanup removes only that.
    const DirEntry inside = staging->content();
    if (::mkdirat(inside.folder, inside.name.c_str(), 0700) != 0) return SystemError::last();
    const std::string path = inside.name + '/' + place.name;
    const FileDescriptor file(
        ::openat(inside.folder, path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) return SystemError::last();
    return {};
}

Outcome<bool> StagingDirectory::openAndLock()
{
    m_directory = FileDescriptor(
        ::openat(m_place.folder, m_place.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!m_directory && errno == ENOENT) return false;
    if (!m_directory) return SystemError::last();
    // Removes inherited permissions and ACLs, which must not apply to the copy and may deny access.
    if (::fchmod(m_directory.get(), 0700) != 0) {
        if (errno != EPERM && errno != EOPNOTSUPP) return SystemError::last();
        // This file system has no permissions, or another user has replaced the folder.
        const Outcome<EntryStatus> current = EntryStatus::ofOpen(m_directory.get());
        if (!current) return current.error();
        if (current->owner != ::geteuid()) return SystemError{EPERM};
    }
    if (::fremovexattr(m_directory.get(), "system.posix_acl_default") != 0 && errno != ENODATA &&
        errno != EOPNOTSUPP)
        return SystemError::last();
    // Other errors: the file system has no locks. The lock in removeLeftovers() fails there too.
    if (!tryLock(m_directory.get()) && errno == EWOULDBLOCK) return false;
    const Outcome<EntryStatus> status = EntryStatus::of(m_place);
    if (!status && status.error().code == ENOENT) return false;
    if (!status) return status.error();
    return true;
}

void StagingDirectory::removeLeftovers(int folder)
{
    const Outcome<std::vector<std::string>> names = namesIn(folder);
    if (!names) return;
    for (const std::string& name : *names) {
        if (isStagingName(name)) removeIfLeftover({folder, name});
    }
}

StagingDirectory::StagingDirectory(StagingDirectory&& other) noexcept
    : m_place({other.m_place.folder, std::exchange(other.m_place.name, {})}),
      m_directory(std::move(other.m_directory))
{
}

StagingDirectory::~StagingDirectory()
{
    if (!m_place.name.empty()) tryRemove(m_place, m_directory.get());
}

DirEntry StagingDirectory::content() const
{
    return {m_directory.get(), contentNameFor(m_place.name)};
}

} // namespace harbex
