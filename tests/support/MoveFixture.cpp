#include "support/MoveFixture.h"

#include <QTest>

#include <algorithm>
#include <sys/xattr.h>
#include <unistd.h>

namespace harbex::test
{

const std::vector<MoveCase>& allMoveCases()
{
    constexpr Lacks noReplace{.noReplace = EINVAL};
    constexpr Lacks noReplaceNorLinks{.noReplace = EINVAL, .noLinks = EPERM};
    constexpr Lacks everything{.noReplace = EINVAL, .noLinks = EPERM, .unnamedFiles = true};
    constexpr Lacks unnamedFiles{.unnamedFiles = true};
    static const std::vector<MoveCase> cases = {
        {"file", "file", false},
        {"link", "link", false},
        {"folder", "folder", false},
        {"file, no RENAME_NOREPLACE", "file", false, noReplace},
        {"file, no RENAME_NOREPLACE, no links", "file", false, noReplaceNorLinks, true},
        {"link, no RENAME_NOREPLACE", "link", false, noReplace},
        {"folder, no RENAME_NOREPLACE", "folder", false, noReplace, true},
        {"file across volumes", "file", true},
        {"file across volumes, no unnamed files", "file", true, unnamedFiles},
        {"file across volumes, no features", "file", true, everything, true},
        {"file across volumes that are one", "file", true, {}, false, true},
        {"link across volumes", "link", true},
        {"link across volumes, no features", "link", true, noReplaceNorLinks, true},
        {"folder across volumes", "folder", true},
        {"folder across volumes, no RENAME_NOREPLACE", "folder", true, noReplace, true},
        {"folder across volumes that are one", "folder", true, {}, false, true},
        {"touched file across volumes", "file", true, {}, false, false, true},
        {"touched file across volumes, no unnamed files", "file", true, unnamedFiles, false, false, true},
        {"touched link across volumes", "link", true, {}, false, false, true},
        {"touched folder across volumes", "folder", true, {}, false, false, true},
    };
    return cases;
}

void addMoveCaseRows(const std::function<bool(const MoveCase&)>& isWanted)
{
    QTest::addColumn<MoveCase>("moveCase");
    for (const MoveCase& each : allMoveCases())
        if (isWanted(each)) QTest::newRow(each.name) << each;
}

void touch(const std::string& path)
{
    const timespec before = statusOf(path).st_ctim;
    timespec now = before;
    // The clock of the file system is coarse, so several attempts may be needed.
    while (now.tv_sec == before.tv_sec && now.tv_nsec == before.tv_nsec) {
        if (::lchown(path.c_str(), uid_t(-1), gid_t(-1)) != 0) qFatal("cannot touch");
        now = statusOf(path).st_ctim;
    }
    if (!S_ISDIR(statusOf(path).st_mode)) return;
    for (const QByteArray& name : namesIn(path))
        touch(path + '/' + name.toStdString());
}

bool isSync(const InterceptedCall& call)
{
    return call.name == "fsync" || call.name == "syncfs";
}

bool onlyReads(const InterceptedCall& call)
{
    static const std::array reading = {"faccessat2", "fgetxattr",  "flistxattr", "flock",      "getdents64",
                                       "lseek",      "newfstatat", "pread64",    "readlinkat", "statx"};
    if (call.name != "openat") return std::ranges::find(reading, call.name) != reading.end();
    const uint64_t flags = call.arguments[2];
    return (flags & O_CREAT) == 0 && (flags & O_TMPFILE) != O_TMPFILE;
}

MoveFixture::MoveFixture(MoveCase moveCase) : m_case(std::move(moveCase))
{
    const bool isOther = m_case.acrossVolumes && !m_case.isPretended;
    makePlaces(isOther ? folderOnAnotherVolume() : std::string());
    makeSource();
}

void MoveFixture::renew()
{
    clearPlaces();
    makeSource();
}

void MoveFixture::makeSource()
{
    if (m_case.kind == "file") writeFile(source, "content");
    if (m_case.kind == "large file") writeFile(source, std::string(400'000, 'o'));
    if (m_case.kind == "link") makeLink(source, "nowhere");
    if (m_case.isFolder()) {
        makeObstacle("tree", source);
        writeFile(source + "/sparse", "begin");
        resizeFile(source + "/sparse", 1 << 16);
        // Not all file systems support extended attributes.
        if (m_case.isPretended) ::setxattr((source + "/sparse").c_str(), "user.harbex", "value", 5, 0);
    }
    remember();
}

InterceptedRun MoveFixture::move(const Interceptor& interceptor) const
{
    bool isTouched = !m_case.isTouched;
    const auto work = [this] { return FileMove().moveItem(source, target); };
    return runIntercepted(fileSystemCalls(), work, [&](const InterceptedCall& call) {
        if (!isTouched && isSync(call)) {
            isTouched = true;
            if (exists(source)) touch(source);
        }
        const Answer answer = interceptor(call);
        if (answer.kind != Answer::Kind::proceed) return answer;
        // Waiting for a disk takes long and shows nothing here.
        if (isSync(call)) return Answer::give(0);
        // The kernel checks for different volumes before it checks for missing features.
        const bool isFirstRename = call.name == "renameat2" && call.ordinal == 1;
        if (m_case.isPretended && isFirstRename) return Answer::fail(EXDEV);
        if (m_case.acrossVolumes && isFirstRename) return Answer::proceed();
        return m_case.lacks.refuses(call).value_or(Answer::proceed());
    });
}

bool MoveFixture::isPlaceholder() const
{
    struct stat data = {};
    if (::lstat(target.c_str(), &data) != 0) return false;
    return S_ISDIR(data.st_mode) ? namesIn(target).isEmpty() : S_ISREG(data.st_mode) && data.st_size == 0;
}

bool MoveFixture::moveSomethingElse() const
{
    const std::string other = there() + "/other";
    writeFile(other, "other");
    const bool moved = errorOfMove(other, out + "/other") == 0 && contents(out + "/other") == "other";
    if (moved) removeEntry(out + "/other");
    return moved;
}

} // namespace harbex::test
