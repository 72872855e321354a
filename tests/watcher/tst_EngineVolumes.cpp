#include "support/EngineTest.h"
#include "support/PrivateMounts.h"

#include <filesystem>

using namespace harbex;
using namespace harbex::test;

/// Watched folders on volumes that come and go, and on an overlay file system. The process has its own
/// namespace.
class TestEngineVolumes : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void aFolderIsWatchedOnEachVolumeThatIsMountedThere()
    {
        const std::string behind = newFolder("behind");
        const Mount again = Mount::again(m_inbox, behind);
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
            QVERIFY(areReplaced(before));
            // The first folder is hidden, but still exists.
            makeFolder(behind + "/hidden" + number);
            arriveFolder("late" + number);
            QVERIFY(isLogged(moved("late" + number)));
            QVERIFY(sentinelFoldersPass());
            QCOMPARE(namesIn(m_inbox), QByteArrayList{"old"});

            before = engine().activeFDs();
            QVERIFY(waitFor([&] { return mounted.unmount(); }));
            QVERIFY(areReplaced(before));
            QVERIFY(sentinelFoldersPass());
            QVERIFY(exists(m_inbox + "/beneath") && exists(m_inbox + "/hidden" + number));
        }
        QCOMPARE(namesIn(m_inbox), QByteArrayList({"beneath", "hidden0", "hidden1", "hidden2"}));
        QCOMPARE(namesIn(m_out), QByteArrayList({"late0", "late1", "late2"}));
    }

    void aFolderIsWatchedOnceItsVolumeIsMounted()
    {
        const std::string place = newFolder("place");
        makeLink(at("link"), "place/deep/inbox");
        const std::string aside = newFolder("aside");
        const Mount volume = Mount::memory(aside);
        for (const char* name : {"/deep", "/deep/inbox", "/deep/inbox/old"})
            makeFolder(aside + name);
        for (const std::string& inbox : {place + "/deep/inbox", at("link")}) {
            QVERIFY(restartAndWait(engine(), {watched(inbox, {takeAll(m_out)})}));
            QVERIFY(engine().activeFDs().empty());
            for (const char* name : {"first", "second"}) {
                Mount mounted = Mount::again(aside, place);
                QVERIFY(areWatched(1));
                makeFolder(inbox + '/' + name);
                QVERIFY(hasNames(m_out, {name}));
                QVERIFY(hasNames(inbox, {"old"}));
                removeEntry(m_out + '/' + name);
                QVERIFY(waitFor([&] { return mounted.unmount(); }));
                QVERIFY(areWatched(0));
            }
        }
    }

    void aFolderOnAnOverlayIsWatched()
    {
        const std::string volume = newFolder("volume");
        const Mount memory = Mount::memory(volume);
        for (const char* name : {"/lower", "/lower/inbox", "/lower/inbox/old", "/upper", "/work", "/merged"})
            makeFolder(volume + name);
        const Mount overlay =
            Mount::overlay(volume + "/lower", volume + "/upper", volume + "/work", volume + "/merged");
        const std::string inbox = volume + "/merged/inbox";
        QVERIFY(start({watched(inbox, {takeAll(m_out)})}));
        // The first change copies the folder up: it keeps its inode and gets another birth time.
        const std::vector<int> begin = engine().activeFDs();
        QCOMPARE(begin.size(), 1U);
        QVERIFY(!exists(volume + "/upper/inbox"));
        for (const char* name : {"first", "second"}) {
            makeFolder(inbox + '/' + name);
            QVERIFY(isLogged(moved(name)));
            QVERIFY(exists(volume + "/upper/inbox"));
        }
        QCOMPARE(engine().activeFDs(), begin);

        // Another folder replaces it.
        const std::string spare = volume + "/merged/spare";
        for (const char* name : {"third", "fourth"}) {
            const std::vector<int> before = engine().activeFDs();
            makeFolder(spare);
            makeFolder(spare + "/old");
            std::filesystem::remove_all(inbox);
            renameEntry(spare, inbox);
            QVERIFY(areReplaced(before));
            makeFolder(inbox + '/' + name);
            QVERIFY(isLogged(moved(name)));
        }
        QCOMPARE(namesIn(m_out), QByteArrayList({"first", "fourth", "second", "third"}));
        QVERIFY(hasNames(inbox, {"old"}));
    }
};

HARBEX_MAIN(TestEngineVolumes)
{
    enterPrivateNamespace();
    return runTest<QCoreApplication, TestEngineVolumes>(argc, argv);
}

#include "tst_EngineVolumes.moc"
