#pragma once

#include "base/Outcome.h"

#include <QByteArray>
#include <QtGlobal>

#include <string>

namespace harbex
{

/// The identity of a folder, which survives renames and reboots.
///
/// It lacks the device number, because device numbers can change at every boot. Birth time and file handle
/// (inode and generation, as for NFS exports) may be missing: not every file system and sandbox provides
/// them.
struct FolderIdentity {
    quint64 inode = 0;
    qint64 birthSeconds = 0;
    quint32 birthNanoseconds = 0;
    qint32 handleType = 0;
    QByteArray handle;

    [[nodiscard]] bool hasBirthTime() const { return birthSeconds != 0 || birthNanoseconds != 0; }
    [[nodiscard]] bool hasHandle() const { return !handle.isEmpty(); }
};

/// The result of compare().
enum class Likeness {
    different,
    /// Equal inode numbers and nothing else to compare. Another folder may have got the number of a deleted
    /// one.
    sameNumber,
    same,
};

/// Compares the inode numbers, and birth time and handle where both identities have them. Thread-safe.
[[nodiscard]] Likeness compare(const FolderIdentity& a, const FolderIdentity& b);

/// Returns the identity of the open folder `fd`, which may be open with O_PATH. Fails with the errno of the
/// system call. Thread-safe.
[[nodiscard]] Outcome<FolderIdentity> identityOfFolder(int fd);

/// Returns the identity of the folder at `path` (raw bytes). Follows symbolic links. Fails with the errno of
/// the system call, ENOTDIR if something else is there. May block on a disk or server. Thread-safe.
[[nodiscard]] Outcome<FolderIdentity> identityOfFolder(const std::string& path);

} // namespace harbex
