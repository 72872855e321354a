#pragma once

#include "base/FileDescriptor.h"

#include <QByteArrayList>

#include <string>
#include <string_view>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace harbex::test
{

// Files and folders for tests. Paths and names are raw bytes. If a setup step fails, the program ends with a
// message.

/// A scratch directory. The destructor removes it with its contents.
class ScratchFolder
{
public:
    /// Creates it in the folder `parent`. Without `parent`, it uses the directory for temporary files.
    explicit ScratchFolder(const std::string& parent = {});
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    /// Returns its path, without symbolic links.
    [[nodiscard]] const std::string& path() const { return m_path; }

    /// Creates a folder in it and returns the path.
    std::string makeFolder(std::string_view name) const;

    /// Makes a complete file appear at `path`: writes it in the scratch directory and renames it to `path`.
    void arrive(const std::string& path, std::string_view content) const;

private:
    std::string m_path;
};

/// Writes a new file at `path`. The file must not exist.
void writeFile(const std::string& path, std::string_view content);

/// Appends to an existing file.
void appendToFile(const std::string& path, std::string_view content);

/// Cuts a file, or extends it with a hole.
void resizeFile(const std::string& path, off_t size);

/// Returns the content of a file. Follows symbolic links. Returns "(no file)" if the file cannot be opened.
[[nodiscard]] QByteArray contents(const std::string& path);

/// Returns whether an entry with this name exists. A dangling link counts as an entry.
[[nodiscard]] bool exists(const std::string& path);

void makeFolder(const std::string& path);
void makeLink(const std::string& path, const std::string& target);
/// Creates the hard link `path` to a file.
void linkFile(const std::string& file, const std::string& path);
void renameEntry(const std::string& from, const std::string& to);
void removeEntry(const std::string& path);

/// Returns the names in a folder, sorted.
[[nodiscard]] QByteArrayList namesIn(const std::string& folder);

/// Returns a writable folder on another volume than the directory for temporary files. Ends the program if
/// there is none.
[[nodiscard]] std::string folderOnAnotherVolume();

/// An open file that grows by one byte per millisecond until stop().
class GrowingFile
{
public:
    /// Creates the file. It must not exist.
    explicit GrowingFile(const std::string& path);

    void stop();

private:
    FileDescriptor m_file;
    std::jthread m_thread;
};

} // namespace harbex::test
