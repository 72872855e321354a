#include "support/InterceptedMove.h"
#include "support/TestMain.h"
#include "support/TreeSnapshot.h"

#include <atomic>
#include <cstring>
#include <linux/magic.h>
#include <memory>
#include <thread>
#include <vector>

using namespace harbex;
using namespace harbex::test;

/// Moves on one volume, also on file systems that cannot refuse to replace.
class TestFileMove : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void movesEveryKindOfEntry_data();
    void movesEveryKindOfEntry();
    void namesOfAnyBytes_data();
    void namesOfAnyBytes();
    void nothingIsReplaced_data();
    void nothingIsReplaced();
    void failsWithTheReason_data();
    void failsWithTheReason();
    void aRefusedRenameIsNeverACopy_data();
    void aRefusedRenameIsNeverACopy();
    void aFolderIntoItself_data();
    void aFolderIntoItself();
    void aVictimAtTheLastMoment_data();
    void aVictimAtTheLastMoment();
    void ofManyThreadsOneGetsTheName();
    void ofManyThreadsOneMovesTheFile();

    void aPlaceholderThatWasReplacedIsLeftAlone();
    void somethingPutIntoTheNewFolderIsLeftAlone();
    void aNewFileUnderTheOldNameStays();
    void aSourceThatCannotBeUnlinkedTakesItsNewNameBack();
    void aChangeWhoseAnswerWasLost_data();
    void aChangeWhoseAnswerWasLost();
    void everyWayToSayThatThereAreNoLinks();
    void aVolumeThatEndsWithinTheFallbackIsCrossed_data();
    void aVolumeThatEndsWithinTheFallbackIsCrossed();

private:
    void makeSource(const QByteArray& kind) const;
    /// Runs a move on a file system that lacks something and lets `act` happen before the first call that
    /// `isMoment` tells.
    InterceptedRun moveWith(const Lacks& lacks, const std::function<bool(const InterceptedCall&)>& isMoment,
                            const std::function<void()>& act) const;

    std::unique_ptr<ScratchFolder> m_scratch;
    std::string m_source;
    std::string m_out;
    std::string m_target;
};

void TestFileMove::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_source = m_scratch->makeFolder("in") + "/source.txt";
    m_out = m_scratch->makeFolder("out");
    m_target = m_out + "/target.txt";
}

void TestFileMove::cleanup()
{
    m_scratch.reset();
}

void TestFileMove::makeSource(const QByteArray& kind) const
{
    if (kind == "file") writeFile(m_source, "content");
    if (kind == "link") makeLink(m_source, "/etc");
    if (kind == "dangling link") makeLink(m_source, "nowhere");
    if (kind == "pipe") QCOMPARE(::mkfifo(m_source.c_str(), 0600), 0);
    if (kind != "folder") return;
    makeFolder(m_source);
    makeFolder(m_source + "/below");
    writeFile(m_source + "/below/file", "content");
    makeLink(m_source + "/link", "below");
}

InterceptedRun TestFileMove::moveWith(const Lacks& lacks,
                                      const std::function<bool(const InterceptedCall&)>& isMoment,
                                      const std::function<void()>& act) const
{
    bool happened = false;
    const InterceptedRun run = moveGated(m_source, m_target, [&](const InterceptedCall& call) {
        const std::optional<Answer> refused = lacks.refuses(call);
        if (refused) return *refused;
        if (!happened && isMoment(call)) {
            happened = true;
            act();
        }
        return Answer::proceed();
    });
    if (!happened) qFatal("the moment never came");
    return run;
}

void TestFileMove::movesEveryKindOfEntry_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<int>("noReplace");
    QTest::addColumn<bool>("noLinks");
    for (const char* kind : {"file", "link", "dangling link", "pipe", "folder"}) {
        QTest::addRow("%s", kind) << QByteArray(kind) << 0 << false;
        for (const int code : {EINVAL, ENOSYS, EOPNOTSUPP}) {
            QTest::addRow("%s, cannot refuse to replace (%d)", kind, code)
                << QByteArray(kind) << code << false;
        }
        QTest::addRow("%s, nor link", kind) << QByteArray(kind) << EINVAL << true;
    }
}

void TestFileMove::movesEveryKindOfEntry()
{
    QFETCH(const QByteArray, kind);
    QFETCH(const int, noReplace);
    QFETCH(const bool, noLinks);
    makeSource(kind);
    const QByteArray before = pictureOf(m_source);
    const ino_t inode = inodeOf(m_source);

    const InterceptedRun run =
        moveGated(m_source, m_target, Lacks{.noReplace = noReplace, .hardLinks = noLinks});
    QCOMPARE(run.error, 0);
    QVERIFY(!exists(m_source));
    QCOMPARE(pictureOf(m_target), before);
    QCOMPARE(inodeOf(m_target), inode);
    QCOMPARE(namesIn(m_out), QByteArrayList{"target.txt"});
}

void TestFileMove::namesOfAnyBytes_data()
{
    QTest::addColumn<QByteArray>("name");
    QByteArray every;
    for (int byte = 1; byte < 256; ++byte) {
        if (byte != '/') every += char(byte);
    }
    QCOMPARE(every.size(), 254);
    QTest::newRow("every byte") << every;
    QTest::newRow("255 bytes") << QByteArray(255, 'n');
    QTest::newRow("three dots") << QByteArray("...");
    QTest::newRow("a line break") << QByteArray("two\nlines");
    QTest::newRow("a line break only") << QByteArray("\n");
    QTest::newRow("spaces") << QByteArray("  ");
    QTest::newRow("invalid text") << QByteArray("\xff\xfe\xc3");
    QTest::newRow("a text direction override") << QByteArray("gpj.\xe2\x80\xae"
                                                             "exe");
    QTest::newRow("like an option") << QByteArray("-rf");
    QTest::newRow("like a URL") << QByteArray("file:%2Fetc%2Fpasswd");
    QTest::newRow("a tilde") << QByteArray("~");
    for (int byte = 1; byte < 256; ++byte) {
        if (byte != '/' && byte != '.') QTest::addRow("byte %d", byte) << QByteArray(1, char(byte));
    }
}

void TestFileMove::namesOfAnyBytes()
{
    QFETCH(const QByteArray, name);
    const std::string source = m_scratch->path() + "/in/" + name.toStdString();
    const std::string target = m_out + '/' + name.toStdString();
    writeFile(source, "content");
    QCOMPARE(errorOfMove(source, target), 0);
    QVERIFY(!exists(source));
    QCOMPARE(namesIn(m_out), QByteArrayList{name});
    QCOMPARE(contents(target), QByteArray("content"));
}

void TestFileMove::nothingIsReplaced_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<QByteArray>("victim");
    for (const char* kind : {"file", "link", "folder"}) {
        for (const char* victim : victimKinds)
            QTest::addRow("%s onto %s", kind, victim) << QByteArray(kind) << QByteArray(victim);
    }
}

void TestFileMove::nothingIsReplaced()
{
    QFETCH(const QByteArray, kind);
    QFETCH(const QByteArray, victim);
    makeSource(kind);
    makeVictim(victim.toStdString(), m_target);
    const QByteArray source = pictureOf(m_source);
    const QByteArray target = pictureOf(m_target);
    QCOMPARE(errorOfMove(m_source, m_target), EEXIST);
    QCOMPARE(pictureOf(m_source), source);
    QCOMPARE(pictureOf(m_target), target);
}

void TestFileMove::failsWithTheReason_data()
{
    QTest::addColumn<QByteArray>("source");
    QTest::addColumn<QByteArray>("target");
    QTest::addColumn<int>("error");
    QTest::newRow("no source") << QByteArray("in/missing") << QByteArray("out/a") << ENOENT;
    QTest::newRow("no destination") << QByteArray("in/source.txt") << QByteArray("missing/a") << ENOENT;
    QTest::newRow("a file as destination") << QByteArray("in/source.txt") << QByteArray("file/a") << ENOTDIR;
    QTest::newRow("a name too long") << QByteArray("in/source.txt") << "out/" + QByteArray(256, 'n')
                                     << ENAMETOOLONG;
    QTest::newRow("a loop of links") << QByteArray("in/source.txt") << QByteArray("loop/a") << ELOOP;
    QTest::newRow("onto itself") << QByteArray("in/source.txt") << QByteArray("in/source.txt") << EEXIST;
}

void TestFileMove::failsWithTheReason()
{
    QFETCH(const QByteArray, source);
    QFETCH(const QByteArray, target);
    QFETCH(const int, error);
    makeSource("file");
    writeFile(m_scratch->path() + "/file", "");
    makeLink(m_scratch->path() + "/loop", "loop");
    const QByteArray before = pictureOf(m_scratch->path());
    const auto inScratch = [this](const QByteArray& path) {
        return m_scratch->path() + '/' + path.toStdString();
    };
    QCOMPARE(errorOfMove(inScratch(source), inScratch(target)), error);
    QCOMPARE(pictureOf(m_scratch->path()), before);

    QCOMPARE(errorOfMove(inScratch("in/source.txt"), ""), ENOENT);
    QCOMPARE(errorOfMove("", inScratch("out/a")), ENOENT);
    QCOMPARE(pictureOf(m_scratch->path()), before);
}

void TestFileMove::aRefusedRenameIsNeverACopy_data()
{
    QTest::addColumn<int>("error");
    for (const int error :
         {EACCES, EPERM, EROFS, EIO, ENOSPC, EDQUOT, EBUSY, EMLINK, ELOOP, EEXIST, ENOENT, ETXTBSY})
        QTest::addRow("%s", std::strerror(error)) << error;
}

void TestFileMove::aRefusedRenameIsNeverACopy()
{
    QFETCH(const int, error);
    makeSource("file");
    const ino_t inode = inodeOf(m_source);
    const InterceptedRun run = moveGated(m_source, m_target, [error](const InterceptedCall& call) {
        return call.name == "renameat2" ? Answer::fail(error) : Answer::proceed();
    });
    QCOMPARE(run.error, error);
    QCOMPARE(inodeOf(m_source), inode);
    QCOMPARE(namesIn(m_out), QByteArrayList());
    for (const std::string& label : run.calls) {
        const std::string name = label.substr(0, label.find(' '));
        for (const char* tries : {"linkat", "mkdirat", "renameat", "pread64", "pwrite64", "copy_file_range"})
            QVERIFY2(name != tries, label.c_str());
    }
}

void TestFileMove::aFolderIntoItself_data()
{
    QTest::addColumn<int>("noReplace");
    QTest::newRow("plain") << 0;
    QTest::newRow("cannot refuse to replace") << EINVAL;
}

void TestFileMove::aFolderIntoItself()
{
    QFETCH(const int, noReplace);
    makeSource("folder");
    m_target = m_source + "/below/again";
    QCOMPARE(moveGated(m_source, m_target, Lacks{.noReplace = noReplace}).error, EINVAL);
    QCOMPARE(namesIn(m_source), (QByteArrayList{"below", "link"}));
    QCOMPARE(namesIn(m_source + "/below"), QByteArrayList{"file"});
}

void TestFileMove::aVictimAtTheLastMoment_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<int>("noReplace");
    QTest::addColumn<bool>("noLinks");
    QTest::addColumn<QByteArray>("moment");
    QTest::addColumn<QByteArray>("victim");
    for (const char* victim : victimKinds) {
        const auto row = [victim](const char* kind, int noReplace, bool noLinks, const char* moment) {
            QTest::addRow("%s before %s of a %s", victim, moment, kind)
                << QByteArray(kind) << noReplace << noLinks << QByteArray(moment) << QByteArray(victim);
        };
        row("file", 0, false, "renameat2");
        row("folder", 0, false, "renameat2");
        row("file", EINVAL, false, "linkat");
        row("link", EINVAL, false, "linkat");
        row("file", EINVAL, true, "openat");
        row("link", EINVAL, true, "openat");
        row("folder", EINVAL, false, "mkdirat");
    }
}

void TestFileMove::aVictimAtTheLastMoment()
{
    QFETCH(const QByteArray, kind);
    QFETCH(const int, noReplace);
    QFETCH(const bool, noLinks);
    QFETCH(const QByteArray, moment);
    QFETCH(const QByteArray, victim);
    makeSource(kind);
    const QByteArray source = pictureOf(m_source);
    QByteArray target;

    const Lacks lacks{.noReplace = noReplace, .hardLinks = noLinks};
    const InterceptedRun run = moveWith(
        lacks, [&](const InterceptedCall& call) { return call.name == moment.toStdString(); },
        [&] {
            makeVictim(victim.toStdString(), m_target);
            target = pictureOf(m_target);
        });
    QCOMPARE(run.error, EEXIST);
    QCOMPARE(pictureOf(m_source), source);
    QCOMPARE(pictureOf(m_target), target);
    QCOMPARE(namesIn(m_out), QByteArrayList{"target.txt"});
}

void TestFileMove::ofManyThreadsOneGetsTheName()
{
    constexpr int count = 8;
    for (int round = 0; round < 50; ++round) {
        const std::string target = m_target + std::to_string(round);
        FileMove fileMove;
        std::atomic<int> moved = 0;
        std::vector<std::thread> threads;
        for (int i = 0; i < count; ++i) {
            const std::string source = m_source + std::to_string(round) + '.' + std::to_string(i);
            writeFile(source, source);
            threads.emplace_back([&, source] {
                const Outcome<void> outcome = fileMove.moveItem(source, target);
                if (outcome)
                    ++moved;
                else if (outcome.error().code != EEXIST)
                    moved += 100;
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        QCOMPARE(moved, 1);
    }
    QCOMPARE(namesIn(m_out).size(), 50);
    QCOMPARE(namesIn(m_scratch->path() + "/in").size(), 50 * (count - 1));
}

void TestFileMove::ofManyThreadsOneMovesTheFile()
{
    constexpr int count = 8;
    for (int round = 0; round < 50; ++round) {
        writeFile(m_source, "content");
        FileMove fileMove;
        std::atomic<int> moved = 0;
        std::vector<std::thread> threads;
        for (int i = 0; i < count; ++i) {
            threads.emplace_back([&, target = m_target + std::to_string(round) + '.' + std::to_string(i)] {
                const Outcome<void> outcome = fileMove.moveItem(m_source, target);
                if (outcome)
                    ++moved;
                else if (outcome.error().code != ENOENT)
                    moved += 100;
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        QCOMPARE(moved, 1);
    }
    QCOMPARE(namesIn(m_out).size(), 50);
}

void TestFileMove::aPlaceholderThatWasReplacedIsLeftAlone()
{
    makeSource("file");
    const auto looksAtTheTarget = [this](const InterceptedCall& call) {
        return call.name == "statx" && call.text(1) == m_target;
    };
    const InterceptedRun run = moveWith({.noReplace = EINVAL, .hardLinks = true}, looksAtTheTarget, [this] {
        removeEntry(m_target);
        writeFile(m_target, "a victim");
    });
    QCOMPARE(run.error, EEXIST);
    QCOMPARE(contents(m_target), QByteArray("a victim"));
    QCOMPARE(contents(m_source), QByteArray("content"));
}

void TestFileMove::somethingPutIntoTheNewFolderIsLeftAlone()
{
    makeSource("folder");
    const QByteArray before = pictureOf(m_source);
    const auto renames = [](const InterceptedCall& call) { return call.name == "renameat"; };
    const InterceptedRun run =
        moveWith({.noReplace = EINVAL}, renames, [this] { writeFile(m_target + "/victim", "a victim"); });
    QVERIFY(run.error == ENOTEMPTY || run.error == EEXIST);
    QCOMPARE(contents(m_target + "/victim"), QByteArray("a victim"));
    QCOMPARE(pictureOf(m_source), before);
}

void TestFileMove::aNewFileUnderTheOldNameStays()
{
    makeSource("file");
    bool isLinked = false;
    const auto looksAgain = [&](const InterceptedCall& call) {
        isLinked |= call.name == "linkat";
        return isLinked && call.name == "statx" && call.text(1) == m_source;
    };
    const InterceptedRun run = moveWith({.noReplace = EINVAL}, looksAgain, [this] {
        removeEntry(m_source);
        writeFile(m_source, "saved again");
    });
    QCOMPARE(run.error, EBUSY);
    QCOMPARE(contents(m_source), QByteArray("saved again"));
    QCOMPARE(namesIn(m_out), QByteArrayList());
}

void TestFileMove::aSourceThatCannotBeUnlinkedTakesItsNewNameBack()
{
    makeSource("file");
    const InterceptedRun run =
        moveGated(m_source, m_target, Lacks{.noReplace = EINVAL}, [this](const InterceptedCall& call) {
            const bool isSource = call.name == "unlinkat" && call.text(1) == m_source;
            return isSource ? Answer::fail(EACCES) : Answer::proceed();
        });
    QCOMPARE(run.error, EACCES);
    QCOMPARE(contents(m_source), QByteArray("content"));
    QCOMPARE(namesIn(m_out), QByteArrayList());
}

void TestFileMove::aChangeWhoseAnswerWasLost_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<bool>("noLinks");
    QTest::addColumn<QByteArray>("lost");
    QTest::addColumn<int>("answer");
    for (const int answer : {ENOENT, EIO, ETIMEDOUT}) {
        const auto row = [answer](const char* kind, bool noLinks, const char* lost) {
            QTest::addRow("%s, %s, %s", kind, lost, strerrorname_np(answer))
                << QByteArray(kind) << noLinks << QByteArray(lost) << answer;
        };
        row("file", false, "unlinkat");
        row("file", true, "renameat");
        row("empty folder", false, "renameat");
    }
}

// The server has done it, and the client hears of a failure.
void TestFileMove::aChangeWhoseAnswerWasLost()
{
    QFETCH(const QByteArray, kind);
    QFETCH(const bool, noLinks);
    QFETCH(const QByteArray, lost);
    QFETCH(const int, answer);
    if (kind == "empty folder")
        makeFolder(m_source);
    else
        makeSource(kind);
    const ino_t inode = inodeOf(m_source);
    const Lacks lacks{.noReplace = EINVAL, .hardLinks = noLinks};
    const InterceptedRun run = moveGated(m_source, m_target, lacks, [&](const InterceptedCall& call) {
        if (call.name != lost.constData() || !exists(m_source)) return answerVolume(call, NFS_SUPER_MAGIC);
        if (lost == "unlinkat")
            removeEntry(m_source);
        else
            renameEntry(m_source, m_target);
        return Answer::fail(answer);
    });
    QCOMPARE(run.error, lost == "unlinkat" && answer == ENOENT ? 0 : answer);
    QCOMPARE(inodeOf(m_target), inode);
}

void TestFileMove::everyWayToSayThatThereAreNoLinks()
{
    for (const int error : {EPERM, EOPNOTSUPP, ENOSYS, EMLINK}) {
        makeSource("file");
        const Lacks lacks{.noReplace = EINVAL, .hardLinks = true, .hardLinksError = error};
        QCOMPARE(moveGated(m_source, m_target, lacks).error, 0);
        QCOMPARE(contents(m_target), QByteArray("content"));
        removeEntry(m_target);
    }
}

void TestFileMove::aVolumeThatEndsWithinTheFallbackIsCrossed_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<bool>("noLinks");
    QTest::addColumn<QByteArray>("call");
    QTest::newRow("file") << QByteArray("file") << false << QByteArray("linkat");
    QTest::newRow("file, nor link") << QByteArray("file") << true << QByteArray("renameat");
    QTest::newRow("folder") << QByteArray("folder") << false << QByteArray("renameat");
}

void TestFileMove::aVolumeThatEndsWithinTheFallbackIsCrossed()
{
    QFETCH(const QByteArray, kind);
    QFETCH(const bool, noLinks);
    QFETCH(const QByteArray, call);
    makeSource(kind);
    const QByteArray before = pictureOf(m_source);
    const ino_t inode = inodeOf(m_source);
    const Lacks lacks{.noReplace = EINVAL, .hardLinks = noLinks};
    const InterceptedRun run = moveGated(m_source, m_target, lacks, [&call](const InterceptedCall& now) {
        return now.name == call.constData() && now.ordinal == 1 ? Answer::fail(EXDEV) : Answer::proceed();
    });
    QCOMPARE(run.error, 0);
    QVERIFY(!exists(m_source));
    QCOMPARE(pictureOf(m_target), before);
    QVERIFY(inodeOf(m_target) != inode);
}

HARBEX_TEST_MAIN(TestFileMove)

#include "tst_FileMove.moc"
