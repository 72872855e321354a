#include "fs/EntryAttributes.h"

#include <array>
#include <string>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace harbex
{

namespace
{

constexpr const char* accessList = "system.posix_acl_access";
constexpr const char* defaultList = "system.posix_acl_default";

bool saysNotSupported(int code)
{
    return code == EOPNOTSUPP || code == ENOSYS;
}

// EPERM comes from file systems without owners and times of their own, too. EINVAL comes for an owner that
// this user namespace has no number for, and from servers for a time that they cannot keep.
bool saysNotOurs(int code)
{
    return code == EPERM || code == EINVAL || saysNotSupported(code);
}

/// Whether the owner and the group could be kept.
Outcome<bool> changeOwner(int folder, const char* name, const EntryStatus& seen, int flags)
{
    const auto change = [&](uid_t owner) { return ::fchownat(folder, name, owner, seen.group, flags) == 0; };
    if (change(seen.owner)) return true;
    if (!saysNotOurs(errno)) return SystemError::last();
    // The group may be one of our own.
    if (change(static_cast<uid_t>(-1)) || saysNotOurs(errno)) return false;
    return SystemError::last();
}

/// Calls one of the functions that tell a length when they are given no room.
template <class Call>
Outcome<std::string> readWhole(Call&& call)
{
    std::string bytes;
    for (;;) {
        const ssize_t needed = call(nullptr, 0);
        if (needed < 0) return SystemError::last();
        bytes.resize(static_cast<size_t>(needed));
        if (needed == 0) return bytes;
        const ssize_t size = call(bytes.data(), bytes.size());
        if (size >= 0) {
            bytes.resize(static_cast<size_t>(size));
            return bytes;
        }
        // It has grown in between.
        if (errno != ERANGE) return SystemError::last();
    }
}

bool mayBeLeftOut(const std::string& name, int code)
{
    if (saysNotSupported(code)) return true;
    // Too large for this file system, which says so in many ways. That the disk is full as well is told by
    // writing the content.
    if (code == ENOSPC || code == EDQUOT || code == E2BIG || code == ERANGE) return true;
    const bool isPrivileged = name.starts_with("security.") || name.starts_with("trusted.");
    return isPrivileged && (code == EPERM || code == EACCES);
}

Outcome<void> copyAttribute(int source, int target, const std::string& name)
{
    const Outcome<std::string> value =
        readWhole([&](char* bytes, size_t size) { return ::fgetxattr(source, name.c_str(), bytes, size); });
    // Taken away since the names were listed.
    if (!value && value.error().code == ENODATA) return {};
    if (!value) return value.error();
    if (::fsetxattr(target, name.c_str(), value->data(), value->size(), 0) != 0) return SystemError::last();
    return {};
}

/// None where there cannot be any.
Outcome<std::vector<std::string>> attributesOf(int fd)
{
    const Outcome<std::string> list =
        readWhole([fd](char* bytes, size_t size) { return ::flistxattr(fd, bytes, size); });
    std::vector<std::string> names;
    if (!list && saysNotSupported(list.error().code)) return names;
    if (!list) return list.error();
    for (size_t at = 0; at < list->size(); at += names.back().size() + 1)
        names.emplace_back(list->c_str() + at);
    return names;
}

Outcome<void> removeAttribute(int target, const char* name)
{
    if (::fremovexattr(target, name) == 0 || errno == ENODATA || saysNotSupported(errno)) return {};
    return SystemError::last();
}

/// Gives whether the access list is as it was.
Outcome<bool> copyExtendedAttributes(int source, int target, bool isFolder)
{
    const Outcome<std::vector<std::string>> names = attributesOf(source);
    if (!names) return names.error();
    bool hasAccessList = false;
    bool hasDefaultList = false;
    bool keptAccessList = true;
    for (const std::string& name : *names) {
        hasAccessList |= name == accessList;
        hasDefaultList |= name == defaultList;
        const Outcome<void> copied = copyAttribute(source, target, name);
        if (copied) continue;
        if (!mayBeLeftOut(name, copied.error().code)) return copied.error();
        if (name == accessList) keptAccessList = false;
    }

    if (!hasAccessList) {
        const Outcome<void> removed = removeAttribute(target, accessList);
        if (!removed) return removed.error();
    }
    if (isFolder && !hasDefaultList) {
        const Outcome<void> removed = removeAttribute(target, defaultList);
        if (!removed) return removed.error();
    }
    return keptAccessList;
}

std::array<timespec, 2> timesOf(const EntryStatus& seen)
{
    return {seen.accessTime, seen.modificationTime};
}

} // namespace

Outcome<void> copyAttributes(int source, const EntryStatus& seen, int target)
{
    // The owner comes first because changing it takes bits and capabilities away, the permissions after the
    // access list because they are its mask, and the times last because all of this changes them.
    const Outcome<bool> keptOwner = changeOwner(target, "", seen, AT_EMPTY_PATH);
    if (!keptOwner) return keptOwner.error();
    const Outcome<bool> keptAccessList = copyExtendedAttributes(source, target, seen.isFolder());
    if (!keptAccessList) return keptAccessList.error();

    mode_t permissions = seen.mode & 07777;
    if (!*keptOwner) {
        permissions &= ~static_cast<mode_t>(S_ISUID | S_ISGID);
        if (seen.isFolder()) permissions |= S_IRWXU;
    }
    // With a list the bits of the group are its mask, which may allow more than the group had.
    if (!*keptAccessList) permissions &= ~static_cast<mode_t>(S_IRWXG);
    // On a file that is ours EPERM says that the file system has no permissions.
    if (::fchmod(target, permissions) != 0 && errno != EPERM && !saysNotSupported(errno))
        return SystemError::last();

    if (::futimens(target, timesOf(seen).data()) != 0 && !saysNotOurs(errno)) return SystemError::last();
    return {};
}

Outcome<void> takeAttributesAgain(int source, const EntryStatus& seen, int copy)
{
    const Outcome<std::vector<std::string>> names = attributesOf(copy);
    if (!names) return names.error();
    for (const std::string& name : *names) {
        // The others are the system's own, or end with the change of the owner or by not being found again.
        if (!name.starts_with("user.") && !name.starts_with("trusted.")) continue;
        const Outcome<void> removed = removeAttribute(copy, name.c_str());
        if (!removed) return removed;
    }
    return copyAttributes(source, seen, copy);
}

Outcome<void> copyLinkAttributes(const EntryStatus& seen, const DirEntry& target)
{
    const Outcome<bool> keptOwner =
        changeOwner(target.folder, target.name.c_str(), seen, AT_SYMLINK_NOFOLLOW);
    if (!keptOwner) return keptOwner.error();
    if (::utimensat(target.folder, target.name.c_str(), timesOf(seen).data(), AT_SYMLINK_NOFOLLOW) != 0 &&
        !saysNotOurs(errno))
        return SystemError::last();
    return {};
}

} // namespace harbex
