#include "support/MoveRound.h"
#include "support/Stress.h"
#include "support/TestMain.h"

#include <array>
#include <cstring>
#include <thread>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Whether a move can succeed although a call failed so: because there is another way or it is made again, or
/// because it served the staging directory, which may stay for the next move, or the search for such
/// leftovers at the end. All others are needed.
bool mayFail(const Round::Incident& incident, int error)
{
    const std::string name = incident.where.substr(0, incident.where.find(' '));
    const auto isOneOf = [&name](const auto&... names) { return ((name == names) || ...); };
    if (isOneOf("copy_file_range", "flock", "ioctl")) return true;
    if (isOneOf("pread64", "pwrite64")) return error == EINTR;
    const bool servesLeftovers =
        !incident.sourceWasThere || incident.subject.find("/.harbex-") != std::string::npos;
    return servesLeftovers && isOneOf("getdents64", "openat", "statx", "unlinkat");
}

} // namespace

/// Moves that are killed, stopped or failed by the system at every single step. What has to hold in the end:
/// the source or a whole copy is there, nothing incomplete has a name, nothing is left over for long.
class TestFileMoveFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void killedAtEveryCall_data() { addRowsOfRoads(); }
    void killedAtEveryCall();
    void everyCallFails_data();
    void everyCallFails();
    void aStopInALargeFile_data();
    void aStopInALargeFile();
    void aStopBeforeTheCopy();
    void aPartInProgressIsNotALeftover_data() { addRowsOfRoads(); }
    void aPartInProgressIsNotALeftover();
};

void TestFileMoveFaults::killedAtEveryCall()
{
    QFETCH(const int, road);
    const Road& way = allRoads().at(size_t(road));
    const auto changesSomething = [](const InterceptedCall& call) { return !onlyReads(call); };
    for (size_t n = 0;; ++n) {
        const Round round(way);
        const Round::Incident incident = round.moveWithIncident(
            n, changesSomething, [](const InterceptedCall&) { return Answer::kill(); });
        if (!incident.happened) {
            QVERIFY(incident.run.succeeded() && n > 0);
            QVERIFY(round.isTargetWhole() && !exists(round.source));
            QCOMPARE(round.leftovers(), QByteArrayList());
            reportRuns(n);
            break;
        }
        const char* where = incident.where.c_str();
        QVERIFY2(incident.run.wasKilled, where);
        const bool isWhole = round.isTargetWhole();
        QVERIFY2(isWhole || round.isSourceWhole(), where);
        const bool isPlaceholder = !isWhole && way.leavesPlaceholder && round.isPlaceholder();
        QVERIFY2(isWhole || isPlaceholder || !exists(round.target), where);

        QVERIFY2(round.moveSomethingElse(), where);
        QVERIFY2(round.leftovers().isEmpty(), where);
        QVERIFY2(isWhole == round.isTargetWhole() && (isWhole || round.isSourceWhole()), where);
        if (isWhole) continue;
        if (isPlaceholder) removeEntry(round.target);
        QVERIFY2(errorOfMove(round.source, round.target) == 0, where);
        QVERIFY2(round.isTargetWhole() && !exists(round.source), where);
    }
}

void TestFileMoveFaults::everyCallFails_data()
{
    QTest::addColumn<int>("road");
    QTest::addColumn<int>("error");
    for (size_t i = 0; i < allRoads().size(); ++i) {
        const Road& way = allRoads()[i];
        for (const int error : {EIO, ENOSPC, EDQUOT, EACCES, EINTR, EMFILE, EROFS}) {
            const bool isBrief = error == EIO || (error == ENOSPC && !way.isFolder());
            if (isBrief || stressSize(false, true))
                QTest::addRow("%s, %s", way.name, strerrorname_np(error)) << int(i) << error;
        }
    }
}

void TestFileMoveFaults::everyCallFails()
{
    QFETCH(const int, road);
    QFETCH(const int, error);
    const Road& way = allRoads().at(size_t(road));
    const auto anyCall = [](const InterceptedCall&) { return true; };
    int failures = 0;
    size_t n = 0;
    for (;; ++n) {
        const Round round(way);
        const Round::Incident incident = round.moveWithIncident(
            n, anyCall, [error](const InterceptedCall&) { return Answer::fail(error); });
        if (!incident.happened) break;
        const std::string text = incident.where + ' ' + incident.subject;
        const char* where = text.c_str();
        if (incident.run.succeeded()) {
            QVERIFY2(mayFail(incident, error), where);
            QVERIFY2(round.isTargetWhole() && !exists(round.source), where);
            // What failed may have been the removal of the empty staging directory.
            QVERIFY2(round.moveSomethingElse(), where);
        } else {
            ++failures;
            QVERIFY2(incident.run.error == error, where);
            // Of a folder that was being removed when something failed, the whole copy stays.
            const bool mayHaveBoth = way.isFolder() && way.acrossVolumes && round.isTargetWhole();
            QVERIFY2(mayHaveBoth || (round.isSourceWhole() && !exists(round.target)), where);
        }
        QVERIFY2(round.leftovers().isEmpty(), where);
    }
    QVERIFY(failures > 0);
    reportRuns(n);
}

void TestFileMoveFaults::aStopInALargeFile_data()
{
    QTest::addColumn<bool>("isFolder");
    QTest::addColumn<bool>("isCopied");
    QTest::newRow("file, while it is copied") << false << false;
    QTest::newRow("folder, while it is copied") << true << false;
    QTest::newRow("file, while it is compared") << false << true;
    QTest::newRow("folder, while it is compared") << true << true;
}

void TestFileMoveFaults::aStopInALargeFile()
{
    QFETCH(const bool, isFolder);
    QFETCH(const bool, isCopied);
    const ScratchFolder here;
    const ScratchFolder there(folderOnAnotherVolume());
    const std::string source = here.path() + "/source";
    const std::string large = isFolder ? source + "/large" : source;
    if (isFolder) makeFolder(source);
    writeFile(large, "begin");
    // Too large to be copied to the end, but nearly all of it is a hole.
    QCOMPARE(::truncate(large.c_str(), off_t(1) << 40), 0);
    const FileDescriptor file(::open(large.c_str(), O_WRONLY | O_CLOEXEC));
    for (off_t at = 1; at <= 20; ++at)
        QCOMPARE(::pwrite(file.get(), "data", 4, at << 30), ssize_t(4));

    std::array<int, 2> order = {};
    std::array<int, 2> done = {};
    QCOMPARE(::pipe2(order.data(), O_CLOEXEC), 0);
    QCOMPARE(::pipe2(done.data(), O_CLOEXEC), 0);
    const auto work = [&] {
        std::stop_source stop;
        std::thread stopper([&] {
            char byte = 0;
            if (::read(order[0], &byte, 1) == 1 && stop.request_stop() && ::write(done[1], &byte, 1) != 1)
                ::_exit(1);
        });
        Outcome<void> moved = FileMove(stop.get_token()).moveItem(source, there.path() + "/target");
        stopper.join();
        return moved;
    };
    size_t synced = 0;
    const InterceptedRun run =
        runIntercepted({"pread64", "pwrite64", "fsync", "syncfs"}, work, [&](const InterceptedCall& call) {
            if (isSync(call) && isCopied) {
                touch(source);
                synced = call.index;
            }
            const bool isFifth = isCopied ? synced > 0 && call.index == synced + 5
                                          : call.name == "pwrite64" && call.ordinal == 5;
            char byte = 0;
            if (isFifth && (::write(order[1], &byte, 1) != 1 || ::read(done[0], &byte, 1) != 1))
                qFatal("cannot reach the child");
            return Answer::proceed();
        });
    for (const int fd : {order[0], order[1], done[0], done[1]})
        ::close(fd);
    QCOMPARE(run.error, ECANCELED);
    // The piece that is being compared is read from both.
    QCOMPARE(run.calls.size(), isCopied ? synced + 7 : 10);
    QVERIFY(exists(large));
    QCOMPARE(namesIn(there.path()), QByteArrayList());
}

void TestFileMoveFaults::aStopBeforeTheCopy()
{
    const ScratchFolder here;
    const ScratchFolder there(folderOnAnotherVolume());
    std::stop_source stop;
    stop.request_stop();
    FileMove fileMove(stop.get_token());
    writeFile(here.path() + "/source", "content");
    const Outcome<void> copied = fileMove.moveItem(here.path() + "/source", there.path() + "/target");
    QVERIFY(!copied);
    QCOMPARE(copied.error().code, ECANCELED);
    QCOMPARE(namesIn(there.path()), QByteArrayList());
    // A rename takes no time that a stop would save.
    QVERIFY(fileMove.moveItem(here.path() + "/source", here.path() + "/target"));
    QCOMPARE(contents(here.path() + "/target"), QByteArray("content"));
}

void TestFileMoveFaults::aPartInProgressIsNotALeftover()
{
    QFETCH(const int, road);
    const Road& way = allRoads().at(size_t(road));
    const Round round(way);
    int inProgress = 0;
    const InterceptedRun run = round.move([&](const InterceptedCall& call) {
        if (call.name != "syncfs") return Answer::proceed();
        const QByteArrayList parts = partsIn(round.out);
        inProgress += int(parts.size());
        if (!round.moveSomethingElse() || partsIn(round.out) != parts) inProgress += 100;
        return Answer::proceed();
    });
    QVERIFY(run.succeeded());
    QVERIFY(round.isTargetWhole());
    const bool needsPart = way.acrossVolumes && (way.kind != "file" || way.lacks.unnamedFiles);
    const int syncs = way.isTouched ? 2 : 1;
    QCOMPARE(inProgress, needsPart ? syncs : 0);
}

HARBEX_TEST_MAIN(TestFileMoveFaults)

#include "tst_FileMoveFaults.moc"
