#include "base/FileDescriptor.h"
#include "base/FileIdentity.h"
#include "support/EngineFiles.h"
#include "support/TestMain.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

using namespace harbex;
using namespace harbex::test;

class TestFileIdentity : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theKernelGivesTheFields()
    {
        const ScratchFolder scratch("/dev/shm");
        const std::string folder = scratch.makeFolder("folder");
        struct stat status = {};
        struct statx birth = {};
        QCOMPARE(::stat(folder.c_str(), &status), 0);
        QCOMPARE(::statx(AT_FDCWD, folder.c_str(), 0, STATX_BTIME, &birth), 0);
        QVERIFY(birth.stx_btime.tv_sec != 0);
        const FileIdentity expected{status.st_dev, status.st_ino, birth.stx_btime.tv_sec,
                                    birth.stx_btime.tv_nsec};
        QVERIFY(*identityOf(folder) == expected);
        // A link is followed, and the identity does not depend on the name.
        makeLink(scratch.path() + "/link", folder);
        QVERIFY(*identityOf(scratch.path() + "/link") == expected);
        const FileDescriptor open(::open(folder.c_str(), O_PATH | O_CLOEXEC));
        renameEntry(folder, scratch.path() + "/renamed");
        QVERIFY(*identityOf(scratch.path() + "/renamed") == expected);
        QVERIFY(*identityOf(open.get()) == expected);
    }

    void aMissingFileIsAnError()
    {
        QCOMPARE(identityOf("/missing/file").error().code, ENOENT);
        QCOMPARE(identityOf(-1).error().code, EBADF);
    }
};

HARBEX_TEST(TestFileIdentity)

#include "tst_FileIdentity.moc"
