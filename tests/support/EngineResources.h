#pragma once

#include <cstddef>

namespace harbex::test
{

// What the process holds at this moment, as the kernel tells it.

[[nodiscard]] std::size_t threadCount();
[[nodiscard]] std::size_t descriptorCount();

/// How many folders inotify watches for this process.
[[nodiscard]] std::size_t kernelWatchCount();

/// Takes the right to read and write what permissions forbid away from this thread, and from those it starts,
/// for as long as it lives: without it nothing is forbidden to root. Does nothing for anybody else.
class WithoutPrivileges
{
public:
    WithoutPrivileges();
    ~WithoutPrivileges();
    WithoutPrivileges(const WithoutPrivileges&) = delete;
    WithoutPrivileges& operator=(const WithoutPrivileges&) = delete;
};

/// Lets this process open only so many descriptors more than it has open now, until its end.
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
