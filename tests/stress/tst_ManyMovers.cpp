#include "fs/FileMove.h"
#include "fs/FreeName.h"
#include "support/InterceptedMove.h"
#include "support/Stress.h"
#include "support/TestMain.h"

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

/// Runs in a child process. Moves all files of a list into a folder, under any free name. Returns false if a
/// move fails for another reason than a race.
bool moveAll(const std::string& from, const std::string& into, size_t count)
{
    FileMove fileMove;
    for (size_t i = 0; i < count; ++i) {
        const std::string source = from + '/' + nameOf(i);
        Outcome<void> moved = fileMove.moveItem(source, uniqueDestination(source, into));
        // Another process has taken the name since.
        while (!moved && moved.error().code == EEXIST)
            moved = fileMove.moveItem(source, uniqueDestination(source, into));
        // Another process has moved the same file, or is moving it.
        if (moved || moved.error().code == ENOENT || moved.error().code == EBUSY) continue;
        std::fprintf(stderr, "%s: %s\n", source.c_str(), moved.error().description().c_str());
        return false;
    }
    return true;
}

struct FileSystems {
    const char* name;
    bool acrossVolumes;
    Lacks lacks;
};

const FileSystems fileSystems[] = {
    {"same volume", false, {}},
    {"same volume, no RENAME_NOREPLACE", false, {.noReplace = EINVAL}},
    {"same volume, no RENAME_NOREPLACE, no links", false, {.noReplace = EINVAL, .hardLinks = true}},
    {"across volumes", true, {}},
    {"across volumes, no unnamed files", true, {.unnamedFiles = true}},
    {"across volumes, no features", true, {.noReplace = EINVAL, .hardLinks = true, .unnamedFiles = true}},
};

/// Simulates missing features for the calling process.
void doWithout(const FileSystems& on)
{
    const scmp_filter_ctx filter = ::seccomp_init(SCMP_ACT_ALLOW);
    const auto refuse = [filter](int error, const char* name, const std::vector<scmp_arg_cmp>& arguments) {
        if (::seccomp_rule_add_array(filter, SCMP_ACT_ERRNO(uint32_t(error)),
                                     ::seccomp_syscall_resolve_name(name), unsigned(arguments.size()),
                                     arguments.data()) != 0)
            ::_exit(3);
    };
    // The first rename across volumes uses paths, and the kernel rejects it with EXDEV. The later ones use
    // open folders on one volume.
    const scmp_arg_cmp isOpenFolder{0, SCMP_CMP_NE, uint32_t(AT_FDCWD), 0};
    if (on.lacks.noReplace != 0 && on.acrossVolumes) refuse(on.lacks.noReplace, "renameat2", {isOpenFolder});
    if (on.lacks.noReplace != 0 && !on.acrossVolumes) refuse(on.lacks.noReplace, "renameat2", {});
    if (on.lacks.hardLinks) refuse(EPERM, "linkat", {});
    if (on.lacks.unnamedFiles)
        refuse(EOPNOTSUPP, "openat", {scmp_arg_cmp{2, SCMP_CMP_MASKED_EQ, O_TMPFILE, O_TMPFILE}});
    if (::seccomp_load(filter) != 0) ::_exit(3);
    ::seccomp_release(filter);
}

/// Starts a process for each inbox and lets all begin at the same time. Returns whether all succeeded.
bool runMovers(const FileSystems& on, const std::vector<std::string>& inboxes, const std::string& out,
               size_t count)
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
            doWithout(on);
            char byte = 0;
            // Returns when the test closes the other end.
            if (::read(start[0], &byte, 1) != 0) ::_exit(2);
            ::_exit(moveAll(inbox, out, count) ? 0 : 1);
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

/// Returns the contents of all files in a folder.
std::multiset<std::string> contentsIn(const std::string& folder)
{
    std::multiset<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        found.insert(contents(entry.path().string()).toStdString());
    return found;
}

} // namespace

/// Several processes that move into the same folder at the same time.
class TestManyMovers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void filesArriveOnce_data()
    {
        QTest::addColumn<size_t>("fileSystem");
        QTest::addColumn<bool>("isShared");
        for (size_t i = 0; i < std::size(fileSystems); ++i) {
            QTest::addRow("%s, the same names from many folders", fileSystems[i].name) << i << false;
            QTest::addRow("%s, the same files", fileSystems[i].name) << i << true;
        }
    }

    void filesArriveOnce()
    {
        QFETCH(const size_t, fileSystem);
        QFETCH(const bool, isShared);
        const FileSystems& on = fileSystems[fileSystem];
        const size_t count =
            isShared ? stressSize(size_t(300), size_t(20'000)) : stressSize(size_t(100), size_t(5000));
        const ScratchFolder here;
        const ScratchFolder there(on.acrossVolumes ? folderOnAnotherVolume() : std::string());
        const std::string out = there.makeFolder("out");
        std::vector<std::string> inboxes;
        std::multiset<std::string> all;
        for (size_t mover = 0; mover < (isShared ? 1 : moverCount); ++mover) {
            inboxes.push_back(here.makeFolder("in " + std::to_string(mover)));
            for (size_t i = 0; i < count; ++i) {
                const std::string content = std::to_string(mover) + ':' + std::to_string(i);
                writeFile(inboxes.back() + '/' + nameOf(i), content);
                all.insert(content);
            }
        }
        inboxes.resize(moverCount, inboxes.front());
        QVERIFY(runMovers(on, inboxes, out, count));
        for (const std::string& inbox : inboxes)
            QCOMPARE(namesIn(inbox), QByteArrayList());
        QVERIFY(contentsIn(out) == all);
        reportRuns(count * moverCount);
    }
};

HARBEX_TEST(TestManyMovers)

#include "tst_ManyMovers.moc"
