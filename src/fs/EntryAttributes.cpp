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

constexpr const char* accessAcl = "system.posix_acl_access";
constexpr const char* defaultAcl = "system.posix_acl_default";

bool isUnsupported(int code)
{
    return code == EOPNOTSUPP || code == ENOSYS;
}

// File systems without owners and times also fail with EPERM. EINVAL means an owner that has no ID in this
// user namespace, or a time that a server cannot store.
bool isUnsupportedOrNotPermitted(int code)
{
    return code == EPERM || code == EINVAL || isUnsupported(code);
}

/// Returns whether both owner and group were set.
Outcome<bool> changeOwner(int folder, const char* name, const EntryStatus& seen, int flags)
{
    const auto change = [&](uid_t owner) { return ::fchownat(folder, name, owner, seen.group, flags) == 0; };
    if (change(seen.owner)) return true;
    if (!isUnsupportedOrNotPermitted(errno)) return SystemError::last();
    // Without privileges a process can still set a group that it belongs to.
    if (change(static_cast<uid_t>(-1)) || isUnsupportedOrNotPermitted(errno)) return false;
    return SystemError::last();
}

/// Reads a complete value with a function that returns the length when the buffer size is 0.
template <class Call>
Outcome<std::string> readAll(Call&& call)
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
        // ERANGE: the value has grown since its length was read.
        if (errno != ERANGE) return SystemError::last();
    }
}

bool mayBeOmitted(const std::string& name, int code)
{
    if (isUnsupported(code)) return true;
    // File systems report an attribute that is too large with different errors. ENOSPC can also mean a full
    // disk, which the write of the content reports.
    if (code == ENOSPC || code == EDQUOT || code == E2BIG || code == ERANGE) return true;
    const bool isPrivileged = name.starts_with("security.") || name.starts_with("trusted.");
    return isPrivileged && (code == EPERM || code == EACCES);
}

Outcome<void> copyAttribute(int source, int target, const std::string& name)
{
    const Outcome<std::string> value =
        readAll([&](char* bytes, size_t size) { return ::fgetxattr(source, name.c_str(), bytes, size); });
    // Removed since the names were listed.
    if (!value && value.error().code == ENODATA) return {};
    if (!value) return value.error();
    if (::fsetxattr(target, name.c_str(), value->data(), value->size(), 0) != 0) return SystemError::last();
    return {};
}

/// Returns the names of the attributes that belong to the entry. Returns none where the file system does not
/// support attributes.
Outcome<std::vector<std::string>> attributeNamesOf(int fd)
{
    const Outcome<std::string> list =
        readAll([fd](char* bytes, size_t size) { return ::flistxattr(fd, bytes, size); });
    std::vector<std::string> names;
    if (!list && isUnsupported(list.error().code)) return names;
    if (!list) return list.error();
    for (size_t at = 0; at < list->size();) {
        const std::string name = list->c_str() + at;
        at += name.size() + 1;
        // The document portal adds these to every entry. It refuses to set or remove them.
        if (!name.starts_with("user.document-portal.")) names.push_back(name);
    }
    return names;
}

Outcome<void> removeAttribute(int target, const char* name)
{
    if (::fremovexattr(target, name) == 0 || errno == ENODATA || isUnsupported(errno)) return {};
    return SystemError::last();
}

/// Returns whether the ACL was kept.
Outcome<bool> copyExtendedAttributes(int source, int target, bool isFolder)
{
    const Outcome<std::vector<std::string>> names = attributeNamesOf(source);
    if (!names) return names.error();
    bool hasAccessAcl = false;
    bool hasDefaultAcl = false;
    bool keptAccessAcl = true;
    for (const std::string& name : *names) {
        hasAccessAcl |= name == accessAcl;
        hasDefaultAcl |= name == defaultAcl;
        const Outcome<void> copied = copyAttribute(source, target, name);
        if (copied) continue;
        if (!mayBeOmitted(name, copied.error().code)) return copied.error();
        if (name == accessAcl) keptAccessAcl = false;
    }

    if (!hasAccessAcl) {
        const Outcome<void> removed = removeAttribute(target, accessAcl);
        if (!removed) return removed.error();
    }
    if (isFolder && !hasDefaultAcl) {
        const Outcome<void> removed = removeAttribute(target, defaultAcl);
        if (!removed) return removed.error();
    }
    return keptAccessAcl;
}

std::array<timespec, 2> timesOf(const EntryStatus& seen)
{
    return {seen.accessTime, seen.modificationTime};
}

} // namespace

Outcome<void> copyAttributes(int source, const EntryStatus& seen, int target)
{
    // Owner first: its change clears mode bits and capabilities. Permissions after the ACL: the group
    // permissions are its mask. Times last: the other steps may change them.
    const Outcome<bool> keptOwner = changeOwner(target, "", seen, AT_EMPTY_PATH);
    if (!keptOwner) return keptOwner.error();
    const Outcome<bool> keptAccessAcl = copyExtendedAttributes(source, target, seen.isFolder());
    if (!keptAccessAcl) return keptAccessAcl.error();

    mode_t permissions = seen.mode & 07777;
    if (!*keptOwner) {
        permissions &= ~static_cast<mode_t>(S_ISUID | S_ISGID);
        if (seen.isFolder()) permissions |= S_IRWXU;
    }
    // With an ACL the group bits are its mask, which may allow more than the group had.
    if (!*keptAccessAcl) permissions &= ~static_cast<mode_t>(S_IRWXG);
    // EPERM on a file of this user means that the file system has no permissions.
    if (::fchmod(target, permissions) != 0 && errno != EPERM && !isUnsupported(errno))
        return SystemError::last();

    if (::futimens(target, timesOf(seen).data()) != 0 && !isUnsupportedOrNotPermitted(errno))
        return SystemError::last();
    return {};
}

Outcome<void> refreshAttributes(int source, const EntryStatus& seen, int copy)
{
    const Outcome<std::vector<std::string>> names = attributeNamesOf(copy);
    if (!names) return names.error();
    for (const std::string& name : *names) {
        // Others belong to the system, or fchownat() clears them, or copyAttributes() removes them.
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
        !isUnsupportedOrNotPermitted(errno))
        return SystemError::last();
    return {};
}

} // namespace harbex
