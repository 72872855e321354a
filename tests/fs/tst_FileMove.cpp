#include "support/MovePlaces.h"
#include "support/TestMain.h"
#include "support/ThreadGroup.h"
#include "support/TreeSnapshot.h"

#include <atomic>
#include <cstring>
#include <linux/magic.h>

using namespace harbex;
using namespace harbex::test;

/// Moves on one volume, also on file systems without RENAME_NOREPLACE.
class TestFileMove : public QObject, private MovePlaces
{
    Q_OBJECT

private Q_SLOTS:
    void init() { makePlaces(); }

    void everyKindOfEntry_data()
    {
        QTest::addColumn<QByteArray>("kind");
        QTest::addColumn<int>("noReplace");
        QTest::addColumn<int>("noLinks");
        for (const char* kind : {"file", "link", "dangling link", "pipe", "full folder"}) {
            const auto add = [kind](const char* what, int noReplace, int noLinks) {
                QTest::addRow("%s%s%s", kind, what, noLinks != 0 ? strerrorname_np(noLinks) : "")
                    << QByteArray(kind) << noReplace << noLinks;
            };
            add("", 0, 0);
            add(", no RENAME_NOREPLACE (EINVAL)", EINVAL, 0);
            add(", no RENAME_NOREPLACE (ENOSYS)", ENOSYS, 0);
            add(", no RENAME_NOREPLACE (EOPNOTSUPP)", EOPNOTSUPP, 0);
            for (const int error : {EPERM, EOPNOTSUPP, ENOSYS, EMLINK})
                add(", no RENAME_NOREPLACE, no links: ", EINVAL, error);
        }
    }

    void everyKindOfEntry()
    {
        QFETCH(const QByteArray, kind);
        QFETCH(const int, noReplace);
        QFETCH(const int, noLinks);
        if (kind == "pipe")
            QCOMPARE(::mkfifo(source.c_str(), 0600), 0);
        else
            makeObstacle(kind.toStdString(), source);
        const ino_t inode = inodeOf(source);
        QCOMPARE(move(lacking(noReplace, noLinks)), moved());
        QCOMPARE(inodeOf(target), inode);
    }

    void namesOfAnyBytes_data()
    {
        QTest::addColumn<QByteArray>("name");
        QByteArray every;
        for (int byte = 1; byte < 256; ++byte) {
            if (byte != '/') every += char(byte);
        }
        QCOMPARE(every.size(), 254);
        QTest::newRow("every byte") << every;
        QTest::newRow("255 bytes") << QByteArray(255, 'n');
        QTest::newRow("three dots") << QByteArray("...");
        QTest::newRow("a line break only") << QByteArray("\n");
        QTest::newRow("spaces") << QByteArray("  ");
        QTest::newRow("invalid text") << QByteArray("\xff\xfe\xc3");
    }

    void namesOfAnyBytes()
    {
        QFETCH(const QByteArray, name);
        source = in + '/' + name.toStdString();
        target = out + '/' + name.toStdString();
        writeFile(source, "content");
        QCOMPARE(errorOfMove(source, target), 0);
        QVERIFY(!exists(source));
        QCOMPARE(namesIn(out), QByteArrayList{name});
        QCOMPARE(contents(target), QByteArray("content"));
    }

    void nothingIsReplaced_data() { addObstacleRows(); }

    void nothingIsReplaced()
    {
        QFETCH(const QByteArray, kind);
        QFETCH(const QByteArray, obstacle);
        makeObstacle(kind.toStdString(), source);
        makeObstacle(obstacle.toStdString(), target);
        QCOMPARE(move(), kept(EEXIST));
    }

    void failsWithTheReason_data()
    {
        QTest::addColumn<QByteArray>("from");
        QTest::addColumn<QByteArray>("into");
        QTest::addColumn<int>("error");
        QTest::newRow("no source") << QByteArray("in/missing") << QByteArray("out/a") << ENOENT;
        QTest::newRow("no destination") << QByteArray("in/source") << QByteArray("missing/a") << ENOENT;
        QTest::newRow("a file as destination") << QByteArray("in/source") << QByteArray("file/a") << ENOTDIR;
        QTest::newRow("a name too long")
            << QByteArray("in/source") << "out/" + QByteArray(256, 'n') << ENAMETOOLONG;
        QTest::newRow("a loop of links") << QByteArray("in/source") << QByteArray("loop/a") << ELOOP;
        QTest::newRow("onto itself") << QByteArray("in/source") << QByteArray("in/source") << EEXIST;
    }

    void failsWithTheReason()
    {
        QFETCH(const QByteArray, from);
        QFETCH(const QByteArray, into);
        QFETCH(const int, error);
        const auto inScratch = [this](const QByteArray& path) { return here() + '/' + path.toStdString(); };
        writeFile(inScratch("in/source"), "content");
        writeFile(inScratch("file"), "");
        makeFolder(inScratch("out"));
        makeLink(inScratch("loop"), "loop");
        const QByteArray before = snapshotOf(here());
        QCOMPARE(errorOfMove(inScratch(from), inScratch(into)), error);
        QCOMPARE(errorOfMove(inScratch("in/source"), ""), ENOENT);
        QCOMPARE(errorOfMove("", inScratch("out/a")), ENOENT);
        QCOMPARE(snapshotOf(here()), before);
    }

    void aRefusedRenameIsNeverACopy_data()
    {
        QTest::addColumn<int>("error");
        for (const int error :
             {EACCES, EPERM, EROFS, EIO, ENOSPC, EDQUOT, EBUSY, EMLINK, ELOOP, EEXIST, ENOENT, ETXTBSY})
            QTest::newRow(strerrorname_np(error)) << error;
    }

    void aRefusedRenameIsNeverACopy()
    {
        QFETCH(const int, error);
        writeFile(source, "content");
        QCOMPARE(move(Lacks{.noReplace = error}), kept(error));
        for (const char* call : {"linkat", "mkdirat", "renameat", "pread64", "pwrite64", "copy_file_range"})
            QVERIFY2(run.count(call) == 0, call);
    }

    void aFolderIntoItself_data()
    {
        QTest::addColumn<int>("noReplace");
        QTest::newRow("RENAME_NOREPLACE") << 0;
        QTest::newRow("no RENAME_NOREPLACE") << EINVAL;
    }

    void aFolderIntoItself()
    {
        QFETCH(const int, noReplace);
        makeFolder(source);
        makeObstacle("full folder", source + "/below");
        target = source + "/below/again";
        QCOMPARE(moveIntercepted(source, target, lacking(noReplace)).error, EINVAL);
        QCOMPARE(namesIn(source), QByteArrayList{"below"});
        QCOMPARE(namesIn(source + "/below"), QByteArrayList{"inside"});
    }

    void manyThreads_data()
    {
        QTest::addColumn<bool>("isOneTarget");
        QTest::newRow("one of many entries gets the name") << true;
        QTest::newRow("one of many moves takes the entry") << false;
    }

    void manyThreads()
    {
        QFETCH(const bool, isOneTarget);
        constexpr size_t count = 8;
        for (int round = 0; round < 50; ++round) {
            makePlaces();
            const auto sourceOf = [&](size_t i) { return isOneTarget ? source + std::to_string(i) : source; };
            const auto targetOf = [&](size_t i) { return isOneTarget ? target : target + std::to_string(i); };
            for (size_t i = 0; i < (isOneTarget ? count : 1); ++i)
                writeFile(sourceOf(i), "content");
            FileMove fileMove;
            std::atomic<int> moves = 0;
            std::atomic<int> refusals = 0;
            {
                const ThreadGroup threads(count, [&](size_t i) {
                    const Outcome<void> outcome = fileMove.moveItem(sourceOf(i), targetOf(i));
                    moves += bool(outcome);
                    refusals += !outcome && outcome.error().code == (isOneTarget ? EEXIST : ENOENT);
                });
            }
            QCOMPARE(moves, 1);
            QCOMPARE(refusals, int(count) - 1);
            QCOMPARE(namesIn(out).size(), 1);
            QCOMPARE(namesIn(in).size(), isOneTarget ? qsizetype(count) - 1 : 0);
        }
    }

    void anEntryInTheNewFolderStays()
    {
        makeObstacle("full folder", source);
        remember();
        const auto interceptor = [this](const InterceptedCall& call) {
            if (call.name == "renameat") writeFile(target + "/obstacle", "an obstacle");
            return Answer::proceed();
        };
        const int error = moveIntercepted(source, target, lacking(EINVAL), interceptor).error;
        QVERIFY(error == ENOTEMPTY || error == EEXIST);
        QCOMPARE(contents(target + "/obstacle"), QByteArray("an obstacle"));
        QVERIFY(isSourceWhole());
    }

    void aNewFileUnderTheOldNameStays()
    {
        writeFile(source, "content");
        bool isLinked = false;
        const auto interceptor = [&](const InterceptedCall& call) {
            if (isLinked && call.name == "statx" && call.text(1) == source) {
                isLinked = false;
                removeEntry(source);
                writeFile(source, "saved again");
            }
            isLinked |= call.name == "linkat";
            return Answer::proceed();
        };
        QCOMPARE(moveIntercepted(source, target, lacking(EINVAL), interceptor).error, EBUSY);
        QCOMPARE(contents(source), QByteArray("saved again"));
        QCOMPARE(namesIn(out), QByteArrayList());
    }

    void aChangeWhoseAnswerWasLost_data()
    {
        QTest::addColumn<QByteArray>("kind");
        QTest::addColumn<bool>("noLinks");
        QTest::addColumn<QByteArray>("lost");
        QTest::addColumn<int>("answer");
        for (const int answer : {ENOENT, EIO, ETIMEDOUT}) {
            const auto row = [answer](const char* kind, bool noLinks, const char* lost) {
                QTest::addRow("%s, %s, %s", kind, lost, strerrorname_np(answer))
                    << QByteArray(kind) << noLinks << QByteArray(lost) << answer;
            };
            row("file", false, "unlinkat");
            row("file", true, "renameat");
            row("folder", false, "renameat");
        }
    }

    // The server has made the change, but the client gets an error.
    void aChangeWhoseAnswerWasLost()
    {
        QFETCH(const QByteArray, kind);
        QFETCH(const bool, noLinks);
        QFETCH(const QByteArray, lost);
        QFETCH(const int, answer);
        makeObstacle(kind.toStdString(), source);
        const ino_t inode = inodeOf(source);
        const auto interceptor = [&](const InterceptedCall& call) {
            if (call.name != lost.constData() || !exists(source)) return answerVolume(call, NFS_SUPER_MAGIC);
            if (lost == "unlinkat")
                removeEntry(source);
            else
                renameEntry(source, target);
            return Answer::fail(answer);
        };
        const Lacks lacks = lacking(EINVAL, noLinks ? EPERM : 0);
        const int error = moveIntercepted(source, target, lacks, interceptor).error;
        QCOMPARE(error, lost == "unlinkat" && answer == ENOENT ? 0 : answer);
        QCOMPARE(inodeOf(target), inode);
    }

    void aFallbackFindsAnotherVolume_data()
    {
        QTest::addColumn<QByteArray>("kind");
        QTest::addColumn<bool>("noLinks");
        QTest::addColumn<QByteArray>("call");
        QTest::newRow("file") << QByteArray("file") << false << QByteArray("linkat");
        QTest::newRow("file, no links") << QByteArray("file") << true << QByteArray("renameat");
        QTest::newRow("folder") << QByteArray("full folder") << false << QByteArray("renameat");
    }

    void aFallbackFindsAnotherVolume()
    {
        QFETCH(const QByteArray, kind);
        QFETCH(const bool, noLinks);
        QFETCH(const QByteArray, call);
        makeObstacle(kind.toStdString(), source);
        const ino_t inode = inodeOf(source);
        const auto interceptor = [&call](const InterceptedCall& now) {
            return now.name == call.constData() && now.ordinal == 1 ? Answer::fail(EXDEV) : Answer::proceed();
        };
        QCOMPARE(move(lacking(EINVAL, noLinks ? EPERM : 0), interceptor), moved());
        QVERIFY(inodeOf(target) != inode);
    }

private:
    static Lacks lacking(int noReplace, int noLinks = 0)
    {
        return {.noReplace = noReplace, .hardLinks = noLinks != 0, .hardLinksError = noLinks};
    }
};

HARBEX_TEST(TestFileMove)

#include "tst_FileMove.moc"
