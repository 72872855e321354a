#pragma once

#include "base/Outcome.h"

#include <cstdint>
#include <string>

namespace harbex
{

/// Identifies a file or folder independently of its name while the system runs. File systems reuse inode
/// numbers after a deletion, therefore the birth time is included (zero where the file system has none).
struct FileIdentity {
    uint64_t device = 0;
    uint64_t inode = 0;
    int64_t birthSeconds = 0;
    uint32_t birthNanoseconds = 0;

    friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

/// Returns the identity of the open file or folder `fd`. Fails with the errno of statx(2). Thread-safe.
[[nodiscard]] Outcome<FileIdentity> identityOf(int fd);

/// Returns the identity of the entry at `path` (raw bytes). Follows symbolic links. Fails with the errno of
/// statx(2). May block on a disk or server. Thread-safe.
[[nodiscard]] Outcome<FileIdentity> identityOf(const std::string& path);

} // namespace harbex
