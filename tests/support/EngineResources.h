#pragma once

#include <cstddef>

namespace harbex::test
{

// Resources of this process, as the kernel reports them.

[[nodiscard]] std::size_t threadCount();
[[nodiscard]] std::size_t descriptorCount();

/// Returns the number of inotify watches of this process.
[[nodiscard]] std::size_t kernelWatchCount();

/// Drops the capabilities that bypass file permissions, until the end of the scope. It affects this thread
/// and the threads that it starts. It has no effect for an ordinary user.
class WithoutPrivileges
{
public:
    WithoutPrivileges();
    ~WithoutPrivileges();
    WithoutPrivileges(const WithoutPrivileges&) = delete;
    WithoutPrivileges& operator=(const WithoutPrivileges&) = delete;
};

/// Limits how many more descriptors this process can open, until the end of the scope.
class DescriptorLimit
{
public:
    explicit DescriptorLimit(std::size_t more);
    ~DescriptorLimit();
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    std::size_t m_before = 0;
};

} // namespace harbex::test
