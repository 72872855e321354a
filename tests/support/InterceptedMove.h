#pragma once

#include "fs/FileMove.h"
#include "support/EngineFiles.h"
#include "support/SyscallInterceptor.h"

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
    /// The errno of renaming without replacing, and of hard links. 0 if the feature exists.
    int noReplace = 0;
    int noLinks = 0;
    bool unnamedFiles = false;

    /// Returns the error for a call that needs a missing feature. Empty for other calls.
    [[nodiscard]] std::optional<Answer> refuses(const InterceptedCall& call) const
    {
        if (noReplace != 0 && call.name == "renameat2") return Answer::fail(noReplace);
        if (noLinks != 0 && call.name == "linkat") return Answer::fail(noLinks);
        const bool isUnnamed = call.name == "openat" && (call.arguments[2] & O_TMPFILE) == O_TMPFILE;
        if (unnamedFiles && isUnnamed) return Answer::fail(EOPNOTSUPP);
        return {};
    }
};

/// Lets every call proceed.
[[nodiscard]] inline Answer proceedAlways(const InterceptedCall&)
{
    return Answer::proceed();
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

/// Makes an entry of one of these kinds, a "pipe", or a "tree": a folder with a file "file", a folder "sub"
/// with a file "other", a hard link "same" to that file, and a link.
inline void makeObstacle(const std::string& kind, const std::string& path)
{
    if (kind == "file") writeFile(path, "an obstacle");
    if (kind == "empty file") writeFile(path, "");
    if (kind == "link") makeLink(path, "/");
    if (kind == "dangling link") makeLink(path, "nowhere");
    if (kind == "pipe" && ::mkfifo(path.c_str(), 0600) != 0) qFatal("cannot make %s", path.c_str());
    if (kind == "folder" || kind == "full folder") makeFolder(path);
    if (kind == "full folder") writeFile(path + "/inside", "an obstacle");
    if (kind != "tree") return;
    makeFolder(path);
    makeFolder(path + "/sub");
    writeFile(path + "/file", "content");
    writeFile(path + "/sub/other", "other content");
    linkFile(path + "/sub/other", path + "/same");
    makeLink(path + "/link", "sub");
}

/// Returns the status of an entry, of a link itself. The entry must exist.
[[nodiscard]] inline struct stat statusOf(const std::string& path)
{
    struct stat data = {};
    if (::lstat(path.c_str(), &data) != 0) qFatal("cannot look at %s", path.c_str());
    return data;
}

/// Sets the times of an entry, of a link itself.
inline void setTimes(const std::string& path, const timespec& accessed, const timespec& modified)
{
    const timespec times[] = {accessed, modified};
    if (::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
        qFatal("cannot set the times of %s", path.c_str());
}

/// Times that no new entry has, for setTimes() and for comparison.
constexpr timespec oldAccess = {1'000'000'000, 123'456'789};
constexpr timespec oldModification = {1'234'567'890, 987'654'321};
inline void setOldTimes(const std::string& path)
{
    setTimes(path, oldAccess, oldModification);
}

} // namespace harbex::test
