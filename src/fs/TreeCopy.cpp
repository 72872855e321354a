#include "fs/TreeCopy.h"

#include "fs/EntryAttributes.h"
#include "fs/FileCopy.h"

#include <climits>
#include <unistd.h>

namespace harbex
{

namespace
{

/// One pass copies, and up to three passes check whether the source has changed.
constexpr int maximumPasses = 4;

/// Returns whether a copy of `recorded` may still match `now`. A write that reset the modification time is
/// not detected here.
bool mayBeSame(const EntryStatus& now, const EntryStatus& recorded)
{
    return now.isUnchanged(recorded) || (now.isSameEntry(recorded) && now.hasSameContent(recorded));
}

Outcome<std::string> readLink(const DirEntry& place)
{
    std::string text(PATH_MAX, '\0');
    const ssize_t size = ::readlinkat(place.folder, place.name.c_str(), text.data(), text.size());
    if (size < 0) return SystemError::last();
    text.resize(static_cast<size_t>(size));
    return text;
}

} // namespace

Outcome<EntryStatus> TreeCopy::checkSource()
{
    if (::faccessat(m_source.folder, ".", W_OK | X_OK, AT_EACCESS) != 0) return SystemError::last();
    const Outcome<EntryStatus> folder = EntryStatus::ofOpen(m_source.folder);
    if (!folder) return folder.error();
    // No entry can be removed from an immutable or append-only folder.
    if (folder->isProtected) return SystemError{EPERM};
    const auto before = [this](const TreeEntry& entry) {
        if (entry.path.empty()) m_root = entry.status;
        return checkMovable(entry);
    };
    const Outcome<void> walked = walkTree(m_source, {before, {}});
    if (!walked) return walked.error();
    return m_root;
}

Outcome<void> TreeCopy::checkMovable(const TreeEntry& entry) const
{
    if (m_stop.stop_requested()) return SystemError{ECANCELED};
    const EntryStatus& status = entry.status;
    if (!status.isFolder() && !status.isRegularFile() && !status.isLink()) return SystemError{EOPNOTSUPP};
    if (status.isMountPoint) return SystemError{EBUSY};
    if (status.isProtected) return SystemError{EPERM};
    const uid_t user = ::geteuid();
    if (user != 0 && user != status.owner) {
        // In a sticky folder only the owner of the entry or of the folder can remove an entry.
        const Outcome<EntryStatus> folder = EntryStatus::ofOpen(entry.place.folder);
        if (!folder) return folder.error();
        if ((folder->mode & S_ISVTX) && user != folder->owner) return SystemError{EPERM};
    }
    if (!status.isFolder()) return {};
    if (status.isSameEntry(m_targetFolder)) return SystemError{EINVAL};
    if (::faccessat(entry.place.folder, entry.place.name.c_str(), R_OK | W_OK | X_OK, AT_EACCESS) != 0)
        return SystemError::last();
    return {};
}

Outcome<void> TreeCopy::make(const DirEntry& target, int (*sync)(int), int fd)
{
    m_target = target;
    m_copied.clear();
    m_firstCopies.clear();
    m_isFirstPassDone = false;
    for (int pass = 0; pass < maximumPasses; ++pass) {
        const Outcome<bool> changed = runPass();
        if (!changed) return changed.error();
        if (!*changed) return {};
        if (sync(fd) != 0) return SystemError::last();
    }
    return SystemError{EBUSY};
}

Outcome<bool> TreeCopy::runPass()
{
    m_visitedCount = 0;
    m_changedCopy = false;
    const auto before = [this](const TreeEntry& entry) { return visitEntry(entry); };
    const auto after = [this](const TreeEntry& entry, int folder) { return leaveFolder(entry, folder); };
    const Outcome<void> walked = walkTree(m_source, {before, after});
    m_folders.clear();
    if (!walked) return walked.error();
    if (m_visitedCount != m_copied.size()) return SystemError{EBUSY};
    m_isFirstPassDone = true;
    return m_changedCopy;
}

Outcome<void> TreeCopy::visitEntry(const TreeEntry& entry)
{
    const Outcome<void> movable = checkMovable(entry);
    if (!movable) return movable;
    const EntryStatus& now = entry.status;
    const bool isRoot = entry.path.empty();
    if (isRoot && (now.mode & S_IFMT) != (m_root.mode & S_IFMT)) return SystemError{EBUSY};
    const auto recorded = m_copied.find(entry.path);
    const bool isCopied = recorded != m_copied.end();
    if (m_isFirstPassDone && !(isCopied && mayBeSame(now, recorded->second))) return SystemError{EBUSY};
    ++m_visitedCount;

    const DirEntry target = isRoot ? m_target : DirEntry{m_folders.back().get(), entry.place.name};
    if (now.isFolder()) return enterFolder(target, isCopied);
    if (isCopied && now.isUnchanged(recorded->second)) return {};
    if (!isCopied && now.links > 1) {
        const Outcome<bool> linked = linkToEarlierCopy(entry, target);
        if (!linked) return linked.error();
        if (*linked) return {};
    }
    Outcome<void> outcome =
        now.isLink() ? copyOrCheckLink(entry, target, isCopied) : copyOrCheckFile(entry, target, isCopied);
    if (outcome) remember(entry.path, now);
    return outcome;
}

void TreeCopy::remember(const std::string& path, const EntryStatus& status)
{
    m_copied.insert_or_assign(path, status);
    m_changedCopy = true;
}

Outcome<bool> TreeCopy::linkToEarlierCopy(const TreeEntry& entry, const DirEntry& target)
{
    const EntryStatus& now = entry.status;
    const auto [found, isFirst] = m_firstCopies.try_emplace({now.device, now.inode}, entry.path);
    if (isFirst) return false;
    const auto first = m_copied.find(found->second);
    // Another file may have the inode number now.
    if (first == m_copied.end() || !now.hasSameContent(first->second)) return false;
    const std::string copy = m_target.name + found->second;
    if (::linkat(m_target.folder, copy.c_str(), target.folder, target.name.c_str(), 0) == 0) {
        // The copy has the older status, not the current one.
        const EntryStatus copied = first->second;
        remember(entry.path, copied);
        return true;
    }
    switch (errno) {
    // No hard links, too many links, or a path that is too long: the caller makes a separate copy.
    case EPERM:
    case EOPNOTSUPP:
    case ENOSYS:
    case EMLINK:
    case ENAMETOOLONG:
        return false;
    default:
        return SystemError::last();
    }
}

Outcome<void> TreeCopy::copyOrCheckFile(const TreeEntry& entry, const DirEntry& target, bool isCopied)
{
    const char* name = target.name.c_str();
    if (!isCopied) {
        // An AT_FDCWD target is the /proc path of an existing unnamed file: open it, and follow the link.
        const int creation = target.folder == AT_FDCWD ? 0 : O_CREAT | O_EXCL;
        const FileDescriptor file(::openat(target.folder, name, O_WRONLY | creation | O_CLOEXEC, 0600));
        if (!file) return SystemError::last();
        return copyFile(entry.place, entry.status, file.get(), m_stop);
    }
    // The copied permissions may deny access to the owner. EPERM: the file system has no permissions.
    if (::fchmodat(target.folder, name, S_IRWXU, 0) != 0 && errno != EPERM && errno != EOPNOTSUPP)
        return SystemError::last();
    const FileDescriptor file(::openat(target.folder, name, O_RDONLY | O_CLOEXEC));
    if (!file) return SystemError::last();
    return refreshFileCopy(entry.place, entry.status, file.get(), m_stop);
}

Outcome<void> TreeCopy::enterFolder(const DirEntry& target, bool isCopied)
{
    const char* name = target.name.c_str();
    if (!isCopied && ::mkdirat(target.folder, name, 0700) != 0) return SystemError::last();
    FileDescriptor folder(::openat(target.folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) return SystemError::last();
    m_folders.push_back(std::move(folder));
    return {};
}

// Sets the attributes last: each new entry in a folder changes its times.
Outcome<void> TreeCopy::leaveFolder(const TreeEntry& entry, int folder)
{
    const FileDescriptor copy = std::move(m_folders.back());
    m_folders.pop_back();
    const auto recorded = m_copied.find(entry.path);
    const bool isCopied = recorded != m_copied.end();
    if (isCopied && entry.status.isUnchanged(recorded->second)) return {};
    Outcome<void> outcome = isCopied ? refreshAttributes(folder, entry.status, copy.get())
                                     : copyAttributes(folder, entry.status, copy.get());
    if (outcome) remember(entry.path, entry.status);
    return outcome;
}

Outcome<void> TreeCopy::copyOrCheckLink(const TreeEntry& entry, const DirEntry& target, bool isCopied)
{
    const Outcome<std::string> text = readLink(entry.place);
    if (!text) return text.error();
    if (isCopied) {
        const Outcome<std::string> copied = readLink(target);
        if (!copied) return copied.error();
        if (*copied != *text) return SystemError{EBUSY};
    } else if (::symlinkat(text->c_str(), target.folder, target.name.c_str()) != 0) {
        return SystemError::last();
    }
    return copyLinkAttributes(entry.status, target);
}

Outcome<void> TreeCopy::removeSource() const
{
    return removeTree(m_source, [this](const TreeEntry& entry) {
        const auto found = m_copied.find(entry.path);
        if (found == m_copied.end() || entry.status.isMountPoint) return false;
        const EntryStatus& recorded = found->second;
        // The removal changes the times of folders, and the change time of files with other hard links.
        if (entry.status.isFolder()) return recorded.isFolder();
        const bool mayHaveLostHardLink = recorded.links > 1 && !entry.path.empty();
        return mayHaveLostHardLink ? entry.status.hasSameContent(recorded)
                                   : entry.status.isUnchanged(recorded);
    });
}

} // namespace harbex
