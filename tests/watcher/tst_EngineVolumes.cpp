#include "support/EngineTest.h"
#include "support/PrivateMounts.h"

using namespace harbex;
using namespace harbex::test;

/// Watched folders on volumes that come and go, and on an overlay file system. The process has its own mount
/// namespace.
class TestEngineVolumes : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void aFolderIsWatchedOnEachVolumeThatIsMountedThere()
    {
        makeFolder(m_inbox + "/beneath");
        QVERIFY(start({takeAll(m_out)}));
        QVERIFY(sentinelFoldersPass());
        for (int i = 0; i < 3; ++i) {
            const std::string number = std::to_string(i);
            // The volume has its content before it is mounted at the inbox.
            const std::string aside = newFolder("aside" + number);
            const Mount volume = Mount::memory(aside);
            makeFolder(aside + "/old");
            std::vector<int> before = engine().activeFDs();
            Mount mounted = Mount::again(aside, m_inbox);
            QVERIFY(waitFor([&] { return isWatchedAgain(engine(), before); }));
            arriveFolder("late" + number);
            QVERIFY(isLogged(moved("late" + number)));
            QVERIFY(sentinelFoldersPass());
            QCOMPARE(namesIn(m_inbox), QByteArrayList{"old"});

            before = engine().activeFDs();
            QVERIFY(waitFor([&] { return mounted.unmount(); }));
            QVERIFY(waitFor([&] { return isWatchedAgain(engine(), before); }));
            QVERIFY(sentinelFoldersPass());
            QCOMPARE(namesIn(m_inbox), QByteArrayList{"beneath"});
        }
        QCOMPARE(namesIn(m_out), QByteArrayList({"late0", "late1", "late2"}));
    }

    void aFolderIsWatchedOnceItsVolumeIsMounted()
    {
        const std::string place = newFolder("place");
        const std::string inbox = place + "/deep/inbox";
        const std::string aside = newFolder("aside");
        const Mount volume = Mount::memory(aside);
        for (const char* name : {"/deep", "/deep/inbox", "/deep/inbox/old"})
            makeFolder(aside + name);
        QVERIFY(start({watched(inbox, {takeAll(m_out)})}));
        QVERIFY(engine().activeFDs().empty());
        for (const char* name : {"first", "second"}) {
            Mount mounted = Mount::again(aside, place);
            QVERIFY(waitFor([this] { return engine().activeFDs().size() == 1; }));
            makeFolder(inbox + '/' + name);
            QVERIFY(isLogged(moved(name)));
            QVERIFY(hasNames(inbox, {"old"}));
            QVERIFY(waitFor([&] { return mounted.unmount(); }));
            QVERIFY(waitFor([this] { return engine().activeFDs().empty(); }));
        }
    }

    void aLinkIsFollowedToAVolumeThatIsMountedLater()
    {
        const std::string place = newFolder("place");
        makeLink(at("link"), "place/inbox");
        QVERIFY(start({watched(at("link"), {takeAll(m_out)})}));
        QVERIFY(engine().activeFDs().empty());
        const Mount mounted = Mount::memory(place);
        makeFolder(place + "/inbox");
        QVERIFY(waitFor([this] { return engine().activeFDs().size() == 1; }));
        makeFolder(place + "/inbox/Notes");
        QVERIFY(isLogged(moved("Notes")));
    }

    /// The folder keeps its inode and gets another birth time.
    void aFolderIsStillWatchedAfterAnOverlayHasCopiedItUp()
    {
        const Mount volume = Mount::memory(newFolder("volume"));
        const Mount overlay = mountOverlay();
        QVERIFY(start({watched(m_merged, {takeAll(m_out)})}));
        const std::vector<int> before = engine().activeFDs();
        QCOMPARE(before.size(), 1U);
        QVERIFY(!exists(at("volume/upper/inbox")));
        for (const char* name : {"first", "second"}) {
            makeFolder(m_merged + '/' + name);
            QVERIFY(isLogged(moved(name)));
            QVERIFY(exists(at("volume/upper/inbox")));
        }
        QCOMPARE(engine().activeFDs(), before);
        QCOMPARE(namesIn(m_out), QByteArrayList({"first", "second"}));
        QVERIFY(hasNames(m_merged, {"old"}));
    }

    void aFolderThatReplacesAnotherOnAnOverlayIsWatched()
    {
        const Mount volume = Mount::memory(newFolder("volume"));
        const Mount overlay = mountOverlay();
        const std::string spare = at("volume/merged/spare");
        QVERIFY(start({watched(m_merged, {takeAll(m_out)})}));
        for (const char* name : {"first", "second"}) {
            const std::vector<int> before = engine().activeFDs();
            makeFolder(spare);
            makeFolder(spare + "/old");
            removeEntry(m_merged + "/old");
            removeEntry(m_merged);
            renameEntry(spare, m_merged);
            QVERIFY(waitFor([&] { return isWatchedAgain(engine(), before); }));
            makeFolder(m_merged + '/' + name);
            QVERIFY(isLogged(moved(name)));
            QVERIFY(hasNames(m_merged, {"old"}));
        }
        QCOMPARE(namesIn(m_out), QByteArrayList({"first", "second"}));
    }

private:
    /// Mounts an overlay on the volume. Its folder "inbox" with the entry "old" is in the lower layer.
    [[nodiscard]] Mount mountOverlay()
    {
        const std::string volume = at("volume");
        for (const char* name : {"/lower", "/lower/inbox", "/lower/inbox/old", "/upper", "/work", "/merged"})
            makeFolder(volume + name);
        m_merged = volume + "/merged/inbox";
        return Mount::overlay(volume + "/lower", volume + "/upper", volume + "/work", volume + "/merged");
    }

    std::string m_merged;
};

HARBEX_MAIN(TestEngineVolumes)
{
    enterPrivateNamespace();
    reportApartFromStandardOutput();
    return runTest<QCoreApplication, TestEngineVolumes>(argc, argv);
}

#include "tst_EngineVolumes.moc"
