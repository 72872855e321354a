#include "support/EngineTest.h"

#include <filesystem>

using namespace harbex;
using namespace harbex::test;

namespace
{

QByteArray targetOf(const std::string& link)
{
    return QByteArray::fromStdString(std::filesystem::read_symlink(link).string());
}

} // namespace

/// Which entries of a watched folder count as new.
class TestEngineDetection : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void anEntryThatWasThereAtTheStartStays()
    {
        for (const char* name : {"/photo.jpg", "/.hidden", "/grows.txt", "/replaced.txt"})
            writeFile(m_inbox + name, "old");
        makeFolder(m_inbox + "/Notes");
        const QByteArrayList before = namesIn(m_inbox);
        QVERIFY(start({takeAll(m_out)}));
        appendToFile(m_inbox + "/grows.txt", " and new");
        arrive("replaced.txt", "new");
        writeFile(m_inbox + "/Notes/below.jpg", "");
        QVERIFY(sentinelPasses());
        QCOMPARE(namesIn(m_inbox), before);
        QCOMPARE(contents(m_inbox + "/grows.txt"), QByteArray("old and new"));
        QCOMPARE(contents(m_inbox + "/replaced.txt"), QByteArray("new"));
        QCOMPARE(namesIn(m_inbox + "/Notes"), QByteArrayList{"below.jpg"});
        QCOMPARE(namesIn(m_out), QByteArrayList());
    }

    void anEntryThatArrivesDuringARestartStays()
    {
        const std::vector<WatchedFolder> folders = {inboxWith({takeAll(m_out)})};
        QVERIFY(start(folders));
        engine().restart(folders);
        arriveFolder("Notes");
        QVERIFY(waitFor([&] { return log().size() == 3; }));
        QVERIFY(sentinelFoldersPass());
        QCOMPARE(namesIn(m_inbox), QByteArrayList{"Notes"});
    }

    void anEntryThatMatchedNoRuleIsTriedAgainOnlyWhenItComesBack()
    {
        QVERIFY(start({kindIs(RuleKind::video, m_out)}));
        arriveFolder("Notes");
        QVERIFY(sentinelFoldersPass());
        QVERIFY(restartAndWait(engine(), {inboxWith({takeAll(m_out)})}));
        QVERIFY(sentinelFoldersPass());
        QCOMPARE(namesIn(m_inbox), QByteArrayList{"Notes"});
        QCOMPARE(countPrinted("[\"Notes\"]"), 1);

        renameEntry(m_inbox + "/Notes", at("Notes"));
        QVERIFY(sentinelFoldersPass());
        renameEntry(at("Notes"), m_inbox + "/Notes");
        QVERIFY(hasNames(m_out, {"Notes"}));
    }

    void aNameIsNewOnceAScanHasMissedIt()
    {
        writeFile(m_inbox + "/renamed.jpg", "old");
        writeFile(m_inbox + "/deleted.jpg", "old");
        QVERIFY(start({takeAll(m_out)}));
        renameEntry(m_inbox + "/renamed.jpg", m_inbox + "/holiday.jpg");
        removeEntry(m_inbox + "/deleted.jpg");
        arrive("photo.jpg", "first");
        // The move of the photo leads to a scan, which removes its name from the snapshot.
        QVERIFY(sentinelPasses());
        arrive("deleted.jpg", "new");
        arrive("photo.jpg", "second");
        QVERIFY(isLogged(moved("photo.jpg", "photo-1.jpg")));
        QVERIFY(hasNames(m_out, {"deleted.jpg", "holiday.jpg", "photo-1.jpg", "photo.jpg"}));
        QCOMPARE(contents(m_out + "/deleted.jpg"), QByteArray("new"));
        QCOMPARE(contents(m_out + "/photo.jpg"), QByteArray("first"));
        QCOMPARE(contents(m_out + "/photo-1.jpg"), QByteArray("second"));
    }

    void aLinkIsMovedAndNotItsTarget()
    {
        writeFile(at("original.txt"), "content");
        const std::string folder = newFolder("folder");
        QVERIFY(start({kindIs(RuleKind::folder, at("missing")), takeAll(m_out)}));
        makeLink(m_inbox + "/to a file", "../original.txt");
        makeLink(m_inbox + "/to a folder", folder);
        makeLink(m_inbox + "/dangling.txt", "nowhere");
        QVERIFY(sentinelPasses());
        QVERIFY(hasNames(m_out, {"to a file", "to a folder"}));
        QCOMPARE(targetOf(m_out + "/to a file"), QByteArray("../original.txt"));
        QCOMPARE(targetOf(m_out + "/to a folder"), QByteArray::fromStdString(folder));
        QCOMPARE(contents(at("original.txt")), QByteArray("content"));
        // The rule for folders took no link.
        QCOMPARE(log("failed"), QStringList());

        QCOMPARE(namesIn(m_inbox), QByteArrayList{"dangling.txt"});
        QCOMPARE(log("dangling"), QStringList());
        QCOMPARE(countPrinted("[\"dangling\", \"txt\"]"), 1);
        QCOMPARE(countPrinted("Processing: dangling.txt"), 0);
    }
};

HARBEX_TEST(TestEngineDetection)

#include "tst_EngineDetection.moc"
