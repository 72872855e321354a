#pragma once

#include "base/Outcome.h"

#include <cstdint>
#include <string>

namespace harbex
{

/// What tells one file or folder from every other while the system runs, whatever its name: inode numbers
/// are used again after a deletion, so the time of birth belongs to it (zero where the file system keeps
/// none).
struct FileIdentity {
    uint64_t device = 0;
    uint64_t inode = 0;
    int64_t birthSeconds = 0;
    uint32_t birthNanoseconds = 0;

    friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

/// The identity of what is open as `fd`.
[[nodiscard]] Outcome<FileIdentity> identityOf(int fd);

/// The identity of what stands at `path` (raw bytes); a link is followed.
[[nodiscard]] Outcome<FileIdentity> identityOf(const std::string& path);

} // namespace harbex
