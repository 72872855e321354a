#include "fs/TreeCopy.h"

#include "fs/EntryAttributes.h"
#include "fs/FileCopy.h"

#include <climits>
#include <unistd.h>

namespace harbex
{

namespace
{

/// One that copies, and then as many as it may take until the source rests.
constexpr int maximumPasses = 4;

/// Whether a copy that was made of `then` may be one of `now` still: at least nobody wrote into it who did
/// not set the modification time back.
bool mayBeSame(const EntryStatus& now, const EntryStatus& then)
{
    return now.isUnchanged(then) || (now.isSameEntry(then) && now.hasSameContent(then));
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

Outcome<EntryStatus> TreeCopy::look()
{
    if (::faccessat(m_source.folder, ".", W_OK | X_OK, AT_EACCESS) != 0) return SystemError::last();
    const Outcome<EntryStatus> folder = EntryStatus::ofOpen(m_source.folder);
    if (!folder) return folder.error();
    // Nothing may leave a folder with one of these flags.
    if (folder->isProtected) return SystemError{EPERM};
    const auto before = [this](const TreeEntry& entry) {
        if (entry.path.empty()) m_root = entry.status;
        return expectMovable(entry);
    };
    const Outcome<void> walked = walkTree(m_source, {before, {}});
    if (!walked) return walked.error();
    return m_root;
}

Outcome<void> TreeCopy::expectMovable(const TreeEntry& entry) const
{
    if (m_stop.stop_requested()) return SystemError{ECANCELED};
    const EntryStatus& status = entry.status;
    if (!status.isFolder() && !status.isRegularFile() && !status.isLink()) return SystemError{EOPNOTSUPP};
    if (status.isMountPoint) return SystemError{EBUSY};
    if (status.isProtected) return SystemError{EPERM};
    const uid_t us = ::geteuid();
    if (us != 0 && us != status.owner) {
        // In a folder with the sticky bit only the owner of an entry or of the folder may remove the entry.
        const Outcome<EntryStatus> folder = EntryStatus::ofOpen(entry.place.folder);
        if (!folder) return folder.error();
        if ((folder->mode & S_ISVTX) && us != folder->owner) return SystemError{EPERM};
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
    m_taken.clear();
    m_firstCopies.clear();
    m_isMade = false;
    for (int pass = 0; pass < maximumPasses; ++pass) {
        const Outcome<bool> hasTaken = takeAll();
        if (!hasTaken) return hasTaken.error();
        if (!*hasTaken) return {};
        if (sync(fd) != 0) return SystemError::last();
    }
    return SystemError{EBUSY};
}

Outcome<bool> TreeCopy::takeAll()
{
    m_met = 0;
    m_hasTaken = false;
    const auto before = [this](const TreeEntry& entry) { return take(entry); };
    const auto after = [this](const TreeEntry& entry, int folder) { return leaveFolder(entry, folder); };
    const Outcome<void> walked = walkTree(m_source, {before, after});
    m_folders.clear();
    if (!walked) return walked.error();
    if (m_met != m_taken.size()) return SystemError{EBUSY};
    m_isMade = true;
    return m_hasTaken;
}

Outcome<void> TreeCopy::take(const TreeEntry& entry)
{
    const Outcome<void> movable = expectMovable(entry);
    if (!movable) return movable;
    const EntryStatus& now = entry.status;
    const bool isRoot = entry.path.empty();
    if (isRoot && (now.mode & S_IFMT) != (m_root.mode & S_IFMT)) return SystemError{EBUSY};
    const auto then = m_taken.find(entry.path);
    const bool isThere = then != m_taken.end();
    if (m_isMade && !(isThere && mayBeSame(now, then->second))) return SystemError{EBUSY};
    ++m_met;

    const DirEntry target = isRoot ? m_target : DirEntry{m_folders.back().get(), entry.place.name};
    if (now.isFolder()) return enterFolder(target, isThere);
    if (isThere && now.isUnchanged(then->second)) return {};
    if (!isThere && now.links > 1) {
        const Outcome<bool> linked = linkToEarlierCopy(entry, target);
        if (!linked) return linked.error();
        if (*linked) return {};
    }
    Outcome<void> taken = now.isLink() ? takeLink(entry, target, isThere) : takeFile(entry, target, isThere);
    if (taken) remember(entry.path, now);
    return taken;
}

void TreeCopy::remember(const std::string& path, const EntryStatus& status)
{
    m_taken.insert_or_assign(path, status);
    m_hasTaken = true;
}

Outcome<bool> TreeCopy::linkToEarlierCopy(const TreeEntry& entry, const DirEntry& target)
{
    const EntryStatus& now = entry.status;
    const auto [found, isFirst] = m_firstCopies.try_emplace({now.device, now.inode}, entry.path);
    if (isFirst) return false;
    const auto first = m_taken.find(found->second);
    // The number alone may have been given to another file by now.
    if (first == m_taken.end() || !now.hasSameContent(first->second)) return false;
    const std::string copy = m_target.name + found->second;
    if (::linkat(m_target.folder, copy.c_str(), target.folder, target.name.c_str(), 0) == 0) {
        // Not what it is like now: the copy is older.
        const EntryStatus copied = first->second;
        remember(entry.path, copied);
        return true;
    }
    switch (errno) {
    // No (more) links there, or a path that is too long to say: it becomes a file of its own.
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

Outcome<void> TreeCopy::takeFile(const TreeEntry& entry, const DirEntry& target, bool isThere)
{
    const char* name = target.name.c_str();
    if (!isThere) {
        // A path leads to an open file without a name, which needs to be followed and not to be made.
        const int creation = target.folder == AT_FDCWD ? 0 : O_CREAT | O_EXCL;
        const FileDescriptor file(::openat(target.folder, name, O_WRONLY | creation | O_CLOEXEC, 0600));
        if (!file) return SystemError::last();
        return copyFile(entry.place, entry.status, file.get(), m_stop);
    }
    // The permissions that it was given may keep even its owner out; EPERM says that there are none.
    if (::fchmodat(target.folder, name, S_IRWXU, 0) != 0 && errno != EPERM && errno != EOPNOTSUPP)
        return SystemError::last();
    const FileDescriptor file(::openat(target.folder, name, O_RDONLY | O_CLOEXEC));
    if (!file) return SystemError::last();
    return takeFileAgain(entry.place, entry.status, file.get(), m_stop);
}

Outcome<void> TreeCopy::enterFolder(const DirEntry& target, bool isThere)
{
    const char* name = target.name.c_str();
    if (!isThere && ::mkdirat(target.folder, name, 0700) != 0) return SystemError::last();
    FileDescriptor folder(::openat(target.folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) return SystemError::last();
    m_folders.push_back(std::move(folder));
    return {};
}

// Last, because every entry that is made in a folder changes its times.
Outcome<void> TreeCopy::leaveFolder(const TreeEntry& entry, int folder)
{
    const FileDescriptor copy = std::move(m_folders.back());
    m_folders.pop_back();
    const auto then = m_taken.find(entry.path);
    const bool isThere = then != m_taken.end();
    if (isThere && entry.status.isUnchanged(then->second)) return {};
    Outcome<void> taken = isThere ? takeAttributesAgain(folder, entry.status, copy.get())
                                  : copyAttributes(folder, entry.status, copy.get());
    if (taken) remember(entry.path, entry.status);
    return taken;
}

Outcome<void> TreeCopy::takeLink(const TreeEntry& entry, const DirEntry& target, bool isThere)
{
    const Outcome<std::string> text = readLink(entry.place);
    if (!text) return text.error();
    if (isThere) {
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
        const auto found = m_taken.find(entry.path);
        if (found == m_taken.end() || entry.status.isMountPoint) return false;
        const EntryStatus& then = found->second;
        // Emptying a folder changes its times, and removing one of its names the change time of a file.
        if (entry.status.isFolder()) return then.isFolder();
        const bool mayHaveLostAName = then.links > 1 && !entry.path.empty();
        return mayHaveLostAName ? entry.status.hasSameContent(then) : entry.status.isUnchanged(then);
    });
}

} // namespace harbex
