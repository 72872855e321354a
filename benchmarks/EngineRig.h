#pragma once

#include "model/WatchedFolder.h"
#include "watcher/DownloadImageRedirector.h"
#include "watcher/NameSnapshot.h"

#include <filesystem>
#include <memory>
#include <vector>

namespace harbex::bench
{

/// A scratch directory in the current folder. The destructor removes it with its contents.
class ScratchFolder
{
public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    /// Returns a folder in it. Creates the folder if it does not exist.
    [[nodiscard]] std::filesystem::path folder(const std::string& name) const;

private:
    std::filesystem::path m_path;
};

/// Creates `count` files of one byte: prefix0.jpg, prefix1.jpg, and so on.
void makeFiles(const std::filesystem::path& folder, const std::string& prefix, int count);

/// Renames the files with the numbers `first` to `count` - 1 into another folder, with one rename(2) each.
void renameFiles(const std::filesystem::path& from, const std::filesystem::path& to,
                 const std::string& prefix, int count, int first = 0);

/// Returns a watched folder with one rule, which moves pictures to `destination`.
[[nodiscard]] WatchedFolder picturesRule(const std::filesystem::path& folder,
                                         const std::filesystem::path& destination);

/// Scans a folder like the engine. Returns the number of new names.
size_t scan(const std::filesystem::path& folder, NameSnapshot& known);

/// A running engine and counts from its log.
class EngineRig
{
public:
    explicit EngineRig(const std::vector<WatchedFolder>& folders);

    [[nodiscard]] DownloadImageRedirector& engine() { return m_engine; }

    /// Returns the number of entries moved since the start.
    [[nodiscard]] int moved() const { return m_moved; }

    /// Runs the main loop until `count` entries have been moved since the start.
    void waitForMoved(int count);

    /// Runs the main loop until `count` entries have been moved or given up since the start.
    void waitForEnded(int count);

    /// Runs the main loop for this time.
    static void settle(std::chrono::milliseconds time);

    /// Returns the highest number of threads that was seen at a log line.
    [[nodiscard]] std::size_t mostThreads() const { return m_mostThreads; }

private:
    DownloadImageRedirector m_engine;
    int m_moved = 0;
    int m_givenUp = 0;
    std::size_t m_mostThreads = 0;
};

} // namespace harbex::bench
