#pragma once

#include "support/EngineFiles.h"
#include "support/InterceptedMove.h"

#include <QByteArray>
#include <QByteArrayList>

#include <array>
#include <functional>
#include <string>

namespace harbex::test
{

/// One case of a move: the kind of source and the file systems.
struct Road {
    const char* name;
    /// "file", "link" or "folder"
    std::string kind;
    bool acrossVolumes;
    Lacks lacks;
    /// True if a killed move can leave an empty entry at the target, because the file system has no better
    /// operation.
    bool leavesPlaceholder = false;
    /// Source and target are on one volume, but the first rename fails with EXDEV, so that the move copies.
    bool isPretended = false;
    /// All entries of the source get a new change time before the first sync. Nothing else changes.
    bool isTouched = false;

    [[nodiscard]] bool isFolder() const { return kind == "folder"; }
};

[[nodiscard]] const std::array<Road, 20>& allRoads();

/// Adds a test row for each case. The column "road" is the index in allRoads().
void addRowsOfRoads();

/// Returns the names of the staging directories in a folder.
[[nodiscard]] QByteArrayList partsIn(const std::string& folder);

/// Changes the change time of an entry and of everything in it. Changes nothing else.
void touch(const std::string& path);

/// Returns whether the call writes data to the disk (fsync, syncfs).
[[nodiscard]] bool isSync(const InterceptedCall& call);

/// Returns whether the call only reads. The file system is then the same before this call and before the next
/// one.
[[nodiscard]] bool onlyReads(const InterceptedCall& call);

/// Fixture for one move in its own scratch directories.
class Round
{
public:
    explicit Round(const Road& road);

    /// Moves in a child process. The interceptor `keeper` is asked first about every call. The missing
    /// features of the case apply to the calls that it lets proceed.
    InterceptedRun move(const Interceptor& keeper) const;

    /// Result of moveWithIncident().
    struct Incident {
        /// False if there were not enough calls.
        bool happened = false;
        /// For example "unlinkat #2".
        std::string where;
        /// Path of the entry that the call refers to.
        std::string subject;
        bool sourceWasThere = false;
        InterceptedRun run;
    };
    /// Moves, and asks `act` about one call: the n-th call, from 0, for which `counts` returns true.
    [[nodiscard]] Incident moveWithIncident(size_t n,
                                            const std::function<bool(const InterceptedCall&)>& counts,
                                            const Interceptor& act) const;

    [[nodiscard]] bool isSourceWhole() const;
    [[nodiscard]] bool isTargetWhole() const;
    /// Returns whether the entry at the target is an empty file or an empty folder.
    [[nodiscard]] bool isPlaceholder() const;

    /// Returns the names in the folders of source and target, except these two.
    [[nodiscard]] QByteArrayList leftovers() const;

    /// Moves another entry into the target folder, as after a restart of the program, and removes it. Returns
    /// whether that succeeded.
    [[nodiscard]] bool moveSomethingElse() const;

private:
    const Road& m_road;
    ScratchFolder m_here;
    ScratchFolder m_there;

public:
    /// A file with the content "content", a dangling link, or a folder. The folder contains "file" with that
    /// content, a folder "sub" with a file "other", a hard link "same" to that file, a link "link", and a
    /// sparse file "sparse". If the second volume is only simulated, "sparse" also has an extended attribute.
    const std::string source;
    const std::string out;
    const std::string target;

private:
    QByteArray m_before;
};

} // namespace harbex::test
