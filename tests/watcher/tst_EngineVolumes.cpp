#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/PrivateMounts.h"

#include <memory>

using namespace harbex;
using namespace harbex::test;

/// Watched folders on volumes that come and go, and on an overlay file system. All of it in a namespace of
/// the test's own.
class TestEngineVolumes : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void aFolderIsWatchedOnWhateverVolumeIsMounted();
    void aFolderIsWatchedOnceItsVolumeIsMounted();
    void aLinkIsFollowedToAVolumeThatIsMountedLater();
    void aFolderIsWatchedOnWhenAnOverlayCopiesItUp();
    void aFolderThatReplacesAnotherOnAnOverlayIsAnotherOne();

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<EngineOutput> m_output;
    std::string m_out;
};

void TestEngineVolumes::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_out = m_scratch->makeFolder("out");
    m_output = std::make_unique<EngineOutput>();
}

void TestEngineVolumes::cleanup()
{
    m_output.reset();
}

void TestEngineVolumes::aFolderIsWatchedOnWhateverVolumeIsMounted()
{
    const std::string inbox = m_scratch->makeFolder("inbox");
    writeFile(inbox + "/beneath.jpg", "");
    Sentinel sentinel(*m_scratch, inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(inbox, {sentinel.rule(), takeAll(m_out)})}));
    QVERIFY(sentinel.passes(engine));
    std::vector<int> before = engine.activeFDs();
    const auto isAnotherWatched = [&] {
        return QTest::qWaitFor([&] { return engine.activeFDs().size() == 1 && engine.activeFDs() != before; },
                               patience);
    };
    for (int i = 0; i < 3; ++i) {
        const std::string late = "/late" + std::to_string(i) + ".jpg";
        {
            // What it holds is there before anybody sees it at the folder.
            const std::string aside = m_scratch->makeFolder("aside" + std::to_string(i));
            const Mount volume = Mount::memory(aside);
            writeFile(aside + "/old.jpg", "");
            Mount mounted = Mount::again(aside, inbox);
            QVERIFY(isAnotherWatched());
            writeFile(inbox + late, "");
            QTRY_VERIFY_WITH_TIMEOUT(exists(m_out + late), patience);
            QTRY_COMPARE_WITH_TIMEOUT(namesIn(inbox), QByteArrayList{"old.jpg"}, patience);
            before = engine.activeFDs();
            QTRY_VERIFY_WITH_TIMEOUT(mounted.unmount(), patience);
        }
        QVERIFY(isAnotherWatched());
        QVERIFY(sentinel.passes(engine));
        QCOMPARE(namesIn(inbox), QByteArrayList{"beneath.jpg"});
        before = engine.activeFDs();
    }
    QCOMPARE(namesIn(m_out).size(), 3);
}

void TestEngineVolumes::aFolderIsWatchedOnceItsVolumeIsMounted()
{
    const std::string place = m_scratch->makeFolder("place");
    const std::string inbox = place + "/deep/inbox";
    const std::string aside = m_scratch->makeFolder("aside");
    const Mount volume = Mount::memory(aside);
    makeFolder(aside + "/deep");
    makeFolder(aside + "/deep/inbox");
    writeFile(aside + "/deep/inbox/old.jpg", "");
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(inbox, {takeAll(m_out)})}));
    QVERIFY(engine.activeFDs().empty());
    for (const char* name : {"first.jpg", "second.jpg"}) {
        Mount mounted = Mount::again(aside, place);
        QTRY_COMPARE_WITH_TIMEOUT(engine.activeFDs().size(), 1U, patience);
        writeFile(inbox + '/' + name, "");
        QTRY_VERIFY_WITH_TIMEOUT(exists(m_out + '/' + name), patience);
        QTRY_COMPARE_WITH_TIMEOUT(namesIn(inbox), QByteArrayList{"old.jpg"}, patience);
        QTRY_VERIFY_WITH_TIMEOUT(mounted.unmount(), patience);
        QTRY_VERIFY_WITH_TIMEOUT(engine.activeFDs().empty(), patience);
    }
}

void TestEngineVolumes::aLinkIsFollowedToAVolumeThatIsMountedLater()
{
    const std::string place = m_scratch->makeFolder("place");
    const std::string link = m_scratch->path() + "/link";
    makeLink(link, "place/inbox");
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(link, {takeAll(m_out)})}));
    QVERIFY(engine.activeFDs().empty());
    const Mount mounted = Mount::memory(place);
    makeFolder(place + "/inbox");
    QTRY_COMPARE_WITH_TIMEOUT(engine.activeFDs().size(), 1U, patience);
    writeFile(place + "/inbox/photo.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"photo.jpg"}, patience);
}

/// It keeps its inode and gets another time of birth.
void TestEngineVolumes::aFolderIsWatchedOnWhenAnOverlayCopiesItUp()
{
    const Mount volume = Mount::memory(m_scratch->makeFolder("volume"));
    const std::string base = m_scratch->path() + "/volume";
    for (const char* name : {"/lower", "/lower/inbox", "/upper", "/work", "/merged"})
        makeFolder(base + name);
    writeFile(base + "/lower/inbox/old.jpg", "");
    const Mount overlay = Mount::overlay(base + "/lower", base + "/upper", base + "/work", base + "/merged");
    const std::string inbox = base + "/merged/inbox";
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(inbox, {takeAll(m_out)})}));
    const std::vector<int> before = engine.activeFDs();
    QCOMPARE(before.size(), 1U);
    QVERIFY(!exists(base + "/upper/inbox"));
    for (const char* name : {"first.jpg", "second.jpg"}) {
        writeFile(inbox + '/' + name, name);
        QTRY_COMPARE_WITH_TIMEOUT(contents(m_out + '/' + name), QByteArray(name), patience);
        QVERIFY(exists(base + "/upper/inbox"));
    }
    QCOMPARE(engine.activeFDs(), before);
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(inbox), QByteArrayList{"old.jpg"}, patience);
}

void TestEngineVolumes::aFolderThatReplacesAnotherOnAnOverlayIsAnotherOne()
{
    const Mount volume = Mount::memory(m_scratch->makeFolder("volume"));
    const std::string base = m_scratch->path() + "/volume";
    for (const char* name : {"/lower", "/lower/inbox", "/upper", "/work", "/merged"})
        makeFolder(base + name);
    const Mount overlay = Mount::overlay(base + "/lower", base + "/upper", base + "/work", base + "/merged");
    const std::string inbox = base + "/merged/inbox";
    const std::string spare = base + "/merged/spare";
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(inbox, {takeAll(m_out)})}));
    for (const char* name : {"first.jpg", "second.jpg"}) {
        const std::vector<int> before = engine.activeFDs();
        makeFolder(spare);
        writeFile(spare + "/old.jpg", "");
        if (exists(inbox + "/old.jpg")) removeEntry(inbox + "/old.jpg");
        removeEntry(inbox);
        renameEntry(spare, inbox);
        QTRY_VERIFY_WITH_TIMEOUT(engine.activeFDs().size() == 1 && engine.activeFDs() != before, patience);
        writeFile(inbox + '/' + name, "");
        QTRY_VERIFY_WITH_TIMEOUT(exists(m_out + '/' + name), patience);
        QTRY_COMPARE_WITH_TIMEOUT(namesIn(inbox), QByteArrayList{"old.jpg"}, patience);
    }
    QCOMPARE(namesIn(m_out), QByteArrayList({"first.jpg", "second.jpg"}));
}

int main(int argc, char** argv)
{
    enterPrivateNamespace();
    reportApartFromStandardOutput();
    return runTest<QCoreApplication, TestEngineVolumes>(argc, argv);
}

#include "tst_EngineVolumes.moc"
