#pragma once

#include <unistd.h>
#include <utility>

namespace harbex
{

/// Owns one file descriptor and closes it in the destructor. A negative descriptor means empty.
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
    // Ignores close() errors: code that needs the data on disk calls fsync() first.
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
