#include "fs/FreeName.h"

#include "base/FileDescriptor.h"
#include "fs/EntryName.h"

#include <cstdint>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>

namespace harbex
{

std::string uniqueDestination(const std::string& path, const std::string& folder)
{
    // An empty path plus "/" would address the root directory.
    if (folder.empty()) return {};

    const std::string name(lastPathComponent(path));
    const std::string_view extension = pathExtension(name);
    const std::string base = extension.empty() ? name : name.substr(0, name.size() - extension.size() - 1);
    const std::string suffix = extension.empty() ? std::string() : '.' + std::string(extension);

    const std::string prefix = folder.back() == '/' ? folder : folder + '/';
    struct stat data;
    // Most names are free.
    if (::lstat((prefix + name).c_str(), &data) != 0) return prefix + name;

    // A descriptor avoids resolving the path of the folder for each candidate.
    const FileDescriptor opened(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const auto isTaken = [&](const std::string& candidate) {
        return opened && ::fstatat(opened.get(), candidate.c_str(), &data, AT_SYMLINK_NOFOLLOW) == 0;
    };
    std::string candidate = name;
    for (uint64_t counter = 1; isTaken(candidate); ++counter) {
        candidate = base;
        candidate.append("-").append(std::to_string(counter)).append(suffix);
    }
    return prefix + candidate;
}

} // namespace harbex
