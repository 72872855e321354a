#include "support/EngineTest.h"

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Folders of which each has a rule for the next one, and the last has a rule for the first.
struct Ring {
    std::string name;
    bool isNameTaken = false;
    std::vector<Inbox> folders = {};
};

} // namespace

/// Rules that lead from one watched folder into another, and rules of several records.
class TestEngineChains : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void anEntryThatReturnsByRulesStays()
    {
        const ScratchFolder far(folderOnAnotherVolume());
        std::vector<Ring> rings;
        for (const int count : {2, 3}) {
            for (const bool isFar : {false, true}) {
                for (const bool isNameTaken : {false, true}) {
                    rings.push_back(
                        {.name = "ring" + std::to_string(rings.size()), .isNameTaken = isNameTaken});
                    Ring& ring = rings.back();
                    for (int i = 0; i < count; ++i) {
                        ring.folders.emplace_back(isFar && i == 1 ? far : *m_scratch,
                                                  ring.name + " folder " + std::to_string(i));
                        // The entry gets another name there.
                        if (isNameTaken && i > 0)
                            writeFile(ring.folders.back().path + '/' + ring.name + ".jpg", "old");
                    }
                }
            }
        }
        std::vector<WatchedFolder> records;
        std::vector<Inbox> inboxes;
        for (const Ring& ring : rings) {
            for (size_t i = 0; i < ring.folders.size(); ++i) {
                const std::string& next = ring.folders[(i + 1) % ring.folders.size()].path;
                records.push_back(ring.folders[i].with({takeAll(next)}));
                inboxes.push_back(ring.folders[i]);
            }
        }
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
            QCOMPARE(namesIn(first), QByteArrayList({QByteArray::fromStdString(ring.name + " notes"),
                                                     QByteArray::fromStdString(photo)}));
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
        QVERIFY(start(
            {watched(m_inbox, {takeAll(second.path)}), second.with({}), watched(third, {takeAll(m_inbox)})}));
        arriveFolder("Notes");
        for (int times = 1; times <= 4; ++times) {
            QVERIFY(waitFor([&] { return exists(notes); }));
            QVERIFY(second.sentinel.foldersPass(engine()));
            QCOMPARE(namesIn(second.path), QByteArrayList{"Notes"});
            QCOMPARE(log("Moved Notes").size(), times);
            if (times < 4) renameEntry(notes, m_inbox + "/Notes");
        }
        // From the third folder a rule moves it to the first one, where it has not been by a rule.
        renameEntry(notes, third + "/Notes");
        QVERIFY(waitFor([&] { return log("Moved Notes").size() == 6; }));
        QCOMPARE(namesIn(second.path), QByteArrayList{"Notes"});

        // Another entry of that name is new, too.
        const std::string another = newFolder("another");
        writeFile(another + "/note.txt", "another");
        renameEntry(another, m_inbox + "/Notes");
        QVERIFY(waitFor([&] { return contents(second.path + "/Notes-1/note.txt") == "another"; }));
    }

    void anEntryThatAPersonBringsBackGoesRoundAgain()
    {
        const std::string second = newFolder("second");
        const std::string away = newFolder("away");
        makeFolder(away + "/Notes");
        writeFile(away + "/photo.jpg", "photo");
        QVERIFY(start({inboxWith({takeAll(second)}), watched(second, {takeAll(m_inbox)})}));
        // A file is sampled before it is moved, a folder is not. So a folder often returns before the engine
        // has noticed that it left.
        for (const char* name : {"/Notes", "/photo.jpg"}) {
            for (int times = 1; times <= 5; ++times) {
                renameEntry(away + name, m_inbox + name);
                QVERIFY(waitFor(
                    [&] { return log(name + 1).filter(QStringLiteral("Moved ")).size() == 2 * times; }));
                QVERIFY(sentinelPasses());
                QCOMPARE(namesIn(m_inbox), QByteArrayList{name + 1});
                renameEntry(m_inbox + name, away + name);
                // After this the engine has noticed the removal.
                QVERIFY(sentinelPasses());
            }
            QCOMPARE(log(name + 1).filter(QStringLiteral("Moved ")).size(), 10);
        }
    }

    void aChainOfFoldersLeadsToItsEnd()
    {
        constexpr int count = 20;
        const ScratchFolder far(folderOnAnotherVolume());
        std::vector<std::vector<std::string>> chains;
        std::vector<WatchedFolder> records;
        for (const bool isFar : {false, true}) {
            std::vector<std::string> chain;
            for (int i = 0; i < 4; ++i)
                chain.push_back((isFar && i % 2 == 1 ? far : *m_scratch)
                                    .makeFolder((isFar ? "far " : "near ") + std::to_string(i)));
            for (size_t i = 0; i < 3; ++i)
                records.push_back(watched(chain[i], {takeAll(chain[i + 1])}));
            records.push_back(watched(chain[3], {}));
            chains.push_back(chain);
        }
        QVERIFY(start(records));
        for (int i = 0; i < count; ++i)
            for (const auto& chain : chains)
                m_scratch->arrive(chain[0] + '/' + std::to_string(i), std::to_string(i));
        QVERIFY(waitFor([&] { return log("Moved ").size() == qsizetype(chains.size()) * 3 * count; }));
        for (const auto& chain : chains) {
            for (int i = 0; i < count; ++i)
                QCOMPARE(contents(chain[3] + '/' + std::to_string(i)), QByteArray::number(i));
            for (size_t i = 0; i < 3; ++i)
                QCOMPARE(namesIn(chain[i]), QByteArrayList());
        }
        QCOMPARE(log("failed"), QStringList());
    }

    void twoRecordsOfOneFolderAreOneList()
    {
        const auto take = [this](RuleKind kind, const char* folder) {
            return takeKind(kind, newFolder(folder));
        };
        const std::string wrong = newFolder("wrong");
        QVERIFY(start(
            {inboxWith({take(RuleKind::audio, "songs"), take(RuleKind::video, "films"),
                        takeKind(RuleKind::image, at("missing")), takeKind(RuleKind::application, m_inbox)}),
             watched(newFolder("other"), {}),
             watched(m_inbox, {take(RuleKind::document, "letters"), take(RuleKind::image, "photos"),
                               takeKind(RuleKind::video, wrong), takeKind(RuleKind::application, wrong)})}));
        QCOMPARE(engine().activeFDs().size(), 3U);
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

HARBEX_ENGINE_TEST(TestEngineChains)

#include "tst_EngineChains.moc"
