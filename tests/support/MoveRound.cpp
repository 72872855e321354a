#include "support/MoveRound.h"

#include "support/TreeSnapshot.h"

#include <QTest>

#include <algorithm>
#include <sys/xattr.h>
#include <unistd.h>

namespace harbex::test
{

const std::array<Road, 20>& allRoads()
{
    static const std::array<Road, 20> roads = {{
        {"file", "file", false, {}},
        {"link", "link", false, {}},
        {"folder", "folder", false, {}},
        {"file, cannot refuse to replace", "file", false, {.noReplace = EINVAL}},
        {"file, nor link", "file", false, {.noReplace = EINVAL, .hardLinks = true}, true},
        {"link, cannot refuse to replace", "link", false, {.noReplace = EINVAL}},
        {"folder, cannot refuse to replace", "folder", false, {.noReplace = EINVAL}, true},
        {"file across volumes", "file", true, {}},
        {"file across volumes, no files without a name", "file", true, {.unnamedFiles = true}},
        {"file across volumes, nothing",
         "file",
         true,
         {.noReplace = EINVAL, .hardLinks = true, .unnamedFiles = true},
         true},
        {"file across volumes that are one", "file", true, {}, false, true},
        {"link across volumes", "link", true, {}},
        {"link across volumes, nothing", "link", true, {.noReplace = EINVAL, .hardLinks = true}, true},
        {"folder across volumes", "folder", true, {}},
        {"folder across volumes, cannot refuse to replace", "folder", true, {.noReplace = EINVAL}, true},
        {"folder across volumes that are one", "folder", true, {}, false, true},
        {"touched file across volumes", "file", true, {}, false, false, true},
        {"touched file across volumes, no files without a name",
         "file",
         true,
         {.unnamedFiles = true},
         false,
         false,
         true},
        {"touched link across volumes", "link", true, {}, false, false, true},
        {"touched folder across volumes", "folder", true, {}, false, false, true},
    }};
    return roads;
}

void addRowsOfRoads()
{
    QTest::addColumn<int>("road");
    for (size_t i = 0; i < allRoads().size(); ++i)
        QTest::newRow(allRoads()[i].name) << int(i);
}

QByteArrayList partsIn(const std::string& folder)
{
    QByteArrayList parts;
    for (const QByteArray& name : namesIn(folder)) {
        if (name.startsWith(".harbex-")) parts << name;
    }
    return parts;
}

namespace
{

struct stat statusOf(const std::string& path)
{
    struct stat data = {};
    if (::lstat(path.c_str(), &data) != 0) qFatal("nothing to touch");
    return data;
}

} // namespace

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

namespace
{

std::string subjectOf(const InterceptedCall& call)
{
    std::string folder = call.pathOfOpen(static_cast<int>(call.arguments[0]));
    static const std::array named = {"faccessat2", "mkdirat", "newfstatat", "openat",
                                     "readlinkat", "statx",   "unlinkat"};
    if (std::ranges::find(named, call.name) == named.end()) return folder;
    const std::string name = call.text(1);
    static const std::string opened = "/proc/self/fd/";
    if (name.starts_with(opened)) return call.pathOfOpen(std::stoi(name.substr(opened.size())));
    return folder + '/' + name;
}

} // namespace

Round::Round(const Road& road)
    : m_road(road),
      m_there(road.acrossVolumes && !road.isPretended ? folderOnAnotherVolume() : std::string()),
      source(m_here.makeFolder("in") + "/source"), out(m_there.makeFolder("out")), target(out + "/target")
{
    if (road.kind == "file") writeFile(source, "content");
    if (road.kind == "link") makeLink(source, "nowhere");
    if (road.isFolder()) {
        makeFolder(source);
        makeFolder(source + "/sub");
        writeFile(source + "/file", "content");
        writeFile(source + "/sub/other", "other content");
        if (::link((source + "/sub/other").c_str(), (source + "/same").c_str()) != 0) qFatal("cannot link");
        makeLink(source + "/link", "sub");
        writeFile(source + "/sparse", "begin");
        if (::truncate((source + "/sparse").c_str(), 1 << 20) != 0) qFatal("cannot make a hole");
        // Not all file systems support extended attributes.
        if (road.isPretended) ::setxattr((source + "/sparse").c_str(), "user.harbex", "value", 5, 0);
    }
    m_before = pictureOf(source);
}

InterceptedRun Round::move(const Interceptor& keeper) const
{
    bool isTouched = !m_road.isTouched;
    return moveGated(source, target, [&](const InterceptedCall& call) {
        if (!isTouched && isSync(call)) {
            isTouched = true;
            if (exists(source)) touch(source);
        }
        const Answer answer = keeper(call);
        if (answer.kind != Answer::Kind::proceed) return answer;
        // The kernel checks for different volumes before it checks for missing features.
        const bool isFirstRename = call.name == "renameat2" && call.ordinal == 1;
        if (m_road.isPretended && isFirstRename) return Answer::fail(EXDEV);
        if (m_road.acrossVolumes && isFirstRename) return Answer::proceed();
        return m_road.lacks.refuses(call).value_or(Answer::proceed());
    });
}

Round::Incident Round::moveWithIncident(size_t n, const std::function<bool(const InterceptedCall&)>& counts,
                                        const Interceptor& act) const
{
    Incident incident;
    size_t seen = 0;
    incident.run = move([&](const InterceptedCall& call) {
        if (!counts(call) || seen++ != n) return Answer::proceed();
        incident.happened = true;
        incident.where = call.label();
        incident.subject = subjectOf(call);
        incident.sourceWasThere = exists(source);
        return act(call);
    });
    return incident;
}

bool Round::isSourceWhole() const
{
    return pictureOf(source) == m_before;
}

bool Round::isTargetWhole() const
{
    return pictureOf(target) == m_before;
}

bool Round::isPlaceholder() const
{
    struct stat data = {};
    if (::lstat(target.c_str(), &data) != 0) return false;
    return S_ISDIR(data.st_mode) ? namesIn(target).isEmpty() : S_ISREG(data.st_mode) && data.st_size == 0;
}

QByteArrayList Round::leftovers() const
{
    QByteArrayList names = namesIn(m_here.path() + "/in");
    names.removeOne("source");
    QByteArrayList namesOut = namesIn(out);
    namesOut.removeOne("target");
    return names + namesOut;
}

bool Round::moveSomethingElse() const
{
    const std::string other = m_there.path() + "/other";
    writeFile(other, "other");
    const bool moved = errorOfMove(other, out + "/other") == 0 && contents(out + "/other") == "other";
    if (moved) removeEntry(out + "/other");
    return moved;
}

} // namespace harbex::test
