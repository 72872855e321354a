#include "fs/EntryName.h"
#include "support/MoveRounds.h"
#include "support/Stress.h"
#include "support/TestMain.h"
#include "support/TreeSnapshot.h"

#include <array>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <linux/magic.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Writes into a file and resets its times, as programs do that synchronise folders. Waits first until the
/// clock of the file system is later than the last change of the file.
void rewrite(const std::string& path, const std::string& content, off_t at = 0)
{
    const struct stat data = statusOf(path);
    timespec now = {};
    do {
        ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    } while (now.tv_sec == data.st_ctim.tv_sec && now.tv_nsec <= data.st_ctim.tv_nsec);
    const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (::pwrite(file.get(), content.data(), content.size(), at) != ssize_t(content.size()))
        qFatal("cannot rewrite %s", path.c_str());
    setTimes(path, data.st_atim, data.st_mtim);
}

void rewriteAll(const std::string& path)
{
    rewrite(path, std::string(size_t(statusOf(path).st_size), '!'));
}

void replace(const std::string& path)
{
    writeFile(path + ".new", "saved again");
    renameEntry(path + ".new", path);
}

/// A change of the source, or of an entry in it, by another program.
struct Change {
    const char* name;
    void (*make)(const std::string& path);
    /// The content that must survive the move of a file with the content "content". nullptr if there is none.
    const char* survives;
    /// The path of the changed entry in a source that is a folder.
    const char* inFolder = "/file";

    [[nodiscard]] bool isAddition() const { return inFolder != std::string("/file"); }
};

const std::array<Change, 6> changes = {{
    {"appended to", [](const std::string& path) { appendToFile(path, " and more"); }, "content and more"},
    {"cut", [](const std::string& path) { resizeFile(path, 3); }, "con"},
    {"replaced", replace, "saved again"},
    {"rewritten with its size and time", rewriteAll, "!!!!!!!"},
    {"deleted", removeEntry, nullptr},
    {"added", [](const std::string& path) { writeFile(path, "new"); }, "new", "/sub/added"},
}};

/// A folder that symbolic links lead to. No move may change it or copy from it.
class LinkTarget
{
    const ScratchFolder m_scratch;

public:
    const std::string folder = m_scratch.makeFolder("precious");
    const std::string file = folder + "/inside";

    LinkTarget()
    {
        makeFolder(folder + "/sub");
        // Includes names that are in the moved tree.
        for (const char* name : {"/inside", "/other", "/file", "/sub/other"})
            writeFile(folder + name, "precious");
        m_before = snapshotOf(folder);
    }

    [[nodiscard]] bool isUntouched() const { return snapshotOf(folder) == m_before; }

    /// Returns whether the folder at `path` contains a copy of a file, or of the begin of a file.
    [[nodiscard]] static bool isIn(const std::string& path)
    {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
            const bool isFile = !entry.is_symlink() && entry.is_regular_file();
            const bool isCopy = isFile && contents(entry.path().string()).startsWith('p');
            if (isCopy || entry.path().filename() == "inside") return true;
        }
        return false;
    }

private:
    QByteArray m_before;
};

bool isFullForm()
{
    return stressSize(false, true);
}

/// Returns whether a change at `path` before this call can have another effect than the same change before
/// the next call: the call refers to the path or to a folder above it. In the full form, every call counts.
bool maySee(const InterceptedCall& call, const std::string& path)
{
    if (isFullForm()) return true;
    const std::string subject = subjectOf(call);
    return subject.empty() || subject == path || path.starts_with(subject + '/') ||
           subject.ends_with("/same");
}

/// Returns whether a case copies the content. The cases without RENAME_NOREPLACE differ only in the last
/// step.
bool copiesContent(const MoveCase& each)
{
    return each.acrossVolumes && each.lacks.noReplace == 0 && each.kind != "link" &&
           (isFullForm() || !each.isPretended);
}

MoveCase across(const char* kind, const Lacks& lacks = {})
{
    return {"", kind, true, lacks};
}

} // namespace

/// Moves during which another program changes something, before each system call in turn. In the end no entry
/// of the other program is lost, and the source is not lost.
class TestFileMoveRaces : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void anObstacleBeforeEveryCall_data()
    {
        QTest::addColumn<MoveCase>("moveCase");
        QTest::addColumn<QByteArray>("obstacle");
        // The last one of the brief form stands for one of each kind.
        std::vector<const char*> obstacles = {"file", "folder", "dangling link", ""};
        if (isFullForm()) obstacles.assign(std::begin(obstacleKinds), std::end(obstacleKinds));
        for (const MoveCase& each : allMoveCases())
            for (const char* obstacle : obstacles)
                QTest::addRow("%s, %s", each.name, obstacle) << each << QByteArray(obstacle);
    }

    void anObstacleBeforeEveryCall()
    {
        QFETCH(const MoveCase, moveCase);
        QFETCH(const QByteArray, obstacle);
        QByteArray kind = obstacle;
        QByteArray made;
        bool isSwapped = false;
        // A rename without RENAME_NOREPLACE replaces an entry that is like the moved one.
        const auto mayReplace = [&](const InterceptedCall& call) {
            const bool isFolder = kind == "folder" || kind == "full folder";
            return call.name.starts_with("rename") && isFolder == moveCase.isFolder() &&
                   kind != "full folder";
        };
        const auto concernsTheTarget = [&](const MoveFixture&, const InterceptedCall& call) {
            const bool makesTarget = call.name.starts_with("rename") || call.name == "linkat";
            if (!obstacle.isEmpty() && !isFullForm()) return makesTarget;
            return !onlyReads(call) || (call.name == "statx" && lastPathComponent(call.text(1)) == "target");
        };
        int refused = 0;
        MoveRounds rounds(moveCase);
        const auto makeIt = [&](const MoveFixture& fixture, const InterceptedCall& call) {
            if (obstacle.isEmpty()) kind = obstacleKinds[rounds.count % std::size(obstacleKinds)];
            made.clear();
            isSwapped = moveCase.leavesPlaceholder && fixture.isPlaceholder() && !mayReplace(call);
            if (isSwapped) removeEntry(fixture.target);
            if (exists(fixture.target)) return;
            makeObstacle(kind.toStdString(), fixture.target);
            made = snapshotOf(fixture.target);
        };
        while (rounds.next(concernsTheTarget, makeIt)) {
            const MoveFixture& fixture = rounds.fixture;
            if (made.isEmpty()) {
                QCOMPARE(rounds.result(), MovePlaces::moved());
                continue;
            }
            ++refused;
            // The rename over a placeholder reports why it does not replace the obstacle.
            const int error = rounds.run.error;
            QVERIFY2(isSwapped ? error != 0 : error == EEXIST, rounds.where());
            QVERIFY2(snapshotOf(fixture.target) == made, rounds.where());
            QVERIFY2(fixture.isSourceWhole(), rounds.where());
            QVERIFY2(fixture.leftovers().isEmpty(), rounds.where());
        }
        QVERIFY(refused > 0);
        reportRuns(rounds.count);
    }

    void theSourceChangesBeforeEveryCall_data()
    {
        QTest::addColumn<MoveCase>("moveCase");
        QTest::addColumn<Change>("change");
        for (const MoveCase& each : allMoveCases()) {
            for (const Change& change : changes)
                if (copiesContent(each) && (each.isFolder() || !change.isAddition()))
                    QTest::addRow("%s, %s", each.name, change.name) << each << change;
        }
    }

    void theSourceChangesBeforeEveryCall()
    {
        QFETCH(const MoveCase, moveCase);
        QFETCH(const Change, change);
        const std::string below = moveCase.isFolder() ? change.inFolder : "";
        const auto mayChange = [&](const MoveFixture& fixture, const InterceptedCall& call) {
            const std::string path = fixture.source + below;
            // Nothing detects a change between the last check of a file and its removal.
            const bool isBeingRemoved =
                call.name == "unlinkat" && path.ends_with('/' + call.text(1)) && exists(fixture.target);
            return !isBeingRemoved && exists(change.isAddition() ? parentPath(path) : path) &&
                   maySee(call, path);
        };
        const auto makeIt = [&](const MoveFixture& fixture, const InterceptedCall&) {
            change.make(fixture.source + below);
        };
        int noticed = 0;
        MoveRounds rounds(moveCase);
        while (rounds.next(mayChange, makeIt)) {
            const MoveFixture& fixture = rounds.fixture;
            const bool moved = rounds.run.succeeded();
            noticed += !moved;
            QVERIFY2(fixture.leftovers().isEmpty(), rounds.where());
            if (change.survives)
                QVERIFY2(contents((moved ? fixture.target : fixture.source) + below) == change.survives,
                         rounds.where());
            if (moved) {
                QVERIFY2(!exists(fixture.source), rounds.where());
            } else if (!moveCase.isFolder()) {
                QVERIFY2(!exists(fixture.target), rounds.where());
            } else {
                // A published copy is complete. It is from before the change or from after it.
                const bool isThere = contents(fixture.target + "/sub/other") == "other content";
                QVERIFY2(isThere == exists(fixture.target), rounds.where());
                QVERIFY2(isThere || contents(fixture.source + "/sub/other") == "other content",
                         rounds.where());
            }
        }
        QVERIFY(noticed > 0);
        reportRuns(rounds.count);
    }

    void aLinkBeforeEveryCall_data()
    {
        QTest::addColumn<MoveCase>("moveCase");
        QTest::addColumn<QByteArray>("replaced");
        for (const MoveCase& each : allMoveCases()) {
            if (each.kind == "link") continue;
            // The other cases across volumes differ only in the last step.
            const bool isMain =
                !each.isPretended && !each.isTouched && (!each.acrossVolumes || each.lacks.noReplace == 0);
            if (isMain || isFullForm()) QTest::addRow("%s, all of it", each.name) << each << QByteArray();
            if (!each.isFolder() || !each.acrossVolumes || !isMain) continue;
            for (const char* below : {"/sub", "/file", "/sub/other"})
                if (isFullForm() || below != QByteArray("/sub/other"))
                    QTest::addRow("%s, %s", each.name, below) << each << QByteArray(below);
        }
    }

    void aLinkBeforeEveryCall()
    {
        QFETCH(const MoveCase, moveCase);
        QFETCH(const QByteArray, replaced);
        const std::string below = replaced.toStdString();
        const bool isFolder = moveCase.isFolder() && (below.empty() || below == "/sub");
        const LinkTarget linkTarget;
        QByteArray original;
        const auto mayReplace = [&](const MoveFixture& fixture, const InterceptedCall& call) {
            if (call.index == 0) original = snapshotOf(fixture.source + below);
            return exists(fixture.source + below) && maySee(call, fixture.source + below);
        };
        const auto makeIt = [&](const MoveFixture& fixture, const InterceptedCall&) {
            renameEntry(fixture.source + below, fixture.source + "-aside");
            makeLink(fixture.source + below, isFolder ? linkTarget.folder : linkTarget.file);
        };
        size_t failures = 0;
        MoveRounds rounds(moveCase);
        while (rounds.next(mayReplace, makeIt)) {
            const MoveFixture& fixture = rounds.fixture;
            failures += !rounds.run.succeeded();
            QVERIFY2(rounds.run.error != EEXIST, rounds.where());
            QVERIFY2(linkTarget.isUntouched(), rounds.where());
            QVERIFY2(!LinkTarget::isIn(fixture.out), rounds.where());
            // If a part of a folder was removed already, the copy is complete.
            QVERIFY2(snapshotOf(fixture.source + "-aside") == original || fixture.isTargetWhole(),
                     rounds.where());
            QCOMPARE(fixture.leftovers(), QByteArrayList{"source-aside"});
        }
        QVERIFY(rounds.count > 0 && (failures > 0 || !moveCase.acrossVolumes));
        reportRuns(rounds.count);
    }

    void aTouchBeforeEveryCall_data()
    {
        QTest::addColumn<MoveCase>("moveCase");
        QTest::addColumn<QByteArray>("below");
        QTest::addColumn<QByteArray>("kind");
        for (const MoveCase& each : allMoveCases()) {
            // The cases without RENAME_NOREPLACE differ only in the last step.
            if (!each.acrossVolumes || each.lacks.noReplace != 0 || each.isTouched) continue;
            if (each.isPretended && !isFullForm()) continue;
            const auto add = [&](const char* below, const char* kind) {
                QTest::addRow("%s, %s%s", each.name, kind, below)
                    << each << QByteArray(below) << QByteArray(kind);
            };
            add("", "time");
            if (!each.isFolder()) add("", "second name");
            if (each.kind != "link") add("", "permissions");
            if (!each.isFolder()) continue;
            add("/sub", "permissions");
            add("/file", "permissions");
            for (const char* below : {"/file", "/sub/other", "/link"})
                add(below, "second name");
        }
    }

    // A program that synchronises folders sets attributes, and a backup program makes hard links.
    void aTouchBeforeEveryCall()
    {
        QFETCH(const MoveCase, moveCase);
        QFETCH(const QByteArray, below);
        QFETCH(const QByteArray, kind);
        const auto isUnpublished = [&](const MoveFixture& fixture, const InterceptedCall& call) {
            return !exists(fixture.target) && maySee(call, fixture.source + below.toStdString());
        };
        QByteArray touched;
        const auto makeIt = [&](const MoveFixture& fixture, const InterceptedCall&) {
            const std::string path = fixture.source + below.toStdString();
            touch(path);
            if (kind == "permissions" && ::chmod(path.c_str(), 0711) != 0) qFatal("cannot change the mode");
            if (kind == "second name") linkFile(path, fixture.here() + "/name");
            touched = snapshotOf(fixture.source);
        };
        size_t moved = 0;
        MoveRounds rounds(moveCase);
        while (rounds.next(isUnpublished, makeIt)) {
            const MoveFixture& fixture = rounds.fixture;
            QVERIFY2(fixture.leftovers().isEmpty(), rounds.where());
            const bool isLate = rounds.isAfterSync;
            if (rounds.run.succeeded()) {
                ++moved;
                // A folder is not checked again right before its removal.
                const bool mayBeOld = isLate && moveCase.isFolder() && fixture.isTargetWhole();
                QVERIFY2(snapshotOf(fixture.target) == touched || mayBeOld, rounds.where());
                QVERIFY2(!exists(fixture.source), rounds.where());
                continue;
            }
            // The touch came after the last check, which follows a sync.
            QVERIFY2(isLate && rounds.run.error == EBUSY, rounds.where());
            const bool isSourceThere = snapshotOf(fixture.source) == touched && !exists(fixture.target);
            QVERIFY2(isSourceThere || (moveCase.isFolder() && fixture.isTargetWhole()), rounds.where());
        }
        QVERIFY(moved > 0);
        reportRuns(rounds.count);
    }

    void oneByteChangesAfterTheCopy_data()
    {
        QTest::addColumn<bool>("hasUnnamedFiles");
        QTest::newRow("unnamed files") << true;
        QTest::newRow("no unnamed files") << false;
    }

    // The times are reset, so only the content differs.
    void oneByteChangesAfterTheCopy()
    {
        QFETCH(const bool, hasUnnamedFiles);
        for (const qsizetype at : {0, 131'071, 131'072, 399'999, 500'000, 999'999}) {
            for (const bool isChanged : {true, false}) {
                const MoveFixture fixture(across("large file", {.unnamedFiles = !hasUnnamedFiles}));
                // The end of the file is a hole.
                resizeFile(fixture.source, 1'000'000);
                const InterceptedRun run = fixture.move([&](const InterceptedCall& call) {
                    if (!isSync(call) || call.ordinal != 1 || exists(fixture.target))
                        return Answer::proceed();
                    const QByteArray old = contents(fixture.source).mid(at, 1);
                    rewrite(fixture.source, isChanged ? "n" : old.toStdString(), at);
                    return Answer::proceed();
                });
                const std::string& whole = isChanged ? fixture.source : fixture.target;
                QCOMPARE(run.error, isChanged ? EBUSY : 0);
                QCOMPARE(contents(whole).size(), 1'000'000);
                QVERIFY(!isChanged || contents(whole).at(at) == 'n');
                QVERIFY(!exists(isChanged ? fixture.target : fixture.source));
                QVERIFY(fixture.leftovers().isEmpty());
            }
        }
    }

    // Reading a hole of this size would take hours.
    void holesAreNotCompared()
    {
        const MoveFixture fixture({"", "file", true, {}, false, false, true});
        resizeFile(fixture.source, off_t(1) << 40);
        const InterceptedRun run = fixture.move(proceedAlways);
        QCOMPARE(run.error, 0);
        QVERIFY(!exists(fixture.source));
        // One for the copy, one for the end, and one of each file for the comparison.
        QCOMPARE(run.count("pread64"), 4);
    }

    void aFileIsReplacedByOneLikeIt()
    {
        const MoveFixture fixture(across("file"));
        const InterceptedRun run = fixture.move([&](const InterceptedCall& call) {
            if (!isSync(call)) return Answer::proceed();
            const std::string other = fixture.source + ".new";
            writeFile(other, "content");
            const struct stat data = statusOf(fixture.source);
            setTimes(other, data.st_atim, data.st_mtim);
            touch(other);
            renameEntry(other, fixture.source);
            return Answer::proceed();
        });
        QCOMPARE(run.count("fsync"), 1);
        QCOMPARE(fixture.result(run.error), MovePlaces::kept(EBUSY));
    }

    // The new link may get the inode number of the old one.
    void aLinkIsReplacedByOneLikeIt()
    {
        for (const char* text : {"anywhere", "nowhere"}) {
            const bool isSame = text == std::string("nowhere");
            const MoveFixture fixture(across("link"));
            bool isReplaced = false;
            const InterceptedRun run = fixture.move([&](const InterceptedCall& call) {
                if (isSync(call) && !isReplaced) {
                    isReplaced = true;
                    removeEntry(fixture.source);
                    makeLink(fixture.source, text);
                }
                if (call.name != "statx") return Answer::proceed();
                return answerStatus(call, [](struct statx& data) {
                    if (!S_ISLNK(data.stx_mode)) return;
                    data.stx_ino = 12345;
                    data.stx_size = 7;
                    data.stx_mtime = {};
                });
            });
            QVERIFY(isReplaced);
            QCOMPARE(run.error, isSame ? 0 : EBUSY);
            QCOMPARE(exists(fixture.source), !isSame);
            QCOMPARE(exists(fixture.target), isSame);
        }
    }

    void aFileWithTwoNamesIsRewrittenAtTheEnd()
    {
        const MoveFixture fixture(across("file"));
        linkFile(fixture.source, fixture.here() + "/name");
        const InterceptedRun run = fixture.move([&](const InterceptedCall& call) {
            if (call.name == "linkat") rewrite(fixture.source, "CONTENT");
            return Answer::proceed();
        });
        QCOMPARE(run.error, EBUSY);
        QCOMPARE(contents(fixture.source), QByteArray("CONTENT"));
        QVERIFY(!exists(fixture.target));
    }

    void aFolderChangesButNotItsTimes()
    {
        for (const bool isAdded : {true, false}) {
            const MoveFixture fixture(across("folder"));
            const InterceptedRun run = fixture.move([&](const InterceptedCall& call) {
                if (call.name == "syncfs" && isAdded) writeFile(fixture.source + "/added", "new");
                if (call.name == "syncfs" && !isAdded) removeEntry(fixture.source + "/link");
                if (call.name != "statx") return Answer::proceed();
                return answerStatus(call, [](struct statx& data) {
                    if (S_ISDIR(data.stx_mode)) data.stx_mtime = data.stx_ctime = {};
                });
            });
            QCOMPARE(run.error, EBUSY);
            QVERIFY(!exists(fixture.target));
            QCOMPARE(contents(fixture.source + "/added"), QByteArray(isAdded ? "new" : "(no file)"));
            QCOMPARE(contents(fixture.source + "/file"), QByteArray("content"));
        }
    }

    void theAnswerToARemovalIsLost()
    {
        const auto check = [](uint volumeType, int answer, bool staysAtTarget) {
            const MoveFixture fixture(across("file"));
            const InterceptedRun run = fixture.move([&](const InterceptedCall& call) {
                if (call.name != "unlinkat" || !exists(fixture.target) || !exists(fixture.source))
                    return answerVolume(call, volumeType);
                removeEntry(fixture.source);
                return Answer::fail(answer);
            });
            QVERIFY(!exists(fixture.source));
            QCOMPARE(contents(fixture.target), QByteArray(staysAtTarget ? "content" : "(no file)"));
            QCOMPARE(run.error, staysAtTarget && answer == ENOENT ? 0 : answer);
        };
        for (const int answer : {ENOENT, EIO, ETIMEDOUT, ENOTCONN, ESTALE})
            check(NFS_SUPER_MAGIC, answer, true);
        // On a local volume, another program has taken the file.
        check(EXT4_SUPER_MAGIC, ENOENT, false);
    }

    void aChangeAtEverySync_data()
    {
        addMoveCaseRows([](const MoveCase& each) { return each.acrossVolumes && each.kind != "link"; });
    }

    void aChangeAtEverySync()
    {
        QFETCH(const MoveCase, moveCase);
        const MoveFixture fixture(moveCase);
        bool wasPublished = false;
        const InterceptedRun run = fixture.move([&](const InterceptedCall& call) {
            if (isSync(call)) touch(fixture.source);
            wasPublished |= exists(fixture.target);
            return Answer::proceed();
        });
        QVERIFY(!wasPublished);
        QCOMPARE(fixture.result(run.error), MovePlaces::kept(EBUSY));
        QCOMPARE(run.count("fsync") + run.count("syncfs"), 4);
    }
};

HARBEX_TEST(TestFileMoveRaces)

#include "tst_FileMoveRaces.moc"
