#include "fs/RemoteVolume.h"
#include "support/InterceptedMove.h"
#include "support/TestMain.h"

#include <cstdint>
#include <cstring>
#include <map>

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
        // Numbers of statfs(2), from the kernel's headers and from the sources of these file systems.
        const std::map<uint32_t, bool> isRemote{
            {0x6969, true},      {0xff534d42, true},  {0xfe534d42, true},  {0x517b, true},
            {0x65735546, true},  {0x01021997, true},  {0x00c36400, true},  {0x5346414f, true},
            {0x6b414653, true},  {0x73757245, true},  {0x564c, true},      {0x7461636f, true},
            {0x786f4256, true},  {0x0bd00bd3, true},  {0xef53, false},     {0x9123683e, false},
            {0x58465342, false}, {0x01021994, false}, {0x794c7630, false}, {0x4d44, false},
            {0x2011bab0, false}, {0x5346544e, false}, {0xf2f52010, false}, {0, false}};
        const auto isUnknown = [&place](const Interceptor& interceptor) {
            const auto work = [&place]() -> Outcome<void> {
                if (outcomeUnknown(place, {EIO})) return SystemError{EIO};
                return {};
            };
            return !runIntercepted({"fstatfs"}, work, interceptor).succeeded();
        };
        for (const auto& volume : isRemote) {
            const auto answer = [&volume](const InterceptedCall& call) {
                return answerVolume(call, volume.first);
            };
            QVERIFY2(isUnknown(answer) == volume.second, qPrintable(QString::number(volume.first, 16)));
        }
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
