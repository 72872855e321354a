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

/// One way a move can go.
struct Road {
    const char* name;
    /// "file", "link" or "folder"
    std::string kind;
    bool acrossVolumes;
    Lacks lacks;
    /// Where the file system can do no better, a killed move leaves something empty under the new name.
    bool leavesPlaceholder = false;
    /// Both volumes are one, and only the first rename is told otherwise: the kernel then copies between
    /// them.
    bool isPretended = false;
    /// While the copy is being put on the disk for the first time, everything in the source gets another
    /// change time, and nothing else.
    bool isTouched = false;

    [[nodiscard]] bool isFolder() const { return kind == "folder"; }
};

[[nodiscard]] const std::array<Road, 20>& allRoads();

/// The rows of a test that goes all roads: a column "road" with their places in that list.
void addRowsOfRoads();

/// The hidden staging directories in a folder.
[[nodiscard]] QByteArrayList partsIn(const std::string& folder);

/// Gives the entry at the path, and with it everything in it, another change time than it has, and changes
/// nothing else.
void touch(const std::string& path);

/// Whether the call puts on the disk what was written.
[[nodiscard]] bool isSync(const GatedCall& call);

/// Which calls look at files without changing any: before such a call the world is as it is before the next.
[[nodiscard]] bool onlyReads(const GatedCall& call);

/// One move with folders of its own.
class Round
{
public:
    explicit Round(const Road& road);

    /// Goes the road behind a gate. The keeper is asked about every call, before the answer that a file
    /// system gives that lacks something.
    InterceptedRun move(const Interceptor& keeper) const;

    /// What came of a move in which something happened once.
    struct Incident {
        /// False when there were not so many calls.
        bool happened = false;
        /// "unlinkat #2"
        std::string where;
        /// The path of what the call was about.
        std::string subject;
        bool sourceWasThere = false;
        InterceptedRun run;
    };
    /// The same, where `act` is asked about one call only: the n-th, from 0, of those that `counts` tells.
    [[nodiscard]] Incident moveWithIncident(size_t n, const std::function<bool(const GatedCall&)>& counts,
                                            const Interceptor& act) const;

    [[nodiscard]] bool isSourceWhole() const;
    [[nodiscard]] bool isTargetWhole() const;
    /// Whether something empty stands at the target.
    [[nodiscard]] bool isPlaceholder() const;

    /// What is in the folders of the source and of the target besides these two.
    [[nodiscard]] QByteArrayList leftovers() const;

    /// Moves something else into the same folder, as the program does after its next start, and takes it
    /// away.
    [[nodiscard]] bool moveSomethingElse() const;

private:
    const Road& m_road;
    ScratchFolder m_here;
    ScratchFolder m_there;

public:
    /// A file with "content", a dangling link, or a folder in which there are: "file" with that content, a
    /// folder "sub" with another file "other", a second name "same" of that one, a link, and a file "sparse"
    /// that ends in a hole; where the volumes are one, that has an attribute as well.
    const std::string source;
    const std::string out;
    const std::string target;

private:
    QByteArray m_before;
};

} // namespace harbex::test
