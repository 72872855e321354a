#include "support/EngineResources.h"

#include <QtGlobal>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <linux/capability.h>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace harbex::test
{

namespace
{

namespace fs = std::filesystem;

std::size_t entriesOf(const char* folder)
{
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

/// Returns the limit until now.
rlim_t setLimit(rlim_t descriptors)
{
    rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) qFatal("getrlimit: %s", std::strerror(errno));
    const rlim_t before = std::exchange(limit.rlim_cur, descriptors);
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) qFatal("setrlimit: %s", std::strerror(errno));
    return before;
}

constexpr uint32_t permissionRights =
    (1U << CAP_DAC_OVERRIDE) | (1U << CAP_DAC_READ_SEARCH) | (1U << CAP_FOWNER);

/// Enables or disables those capabilities that this thread is permitted to have.
void setPermissionRights(bool effective)
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    if (::syscall(SYS_capget, &header, data) != 0) qFatal("capget: %s", std::strerror(errno));
    if (effective)
        data[0].effective |= permissionRights & data[0].permitted;
    else
        data[0].effective &= ~permissionRights;
    if (::syscall(SYS_capset, &header, data) != 0) qFatal("capset: %s", std::strerror(errno));
}

} // namespace

std::size_t threadCount()
{
    return entriesOf("/proc/self/task");
}

// One descriptor belongs to the listing.
std::size_t descriptorCount()
{
    return entriesOf("/proc/self/fd") - 1;
}

std::size_t kernelWatchCount()
{
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fdinfo")) {
        std::ifstream file(entry.path());
        for (std::string line; std::getline(file, line);)
            if (line.starts_with("inotify wd:")) ++count;
    }
    return count;
}

WithoutPrivileges::WithoutPrivileges()
{
    setPermissionRights(false);
}
WithoutPrivileges::~WithoutPrivileges()
{
    setPermissionRights(true);
}

DescriptorLimit::DescriptorLimit(std::size_t more)
{
    // The limit applies to descriptor numbers, and the lowest free numbers are used first.
    std::size_t free = 0;
    int number = 0;
    while (::fcntl(number, F_GETFD) >= 0 || free++ < more)
        ++number;
    m_before = setLimit(static_cast<rlim_t>(number));
}

DescriptorLimit::~DescriptorLimit()
{
    setLimit(m_before);
}

} // namespace harbex::test
