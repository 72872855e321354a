#include "fs/RemoteVolume.h"
#include "support/InterceptedMove.h"
#include "support/TestMain.h"

#include <cstring>

using namespace harbex;
using namespace harbex::test;

/// Whether a failed change may have happened, depending on the volume and on the error.
class TestRemoteVolume : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void answersOfRemoteVolumesCanBeLost()
    {
        const ScratchFolder scratch;
        const DirEntry place{AT_FDCWD, scratch.path() + "/entry"};
        const auto isUnknown = [&place](const Interceptor& interceptor) {
            const auto work = [&place]() -> Outcome<void> {
                if (outcomeUnknown(place, {EIO})) return SystemError{EIO};
                return {};
            };
            return !runIntercepted({"fstatfs"}, work, interceptor).succeeded();
        };
        const auto isRemote = [&isUnknown](uint type) {
            return isUnknown([type](const InterceptedCall& call) { return answerVolume(call, type); });
        };
        // Numbers of statfs(2), from the kernel's headers and from the sources of these file systems.
        for (const uint type :
             {0x6969U, 0xff534d42U, 0xfe534d42U, 0x517bU, 0x65735546U, 0x01021997U, 0x00c36400U, 0x5346414fU,
              0x6b414653U, 0x73757245U, 0x564cU, 0x7461636fU, 0x786f4256U, 0x0bd00bd3U})
            QVERIFY2(isRemote(type), qPrintable(QString::number(type, 16)));
        for (const uint type : {0xef53U, 0x9123683eU, 0x58465342U, 0x01021994U, 0x794c7630U, 0x4d44U,
                                0x2011bab0U, 0x5346544eU, 0xf2f52010U, 0U})
            QVERIFY2(!isRemote(type), qPrintable(QString::number(type, 16)));
        QVERIFY(isUnknown([](const InterceptedCall&) { return Answer::fail(EIO); }));
    }

    void aRefusalIsNotALostAnswer()
    {
        const ScratchFolder scratch;
        // The volume of a missing folder is unknown, so only the error counts.
        const DirEntry place{AT_FDCWD, scratch.path() + "/missing/entry"};
        for (const int error : {EACCES, EBUSY, EDQUOT, EEXIST, ENOSPC, ENOTEMPTY, EPERM, EROFS, EXDEV})
            QVERIFY2(!outcomeUnknown(place, {error}), strerrorname_np(error));
        for (const int error : {EIO, ENOENT, ETIMEDOUT, ECONNRESET, EINTR, ESTALE, ENOTCONN})
            QVERIFY2(outcomeUnknown(place, {error}), strerrorname_np(error));
    }
};

HARBEX_TEST(TestRemoteVolume)

#include "tst_RemoteVolume.moc"
