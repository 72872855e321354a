#include "support/MoveRounds.h"
#include "support/Stress.h"
#include "support/TestMain.h"

#include <atomic>
#include <cstring>
#include <thread>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Returns whether the move can succeed although the call of the last round failed: another method exists,
/// the call is repeated, or it only served the staging directory or the removal of leftovers, which the next
/// move does again.
bool mayFail(const MoveRounds& rounds, int error)
{
    const auto isOneOf = [&rounds](const auto&... names) { return ((rounds.call == names) || ...); };
    if (isOneOf("copy_file_range", "flock", "ioctl")) return true;
    if (isOneOf("pread64", "pwrite64")) return error == EINTR;
    const bool servesLeftovers = !rounds.hadSource || rounds.subject.find("/.harbex-") != std::string::npos;
    return servesLeftovers && isOneOf("getdents64", "openat", "statx", "unlinkat");
}

void nothing(const MoveFixture&, const InterceptedCall&) {}

} // namespace

/// Moves that are killed or stopped, or in which one system call fails. In the end the source or a complete
/// copy exists, no incomplete entry has a name, and the next move removes all leftovers.
class TestFileMoveFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void killedAtEveryCall_data() { addMoveCaseRows(); }

    void killedAtEveryCall()
    {
        QFETCH(const MoveCase, moveCase);
        const auto changesSomething = [](const MoveFixture&, const InterceptedCall& call) {
            return !onlyReads(call);
        };
        MoveRounds rounds(moveCase);
        while (rounds.next(changesSomething, nothing, Answer::kill())) {
            const MoveFixture& fixture = rounds.fixture;
            const char* where = rounds.where();
            QVERIFY2(rounds.run.wasKilled, where);
            const bool isWhole = fixture.isTargetWhole();
            QVERIFY2(isWhole || fixture.isSourceWhole(), where);
            const bool isPlaceholder = !isWhole && moveCase.leavesPlaceholder && fixture.isPlaceholder();
            QVERIFY2(isWhole || isPlaceholder || !exists(fixture.target), where);

            QVERIFY2(fixture.moveSomethingElse(), where);
            QVERIFY2(fixture.leftovers().isEmpty(), where);
            QVERIFY2(isWhole == fixture.isTargetWhole() && (isWhole || fixture.isSourceWhole()), where);
            if (isWhole) continue;
            if (isPlaceholder) removeEntry(fixture.target);
            QCOMPARE(fixture.result(errorOfMove(fixture.source, fixture.target)), MovePlaces::moved());
        }
        QVERIFY(rounds.count > 0);
        QCOMPARE(rounds.result(), MovePlaces::moved());
        reportRuns(rounds.count);
    }

    void everyCallFails_data()
    {
        QTest::addColumn<MoveCase>("moveCase");
        QTest::addColumn<int>("error");
        for (const MoveCase& each : allMoveCases()) {
            for (const int error : {EIO, ENOSPC, EDQUOT, EACCES, EINTR, EMFILE, EROFS}) {
                const bool isBrief = error == EIO || (error == ENOSPC && !each.isFolder());
                if (isBrief || stressSize(false, true))
                    QTest::addRow("%s, %s", each.name, strerrorname_np(error)) << each << error;
            }
        }
    }

    void everyCallFails()
    {
        QFETCH(const MoveCase, moveCase);
        QFETCH(const int, error);
        const auto anyCall = [](const MoveFixture&, const InterceptedCall&) { return true; };
        int failures = 0;
        MoveRounds rounds(moveCase);
        while (rounds.next(anyCall, nothing, Answer::fail(error))) {
            const MoveFixture& fixture = rounds.fixture;
            const char* where = rounds.where();
            if (rounds.run.succeeded()) {
                QVERIFY2(mayFail(rounds, error), where);
                QVERIFY2(fixture.isTargetWhole() && !exists(fixture.source), where);
                // The failed call may be the removal of the empty staging directory.
                QVERIFY2(fixture.moveSomethingElse(), where);
            } else {
                ++failures;
                QVERIFY2(rounds.run.error == error, where);
                // A folder may be partly removed. Then the complete copy stays.
                const bool mayHaveBoth =
                    moveCase.isFolder() && moveCase.acrossVolumes && fixture.isTargetWhole();
                QVERIFY2(mayHaveBoth || (fixture.isSourceWhole() && !exists(fixture.target)), where);
            }
            QVERIFY2(fixture.leftovers().isEmpty(), where);
        }
        QVERIFY(failures > 0);
        reportRuns(rounds.count);
    }

    void aStopInALargeFile_data()
    {
        QTest::addColumn<bool>("isFolder");
        QTest::addColumn<bool>("isCopied");
        QTest::newRow("file, while it is copied") << false << false;
        QTest::newRow("folder, while it is copied") << true << false;
        QTest::newRow("file, while it is compared") << false << true;
        QTest::newRow("folder, while it is compared") << true << true;
    }

    void aStopInALargeFile()
    {
        QFETCH(const bool, isFolder);
        QFETCH(const bool, isCopied);
        MovePlaces places;
        places.makePlaces(folderOnAnotherVolume());
        const std::string large = isFolder ? places.source + "/large" : places.source;
        if (isFolder) makeFolder(places.source);
        writeFile(large, "begin");
        // Nearly all of it is a hole.
        resizeFile(large, off_t(1) << 40);
        const FileDescriptor file(::open(large.c_str(), O_WRONLY | O_CLOEXEC));
        for (off_t at = 1; at <= 20; ++at)
            QCOMPARE(::pwrite(file.get(), "data", 4, at << 30), ssize_t(4));

        // The child process has its own copy at the same address.
        std::atomic<char> order = '-';
        const auto work = [&] {
            std::stop_source stop;
            const std::jthread stopper([&] {
                while (order != 's')
                    std::this_thread::yield();
                stop.request_stop();
                order = 'd';
            });
            return FileMove(stop.get_token()).moveItem(places.source, places.target);
        };
        size_t synced = 0;
        const auto interceptor = [&](const InterceptedCall& call) {
            if (isSync(call) && isCopied) {
                touch(places.source);
                synced = call.index;
            }
            const bool isFifth = isCopied ? synced > 0 && call.index == synced + 5
                                          : call.name == "pwrite64" && call.ordinal == 5;
            const auto address = reinterpret_cast<uint64_t>(&order);
            if (isFifth) call.writeMemory(address, "s");
            while (isFifth && call.readMemory(address, 1) != "d")
                std::this_thread::yield();
            return Answer::proceed();
        };
        const InterceptedRun run =
            runIntercepted({"pread64", "pwrite64", "fsync", "syncfs"}, work, interceptor);
        QCOMPARE(run.error, ECANCELED);
        // The current block is read from both files.
        QCOMPARE(run.calls.size(), isCopied ? synced + 7 : 10);
        QVERIFY(exists(large));
        QCOMPARE(namesIn(places.out), QByteArrayList());
    }

    void aStopBeforeTheCopy()
    {
        MovePlaces places;
        places.makePlaces(folderOnAnotherVolume());
        std::stop_source stop;
        stop.request_stop();
        FileMove fileMove(stop.get_token());
        writeFile(places.source, "content");
        places.remember();
        const Outcome<void> copied = fileMove.moveItem(places.source, places.target);
        QVERIFY(!copied);
        QCOMPARE(places.result(copied.error().code), MovePlaces::kept(ECANCELED));
        // A rename is not stopped, because it takes no time.
        QVERIFY(fileMove.moveItem(places.source, places.in + "/target"));
        QCOMPARE(contents(places.in + "/target"), QByteArray("content"));
    }
};

HARBEX_TEST(TestFileMoveFaults)

#include "tst_FileMoveFaults.moc"
