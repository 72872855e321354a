#include "base/FileDescriptor.h"
#include "support/EngineOutput.h"
#include "support/EngineProbe.h"

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Lets two entries change places, so that there is no moment without one.
void exchange(const std::string& a, const std::string& b)
{
    if (::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) != 0)
        qFatal("cannot exchange %s and %s", a.c_str(), b.c_str());
}

void makeFolders(const std::string& path)
{
    std::filesystem::create_directories(path);
}

/// What a test does in its scratch folder, whose path it gets.
using Change = std::function<void(const std::string& scratch)>;

void doNothing(const std::string&) {}

} // namespace

/// Watched folders that are missing, go away, and come back.
class TestEngineFolders : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void aFolderIsWatchedWheneverOneStandsAtItsUrl_data();
    void aFolderIsWatchedWheneverOneStandsAtItsUrl();
    void aFolderThatTakesThePlaceOfAnotherIsWatched_data();
    void aFolderThatTakesThePlaceOfAnotherIsWatched();
    void aFolderThatComesAndGoesIsWatchedEachTime();
    void whatArrivesInAFolderThatIsAwayIsKnownWhenItReturns();
    void aFolderThatIsStillInUseWhenItIsRemovedIsGone();
    void foldersBelowEachOtherComeBackTogether();

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<EngineOutput> m_output;
    std::string m_out;
    std::string m_other;
};

void TestEngineFolders::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_out = m_scratch->makeFolder("out");
    m_other = m_scratch->makeFolder("other");
    m_output = std::make_unique<EngineOutput>();
}

void TestEngineFolders::cleanup()
{
    m_output.reset();
}

void TestEngineFolders::aFolderIsWatchedWheneverOneStandsAtItsUrl_data()
{
    // The URL is always the same path. What stands there first, if anything; what is done to it; and what
    // brings a folder there that holds "old.jpg".
    QTest::addColumn<Change>("begin");
    QTest::addColumn<Change>("leave");
    QTest::addColumn<Change>("comeBack");

    const Change makeIt = [](const std::string& scratch) { makeFolders(scratch + "/a/b/inbox"); };
    const Change makeSpare = [](const std::string& scratch) {
        makeFolders(scratch + "/spare/b/inbox");
        writeFile(scratch + "/spare/b/inbox/old.jpg", "");
    };
    const Change withSpare = [=](const std::string& scratch) {
        makeIt(scratch);
        makeSpare(scratch);
    };
    const auto rename = [](const char* from, const char* to) -> Change {
        return [=](const std::string& scratch) { renameEntry(scratch + from, scratch + to); };
    };

    QTest::newRow("deleted, and another comes")
        << withSpare << Change([](const std::string& scratch) { removeEntry(scratch + "/a/b/inbox"); })
        << rename("/spare/b/inbox", "/a/b/inbox");
    QTest::newRow("renamed, and renamed back")
        << makeIt << rename("/a/b/inbox", "/a/b/away") << Change([](const std::string& scratch) {
               writeFile(scratch + "/a/b/away/old.jpg", "");
               renameEntry(scratch + "/a/b/away", scratch + "/a/b/inbox");
           });
    QTest::newRow("moved to another folder, and another comes")
        << withSpare << rename("/a/b/inbox", "/away") << rename("/spare/b/inbox", "/a/b/inbox");
    QTest::newRow("the folder above renamed, and another put in its place")
        << withSpare << rename("/a/b", "/a/away") << rename("/spare/b", "/a/b");
    QTest::newRow("the folder two levels above renamed, and another put in its place")
        << withSpare << rename("/a", "/away") << rename("/spare", "/a");
    QTest::newRow("all of it deleted, and made again one level at a time")
        << withSpare
        << Change([](const std::string& scratch) { std::filesystem::remove_all(scratch + "/a"); })
        << Change([](const std::string& scratch) {
               makeFolder(scratch + "/a");
               makeFolder(scratch + "/a/b");
               renameEntry(scratch + "/spare/b/inbox", scratch + "/a/b/inbox");
           });
    QTest::newRow("a file put in its place, and a folder again")
        << withSpare << Change([](const std::string& scratch) {
               removeEntry(scratch + "/a/b/inbox");
               writeFile(scratch + "/a/b/inbox", "");
           })
        << Change([](const std::string& scratch) {
               exchange(scratch + "/spare/b/inbox", scratch + "/a/b/inbox");
           });

    QTest::newRow("not there at the start") << makeSpare << Change(doNothing) << rename("/spare", "/a");
    QTest::newRow("not there at the start, and made one level at a time")
        << makeSpare << Change(doNothing) << Change([](const std::string& scratch) {
               makeFolder(scratch + "/a");
               makeFolder(scratch + "/a/b");
               renameEntry(scratch + "/spare/b/inbox", scratch + "/a/b/inbox");
           });
    QTest::newRow("not there at the start, and other things made above it first")
        << makeSpare << Change([](const std::string& scratch) {
               writeFile(scratch + "/a", "");
               removeEntry(scratch + "/a");
               makeLink(scratch + "/a", "spare/b");
               removeEntry(scratch + "/a");
           })
        << rename("/spare", "/a");

    QTest::newRow("a dangling link that comes to life") << Change([=](const std::string& scratch) {
        makeSpare(scratch);
        makeFolders(scratch + "/a/b");
        makeLink(scratch + "/a/b/inbox", "../../target/b/inbox");
    }) << Change(doNothing) << rename("/spare", "/target");
    QTest::newRow("links to links that come to life") << Change([=](const std::string& scratch) {
        makeSpare(scratch);
        makeLink(scratch + "/a", scratch + "/second");
        makeLink(scratch + "/second", "third/x/..");
    }) << Change(doNothing) << Change([](const std::string& scratch) {
        makeFolder(scratch + "/spare/x");
        renameEntry(scratch + "/spare", scratch + "/third");
    });
    QTest::newRow("a link whose target is renamed and replaced") << Change([=](const std::string& scratch) {
        makeSpare(scratch);
        makeFolders(scratch + "/target/b/inbox");
        makeLink(scratch + "/a", "target");
    }) << rename("/target/b", "/target/away") << rename("/spare/b", "/target/b");
    QTest::newRow("a link that is removed and made again, to another folder")
        << Change([=](const std::string& scratch) {
               makeSpare(scratch);
               makeFolders(scratch + "/target/inbox");
               makeFolder(scratch + "/a");
               makeLink(scratch + "/a/b", "../target");
           })
        << Change([](const std::string& scratch) { removeEntry(scratch + "/a/b"); })
        << Change([](const std::string& scratch) { makeLink(scratch + "/a/b", "../spare/b"); });
}

void TestEngineFolders::aFolderIsWatchedWheneverOneStandsAtItsUrl()
{
    QFETCH(const Change, begin);
    QFETCH(const Change, leave);
    QFETCH(const Change, comeBack);
    const std::string& scratch = m_scratch->path();
    const std::string inbox = scratch + "/a/b/inbox";
    begin(scratch);
    const bool isThere = exists(inbox + "/.");
    Sentinel sentinel(*m_scratch, m_other);
    Sentinel inInbox(*m_scratch, inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(
        engine, {watched(inbox, {inInbox.rule(), takeAll(m_out)}), watched(m_other, {sentinel.rule()})}));
    QCOMPARE(engine.activeFDs().size(), isThere ? 2U : 1U);
    if (isThere) {
        m_scratch->arrive(inbox + "/first.jpg", "");
        QTRY_COMPARE_WITH_TIMEOUT(namesIn(inbox), QByteArrayList(), patience);
    }

    leave(scratch);
    QTRY_COMPARE_WITH_TIMEOUT(engine.activeFDs().size(), 1U, patience);
    QVERIFY(sentinel.passes(engine));

    comeBack(scratch);
    QTRY_COMPARE_WITH_TIMEOUT(engine.activeFDs().size(), 2U, patience);
    QVERIFY(inInbox.passes(engine));
    QCOMPARE(namesIn(inbox), QByteArrayList{"old.jpg"});
    m_scratch->arrive(inbox + "/late.jpg", "");
    QTRY_VERIFY_WITH_TIMEOUT(exists(m_out + "/late.jpg"), patience);
    QCOMPARE(namesIn(inbox), QByteArrayList{"old.jpg"});
    QVERIFY(engine.isRunning());
    QCOMPARE(messages(engine).filter(QStringLiteral("ailed")), QStringList());
}

void TestEngineFolders::aFolderThatTakesThePlaceOfAnotherIsWatched_data()
{
    QTest::addColumn<Change>("replace");
    QTest::newRow("the folders change places") << Change(
        [](const std::string& scratch) { exchange(scratch + "/a/inbox", scratch + "/spare/inbox"); });
    QTest::newRow("the folders above change places")
        << Change([](const std::string& scratch) { exchange(scratch + "/a", scratch + "/spare"); });
    QTest::newRow("an empty one is replaced by a rename") << Change(
        [](const std::string& scratch) { renameEntry(scratch + "/spare/inbox", scratch + "/a/inbox"); });
    QTest::newRow("a link is replaced by another") << Change([](const std::string& scratch) {
        makeLink(scratch + "/a/link", "../spare/inbox");
        renameEntry(scratch + "/a/link", scratch + "/a/watched");
    });
}

void TestEngineFolders::aFolderThatTakesThePlaceOfAnotherIsWatched()
{
    QFETCH(const Change, replace);
    const std::string& scratch = m_scratch->path();
    makeFolders(scratch + "/a/inbox");
    makeFolders(scratch + "/spare/inbox");
    writeFile(scratch + "/spare/inbox/old.jpg", "");
    makeLink(scratch + "/a/watched", "inbox");
    makeLink(scratch + "/spare/watched", "inbox");
    const std::string path = scratch + "/a/watched";
    Sentinel sentinel(*m_scratch, path);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(path, {sentinel.rule(), takeAll(m_out)})}));
    QVERIFY(sentinel.passes(engine));
    const std::vector<int> before = engine.activeFDs();

    replace(scratch);
    QTRY_VERIFY_WITH_TIMEOUT(engine.activeFDs().size() == 1 && engine.activeFDs() != before, patience);
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(namesIn(path), QByteArrayList{"old.jpg"});
    QCOMPARE(namesIn(m_out), QByteArrayList());
    // What was watched before is not any more, wherever it is now.
    const std::string former =
        exists(scratch + "/spare/inbox/old.jpg") ? scratch + "/a/inbox" : scratch + "/spare/inbox";
    if (exists(former)) m_scratch->arrive(former + "/strange.jpg", "");
    m_scratch->arrive(path + "/late.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"late.jpg"}, patience);
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(namesIn(m_out), QByteArrayList{"late.jpg"});
}

void TestEngineFolders::aFolderThatComesAndGoesIsWatchedEachTime()
{
    const std::string inbox = m_scratch->makeFolder("inbox");
    const std::string away = m_scratch->path() + "/away";
    Sentinel sentinel(*m_scratch, inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(inbox, {sentinel.rule(), takeAll(m_out)})}));
    for (int i = 0; i < 50; ++i) {
        // Faster than anybody could follow.
        renameEntry(inbox, away);
        if (i % 2 == 0) removeEntry(away);
        if (i % 2 == 0) makeFolder(away);
        renameEntry(away, inbox);
    }
    // One of its looks may still take what arrives now for something that was there before.
    QTRY_COMPARE_WITH_TIMEOUT(engine.activeFDs().size(), 1U, patience);
    int sent = 0;
    const auto hasOneArrived = [&] {
        writeFile(inbox + "/" + std::to_string(sent++) + ".jpg", "");
        return QTest::qWaitFor([&] { return !namesIn(m_out).isEmpty(); }, 2000);
    };
    QTRY_VERIFY_WITH_TIMEOUT(hasOneArrived(), patience);
    QVERIFY(sentinel.passes(engine));
}

void TestEngineFolders::whatArrivesInAFolderThatIsAwayIsKnownWhenItReturns()
{
    const std::string inbox = m_scratch->makeFolder("inbox");
    const std::string renamed = m_scratch->path() + "/renamed";
    Sentinel sentinel(*m_scratch, m_other);
    Sentinel inInbox(*m_scratch, inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(
        engine, {watched(inbox, {inInbox.rule(), takeAll(m_out)}), watched(m_other, {sentinel.rule()})}));
    renameEntry(inbox, renamed);
    m_scratch->arrive(renamed + "/photo.jpg", "");
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(namesIn(renamed), QByteArrayList{"photo.jpg"});

    renameEntry(renamed, inbox);
    QTRY_COMPARE_WITH_TIMEOUT(engine.activeFDs().size(), 2U, patience);
    QVERIFY(inInbox.passes(engine));
    QCOMPARE(namesIn(inbox), QByteArrayList{"photo.jpg"});
    QCOMPARE(namesIn(m_out), QByteArrayList());
}

/// The kernel says that a folder is deleted only when nobody uses it any more.
void TestEngineFolders::aFolderThatIsStillInUseWhenItIsRemovedIsGone()
{
    const std::string inbox = m_scratch->makeFolder("inbox");
    const std::string spare = m_scratch->makeFolder("spare");
    writeFile(spare + "/old.jpg", "");
    const FileDescriptor user(::open(inbox.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    QVERIFY(user);
    Sentinel sentinel(*m_scratch, inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(inbox, {sentinel.rule(), takeAll(m_out)})}));

    removeEntry(inbox);
    QTRY_VERIFY_WITH_TIMEOUT(engine.activeFDs().empty(), patience);
    renameEntry(spare, inbox);
    QTRY_COMPARE_WITH_TIMEOUT(engine.activeFDs().size(), 1U, patience);
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(namesIn(inbox), QByteArrayList{"old.jpg"});
}

void TestEngineFolders::foldersBelowEachOtherComeBackTogether()
{
    const std::string top = m_scratch->makeFolder("top");
    const std::string middle = top + "/middle";
    const std::string bottom = middle + "/bottom";
    makeFolders(bottom);
    const std::string away = m_scratch->path() + "/away";
    const std::string topOut = m_scratch->makeFolder("top out");
    const std::string middleOut = m_scratch->makeFolder("middle out");
    const std::string bottomOut = m_scratch->makeFolder("bottom out");
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(top, {takeAll(topOut)}), watched(middle, {takeAll(middleOut)}),
                                  watched(bottom, {takeAll(bottomOut)})}));
    for (int i = 0; i < 3; ++i) {
        renameEntry(top, away);
        QTRY_VERIFY_WITH_TIMEOUT(engine.activeFDs().empty(), patience);
        renameEntry(away, top);
        QTRY_COMPARE_WITH_TIMEOUT(engine.activeFDs().size(), 3U, patience);
    }
    m_scratch->arrive(top + "/photo.jpg", "top");
    m_scratch->arrive(middle + "/photo.jpg", "middle");
    m_scratch->arrive(bottom + "/photo.jpg", "bottom");
    QTRY_COMPARE_WITH_TIMEOUT(contents(topOut + "/photo.jpg"), QByteArray("top"), patience);
    QTRY_COMPARE_WITH_TIMEOUT(contents(middleOut + "/photo.jpg"), QByteArray("middle"), patience);
    QTRY_COMPARE_WITH_TIMEOUT(contents(bottomOut + "/photo.jpg"), QByteArray("bottom"), patience);
    QCOMPARE(namesIn(top), QByteArrayList{"middle"});
}

HARBEX_ENGINE_TEST_MAIN(TestEngineFolders)

#include "tst_EngineFolders.moc"
