#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace harbex
{

/// Which paths lead to a volume that a server has: a network file system, or one that a program serves
/// (FUSE). Any call that touches such a volume may wait for its server without end, so this is found out from
/// the kernel's table of mounts and from links on local volumes alone. A value; any thread.
class MountTable
{
public:
    /// The kernel's table of mounts in text, which also tells of its changes: poll(2) with POLLPRI.
    static constexpr const char* kernelTable = "/proc/self/mountinfo";

    /// A table without a mount.
    MountTable() = default;

    /// Reads the mounts of this process. Where they cannot be read, every path counts as local.
    [[nodiscard]] static MountTable read();

    /// From the text of the kernel's table.
    [[nodiscard]] static MountTable parse(std::string_view text);

    /// Called before the name `name` is looked up in the folder at `folder`, which is local and has no link
    /// in its path. Gives whether what has that name is known to be a folder and no link.
    using Visit = std::function<bool(const std::string& folder, const std::string& name)>;

    /// Follows the absolute path `path` (raw bytes) and its links as the kernel does, up to a name that is
    /// missing or the first remote volume. Gives where that volume is mounted; nothing when the path stays on
    /// local volumes.
    std::optional<std::string> follow(const std::string& path, const Visit& visit) const;

    /// Where the remote volume is mounted that `path` leads to; nothing for a local path.
    [[nodiscard]] std::optional<std::string> remoteMount(const std::string& path) const;

private:
    /// The paths at which remote volumes are mounted.
    std::set<std::string, std::less<>> m_remoteMounts;
};

} // namespace harbex
