#include "fs/EntryName.h"
#include "support/MoveRound.h"
#include "support/Stress.h"
#include "support/TestMain.h"
#include "support/TreeSnapshot.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <linux/magic.h>
#include <unistd.h>
#include <vector>

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

/// Writes into the file, keeping its size and its time, when the clock of the file system has gone on since
/// its last change.
void rewriteLater(const std::string& path, const std::string& content, off_t at = 0)
{
    struct stat data = {};
    if (::stat(path.c_str(), &data) != 0) qFatal("nothing to rewrite");
    timespec now = {};
    do {
        ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    } while (now.tv_sec == data.st_ctim.tv_sec && now.tv_nsec <= data.st_ctim.tv_nsec);
    const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (::pwrite(file.get(), content.data(), content.size(), at) != ssize_t(content.size()))
        qFatal("cannot rewrite");
    const std::array<timespec, 2> times = {data.st_atim, data.st_mtim};
    if (::futimens(file.get(), times.data()) != 0) qFatal("cannot set the times");
}

/// A folder and a file that links lead to.
class Precious
{
    static constexpr const char* word = "precious";

public:
    Precious() : folder(m_scratch.makeFolder("precious")), file(folder + "/inside")
    {
        makeFolder(folder + "/sub");
        // Of names that are in the tree as well, too.
        for (const char* name : {"/inside", "/other", "/file", "/sub/other"})
            writeFile(folder + name, word);
        m_before = pictureOf(folder);
    }

    [[nodiscard]] bool isUntouched() const { return pictureOf(folder) == m_before; }
    /// Whether a copy of any of it, or of a part, is in the folder.
    [[nodiscard]] static bool isIn(const std::string& path)
    {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
            if (entry.path().filename() == "inside") return true;
            if (!entry.is_symlink() && entry.is_regular_file() &&
                contents(entry.path().string()).startsWith(word[0]))
                return true;
        }
        return false;
    }

private:
    const ScratchFolder m_scratch;

public:
    const std::string folder;
    const std::string file;

private:
    QByteArray m_before;
};

/// The kinds of victims that a call meets, one after the other.
std::vector<const char*> victimsFor(size_t n, const std::string& call)
{
    if (stressSize(false, true)) return {std::begin(victimKinds), std::end(victimKinds)};
    std::vector<const char*> kinds = {victimKinds[n % std::size(victimKinds)]};
    if (call.starts_with("rename") || call.starts_with("linkat"))
        kinds.insert(kinds.end(), {"file", "folder", "dangling link"});
    return kinds;
}

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
    void aLinkBeforeEveryCall_data();
    void aLinkBeforeEveryCall();
    void aLargeFileChangesBetweenTwoReads_data();
    void aLargeFileChangesBetweenTwoReads();
    void aTouchBeforeEveryCall_data();
    void aTouchBeforeEveryCall();
    void aTouchAtEverySync_data() { whatWasChangedNeverGetsItsName_data(); }
    void aTouchAtEverySync();
    void oneByteIsChangedBehindTheCopy_data();
    void oneByteIsChangedBehindTheCopy();
    void holesAreNotCompared();
    void aFileThatIsReplacedByOneLikeIt();
    void aLinkThatIsReplacedByOneLikeIt();
    void aFileWithTwoNamesIsRewrittenAtTheEnd();
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
    const auto concernsTheTarget = [](const InterceptedCall& call) {
        return !onlyReads(call) || (call.name == "statx" && lastPathComponent(call.text(1)) == "target");
    };
    size_t runs = 0;
    int refused = 0;
    bool happened = true;
    for (size_t n = 0; happened; ++n) {
        std::vector<const char*> kinds = victimsFor(n, {});
        for (size_t i = 0; happened && i < kinds.size(); ++i) {
            const Round round(way);
            QByteArray victim;
            bool isSwapped = false;
            const std::string kind = kinds[i];
            // A rename that can only replace takes whatever is like the entry that it moves.
            const auto mayBeLost = [&](const InterceptedCall& call) {
                const bool isFolder = kind == "folder" || kind == "full folder";
                return call.name.starts_with("rename") && isFolder == way.isFolder() && kind != "full folder";
            };
            const Round::Incident incident =
                round.moveWithIncident(n, concernsTheTarget, [&](const InterceptedCall& call) {
                    isSwapped = way.leavesPlaceholder && round.isPlaceholder() && !mayBeLost(call);
                    if (isSwapped) removeEntry(round.target);
                    if (!exists(round.target)) {
                        makeVictim(kind, round.target);
                        victim = pictureOf(round.target);
                    }
                    return Answer::proceed();
                });
            happened = incident.happened;
            if (!happened) break;
            if (i == 0) kinds = victimsFor(n, incident.where);
            ++runs;
            const QByteArray text = QByteArray::fromStdString(incident.where) + ", " + kind.c_str();
            const char* where = text.constData();
            if (victim.isEmpty()) {
                QVERIFY2(incident.run.succeeded() && round.isTargetWhole() && !exists(round.source), where);
            } else {
                ++refused;
                // Of one that was put in the place of a placeholder the rename may say why not.
                QVERIFY2(isSwapped ? incident.run.error != 0 : incident.run.error == EEXIST, where);
                QVERIFY2(pictureOf(round.target) == victim, where);
                QVERIFY2(round.isSourceWhole(), where);
            }
            QVERIFY2(round.leftovers().isEmpty(), where);
        }
    }
    QVERIFY(refused > 0);
    reportRuns(runs);
}

void TestFileMoveRaces::theSourceChangesBeforeEveryCall_data()
{
    QTest::addColumn<int>("road");
    QTest::addColumn<int>("change");
    for (size_t i = 0; i < allRoads().size(); ++i) {
        const Road& way = allRoads()[i];
        // The others differ only in the last step.
        if (!way.acrossVolumes || way.lacks.noReplace != 0 || way.kind == "link") continue;
        if (way.isPretended && !stressSize(false, true)) continue;
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
    size_t n = 0;
    for (;; ++n) {
        const Round round(way);
        const std::string changed = round.source + below;
        const auto mayChange = [&](const InterceptedCall& call) {
            // Between the last look at a file and its removal nothing can be noticed any more.
            const bool isBeingRemoved =
                call.name == "unlinkat" && changed.ends_with('/' + call.text(1)) && exists(round.target);
            return !isBeingRemoved && exists(changed);
        };
        const Round::Incident incident = round.moveWithIncident(n, mayChange, [&](const InterceptedCall&) {
            event.make(changed);
            return Answer::proceed();
        });
        if (!incident.happened) break;
        const char* where = incident.where.c_str();
        const bool moved = incident.run.succeeded();
        noticed += !moved;
        QVERIFY2(round.leftovers().isEmpty(), where);
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
    reportRuns(n);
}

void TestFileMoveRaces::aLinkBeforeEveryCall_data()
{
    QTest::addColumn<int>("road");
    QTest::addColumn<QByteArray>("replaced");
    for (size_t i = 0; i < allRoads().size(); ++i) {
        const Road& way = allRoads()[i];
        if (way.kind == "link") continue;
        // Across volumes the others differ only in the last step.
        const bool isMain =
            !way.isPretended && !way.isTouched && (!way.acrossVolumes || way.lacks.noReplace == 0);
        if (isMain || stressSize(false, true))
            QTest::addRow("%s, all of it", way.name) << int(i) << QByteArray();
        if (!way.isFolder() || !way.acrossVolumes || !isMain) continue;
        for (const char* below : {"/sub", "/file"})
            QTest::addRow("%s, %s", way.name, below) << int(i) << QByteArray(below);
        if (stressSize(false, true))
            QTest::addRow("%s, /sub/other", way.name) << int(i) << QByteArray("/sub/other");
    }
}

void TestFileMoveRaces::aLinkBeforeEveryCall()
{
    QFETCH(const int, road);
    QFETCH(const QByteArray, replaced);
    const Road& way = allRoads().at(size_t(road));
    const std::string below = replaced.toStdString();
    const bool isFolder = way.isFolder() && (below.empty() || below == "/sub");
    const Precious precious;
    size_t n = 0;
    size_t failures = 0;
    for (;; ++n) {
        const Round round(way);
        const std::string path = round.source + below;
        const std::string aside = round.source + "-aside";
        const QByteArray original = pictureOf(path);
        const auto mayReplace = [&](const InterceptedCall&) { return exists(path); };
        const Round::Incident incident = round.moveWithIncident(n, mayReplace, [&](const InterceptedCall&) {
            renameEntry(path, aside);
            makeLink(path, isFolder ? precious.folder : precious.file);
            return Answer::proceed();
        });
        if (!incident.happened) break;
        const char* where = incident.where.c_str();
        failures += !incident.run.succeeded();
        QVERIFY2(incident.run.error != EEXIST, where);
        QVERIFY2(precious.isUntouched(), where);
        QVERIFY2(!Precious::isIn(round.out), where);
        // Of a folder that was being removed the whole copy is there.
        QVERIFY2(pictureOf(aside) == original || round.isTargetWhole(), where);
        QCOMPARE(round.leftovers(), QByteArrayList{"source-aside"});
    }
    QVERIFY(n > 0 && (failures > 0 || !way.acrossVolumes));
    reportRuns(n);
}

void TestFileMoveRaces::aLargeFileChangesBetweenTwoReads_data()
{
    QTest::addColumn<bool>("unnamedFiles");
    QTest::addColumn<QByteArray>("change");
    for (const bool unnamedFiles : {true, false}) {
        for (const char* change : {"rewritten", "appended to", "cut", "replaced", "deleted"})
            QTest::addRow("%s, %s", unnamedFiles ? "files without a name" : "no files without a name", change)
                << unnamedFiles << QByteArray(change);
    }
}

void TestFileMoveRaces::aLargeFileChangesBetweenTwoReads()
{
    QFETCH(const bool, unnamedFiles);
    QFETCH(const QByteArray, change);
    const Road way = {"file across volumes", "file", true, {.unnamedFiles = !unnamedFiles}};
    const auto reads = [](const InterceptedCall& call) { return call.name == "pread64"; };
    const std::string old(400'000, 'o');
    std::string rewritten = old;
    rewritten.front() = rewritten.back() = 'n';
    const auto makeChange = [&](const std::string& path) {
        if (change == "rewritten") return rewriteLater(path, rewritten);
        for (const Change& other : allChanges)
            if (change == other.name) return other.make(path);
        qFatal("no such change");
    };
    size_t n = 0;
    for (;; ++n) {
        const Round round(way);
        removeEntry(round.source);
        writeFile(round.source, old);
        QByteArray changed;
        const Round::Incident incident = round.moveWithIncident(n, reads, [&](const InterceptedCall&) {
            makeChange(round.source);
            changed = contents(round.source);
            return Answer::proceed();
        });
        if (!incident.happened) break;
        const char* where = incident.where.c_str();
        QVERIFY2(changed != old.c_str(), where);
        // Before anything was read, what was rewritten is simply what is moved.
        if (n == 0 && change == "rewritten") {
            QVERIFY2(incident.run.succeeded() && contents(round.target) == changed, where);
            QVERIFY2(!exists(round.source) && round.leftovers().isEmpty(), where);
            continue;
        }
        QVERIFY2(incident.run.error == (change == "deleted" ? ENOENT : EBUSY), where);
        QVERIFY2(contents(round.source) == changed, where);
        QVERIFY2(!exists(round.target), where);
        QVERIFY2(round.leftovers().isEmpty(), where);
    }
    // Four of the content and one that looks for more.
    QVERIFY(n >= 5);
    reportRuns(n);
}

void TestFileMoveRaces::aTouchBeforeEveryCall_data()
{
    QTest::addColumn<int>("road");
    QTest::addColumn<QByteArray>("below");
    QTest::addColumn<QByteArray>("kind");
    for (size_t i = 0; i < allRoads().size(); ++i) {
        const Road& way = allRoads()[i];
        // The others differ only in the last step.
        if (!way.acrossVolumes || way.lacks.noReplace != 0 || way.isTouched) continue;
        if (way.isPretended && !stressSize(false, true)) continue;
        const auto add = [&](const char* below, const char* kind) {
            QTest::addRow("%s, %s%s", way.name, kind, below)
                << int(i) << QByteArray(below) << QByteArray(kind);
        };
        add("", "time");
        if (way.kind != "folder") add("", "second name");
        if (way.kind != "link") add("", "permissions");
        if (way.kind != "folder") continue;
        add("/sub", "permissions");
        add("/file", "permissions");
        add("/file", "second name");
        add("/sub/other", "second name");
        add("/link", "second name");
    }
}

// A program that keeps folders in step sets an attribute, one that makes backups makes a hard link.
void TestFileMoveRaces::aTouchBeforeEveryCall()
{
    QFETCH(const int, road);
    QFETCH(const QByteArray, below);
    QFETCH(const QByteArray, kind);
    const Road& way = allRoads().at(size_t(road));
    size_t moved = 0;
    size_t n = 0;
    for (;; ++n) {
        const Round round(way);
        const ScratchFolder aside;
        const std::string path = round.source + below.toStdString();
        const QByteArray before = pictureOf(round.source);
        QByteArray touched;
        int syncs = 0;
        bool isLate = false;
        const auto isBeforeTheEnd = [&](const InterceptedCall& call) {
            isLate = syncs > 0;
            syncs += isSync(call);
            return !exists(round.target);
        };
        const Round::Incident incident =
            round.moveWithIncident(n, isBeforeTheEnd, [&](const InterceptedCall&) {
                touch(path);
                if (kind == "permissions" && ::chmod(path.c_str(), 0711) != 0)
                    qFatal("cannot change the mode");
                if (kind == "second name" && ::link(path.c_str(), (aside.path() + "/name").c_str()) != 0)
                    qFatal("cannot link");
                touched = pictureOf(round.source);
                return Answer::proceed();
            });
        if (!incident.happened) break;
        const char* where = incident.where.c_str();
        QVERIFY2(round.leftovers().isEmpty(), where);
        moved += incident.run.succeeded();
        if (incident.run.succeeded()) {
            const QByteArray target = pictureOf(round.target);
            // Of a folder nothing is looked at again right before the removal.
            QVERIFY2(target == touched || (isLate && way.isFolder() && target == before), where);
            QVERIFY2(!exists(round.source), where);
            continue;
        }
        // Only after the last look, for which there is a sync to wait for.
        QVERIFY2(isLate && incident.run.error == EBUSY, where);
        const bool isSourceThere = pictureOf(round.source) == touched && !exists(round.target);
        QVERIFY2(isSourceThere || (way.isFolder() && round.isTargetWhole()), where);
    }
    QVERIFY(moved > 0);
    reportRuns(n);
}

// It is given up, in the end.
void TestFileMoveRaces::aTouchAtEverySync()
{
    QFETCH(const int, road);
    const Round round(allRoads().at(size_t(road)));
    int syncs = 0;
    const InterceptedRun run = round.move([&](const InterceptedCall& call) {
        if (isSync(call)) touch(round.source);
        syncs += isSync(call);
        return Answer::proceed();
    });
    QCOMPARE(run.error, EBUSY);
    QCOMPARE(syncs, 4);
    QVERIFY(round.isSourceWhole() && !exists(round.target));
    QCOMPARE(round.leftovers(), QByteArrayList());
}

void TestFileMoveRaces::oneByteIsChangedBehindTheCopy_data()
{
    QTest::addColumn<qint64>("at");
    QTest::addColumn<bool>("unnamedFiles");
    for (const bool unnamedFiles : {true, false}) {
        for (const qint64 at : {0, 131'071, 131'072, 399'999, 500'000, 999'999})
            QTest::addRow("byte %lld, %s", at,
                          unnamedFiles ? "files without a name" : "no files without a name")
                << at << unnamedFiles;
    }
}

// By somebody who sets the time back: the contents tell it.
void TestFileMoveRaces::oneByteIsChangedBehindTheCopy()
{
    QFETCH(const qint64, at);
    QFETCH(const bool, unnamedFiles);
    const Road way = {"file across volumes", "file", true, {.unnamedFiles = !unnamedFiles}};
    for (const bool isChanged : {true, false}) {
        const Round round(way);
        removeEntry(round.source);
        writeFile(round.source, std::string(400'000, 'o'));
        // The rest is a hole.
        QCOMPARE(::truncate(round.source.c_str(), 1'000'000), 0);
        const InterceptedRun run = round.move([&](const InterceptedCall& call) {
            if (!isSync(call) || exists(round.target)) return Answer::proceed();
            const QByteArray old = contents(round.source).mid(at, 1);
            if (call.ordinal == 1) rewriteLater(round.source, isChanged ? "n" : old.toStdString(), at);
            return Answer::proceed();
        });
        const std::string& whole = isChanged ? round.source : round.target;
        QCOMPARE(run.error, isChanged ? EBUSY : 0);
        QCOMPARE(contents(whole).size(), 1'000'000);
        QVERIFY(!isChanged || contents(whole).at(at) == 'n');
        QVERIFY(!exists(isChanged ? round.target : round.source));
        QVERIFY(round.leftovers().isEmpty());
    }
}

// A comparison that read them would take for ever.
void TestFileMoveRaces::holesAreNotCompared()
{
    const Road way = {"touched file across volumes", "file", true, {}, false, false, true};
    const Round round(way);
    QCOMPARE(::truncate(round.source.c_str(), off_t(1) << 40), 0);
    const InterceptedRun run = round.move([](const InterceptedCall&) { return Answer::proceed(); });
    QCOMPARE(run.error, 0);
    QVERIFY(!exists(round.source));
    const auto reads = std::ranges::count_if(
        run.calls, [](const std::string& label) { return label.starts_with("pread64"); });
    // Once to copy, once for the end, and of both to compare.
    QCOMPARE(reads, 4);
}

// It is another file, whoever put it there and why.
void TestFileMoveRaces::aFileThatIsReplacedByOneLikeIt()
{
    const Road way = {"file across volumes", "file", true, {}};
    const Round round(way);
    bool isReplaced = false;
    const InterceptedRun run = round.move([&](const InterceptedCall& call) {
        if (!isSync(call) || isReplaced) return Answer::proceed();
        isReplaced = true;
        struct stat data = {};
        if (::stat(round.source.c_str(), &data) != 0) qFatal("nothing to replace");
        const std::string other = round.source + ".new";
        writeFile(other, "content");
        const std::array<timespec, 2> times = {data.st_atim, data.st_mtim};
        if (::utimensat(AT_FDCWD, other.c_str(), times.data(), 0) != 0) qFatal("cannot set the times");
        touch(other);
        renameEntry(other, round.source);
        return Answer::proceed();
    });
    QVERIFY(isReplaced);
    QCOMPARE(run.error, EBUSY);
    QVERIFY(round.isSourceWhole() && !exists(round.target));
    QCOMPARE(round.leftovers(), QByteArrayList());
}

// Its inode number may be used again.
void TestFileMoveRaces::aLinkThatIsReplacedByOneLikeIt()
{
    const Road way = {"link across volumes", "link", true, {}};
    for (const char* text : {"anywhere", "nowhere"}) {
        const bool isSame = text == std::string("nowhere");
        const Round round(way);
        bool isReplaced = false;
        const InterceptedRun run = round.move([&](const InterceptedCall& call) {
            if (isSync(call) && !isReplaced) {
                isReplaced = true;
                removeEntry(round.source);
                makeLink(round.source, text);
            }
            if (call.name != "statx") return Answer::proceed();
            return answerStatus(call, [](struct statx& data) {
                if (!S_ISLNK(data.stx_mode)) return;
                data.stx_ino = 12345;
                data.stx_size = 7;
                data.stx_mtime = {};
            });
        });
        QVERIFY(isReplaced);
        QCOMPARE(run.error, isSame ? 0 : EBUSY);
        QCOMPARE(exists(round.source), !isSame);
        QCOMPARE(exists(round.target), isSame);
    }
}

void TestFileMoveRaces::aFileWithTwoNamesIsRewrittenAtTheEnd()
{
    const Road way = {"file across volumes", "file", true, {}};
    const Round round(way);
    const ScratchFolder aside;
    QCOMPARE(::link(round.source.c_str(), (aside.path() + "/name").c_str()), 0);
    const InterceptedRun run = round.move([&](const InterceptedCall& call) {
        if (call.name == "linkat") rewriteLater(round.source, "CONTENT");
        return Answer::proceed();
    });
    QCOMPARE(run.error, EBUSY);
    QCOMPARE(contents(round.source), QByteArray("CONTENT"));
    QVERIFY(!exists(round.target));
}

void TestFileMoveRaces::somethingIsAddedToTheFolderBeforeEveryCall()
{
    const Road way = {"folder across volumes", "folder", true, {}};
    int noticed = 0;
    size_t n = 0;
    for (;; ++n) {
        const Round round(way);
        const auto mayAdd = [&round](const InterceptedCall&) { return exists(round.source + "/sub"); };
        const Round::Incident incident = round.moveWithIncident(n, mayAdd, [&round](const InterceptedCall&) {
            writeFile(round.source + "/sub/added", "new");
            return Answer::proceed();
        });
        if (!incident.happened) break;
        const char* where = incident.where.c_str();
        const bool moved = incident.run.succeeded();
        noticed += !moved;
        QVERIFY2(round.leftovers().isEmpty(), where);
        QVERIFY2(contents((moved ? round.target : round.source) + "/sub/added") == "new", where);
        QVERIFY2(exists(round.source) == !moved, where);
    }
    QVERIFY(noticed > 0);
    reportRuns(n);
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
    const InterceptedRun run = round.move([&](const InterceptedCall& call) {
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
    QTest::addColumn<int>("answer");
    QTest::addColumn<bool>("staysAtTarget");
    for (const int answer : {ENOENT, EIO, ETIMEDOUT, ENOTCONN, ESTALE})
        QTest::addRow("NFS, %s", strerrorname_np(answer)) << uint(NFS_SUPER_MAGIC) << answer << true;
    // Here only somebody else's hand can be the reason, and whoever took it has it.
    QTest::newRow("local") << uint(EXT4_SUPER_MAGIC) << ENOENT << false;
}

void TestFileMoveRaces::aRemovalWhoseAnswerWasLost()
{
    QFETCH(const uint, volumeType);
    QFETCH(const int, answer);
    QFETCH(const bool, staysAtTarget);
    const Road way = {"file across volumes", "file", true, {}};
    const Round round(way);
    const InterceptedRun run = round.move([&](const InterceptedCall& call) {
        if (call.name != "unlinkat" || !exists(round.target) || !exists(round.source))
            return answerVolume(call, volumeType);
        removeEntry(round.source);
        return Answer::fail(answer);
    });
    QVERIFY(!exists(round.source));
    QCOMPARE(contents(round.target), QByteArray(staysAtTarget ? "content" : "(no file)"));
    QCOMPARE(run.error, staysAtTarget && answer == ENOENT ? 0 : answer);
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
    const InterceptedRun run = round.move([&](const InterceptedCall& call) {
        if (!isCopied && isSync(call)) {
            isCopied = true;
            appendToFile(way.isFolder() ? round.source + "/file" : round.source, " and more");
        }
        hadItsName |= exists(round.target);
        return Answer::proceed();
    });
    QVERIFY(isCopied);
    QVERIFY(!hadItsName);
    QCOMPARE(run.error, EBUSY);
    QCOMPARE(round.leftovers(), QByteArrayList());
}

HARBEX_TEST_MAIN(TestFileMoveRaces)

#include "tst_FileMoveRaces.moc"
