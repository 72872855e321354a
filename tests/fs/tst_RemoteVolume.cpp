#include "fs/RemoteVolume.h"
#include "support/EngineFiles.h"
#include "support/SyscallInterceptor.h"
#include "support/TestMain.h"

#include <cerrno>
#include <cstdint>
#include <map>
#include <sys/vfs.h>

using namespace harbex;
using namespace harbex::test;

/// What may have become of a change that failed, by the kind of volume and of failure.
class TestRemoteVolume : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void answersOfRemoteVolumesCanBeLost();
    void refusalIsNoLostAnswer_data();
    void refusalIsNoLostAnswer();
};

void TestRemoteVolume::answersOfRemoteVolumesCanBeLost()
{
    const ScratchFolder scratch;
    const DirEntry place{AT_FDCWD, scratch.path() + "/entry"};
    // What statfs(2) gives, as the kernel's headers and the sources of these systems have it.
    const std::map<uint32_t, bool> isRemote{
        {0x6969, true},      {0xff534d42, true},  {0xfe534d42, true},  {0x517b, true},
        {0x65735546, true},  {0x01021997, true},  {0x00c36400, true},  {0x5346414f, true},
        {0x6b414653, true},  {0x73757245, true},  {0x564c, true},      {0x7461636f, true},
        {0x786f4256, true},  {0x0bd00bd3, true},  {0xef53, false},     {0x9123683e, false},
        {0x58465342, false}, {0x01021994, false}, {0x794c7630, false}, {0x4d44, false},
        {0x2011bab0, false}, {0x5346544e, false}, {0xf2f52010, false}, {0, false}};
    const auto work = [&]() -> Outcome<void> {
        for (const auto& [type, remote] : isRemote)
            if (outcomeUnknown(place, {EIO}) != remote) return SystemError{EMEDIUMTYPE};
        // The last one cannot be read.
        return outcomeUnknown(place, {EIO}) ? Outcome<void>() : SystemError{EMEDIUMTYPE};
    };
    auto next = isRemote.begin();
    uint32_t asked = 0;
    const InterceptedRun run = runIntercepted({"fstatfs"}, work, [&](const InterceptedCall& call) {
        if (next == isRemote.end()) return Answer::fail(EIO);
        struct statfs volume = {};
        volume.f_type = asked = (next++)->first;
        call.writeMemory(call.arguments[1],
                         std::string(reinterpret_cast<const char*>(&volume), sizeof volume));
        return Answer::give(0);
    });
    QVERIFY2(run.succeeded(), qPrintable(QString::number(asked, 16)));
    // A folder that cannot be opened is on no volume that could be asked.
    QVERIFY(outcomeUnknown({AT_FDCWD, scratch.path() + "/missing/entry"}, {EIO}));
}

void TestRemoteVolume::refusalIsNoLostAnswer_data()
{
    QTest::addColumn<int>("error");
    QTest::addColumn<bool>("mayBeDone");
    for (const int error : {EACCES, EBUSY, EDQUOT, EEXIST, ENOSPC, ENOTEMPTY, EPERM, EROFS, EXDEV})
        QTest::newRow(strerrorname_np(error)) << error << false;
    for (const int error : {EIO, ENOENT, ETIMEDOUT, ECONNRESET, EINTR, ESTALE, ENOTCONN})
        QTest::newRow(strerrorname_np(error)) << error << true;
}

void TestRemoteVolume::refusalIsNoLostAnswer()
{
    QFETCH(const int, error);
    QFETCH(const bool, mayBeDone);
    const ScratchFolder scratch;
    // On a volume that cannot be asked only the failure tells.
    QCOMPARE(outcomeUnknown({AT_FDCWD, scratch.path() + "/missing/entry"}, {error}), mayBeDone);
}

HARBEX_TEST_MAIN(TestRemoteVolume)

#include "tst_RemoteVolume.moc"
