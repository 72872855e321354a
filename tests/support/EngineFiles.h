#pragma once

#include <QByteArrayList>

#include <atomic>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace harbex::test
{

// Files and folders of the tests of the engine. Names and paths are raw bytes. What cannot be set up ends the
// program with a message: no test goes on with less than it asked for.

/// A folder of one test's own, removed with everything in it at its end.
class ScratchFolder
{
public:
    /// Makes it in the folder `parent`, or where temporary files go.
    explicit ScratchFolder(const std::string& parent = {});
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    [[nodiscard]] const std::string& path() const { return m_path; }

    /// Makes a folder in it and gives its path.
    std::string makeFolder(std::string_view name) const;

    /// Lets a file with this content appear at `path`, complete from its first moment: it is written
    /// somewhere else in this folder and renamed to there.
    void arrive(const std::string& path, std::string_view content) const;

private:
    std::string m_path;
};

/// Writes a file, which must not exist, at its place.
void writeFile(const std::string& path, std::string_view content);

/// Adds to the end of a file that exists.
void appendToFile(const std::string& path, std::string_view content);

/// What a file holds, through links; "(no file)" where there is none.
[[nodiscard]] QByteArray contents(const std::string& path);

/// Whether anything has this name, a dangling link too.
[[nodiscard]] bool exists(const std::string& path);

void makeFolder(const std::string& path);
void makeLink(const std::string& path, const std::string& target);
void renameEntry(const std::string& from, const std::string& to);
void removeEntry(const std::string& path);

/// The names in a folder, sorted.
[[nodiscard]] QByteArrayList namesIn(const std::string& folder);

/// A second file system for moves that cannot be a rename: the path of a folder on another volume than that
/// where temporary files go. Ends the program when the machine has none that can be written.
[[nodiscard]] std::string folderOnAnotherVolume();

/// Files that grow by a byte every millisecond, each open all the while, until they are told to stop.
class GrowingFiles
{
public:
    /// Creates the files; none of them may exist.
    explicit GrowingFiles(const std::vector<std::string>& paths);
    ~GrowingFiles() { stop(); }
    GrowingFiles(const GrowingFiles&) = delete;
    GrowingFiles& operator=(const GrowingFiles&) = delete;

    void stop();

private:
    std::vector<int> m_files;
    std::atomic<bool> m_stopped = false;
    std::thread m_thread;
};

/// Files that go on arriving in a folder, each complete from its first moment, until they are told to stop:
/// the first is called file-0 and holds "0", and so on.
class ArrivingFiles
{
public:
    /// They arrive in `folder`, within `scratch`.
    ArrivingFiles(const ScratchFolder& scratch, const std::string& folder);
    ~ArrivingFiles() { stop(); }
    ArrivingFiles(const ArrivingFiles&) = delete;
    ArrivingFiles& operator=(const ArrivingFiles&) = delete;

    /// How many have arrived so far.
    [[nodiscard]] int count() const { return m_count; }

    /// Returns when the last has arrived.
    void stop();

private:
    std::atomic<int> m_count = 0;
    std::atomic<bool> m_stopped = false;
    std::thread m_thread;
};

} // namespace harbex::test
