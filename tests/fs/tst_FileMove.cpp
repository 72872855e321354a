#include "support/MovePlaces.h"
#include "support/TestMain.h"
#include "support/TreeSnapshot.h"

#include <linux/magic.h>

using namespace harbex;
using namespace harbex::test;

/// Moves on one volume, also on file systems without RENAME_NOREPLACE.
class TestFileMove : public QObject, private MovePlaces
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        makePlaces();
        lacks = {};
    }

    void everyKindOfEntry()
    {
        std::vector<Lacks> fileSystems = {{}, lacking(EINVAL), lacking(ENOSYS), lacking(EOPNOTSUPP)};
        for (const int noLinks : {EPERM, EOPNOTSUPP, ENOSYS, EMLINK})
            fileSystems.push_back(lacking(EINVAL, noLinks));
        for (const Lacks& fileSystem : fileSystems) {
            lacks = fileSystem;
            for (const std::string kind : {"file", "link", "dangling link", "pipe", "full folder"}) {
                clearPlaces();
                makeObstacle(kind, source);
                if (kind == "pipe") QCOMPARE(::mkfifo(source.c_str(), 0600), 0);
                const ino_t inode = statusOf(source).st_ino;
                QCOMPARE(move(), moved());
                QCOMPARE(statusOf(target).st_ino, inode);
            }
        }
    }

    void nothingIsReplaced()
    {
        for (const std::string& parentOfOut : {std::string(), folderOnAnotherVolume()}) {
            makePlaces(parentOfOut);
            for (const char* kind : {"file", "dangling link", "full folder"}) {
                for (const char* obstacle : obstacleKinds) {
                    clearPlaces();
                    makeObstacle(kind, source);
                    makeObstacle(obstacle, target);
                    QCOMPARE(obstacle + move(), obstacle + kept(EEXIST));
                }
            }
        }
    }

    void failsWithTheReason()
    {
        writeFile(source, "content");
        writeFile(here() + "/file", "");
        makeLink(here() + "/loop", "loop");
        const QByteArray before = snapshotOf(here());
        QCOMPARE(errorOfMove(in + "/missing", target), ENOENT);
        QCOMPARE(errorOfMove(source, here() + "/missing/a"), ENOENT);
        QCOMPARE(errorOfMove(source, here() + "/file/a"), ENOTDIR);
        QCOMPARE(errorOfMove(source, here() + "/loop/a"), ELOOP);
        QCOMPARE(errorOfMove(source, out + '/' + std::string(256, 'n')), ENAMETOOLONG);
        QCOMPARE(errorOfMove(source, source), EEXIST);
        QCOMPARE(errorOfMove(source, ""), ENOENT);
        QCOMPARE(errorOfMove("", target), ENOENT);
        QCOMPARE(snapshotOf(here()), before);
        QCOMPARE(namesIn(out), QByteArrayList());
    }

    void aRefusedRenameIsNeverACopy()
    {
        writeFile(source, "content");
        for (const int error :
             {EACCES, EPERM, EROFS, EIO, ENOSPC, EDQUOT, EBUSY, EMLINK, ELOOP, EEXIST, ENOENT, ETXTBSY}) {
            lacks.noReplace = error;
            QCOMPARE(move(), kept(error));
            for (const char* call :
                 {"linkat", "mkdirat", "renameat", "pread64", "pwrite64", "copy_file_range"})
                QVERIFY2(run.count(call) == 0, call);
        }
    }

    void aFolderIntoItself()
    {
        makeFolder(source);
        makeObstacle("full folder", source + "/below");
        target = source + "/below/again";
        for (const int noReplace : {0, EINVAL}) {
            lacks.noReplace = noReplace;
            QCOMPARE(tryMove(), EINVAL);
            QCOMPARE(namesIn(source), QByteArrayList{"below"});
            QCOMPARE(namesIn(source + "/below"), QByteArrayList{"inside"});
        }
    }

    void anEntryInTheNewFolderStays()
    {
        makeObstacle("full folder", source);
        lacks = lacking(EINVAL);
        remember();
        const int error = tryMove([this](const InterceptedCall& call) {
            if (call.name == "renameat") writeFile(target + "/obstacle", "an obstacle");
            return Answer::proceed();
        });
        QVERIFY(error == ENOTEMPTY || error == EEXIST);
        QCOMPARE(contents(target + "/obstacle"), QByteArray("an obstacle"));
        QVERIFY(isSourceWhole());
    }

    void aNewFileUnderTheOldNameStays()
    {
        writeFile(source, "content");
        lacks = lacking(EINVAL);
        bool isLinked = false;
        const int error = tryMove([&](const InterceptedCall& call) {
            if (isLinked && call.name == "statx" && call.text(1) == source) {
                isLinked = false;
                removeEntry(source);
                writeFile(source, "saved again");
            }
            isLinked |= call.name == "linkat";
            return Answer::proceed();
        });
        QCOMPARE(error, EBUSY);
        QCOMPARE(contents(source), QByteArray("saved again"));
        QCOMPARE(namesIn(out), QByteArrayList());
    }

    void aFallbackIsDisturbed_data()
    {
        QTest::addColumn<QByteArray>("kind");
        QTest::addColumn<bool>("noLinks");
        QTest::newRow("file") << QByteArray("file") << false;
        QTest::newRow("file, no links") << QByteArray("file") << true;
        QTest::newRow("folder") << QByteArray("folder") << false;
    }

    // The server has made the change, but the client gets an error. Or the names are on different volumes.
    void aFallbackIsDisturbed()
    {
        QFETCH(const QByteArray, kind);
        QFETCH(const bool, noLinks);
        lacks = lacking(EINVAL, noLinks ? EPERM : 0);
        const bool isLinked = kind == "file" && !noLinks;
        const std::string lost = isLinked ? "unlinkat" : "renameat";
        for (const int answer : {ENOENT, EIO, ETIMEDOUT}) {
            clearPlaces();
            makeObstacle(kind.toStdString(), source);
            const ino_t inode = statusOf(source).st_ino;
            const int error = tryMove([&](const InterceptedCall& call) {
                if (call.name != lost || !exists(source)) return answerVolume(call, NFS_SUPER_MAGIC);
                if (isLinked)
                    removeEntry(source);
                else
                    renameEntry(source, target);
                return Answer::fail(answer);
            });
            QCOMPARE(error, isLinked && answer == ENOENT ? 0 : answer);
            QCOMPARE(statusOf(target).st_ino, inode);
        }

        clearPlaces();
        makeObstacle(kind.toStdString(), source);
        const ino_t inode = statusOf(source).st_ino;
        const auto acrossVolumes = [&](const InterceptedCall& call) {
            const bool isFallback = call.name == (isLinked ? "linkat" : "renameat") && call.ordinal == 1;
            return isFallback ? Answer::fail(EXDEV) : Answer::proceed();
        };
        QCOMPARE(move(acrossVolumes), moved());
        QVERIFY(statusOf(target).st_ino != inode);
    }

private:
    static Lacks lacking(int noReplace, int noLinks = 0)
    {
        return {.noReplace = noReplace, .hardLinks = noLinks != 0, .hardLinksError = noLinks};
    }
};

HARBEX_TEST(TestFileMove)

#include "tst_FileMove.moc"
