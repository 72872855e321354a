#include "support/EngineResources.h"
#include "support/EngineTest.h"

#include <algorithm>

using namespace harbex;
using namespace harbex::test;

/// Rules that lead from one watched folder into another, and rules of several records.
class TestEngineChains : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void anEntryThatReturnsByRulesStays_data()
    {
        QTest::addColumn<size_t>("count");
        QTest::addColumn<bool>("isNameTaken");
        QTest::newRow("two folders") << size_t(2) << false;
        QTest::newRow("three folders, where the file gets another name") << size_t(3) << true;
    }

    /// Each folder has a rule for the next one, and the last has a rule for the first.
    void anEntryThatReturnsByRulesStays()
    {
        QFETCH(const size_t, count);
        QFETCH(const bool, isNameTaken);
        std::vector<Inbox> ring;
        for (size_t i = 0; i < count; ++i) {
            ring.emplace_back(*m_scratch, "folder " + std::to_string(i));
            if (isNameTaken && i > 0) writeFile(ring[i].path + "/photo.jpg", "old");
        }
        std::vector<WatchedFolder> records;
        for (size_t i = 0; i < count; ++i)
            records.push_back(ring[i].with({takeAll(ring[(i + 1) % count].path)}));
        QVERIFY(start(records));
        m_scratch->arrive(ring[0].path + "/photo.jpg", "photo");
        makeFolder(ring[0].path + "/Notes");
        const auto countMoves = [this] { return log("Moved photo").size() + log("Moved Notes").size(); };
        QVERIFY(waitFor([&] { return countMoves() == qsizetype(2 * count); }));
        // An entry that goes round again leaves the first folder before the sentinels have passed twice.
        QVERIFY(sentinelsPass(ring));
        QVERIFY(sentinelsPass(ring));
        QCOMPARE(countMoves(), qsizetype(2 * count));
        const QByteArray photo = isNameTaken ? "photo-1.jpg" : "photo.jpg";
        QCOMPARE(namesIn(ring[0].path), QByteArrayList({"Notes", photo}));
        QCOMPARE(contents(ring[0].path + '/' + photo.toStdString()), QByteArray("photo"));
        for (size_t i = 1; i < count; ++i)
            QCOMPARE(namesIn(ring[i].path).size(), isNameTaken ? 1 : 0);
    }

    void anEntryThatAPersonBringsBackIsNew()
    {
        const Inbox second(*m_scratch, "second");
        const std::string third = newFolder("third");
        const std::string notes = second.path + "/Notes";
        // The second folder has no rule for the entry, but it is watched.
        QVERIFY(
            start({inboxWith({takeAll(second.path)}), second.with({}), watched(third, {takeAll(m_inbox)})}));
        arriveFolder("Notes");
        for (int times = 1; times <= 4; ++times) {
            QVERIFY(waitFor([&] { return exists(notes); }));
            QVERIFY(second.sentinel.foldersPass(engine()));
            // After this the engine has noticed that the entry left.
            QVERIFY(sentinelFoldersPass());
            QCOMPARE(namesIn(second.path), QByteArrayList{"Notes"});
            QCOMPARE(log("Moved Notes").size(), times);
            if (times < 4) renameEntry(notes, m_inbox + "/Notes");
        }
        // From the third folder a rule moves it to the first one, where it has not been by a rule.
        renameEntry(notes, third + "/Notes");
        QVERIFY(waitFor([&] { return log("Moved Notes").size() == 6; }));
        QCOMPARE(namesIn(second.path), QByteArrayList{"Notes"});

        // Another entry of that name is new, too.
        QVERIFY(sentinelFoldersPass());
        const std::string another = newFolder("another");
        writeFile(another + "/note.txt", "another");
        renameEntry(another, m_inbox + "/Notes");
        QVERIFY(waitFor([&] { return contents(second.path + "/Notes-1/note.txt") == "another"; }));
    }

    void twoRecordsOfOneFolderAreOneList()
    {
        const auto take = [this](RuleKind kind, const char* folder) {
            return kindIs(kind, newFolder(folder));
        };
        const std::string wrong = newFolder("wrong");
        QVERIFY(start(
            {inboxWith({take(RuleKind::audio, "songs"), take(RuleKind::video, "films"),
                        kindIs(RuleKind::image, at("missing")), kindIs(RuleKind::application, m_inbox)}),
             watched(newFolder("other"), {}),
             watched(m_inbox, {take(RuleKind::document, "letters"), take(RuleKind::image, "photos"),
                               kindIs(RuleKind::video, wrong), kindIs(RuleKind::application, wrong)})}));
        const std::vector<int> descriptors = engine().activeFDs();
        QCOMPARE(descriptors.size(), 3U);
        QCOMPARE(descriptors[0], descriptors[2]);
        QCOMPARE(kernelWatchCount(), size_t(std::ranges::count(m_inbox, '/')) + 2);
        struct {
            const char* description;
            std::string name;
            std::string folder;
        } const cases[] = {
            {"only the first record takes it", "song.mp3", "songs"},
            {"only the second record takes it", "letter.pdf", "letters"},
            {"both take it", "film.mp4", "films"},
            {"the first record's folder is missing", "photo.jpg", "photos"},
            {"the first record says that it stays", "game.exe", "inbox"},
            {"none takes it", "README", "inbox"},
        };
        for (const auto& each : cases)
            arrive(each.name, "content");
        QVERIFY(isLogged(moved("photo.jpg")));
        QVERIFY(sentinelPasses());
        for (const auto& each : cases) {
            QVERIFY2(contents(at(each.folder) + '/' + each.name) == "content", each.description);
            const QByteArray pieces = QByteArray::fromStdString(each.name).replace(".", "\", \"");
            QCOMPARE(countPrinted("[\"" + pieces + "\"]"), 1);
        }
        QCOMPARE(namesIn(wrong), QByteArrayList());
    }
};

HARBEX_TEST(TestEngineChains)

#include "tst_EngineChains.moc"
