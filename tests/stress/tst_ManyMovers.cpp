#include "fs/FileMove.h"
#include "fs/FreeName.h"
#include "support/EngineFiles.h"
#include "support/InterceptedMove.h"
#include "support/Stress.h"
#include "support/TestMain.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <seccomp.h>
#include <set>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

constexpr size_t moverCount = 4;

std::string nameOf(size_t i)
{
    return "photo " + std::to_string(i) + (i % 3 == 0 ? "" : ".jpg");
}

/// What one program does: takes every file of a list into a folder, under any free name.
class Mover
{
public:
    Mover(std::string from, std::string into) : m_from(std::move(from)), m_into(std::move(into)) {}

    /// Exits with the number of failures that no race explains, at most 1.
    void run(size_t count)
    {
        for (size_t i = 0; i < count; ++i) {
            const std::string source = m_from + '/' + nameOf(i);
            Outcome<void> moved = m_fileMove.moveItem(source, uniqueDestination(source, m_into));
            // Another took the name in between.
            while (!moved && moved.error().code == EEXIST)
                moved = m_fileMove.moveItem(source, uniqueDestination(source, m_into));
            if (moved || isOutrun(moved.error())) continue;
            std::fprintf(stderr, "%s: %s\n", source.c_str(), moved.error().description().c_str());
            ::_exit(1);
        }
        ::_exit(0);
    }

private:
    /// Whether another program has moved this very file: it is gone, or was on its way when it was copied.
    [[nodiscard]] static bool isOutrun(const SystemError& error)
    {
        return error.code == ENOENT || error.code == EBUSY;
    }

    const std::string m_from;
    const std::string m_into;
    FileMove m_fileMove;
};

struct Way {
    const char* name;
    bool acrossVolumes;
    Lacks lacks;
};

const Way ways[] = {
    {"same volume", false, {}},
    {"same volume, cannot refuse to replace", false, {.noReplace = EINVAL}},
    {"same volume, nor link", false, {.noReplace = EINVAL, .hardLinks = true}},
    {"across volumes", true, {}},
    {"across volumes, no files without a name", true, {.unnamedFiles = true}},
    {"across volumes, nothing", true, {.noReplace = EINVAL, .hardLinks = true, .unnamedFiles = true}},
};

/// Has the kernel answer this process as a file system would that lacks something.
void doWithout(const Lacks& lacks, bool acrossVolumes)
{
    const scmp_filter_ctx filter = ::seccomp_init(SCMP_ACT_ALLOW);
    const auto refuse = [filter](int error, const char* name, const std::vector<scmp_arg_cmp>& arguments) {
        if (::seccomp_rule_add_array(filter, SCMP_ACT_ERRNO(uint32_t(error)),
                                     ::seccomp_syscall_resolve_name(name), unsigned(arguments.size()),
                                     arguments.data()) != 0)
            ::_exit(3);
    };
    // Between volumes that is said by the kernel before any file system is asked: paths are renamed by it,
    // and names in open folders on one volume.
    const scmp_arg_cmp isOpenFolder{0, SCMP_CMP_NE, uint32_t(AT_FDCWD), 0};
    if (lacks.noReplace != 0 && acrossVolumes) refuse(lacks.noReplace, "renameat2", {isOpenFolder});
    if (lacks.noReplace != 0 && !acrossVolumes) refuse(lacks.noReplace, "renameat2", {});
    if (lacks.hardLinks) refuse(EPERM, "linkat", {});
    if (lacks.unnamedFiles)
        refuse(EOPNOTSUPP, "openat", {scmp_arg_cmp{2, SCMP_CMP_MASKED_EQ, O_TMPFILE, O_TMPFILE}});
    if (::seccomp_load(filter) != 0) ::_exit(3);
    ::seccomp_release(filter);
}

/// Lets the movers begin at once and waits for all. False when one of them failed.
bool runMovers(const Way& way, const std::vector<std::string>& inboxes, const std::string& out, size_t count)
{
    int start[2];
    if (::pipe2(start, O_CLOEXEC) != 0) qFatal("no pipe");
    std::fflush(nullptr);
    std::vector<pid_t> children;
    for (const std::string& inbox : inboxes) {
        const pid_t child = ::fork();
        if (child < 0) qFatal("cannot fork");
        if (child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::close(start[1]);
            doWithout(way.lacks, way.acrossVolumes);
            char byte = 0;
            // Ends when the other end is closed: the moment in which all begin.
            if (::read(start[0], &byte, 1) != 0) ::_exit(2);
            Mover(inbox, out).run(count);
        }
        children.push_back(child);
    }
    ::close(start[0]);
    ::close(start[1]);
    bool succeeded = true;
    for (const pid_t child : children) {
        int status = 0;
        if (::waitpid(child, &status, 0) != child) qFatal("cannot wait");
        succeeded = succeeded && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    return succeeded;
}

/// The contents of all files in a folder.
std::multiset<std::string> contentsIn(const std::string& folder)
{
    std::multiset<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        found.insert(contents(entry.path().string()).toStdString());
    return found;
}

void addRowsOfWays()
{
    QTest::addColumn<int>("way");
    for (size_t i = 0; i < std::size(ways); ++i)
        QTest::newRow(ways[i].name) << int(i);
}

} // namespace

/// Several programs at once that move into the same folder.
class TestManyMovers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void sameNamesFromFoldersOfTheirOwn_data() { addRowsOfWays(); }
    void sameNamesFromFoldersOfTheirOwn();
    void theSameFiles_data() { addRowsOfWays(); }
    void theSameFiles();
};

void TestManyMovers::sameNamesFromFoldersOfTheirOwn()
{
    QFETCH(const int, way);
    const size_t count = stressSize(size_t(100), size_t(5000));
    const ScratchFolder here;
    const ScratchFolder there(ways[way].acrossVolumes ? folderOnAnotherVolume() : std::string());
    const std::string out = there.makeFolder("out");
    std::vector<std::string> inboxes;
    std::multiset<std::string> all;
    for (size_t mover = 0; mover < moverCount; ++mover) {
        inboxes.push_back(here.makeFolder("in " + std::to_string(mover)));
        for (size_t i = 0; i < count; ++i) {
            const std::string content = std::to_string(mover) + ':' + std::to_string(i);
            writeFile(inboxes.back() + '/' + nameOf(i), content);
            all.insert(content);
        }
    }
    QVERIFY(runMovers(ways[way], inboxes, out, count));
    for (const std::string& inbox : inboxes)
        QCOMPARE(namesIn(inbox), QByteArrayList());
    QVERIFY(contentsIn(out) == all);
    reportRuns(all.size());
}

void TestManyMovers::theSameFiles()
{
    QFETCH(const int, way);
    const size_t count = stressSize(size_t(300), size_t(20'000));
    const ScratchFolder here;
    const ScratchFolder there(ways[way].acrossVolumes ? folderOnAnotherVolume() : std::string());
    const std::string inbox = here.makeFolder("in");
    const std::string out = there.makeFolder("out");
    std::multiset<std::string> all;
    for (size_t i = 0; i < count; ++i) {
        writeFile(inbox + '/' + nameOf(i), std::to_string(i));
        all.insert(std::to_string(i));
    }
    QVERIFY(runMovers(ways[way], std::vector<std::string>(moverCount, inbox), out, count));
    std::multiset<std::string> found = contentsIn(out);
    found.merge(contentsIn(inbox));
    QVERIFY(found == all);
    QCOMPARE(namesIn(inbox), QByteArrayList());
    reportRuns(count * moverCount);
}

HARBEX_TEST_MAIN(TestManyMovers)

#include "tst_ManyMovers.moc"
