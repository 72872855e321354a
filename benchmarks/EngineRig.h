#pragma once

#include "model/WatchedFolder.h"
#include "watcher/DownloadImageRedirector.h"
#include "watcher/NameSnapshot.h"

#include <filesystem>
#include <memory>
#include <vector>

namespace harbex::bench
{

/// A scratch folder on the disk under the current folder, removed at the end.
class ScratchFolder
{
public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    /// A folder in it, made if it is not there.
    [[nodiscard]] std::filesystem::path folder(const std::string& name) const;

private:
    std::filesystem::path m_path;
};

/// Makes `count` files named prefix0.jpg, prefix1.jpg, ... of one byte each.
void makeFiles(const std::filesystem::path& folder, const std::string& prefix, int count);

/// Renames those of these files with the numbers from `first` on into another folder, one call of rename(2)
/// each.
void renameFiles(const std::filesystem::path& from, const std::filesystem::path& to,
                 const std::string& prefix, int count, int first = 0);

/// A folder that is watched with one rule: pictures go to `destination`.
[[nodiscard]] WatchedFolder picturesRule(const std::filesystem::path& folder,
                                         const std::filesystem::path& destination);

/// One scan as the engine does it; gives how many names were new.
size_t scan(const std::filesystem::path& folder, NameSnapshot& known);

/// An engine that runs, and the counts of what it logged.
class EngineRig
{
public:
    explicit EngineRig(const std::vector<WatchedFolder>& folders);

    [[nodiscard]] DownloadImageRedirector& engine() { return m_engine; }

    /// How many entries were moved since the beginning.
    [[nodiscard]] int moved() const { return m_moved; }

    /// Runs the main loop until so many entries were moved since the beginning.
    void waitForMoved(int count);

    /// Runs the main loop until so many entries were moved or given up since the beginning.
    void waitForEnded(int count);

    /// Runs the main loop for this long.
    static void settle(std::chrono::milliseconds time);

    /// The most threads that were seen at once.
    [[nodiscard]] std::size_t mostThreads() const { return m_mostThreads; }

private:
    DownloadImageRedirector m_engine;
    int m_moved = 0;
    int m_givenUp = 0;
    std::size_t m_mostThreads = 0;
};

} // namespace harbex::bench
