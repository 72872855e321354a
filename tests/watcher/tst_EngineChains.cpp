#include "support/EngineResources.h"
#include "support/EngineTest.h"

#include <algorithm>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Folders of which each has a rule for the next one, and the last has a rule for the first.
struct Ring {
    std::string name;
    bool isNameTaken;
    std::vector<Inbox> folders;
};

} // namespace

/// Rules that lead from one watched folder into another, and rules of several records.
class TestEngineChains : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void anEntryThatReturnsByRulesStays()
    {
        std::vector<Ring> rings;
        std::vector<WatchedFolder> records;
        std::vector<Inbox> inboxes;
        const auto addRing = [&](size_t count, bool isNameTaken) {
            Ring ring{"ring" + std::to_string(rings.size()), isNameTaken, {}};
            for (size_t i = 0; i < count; ++i) {
                ring.folders.emplace_back(*m_scratch, ring.name + " folder " + std::to_string(i));
                // The entry gets another name there.
                if (isNameTaken && i > 0)
                    writeFile(ring.folders.back().path + '/' + ring.name + ".jpg", "old");
            }
            for (size_t i = 0; i < count; ++i) {
                records.push_back(ring.folders[i].with({takeAll(ring.folders[(i + 1) % count].path)}));
                inboxes.push_back(ring.folders[i]);
            }
            rings.push_back(ring);
        };
        for (const size_t count : {2U, 3U})
            for (const bool isNameTaken : {false, true})
                addRing(count, isNameTaken);
        QVERIFY(start(records));
        for (const Ring& ring : rings) {
            m_scratch->arrive(ring.folders[0].path + '/' + ring.name + ".jpg", "photo");
            makeFolder(ring.folders[0].path + '/' + ring.name + " notes");
        }
        const auto countMoves = [this](const Ring& ring) {
            return log(("Moved " + ring.name).c_str()).size();
        };
        for (const Ring& ring : rings)
            QVERIFY(waitFor([&] { return countMoves(ring) == qsizetype(2 * ring.folders.size()); }));
        // An entry that goes round again leaves the first folder before the sentinels have passed twice.
        QVERIFY(sentinelsPass(inboxes));
        QVERIFY(sentinelsPass(inboxes));
        for (const Ring& ring : rings) {
            QCOMPARE(countMoves(ring), qsizetype(2 * ring.folders.size()));
            const std::string& first = ring.folders[0].path;
            const std::string photo = ring.name + (ring.isNameTaken ? "-1.jpg" : ".jpg");
            QCOMPARE(namesIn(first).size(), 2);
            QVERIFY(exists(first + '/' + ring.name + " notes"));
            QCOMPARE(contents(first + '/' + photo), QByteArray("photo"));
            for (size_t i = 1; i < ring.folders.size(); ++i)
                QCOMPARE(namesIn(ring.folders[i].path).size(), ring.isNameTaken ? 1 : 0);
        }
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
