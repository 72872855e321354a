#include "support/EngineFiles.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace harbex::test
{

namespace
{

void require(bool done, const char* what, const std::string& path)
{
    if (!done) qFatal("cannot %s %s: %s", what, path.c_str(), std::strerror(errno));
}

void writeAll(int fd, std::string_view content, const std::string& path)
{
    while (!content.empty()) {
        const ssize_t written = ::write(fd, content.data(), content.size());
        require(written > 0, "write to", path);
        content.remove_prefix(static_cast<size_t>(written));
    }
}

dev_t volumeOf(const std::string& path)
{
    struct stat data;
    require(::stat(path.c_str(), &data) == 0, "look at", path);
    return data.st_dev;
}

} // namespace

ScratchFolder::ScratchFolder(const std::string& parent)
{
    std::filesystem::path folder = parent;
    if (parent.empty()) folder = std::filesystem::temp_directory_path();
    m_path = std::filesystem::canonical(folder) / "harbex-XXXXXX";
    require(::mkdtemp(m_path.data()) != nullptr, "make a scratch folder", m_path);
}

ScratchFolder::~ScratchFolder()
{
    std::error_code error;
    std::filesystem::remove_all(m_path, error);
    if (error) qWarning("left behind: %s: %s", m_path.c_str(), error.message().c_str());
}

std::string ScratchFolder::makeFolder(std::string_view name) const
{
    std::string path = m_path + '/' + std::string(name);
    test::makeFolder(path);
    return path;
}

void ScratchFolder::arrive(const std::string& path, std::string_view content) const
{
    const std::string prepared = m_path + "/.arriving";
    writeFile(prepared, content);
    renameEntry(prepared, path);
}

void writeFile(const std::string& path, std::string_view content)
{
    const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    require(static_cast<bool>(file), "create", path);
    writeAll(file.get(), content, path);
}

void appendToFile(const std::string& path, std::string_view content)
{
    const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    require(static_cast<bool>(file), "open", path);
    writeAll(file.get(), content, path);
}

void resizeFile(const std::string& path, off_t size)
{
    require(::truncate(path.c_str(), size) == 0, "resize", path);
}

QByteArray contents(const std::string& path)
{
    const FileDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!descriptor) return QByteArrayLiteral("(no file)");
    QFile file;
    require(file.open(descriptor.get(), QIODevice::ReadOnly), "read", path);
    return file.readAll();
}

bool exists(const std::string& path)
{
    struct stat data;
    return ::lstat(path.c_str(), &data) == 0;
}

void makeFolder(const std::string& path)
{
    require(::mkdir(path.c_str(), 0755) == 0, "make the folder", path);
}

void makeLink(const std::string& path, const std::string& target)
{
    require(::symlink(target.c_str(), path.c_str()) == 0, "make the link", path);
}

void linkFile(const std::string& file, const std::string& path)
{
    require(::link(file.c_str(), path.c_str()) == 0, "make the hard link", path);
}

void renameEntry(const std::string& from, const std::string& to)
{
    require(::rename(from.c_str(), to.c_str()) == 0, "rename", from + " to " + to);
}

void removeEntry(const std::string& path)
{
    require(std::remove(path.c_str()) == 0, "remove", path);
}

QByteArrayList namesIn(const std::string& folder)
{
    QByteArrayList names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names << QByteArray::fromStdString(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string folderOnAnotherVolume()
{
    const dev_t here = volumeOf(std::filesystem::temp_directory_path().string());
    for (const char* folder : {"/dev/shm", "/run/lock", "/var/tmp", "/tmp"}) {
        if (::access(folder, W_OK | X_OK) == 0 && volumeOf(folder) != here) return folder;
    }
    qFatal("not possible here: a second file system that can be written; /dev/shm is one on most systems");
}

GrowingFile::GrowingFile(const std::string& path)
    : m_file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0644))
{
    require(static_cast<bool>(m_file), "create", path);
    writeAll(m_file.get(), ".", path);
    m_thread = std::jthread([this, path](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            writeAll(m_file.get(), ".", path);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
}

void GrowingFile::stop()
{
    m_thread = {};
    m_file = {};
}

} // namespace harbex::test
