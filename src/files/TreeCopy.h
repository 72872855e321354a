#pragma once

#include "base/Outcome.h"
#include "files/EntryPlace.h"
#include "files/TreeSurvey.h"

#include <cstdint>
#include <map>
#include <stop_token>
#include <string>
#include <utility>

namespace harbex
{

/// Copies an entry with everything in it: files, folders and links with content, times, owner, permissions
/// and attributes; files that are one inode stay one where the target has hard links. Used by one thread.
class TreeCopy
{
public:
    /// Copies what `survey` found; every entry that is not as it was then ends the copy.
    TreeCopy(const TreeSurvey& survey, std::stop_token stop) : m_survey(survey), m_stop(std::move(stop)) {}

    /// Makes a copy of the surveyed entry at `source` at `target`, where nothing stands yet, in a folder that
    /// nobody else works in. EBUSY when the source was changed, ECANCELED soon after the stop. What was
    /// copied by then stays, to be thrown away. Nothing is synchronised with the disk.
    [[nodiscard]] Outcome<void> copy(const EntryPlace& source, const EntryPlace& target);

private:
    struct FirstCopy {
        EntryStatus original;
        std::string path;
    };

    /// `path` is that from the root of the tree: "" for the root, "/a/b" below.
    Outcome<void> copyEntry(const EntryPlace& source, const EntryPlace& target, const std::string& path);
    Outcome<void> copyRegularFile(const EntryPlace& source, const EntryStatus& seen,
                                  const EntryPlace& target);
    Outcome<void> copyFolder(const EntryPlace& source, const EntryStatus& seen, const EntryPlace& target,
                             const std::string& path);
    Outcome<void> copyLink(const EntryPlace& source, const EntryStatus& seen, const EntryPlace& target);
    /// Whether `target` has become another name of an entry that was copied before.
    Outcome<bool> linkToEarlierCopy(const EntryStatus& seen, const EntryPlace& target,
                                    const std::string& path);

    const TreeSurvey& m_survey;
    std::stop_token m_stop;
    EntryPlace m_root;
    /// The first copy of each entry with several names, by device and inode.
    std::map<std::pair<uint64_t, uint64_t>, FirstCopy> m_firstCopies;
};

} // namespace harbex
