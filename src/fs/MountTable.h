#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace harbex
{

/// Finds the paths that lead to a remote volume: a network file system or FUSE. A call that accesses such a
/// volume may block forever. Therefore this class reads only the kernel's mount table and symbolic links on
/// local volumes. A value type. Thread-safe.
class MountTable
{
public:
    /// Path of the kernel's mount table. poll(2) with POLLPRI reports its changes.
    static constexpr const char* kernelTable = "/proc/self/mountinfo";

    /// Creates an empty table.
    MountTable() = default;

    /// Reads the mount table of this process. If it cannot be read, all paths count as local.
    [[nodiscard]] static MountTable read();

    /// The same, from `descriptor`, on which kernelTable is open. Opens no further descriptor.
    [[nodiscard]] static MountTable read(int descriptor);

    /// Parses the text of the kernel's mount table.
    [[nodiscard]] static MountTable parse(std::string_view text);

    /// Called by follow() before it looks up `name` in `folder`, a local path without symbolic links. `path`
    /// is the path of the entry. Returns true if the entry is known to be a folder. follow() then does not
    /// check whether it is a link.
    using Visit =
        std::function<bool(const std::string& folder, const std::string& name, const std::string& path)>;

    /// Resolves the absolute `path` (raw bytes) and its symbolic links as the kernel does, up to a missing
    /// name or the first remote volume, and calls `visit` for each name. Returns the mount point of that
    /// volume. Returns nullopt for a local path, a missing name and too many links.
    std::optional<std::string> follow(const std::string& path, const Visit& visit) const;

    /// Returns the mount point of the remote volume that `path` leads to, or nullopt for a local path.
    [[nodiscard]] std::optional<std::string> remoteMount(const std::string& path) const;

    /// Returns whether a remote volume is mounted at `path`, an absolute path without symbolic links. Makes
    /// no system call.
    [[nodiscard]] bool isRemoteMount(const std::string& path) const { return m_remoteMounts.contains(path); }

    /// Returns whether the same remote volumes are mounted at the same paths in both tables.
    friend bool operator==(const MountTable&, const MountTable&) = default;

private:
    /// Mount points of remote volumes.
    std::set<std::string, std::less<>> m_remoteMounts;
};

} // namespace harbex
