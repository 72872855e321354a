#pragma once

#include "support/EngineFiles.h"
#include "support/InterceptedMove.h"

#include <QByteArray>
#include <QByteArrayList>

#include <functional>
#include <memory>
#include <string>

namespace harbex::test
{

/// The places of one move: the entry "source" in a folder "in", and the path "target" in a folder "out".
class MovePlaces
{
public:
    /// Creates the folders in new scratch directories. Without a parent, a scratch directory is in the
    /// directory for temporary files.
    void makePlaces(const std::string& parentOfOut = {}, const std::string& parentOfIn = {});

    /// Removes everything except the folders "in" and "out".
    void clearPlaces() const;

    std::string in;
    std::string source;
    std::string out;
    std::string target;

    /// Returns the path of a scratch directory that contains `in`, or `out`.
    [[nodiscard]] const std::string& here() const { return m_here->path(); }
    [[nodiscard]] const std::string& there() const { return m_there->path(); }

    /// Gives all users all permissions for the folders, so that a process without privileges can use them.
    void openToAll() const;

    /// The features that the file system of the next moves lacks.
    Lacks lacks;

    /// Moves `source` to `target` in a child process. Returns moved(), kept(), or a description of what else
    /// happened.
    QByteArray move(const Interceptor& interceptor = proceedAlways);
    /// Moves in a child process, without remember(). Returns the errno, or 0.
    int tryMove(const Interceptor& interceptor = proceedAlways);
    /// Like tryMove(), without root privileges.
    int moveWithoutPrivileges(const Interceptor& interceptor = proceedAlways);

    /// The source is at the target with everything that a move keeps, and nothing else has changed.
    [[nodiscard]] static QByteArray moved();
    /// The move failed with this errno, and nothing has changed.
    [[nodiscard]] static QByteArray kept(int error);

    /// Records the state before a move. move() does this too.
    void remember();
    /// Returns the same as move(), for a move that ended with `error`.
    [[nodiscard]] QByteArray result(int error) const;

    /// These functions compare with the state that remember() recorded.
    [[nodiscard]] bool isSourceWhole() const;
    [[nodiscard]] bool isTargetWhole() const;

    /// Returns the names in `in` and `out`, except source and target.
    [[nodiscard]] QByteArrayList leftovers() const;

    /// The calls of the last move.
    InterceptedRun run;

private:
    int runMove(const std::function<Outcome<void>()>& work, const Interceptor& interceptor);

    std::unique_ptr<ScratchFolder> m_here;
    std::unique_ptr<ScratchFolder> m_there;
    QByteArray m_source;
    QByteArray m_target;
    QByteArrayList m_others;
};

} // namespace harbex::test
