#include "fs/MountTable.h"

#include "base/FileDescriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sstream>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace harbex
{

namespace
{

bool isRemoteType(std::string_view type)
{
    // autofs mounts a volume, often from a server, at the first access.
    constexpr std::array<std::string_view, 16> types{"9p",     "afs",   "autofs", "ceph",  "cifs", "coda",
                                                     "lustre", "ncp",   "ncpfs",  "nfs",   "nfs4", "ocfs2",
                                                     "smb3",   "smbfs", "smb2",   "vboxsf"};
    return type.starts_with("fuse") || std::ranges::find(types, type) != types.end();
}

/// Decodes the kernel's octal escapes, for example \040 for a space.
std::string unescaped(std::string_view text)
{
    std::string path;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            path +=
                static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
            i += 3;
        } else {
            path += text[i];
        }
    }
    return path;
}

/// Returns the target of the symbolic link at `path`, or nullopt with errno set.
std::optional<std::string> readLink(const std::string& path)
{
    std::array<char, PATH_MAX> text;
    const ssize_t size = ::readlink(path.c_str(), text.data(), text.size());
    if (size < 0) return std::nullopt;
    return std::string(text.data(), static_cast<size_t>(size));
}

std::string join(const std::string& folder, const std::string& name)
{
    return folder == "/" ? folder + name : folder + '/' + name;
}

} // namespace

MountTable MountTable::read()
{
    const FileDescriptor file(::open(kernelTable, O_RDONLY | O_CLOEXEC));
    return file ? read(file.get()) : MountTable();
}

MountTable MountTable::read(int descriptor)
{
    std::string text;
    std::array<char, 4096> buffer;
    for (;;) {
        const ssize_t size =
            ::pread(descriptor, buffer.data(), buffer.size(), static_cast<off_t>(text.size()));
        if (size <= 0) return parse(text);
        text.append(buffer.data(), static_cast<size_t>(size));
    }
}

MountTable MountTable::parse(std::string_view text)
{
    // 36 35 98:0 /root /mount/point rw,noatime [optional fields] - type source options
    MountTable table;
    std::istringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string field;
        std::string mountPoint;
        for (int i = 0; i < 5; ++i)
            fields >> mountPoint;
        while (fields >> field && field != "-") {
        }
        std::string type;
        if (!(fields >> type)) continue;
        // The last of several mounts at one mount point hides the others.
        if (isRemoteType(type))
            table.m_remoteMounts.insert(unescaped(mountPoint));
        else
            table.m_remoteMounts.erase(unescaped(mountPoint));
    }
    return table;
}

std::optional<std::string> MountTable::follow(const std::string& path, const Visit& visit) const
{
    constexpr int maximumLinks = 40; // the kernel's limit
    std::string folder = "/";
    if (m_remoteMounts.contains(folder)) return folder;
    int links = 0;
    std::string rest = path;
    for (;;) {
        rest.erase(0, rest.find_first_not_of('/'));
        if (rest.empty()) return std::nullopt;
        const std::string name = rest.substr(0, rest.find('/'));
        rest.erase(0, name.size());
        if (name == ".") continue;
        if (name == "..") {
            folder.erase(std::max<size_t>(folder.rfind('/'), 1));
            continue;
        }
        std::string next = join(folder, name);
        const bool isKnown = visit(folder, name, next);
        if (m_remoteMounts.contains(next)) return next;
        const std::optional<std::string> target = isKnown ? std::nullopt : readLink(next);
        if (!isKnown && !target && (errno == ENOENT || errno == ENOTDIR)) return std::nullopt;
        if (!target) {
            folder = std::move(next);
            continue;
        }
        if (++links > maximumLinks) return std::nullopt;
        rest.insert(0, *target + '/');
        if (target->starts_with('/')) folder = "/";
    }
}

std::optional<std::string> MountTable::remoteMount(const std::string& path) const
{
    // Saves the walk over the path, since this is called for each entry.
    if (m_remoteMounts.empty()) return std::nullopt;
    return follow(path, [](const auto&...) { return false; });
}

} // namespace harbex
