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
constexpr std::string_view digits = "0123456789abcdef";
constexpr size_t randomBytes = 16;

Outcome<std::string> randomStagingName()
{
    std::array<unsigned char, randomBytes> bytes;
    // So few bytes come in one piece.
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        return SystemError::last();
    std::string name(prefix);
    for (const unsigned char byte : bytes) {
        name += digits[byte >> 4];
        name += digits[byte & 15];
    }
    return name.append(suffix);
}

bool isStagingName(std::string_view name)
{
    if (name.size() != prefix.size() + 2 * randomBytes + suffix.size()) return false;
    if (!name.starts_with(prefix) || !name.ends_with(suffix)) return false;
    return name.substr(prefix.size(), 2 * randomBytes).find_first_not_of(digits) == std::string_view::npos;
}

bool lock(int fd)
{
    return ::flock(fd, LOCK_EX | LOCK_NB) == 0;
}

/// The name that a copy has in the staging directory of this name. Nothing else has it, so that it tells a
/// part folder from one that was only called so.
std::string contentNameIn(std::string_view part)
{
    return std::string(part.substr(0, part.size() - suffix.size())).append(contentSuffix);
}

// Whoever wants to know what failed cannot do anything about it either: a leftover harms nobody, and a later
// move tries again.
void removeIfPossible(const DirEntry& part, int opened)
{
    const Outcome<void> removed =
        removeTree({opened, contentNameIn(part.name)}, [](const TreeEntry&) { return true; });
    static_cast<void>(removed);
    // By now the name may be that of another folder, of which no more than an empty one goes.
    ::unlinkat(part.folder, part.name.c_str(), AT_REMOVEDIR);
}

void removeIfLeftOver(const DirEntry& part)
{
    const Outcome<EntryStatus> status = EntryStatus::of(part);
    if (!status || !status->isFolder() || status->owner != ::geteuid()) return;
    // Into one that is closed to them others cannot bring what makes it look like ours.
    if (status->mode & (S_IWGRP | S_IWOTH)) return;
    const Outcome<FileDescriptor> opened = openSubfolder(part, *status);
    if (opened && lock(opened->get())) removeIfPossible(part, opened->get());
}

} // namespace

Outcome<StagingDirectory> StagingDirectory::create(int folder)
{
    for (;;) {
        const Outcome<std::string> name = randomStagingName();
        if (!name) return name.error();
        if (::mkdirat(folder, name->c_str(), 0700) != 0) return SystemError::last();
        StagingDirectory part({folder, *name});
        const Outcome<bool> occupied = part.occupy();
        if (!occupied) return occupied.error();
        if (*occupied) return part;
    }
}

Outcome<void> StagingDirectory::expectPossible(const DirEntry& place)
{
    const Outcome<StagingDirectory> part = create(place.folder);
    if (!part) return part.error();
    // Where a copy is built, so that whatever is left of it goes as one does.
    const DirEntry inside = part->content();
    if (::mkdirat(inside.folder, inside.name.c_str(), 0700) != 0) return SystemError::last();
    const std::string path = inside.name + '/' + place.name;
    const FileDescriptor file(
        ::openat(inside.folder, path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) return SystemError::last();
    return {};
}

Outcome<bool> StagingDirectory::occupy()
{
    m_opened = FileDescriptor(
        ::openat(m_place.folder, m_place.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!m_opened && errno == ENOENT) return false;
    if (!m_opened) return SystemError::last();
    // What the folder around it has its entries inherit is not for the copy, and may even keep us out.
    if (::fchmod(m_opened.get(), 0700) != 0) {
        if (errno != EPERM && errno != EOPNOTSUPP) return SystemError::last();
        // This file system has no permissions, or somebody has put a folder of theirs in its place.
        const Outcome<EntryStatus> opened = EntryStatus::ofOpen(m_opened.get());
        if (!opened) return opened.error();
        if (opened->owner != ::geteuid()) return SystemError{EPERM};
    }
    if (::fremovexattr(m_opened.get(), "system.posix_acl_default") != 0 && errno != ENODATA &&
        errno != EOPNOTSUPP)
        return SystemError::last();
    // A file system without locks refuses the one of removeLeftovers() as well.
    if (!lock(m_opened.get()) && errno == EWOULDBLOCK) return false;
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
        if (isStagingName(name)) removeIfLeftOver({folder, name});
    }
}

StagingDirectory::StagingDirectory(StagingDirectory&& other) noexcept
    : m_place({other.m_place.folder, std::exchange(other.m_place.name, {})}),
      m_opened(std::move(other.m_opened))
{
}

StagingDirectory::~StagingDirectory()
{
    if (!m_place.name.empty()) removeIfPossible(m_place, m_opened.get());
}

DirEntry StagingDirectory::content() const
{
    return {m_opened.get(), contentNameIn(m_place.name)};
}

} // namespace harbex
