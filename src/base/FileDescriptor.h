#pragma once

#include <unistd.h>
#include <utility>

namespace harbex
{

/// Owns one open file descriptor and closes it at the end of its life. Empty when negative.
class FileDescriptor
{
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : m_fd(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    // The error of close() is not looked at: whoever needs the data on disk has called fsync() before.
    ~FileDescriptor()
    {
        if (m_fd >= 0) ::close(m_fd);
    }

    explicit operator bool() const { return m_fd >= 0; }
    [[nodiscard]] int get() const { return m_fd; }

private:
    int m_fd = -1;
};

} // namespace harbex
