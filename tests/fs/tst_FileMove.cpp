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
        std::vector<Lacks> fileSystems = {
            {}, {.noReplace = EINVAL}, {.noReplace = ENOSYS}, {.noReplace = EOPNOTSUPP}};
        for (const int noLinks : {EPERM, EOPNOTSUPP, ENOSYS, EMLINK})
            fileSystems.push_back({.noReplace = EINVAL, .noLinks = noLinks});
        for (const Lacks& fileSystem : fileSystems) {
            lacks = fileSystem;
            for (const char* kind : {"file", "link", "dangling link", "pipe", "full folder"}) {
                clearPlaces();
                makeObstacle(kind, source);
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
        lacks.noReplace = EINVAL;
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
        lacks.noReplace = EINVAL;
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

    // The server has made the change, but the client gets an error. Or the names are on different volumes.
    void aFallbackIsDisturbed()
    {
        const auto check = [this](const char* kind, bool isLinked) {
            lacks = {.noReplace = EINVAL, .noLinks = isLinked ? 0 : EPERM};
            for (const int answer : {ENOENT, EIO, ETIMEDOUT}) {
                clearPlaces();
                makeObstacle(kind, source);
                const ino_t inode = statusOf(source).st_ino;
                const int error = tryMove([&](const InterceptedCall& call) {
                    if (call.name != (isLinked ? "unlinkat" : "renameat") || !exists(source))
                        return answerVolume(call, NFS_SUPER_MAGIC);
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
            makeObstacle(kind, source);
            const ino_t inode = statusOf(source).st_ino;
            const auto acrossVolumes = [isLinked](const InterceptedCall& call) {
                const bool isFallback = call.name == (isLinked ? "linkat" : "renameat") && call.ordinal == 1;
                return isFallback ? Answer::fail(EXDEV) : Answer::proceed();
            };
            QCOMPARE(move(acrossVolumes), moved());
            QVERIFY(statusOf(target).st_ino != inode);
        };
        check("file", true);
        check("file", false);
        check("folder", false);
    }
};

HARBEX_TEST(TestFileMove)

#include "tst_FileMove.moc"
