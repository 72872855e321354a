#include "support/EntryPicture.h"
#include "support/MoveRound.h"
#include "support/TestMain.h"

#include <array>
#include <cerrno>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Ways in which somebody else changes what is being moved, or a file in it.
struct Change {
    const char* name;
    /// Changes the file at the path, which exists.
    void (*make)(const std::string& path);
    /// What has to survive, as content of the file; nullptr when there is nothing.
    const char* survives;
};

void rewriteInPlace(const std::string& path)
{
    struct stat data = {};
    if (::stat(path.c_str(), &data) != 0) qFatal("nothing to rewrite");
    const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    const std::string other(size_t(data.st_size), '!');
    if (::pwrite(file.get(), other.data(), other.size(), 0) != data.st_size) qFatal("cannot rewrite");
    // As programs do that give a file the time it had somewhere else.
    const std::array<timespec, 2> times = {data.st_atim, data.st_mtim};
    if (::futimens(file.get(), times.data()) != 0) qFatal("cannot set the times");
}

void replaceByRename(const std::string& path)
{
    writeFile(path + ".new", "saved again");
    renameEntry(path + ".new", path);
}

const std::array<Change, 5> allChanges = {{
    {"appended to", [](const std::string& path) { appendToFile(path, " and more"); }, "content and more"},
    {"cut",
     [](const std::string& path) {
         if (::truncate(path.c_str(), 3) != 0) qFatal("cannot cut");
     },
     "con"},
    {"replaced", replaceByRename, "saved again"},
    {"rewritten with its size and time", rewriteInPlace, "!!!!!!!"},
    {"deleted", [](const std::string& path) { removeEntry(path); }, nullptr},
}};

} // namespace

/// Moves that meet somebody else: a file that appears at the target, or a source that is changed, at every
/// single step. What has to hold in the end: nothing of the other is lost, and nothing of the source.
class TestFileMoveRaces : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aVictimBeforeEveryCall_data() { addRowsOfRoads(); }
    void aVictimBeforeEveryCall();
    void theSourceChangesBeforeEveryCall_data();
    void theSourceChangesBeforeEveryCall();
    void somethingIsAddedToTheFolderBeforeEveryCall();
    void foldersWhoseTimesStandStill_data();
    void foldersWhoseTimesStandStill();
    void aRemovalWhoseAnswerWasLost_data();
    void aRemovalWhoseAnswerWasLost();
    void whatWasChangedNeverGetsItsName_data();
    void whatWasChangedNeverGetsItsName();
};

void TestFileMoveRaces::aVictimBeforeEveryCall()
{
    QFETCH(const int, road);
    const Road& way = allRoads().at(size_t(road));
    const auto concernsTheTarget = [](const GatedCall& call) {
        return !onlyReads(call) || (call.name == "statx" && call.text(1) == "target");
    };
    int refused = 0;
    for (size_t n = 0;; ++n) {
        const Round round(way);
        QByteArray victim;
        const Round::Incident incident = round.moveWithIncident(n, concernsTheTarget, [&](const GatedCall&) {
            if (!exists(round.target)) {
                makeVictim(victimKinds[n % std::size(victimKinds)], round.target);
                victim = pictureOf(round.target);
            }
            return Answer::proceed();
        });
        if (!incident.happened) break;
        const char* where = incident.where.c_str();
        if (victim.isEmpty()) {
            QVERIFY2(incident.run.succeeded() && round.isTargetWhole() && !exists(round.source), where);
        } else {
            ++refused;
            QVERIFY2(incident.run.error == EEXIST, where);
            QVERIFY2(pictureOf(round.target) == victim, where);
            QVERIFY2(round.isSourceWhole(), where);
        }
        QVERIFY2(partsIn(round.out).isEmpty(), where);
    }
    QVERIFY(refused > 0);
}

void TestFileMoveRaces::theSourceChangesBeforeEveryCall_data()
{
    QTest::addColumn<int>("road");
    QTest::addColumn<int>("change");
    for (size_t i = 0; i < allRoads().size(); ++i) {
        const Road& way = allRoads()[i];
        // The others differ only in the last step.
        if (!way.acrossVolumes || way.lacks.noReplace != 0 || way.kind == "link") continue;
        for (size_t j = 0; j < allChanges.size(); ++j)
            QTest::addRow("%s, %s", way.name, allChanges[j].name) << int(i) << int(j);
    }
}

void TestFileMoveRaces::theSourceChangesBeforeEveryCall()
{
    QFETCH(const int, road);
    QFETCH(const int, change);
    const Road& way = allRoads().at(size_t(road));
    const Change& event = allChanges.at(size_t(change));
    const std::string below = way.isFolder() ? "/file" : "";
    int noticed = 0;
    for (size_t n = 0;; ++n) {
        const Round round(way);
        const std::string changed = round.source + below;
        const auto mayChange = [&](const GatedCall& call) {
            // Between the last look at a file and its removal nothing can be noticed any more.
            const bool isBeingRemoved =
                call.name == "unlinkat" && changed.ends_with('/' + call.text(1)) && exists(round.target);
            return !isBeingRemoved && exists(changed);
        };
        const Round::Incident incident = round.moveWithIncident(n, mayChange, [&](const GatedCall&) {
            event.make(changed);
            return Answer::proceed();
        });
        if (!incident.happened) break;
        const char* where = incident.where.c_str();
        const bool moved = incident.run.succeeded();
        noticed += !moved;
        QVERIFY2(partsIn(round.out).isEmpty(), where);
        if (event.survives)
            QVERIFY2(contents((moved ? round.target : round.source) + below) == event.survives, where);
        if (moved) {
            QVERIFY2(!exists(round.source), where);
        } else if (!way.isFolder()) {
            QVERIFY2(!exists(round.target), where);
        } else {
            // A copy that has its name is whole, whether it is from before the change or after it.
            const bool isThere = contents(round.target + "/sub/other") == "other content";
            QVERIFY2(isThere == exists(round.target), where);
            QVERIFY2(isThere || contents(round.source + "/sub/other") == "other content", where);
        }
    }
    QVERIFY(noticed > 0);
}

void TestFileMoveRaces::somethingIsAddedToTheFolderBeforeEveryCall()
{
    const Road way = {"folder across volumes", "folder", true, {}};
    int noticed = 0;
    for (size_t n = 0;; ++n) {
        const Round round(way);
        const auto mayAdd = [&round](const GatedCall&) { return exists(round.source + "/sub"); };
        const Round::Incident incident = round.moveWithIncident(n, mayAdd, [&round](const GatedCall&) {
            writeFile(round.source + "/sub/added", "new");
            return Answer::proceed();
        });
        if (!incident.happened) break;
        const char* where = incident.where.c_str();
        const bool moved = incident.run.succeeded();
        noticed += !moved;
        QVERIFY2(partsIn(round.out).isEmpty(), where);
        QVERIFY2(contents((moved ? round.target : round.source) + "/sub/added") == "new", where);
        QVERIFY2(exists(round.source) == !moved, where);
    }
    QVERIFY(noticed > 0);
}

void TestFileMoveRaces::foldersWhoseTimesStandStill_data()
{
    QTest::addColumn<bool>("isAdded");
    QTest::newRow("an entry is added") << true;
    QTest::newRow("an entry is taken away") << false;
}

void TestFileMoveRaces::foldersWhoseTimesStandStill()
{
    QFETCH(const bool, isAdded);
    const Road way = {"folder across volumes", "folder", true, {}};
    const Round round(way);
    const GatedRun run = round.move([&](const GatedCall& call) {
        if (call.name == "syncfs" && isAdded) writeFile(round.source + "/added", "new");
        if (call.name == "syncfs" && !isAdded) removeEntry(round.source + "/link");
        if (call.name != "statx") return Answer::proceed();
        return answerStatus(call, [](struct statx& data) {
            if (S_ISDIR(data.stx_mode)) data.stx_mtime = data.stx_ctime = {};
        });
    });
    QCOMPARE(run.error, EBUSY);
    QVERIFY(!exists(round.target));
    QCOMPARE(contents(round.source + "/added"), QByteArray(isAdded ? "new" : "(no file)"));
    QCOMPARE(contents(round.source + "/file"), QByteArray("content"));
}

void TestFileMoveRaces::aRemovalWhoseAnswerWasLost_data()
{
    QTest::addColumn<uint>("volumeType");
    QTest::addColumn<bool>("staysAtTarget");
    QTest::newRow("NFS") << uint(NFS_SUPER_MAGIC) << true;
    // Here only somebody else's hand can be the reason, and whoever took it has it.
    QTest::newRow("local") << uint(EXT4_SUPER_MAGIC) << false;
}

void TestFileMoveRaces::aRemovalWhoseAnswerWasLost()
{
    QFETCH(const uint, volumeType);
    QFETCH(const bool, staysAtTarget);
    const Road way = {"file across volumes", "file", true, {}};
    const Round round(way);
    const GatedRun run = round.move([&](const GatedCall& call) {
        if (call.name == "unlinkat" && exists(round.target) && exists(round.source)) {
            removeEntry(round.source);
            return Answer::fail(ENOENT);
        }
        if (call.name != "fstatfs") return Answer::proceed();
        struct statfs volume = {};
        volume.f_type = volumeType;
        call.writeMemory(call.arguments[1],
                         std::string(reinterpret_cast<const char*>(&volume), sizeof volume));
        return Answer::give(0);
    });
    QVERIFY(!exists(round.source));
    QCOMPARE(contents(round.target), QByteArray(staysAtTarget ? "content" : "(no file)"));
    QCOMPARE(run.error, staysAtTarget ? 0 : ENOENT);
}

void TestFileMoveRaces::whatWasChangedNeverGetsItsName_data()
{
    QTest::addColumn<int>("road");
    for (size_t i = 0; i < allRoads().size(); ++i) {
        const Road& way = allRoads()[i];
        if (way.acrossVolumes && way.kind != "link") QTest::newRow(way.name) << int(i);
    }
}

// Not even for the moment until the change is found right before the removal of the source.
void TestFileMoveRaces::whatWasChangedNeverGetsItsName()
{
    QFETCH(const int, road);
    const Road& way = allRoads().at(size_t(road));
    const Round round(way);
    bool isCopied = false;
    bool hadItsName = false;
    const GatedRun run = round.move([&](const GatedCall& call) {
        if (!isCopied && (call.name == "fsync" || call.name == "syncfs")) {
            isCopied = true;
            appendToFile(way.isFolder() ? round.source + "/file" : round.source, " and more");
        }
        hadItsName |= exists(round.target);
        return Answer::proceed();
    });
    QVERIFY(isCopied);
    QVERIFY(!hadItsName);
    QCOMPARE(run.error, EBUSY);
    QVERIFY(partsIn(round.out).isEmpty());
}

HARBEX_TEST_MAIN(TestFileMoveRaces)

#include "tst_FileMoveRaces.moc"
