#pragma once

#include "fs/FileMove.h"
#include "support/EngineFiles.h"
#include "support/SyscallInterceptor.h"

#include <QTest>
#include <QtGlobal>

#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace harbex::test
{

/// Features that a simulated file system lacks.
struct Lacks {
    /// The errno of renaming without replacing. 0 if the feature exists.
    int noReplace = 0;
    bool hardLinks = false;
    bool unnamedFiles = false;
    /// The errno values for the two features above.
    int hardLinksError = EPERM;
    int unnamedFilesError = EOPNOTSUPP;

    /// Returns the error for a call that needs a missing feature. Empty for other calls.
    [[nodiscard]] std::optional<Answer> refuses(const InterceptedCall& call) const
    {
        if (noReplace != 0 && call.name == "renameat2") return Answer::fail(noReplace);
        if (hardLinks && call.name == "linkat") return Answer::fail(hardLinksError);
        const bool isUnnamed = call.name == "openat" && (call.arguments[2] & O_TMPFILE) == O_TMPFILE;
        if (unnamedFiles && isUnnamed) return Answer::fail(unnamedFilesError);
        return {};
    }
};

/// Lets every call proceed.
[[nodiscard]] inline Answer proceedAlways(const InterceptedCall&)
{
    return Answer::proceed();
}

/// Moves an entry in a child process. `interceptor` is asked about every file system call.
[[nodiscard]] inline InterceptedRun moveIntercepted(const std::string& source, const std::string& target,
                                                    const Interceptor& interceptor)
{
    return runIntercepted(
        fileSystemCalls(), [&] { return FileMove().moveItem(source, target); }, interceptor);
}

/// Moves an entry on a simulated file system that lacks features.
[[nodiscard]] inline InterceptedRun moveIntercepted(const std::string& source, const std::string& target,
                                                    const Lacks& lacks,
                                                    const Interceptor& interceptor = proceedAlways)
{
    return moveIntercepted(source, target, [&](const InterceptedCall& call) {
        const std::optional<Answer> refused = lacks.refuses(call);
        return refused ? *refused : interceptor(call);
    });
}

/// Lets the first rename fail with EXDEV, as between two volumes.
[[nodiscard]] inline Answer crossing(const InterceptedCall& call)
{
    return call.name == "renameat2" && call.ordinal == 1 ? Answer::fail(EXDEV) : Answer::proceed();
}

/// Answers a waiting statx(2) with the real result, changed by `falsify`.
[[nodiscard]] inline Answer answerStatus(const InterceptedCall& call,
                                         const std::function<void(struct statx&)>& falsify)
{
    const bool isPath = static_cast<int>(call.arguments[0]) == AT_FDCWD;
    const FileDescriptor folder = isPath ? FileDescriptor() : call.descriptor(0);
    struct statx data = {};
    if (::statx(isPath ? AT_FDCWD : folder.get(), call.text(1).c_str(), static_cast<int>(call.arguments[2]),
                static_cast<unsigned>(call.arguments[3]), &data) != 0)
        return Answer::fail(errno);
    falsify(data);
    call.writeMemory(call.arguments[4], std::string(reinterpret_cast<const char*>(&data), sizeof data));
    return Answer::give(0);
}

/// Answers a waiting fstatfs(2) with a file system type from linux/magic.h. All other calls proceed.
[[nodiscard]] inline Answer answerVolume(const InterceptedCall& call, uint type)
{
    if (call.name != "fstatfs") return Answer::proceed();
    struct statfs volume = {};
    volume.f_type = type;
    call.writeMemory(call.arguments[1], std::string(reinterpret_cast<const char*>(&volume), sizeof volume));
    return Answer::give(0);
}

/// Drops root privileges, if the process has them. For child processes.
inline void dropPrivileges()
{
    constexpr uid_t nobody = 65534;
    if (::geteuid() != 0) return;
    if (::setresgid(nobody, nobody, nobody) != 0 || ::setresuid(nobody, nobody, nobody) != 0)
        qFatal("cannot give up being root");
}

/// Moves an entry. Returns 0 or the errno of the failure.
[[nodiscard]] inline int errorOfMove(const std::string& source, const std::string& target)
{
    const Outcome<void> moved = FileMove().moveItem(source, target);
    return moved ? 0 : moved.error().code;
}

/// Kinds of entries that makeObstacle() makes.
inline const char* const obstacleKinds[] = {"file",        "empty file", "folder",
                                            "full folder", "link",       "dangling link"};

/// Adds a test row for each kind of entry that is moved and each kind of obstacle, in the columns "kind" and
/// "obstacle".
inline void addObstacleRows()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<QByteArray>("obstacle");
    for (const char* kind : {"file", "dangling link", "full folder"}) {
        for (const char* obstacle : obstacleKinds)
            QTest::addRow("%s onto %s", kind, obstacle) << QByteArray(kind) << QByteArray(obstacle);
    }
}

inline void makeObstacle(const std::string& kind, const std::string& path)
{
    if (kind == "file") writeFile(path, "an obstacle");
    if (kind == "empty file") writeFile(path, "");
    if (kind == "folder" || kind == "full folder") makeFolder(path);
    if (kind == "full folder") writeFile(path + "/inside", "an obstacle");
    if (kind == "link") makeLink(path, "/");
    if (kind == "dangling link") makeLink(path, "nowhere");
}

[[nodiscard]] inline ino_t inodeOf(const std::string& path)
{
    struct stat data = {};
    return ::lstat(path.c_str(), &data) == 0 ? data.st_ino : 0;
}

} // namespace harbex::test
