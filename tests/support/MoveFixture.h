#pragma once

#include "support/MovePlaces.h"

#include <functional>
#include <string>
#include <vector>

namespace harbex::test
{

/// One case of a move: the kind of source and the file systems.
struct MoveCase {
    const char* name = "";
    /// "file", "large file", "link" or "folder"
    std::string kind;
    bool acrossVolumes = false;
    Lacks lacks = {};
    /// True if a killed move can leave an empty entry at the target, because the file system has no better
    /// operation.
    bool leavesPlaceholder = false;
    /// Source and target are on one volume, but the first rename fails with EXDEV, so that the move copies.
    bool isPretended = false;
    /// All entries of the source get a new change time before the first sync. Nothing else changes.
    bool isTouched = false;

    [[nodiscard]] bool isFolder() const { return kind == "folder"; }
};

[[nodiscard]] const std::vector<MoveCase>& allMoveCases();

/// Adds a test row for each wanted case, with the column "moveCase".
void addMoveCaseRows(const std::function<bool(const MoveCase&)>& isWanted = [](const MoveCase&) {
    return true;
});

/// Changes the change time of an entry and of everything in it. Changes nothing else.
void touch(const std::string& path);

/// Returns whether the call writes data to the disk (fsync, syncfs).
[[nodiscard]] bool isSync(const InterceptedCall& call);

/// Returns whether the call only reads. The file system is then the same before this call and before the next
/// one.
[[nodiscard]] bool onlyReads(const InterceptedCall& call);

/// Fixture for one move in its own scratch directories.
///
/// The source is a file with the content "content", a file with 400,000 times "o", a dangling link, or a
/// folder: the "tree" of makeObstacle() and a sparse file "sparse". If the second volume is only simulated,
/// that file also has an extended attribute.
class MoveFixture : public MovePlaces
{
public:
    explicit MoveFixture(MoveCase moveCase);

    /// Restores the state before a move. Faster than a new fixture.
    void renew();

    /// Moves in a child process. `interceptor` is asked first about every call. The missing features of the
    /// case apply to the calls that it lets proceed. Syncs succeed without being executed.
    InterceptedRun move(const Interceptor& interceptor) const;

    /// Returns whether the entry at the target is an empty file or an empty folder.
    [[nodiscard]] bool isPlaceholder() const;

    /// Moves another entry into the target folder, as after a restart of the program, and removes it. Returns
    /// whether that succeeded.
    [[nodiscard]] bool moveSomethingElse() const;

private:
    void makeSource();

    const MoveCase m_case;
};

} // namespace harbex::test
