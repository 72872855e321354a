#include "support/EngineResources.h"
#include "support/EngineTest.h"

#include <QElapsedTimer>

#include <chrono>
#include <cstdio>
#include <sys/stat.h>

using namespace harbex;
using namespace harbex::test;

/// An entry after a rule has matched it: the tests whether it has stopped growing, and the move.
class TestEngineMoves : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void aFileIsMovedAfterTwoTests()
    {
        QVERIFY(start({takeAll(m_out)}));
        QElapsedTimer timer;
        timer.start();
        arrive("photo.jpg", "content");
        arrive("empty");
        std::FILE* download = std::fopen((m_inbox + "/pauses.mp4").c_str(), "wx");
        QVERIFY(download);
        QVERIFY(waitFor([&] { return log().size() > 1; }));
        static_assert(EntryPipeline::samplingInterval == std::chrono::milliseconds(150));
        QVERIFY2(timer.elapsed() >= 300, qPrintable(QString::number(timer.elapsed())));

        QVERIFY(hasNames(m_out, {"empty", "pauses.mp4", "photo.jpg"}));
        std::fputs("the rest", download);
        std::fclose(download);
        QCOMPARE(contents(m_out + "/photo.jpg"), QByteArray("content"));
        QCOMPARE(contents(m_out + "/empty"), QByteArray());
        QCOMPARE(contents(m_out + "/pauses.mp4"), QByteArray("the rest"));
        QCOMPARE(namesIn(m_inbox), QByteArrayList());
        for (const char* name : {"photo.jpg", "empty", "pauses.mp4"})
            QVERIFY(isLogged(moved(name)));
    }

    void aFileThatGrowsAtItsFirstTestIsTriedOnceMoreASecondLater()
    {
        QVERIFY(start({takeAll(m_out)}));
        QElapsedTimer timer;
        timer.start();
        GrowingFile stops(m_inbox + "/stops.mp4");
        GrowingFile vanishes(m_inbox + "/vanishes.mp4");
        GrowingFile grows(m_inbox + "/grows.mp4");
        // The sentinel arrived later: its two tests end after the first test of these files.
        QVERIFY(sentinelPasses());
        stops.stop();
        removeEntry(m_inbox + "/vanishes.mp4");
        QVERIFY(isLogged(moved("stops.mp4")));
        // The first test, a second, and the second test.
        QVERIFY2(timer.elapsed() >= 150 + 1000 + 150, qPrintable(QString::number(timer.elapsed())));
        QVERIFY(isLogged(skipped("vanishes.mp4")));
        QVERIFY(isLogged(skipped("grows.mp4")));
        grows.stop();

        // A later file that gets its second attempt shows that the earlier ones get no third attempt.
        GrowingFile other(m_inbox + "/other.mp4");
        QVERIFY(sentinelPasses());
        other.stop();
        QVERIFY(isLogged(moved("other.mp4")));
        QCOMPARE(namesIn(m_inbox), QByteArrayList{"grows.mp4"});
        QCOMPARE(namesIn(m_out), QByteArrayList({"other.mp4", "stops.mp4"}));
        QCOMPARE(log(".mp4").size(), 4);
        QCOMPARE(countPrinted("Moving stops.mp4 to out..."), 1);
        QCOMPARE(countPrinted("Moving grows.mp4 to out..."), 0);
    }

    /// The samples are: the first, its confirmation, the ends of both tests, and one right before the move.
    void aFileThatGrowsBeforeASampleIsMovedOrSkipped()
    {
        struct {
            std::string name;
            int sample;
            QStringList log;
            std::string folder;
        } const cases[] = {
            {"one-1", 1, {moved("one-1")}, "out"},
            {"one-2", 2, {moved("one-2")}, "out"},
            {"one-3", 3, {moved("one-3")}, "out"},
            {"one-4", 4, {skipped("one-4")}, "inbox"},
            {"one-5", 5, {moved("one-5")}, "out"},
            {"two-1", 1, {moved("two-1")}, "out"},
            {"two-2", 2, {moved("two-2")}, "out"},
            // The first rule tries again after a second and does not find the file.
            {"two-3", 3, {moved("two-3"), skipped("two-3")}, "next"},
            {"two-4", 4, {skipped("two-4"), moved("two-4")}, "next"},
            {"two-5", 5, {moved("two-5")}, "out"},
            {"two-empty-1", 1, {moved("two-empty-1")}, "out"},
            {"two-empty-2", 2, {moved("two-empty-2")}, "out"},
            {"two-empty-3", 3, {moved("two-empty-3"), skipped("two-empty-3")}, "next"},
        };
        const std::string next = newFolder("next");
        const auto work = [&] {
            if (!start({takeAll(m_out), nameContains("two", next)})) return false;
            for (const auto& each : cases)
                arrive(each.name, each.name.starts_with("two-empty") ? "" : "begin");
            return waitFor([&] { return log("one-").size() == 5 && log("two-").size() == 11; }) &&
                   sentinelPasses();
        };
        std::vector<SampleAction> actions;
        for (const auto& each : cases) {
            const std::string path = m_inbox + '/' + each.name;
            actions.push_back({path, each.sample, [path] { appendToFile(path, " and end"); }});
        }
        const InterceptedRun run = runInChild(actions, work);
        QVERIFY(run.succeeded());
        for (const auto& each : cases) {
            QCOMPARE(childLog().filter(QString::fromStdString(each.name)), each.log);
            const QByteArray content = each.name.starts_with("two-empty") ? " and end" : "begin and end";
            QCOMPARE(contents(at(each.folder) + '/' + each.name), content);
        }
    }

    /// They arrive after a file and are moved before it.
    void aFolderAndALinkToOneAreNotSampled()
    {
        QVERIFY(start({takeAll(m_out)}));
        bool isFileLast = false;
        // On a busy machine the file can be moved before the folder exists.
        for (int i = 0; i < 20 && !isFileLast; ++i) {
            const std::string number = std::to_string(i);
            arrive("file" + number);
            QVERIFY(isProcessed("file" + number));
            arriveFolder("folder" + number);
            makeLink(m_inbox + "/link" + number, m_out);
            QVERIFY(waitFor([&] { return log().size() == 1 + 3 * (i + 1); }));
            QCOMPARE(namesIn(m_inbox), QByteArrayList());
            isFileLast = log().last() == moved("file" + number);
        }
        QVERIFY(isFileLast);
    }

    void aFailedMoveIsLoggedAndTheNextRuleIsTried()
    {
        struct {
            /// Matches by this name before the dot.
            std::string destination;
            const char* reason;
        } const cases[] = {
            {"missing", "No such file or directory"},  {"file", "Not a directory"},
            {"forbidden", "Permission denied"},        {"dangling", "No such file or directory"},
            {"computer", "No such file or directory"},
        };
        const WithoutPrivileges withoutPrivileges;
        writeFile(at("file"), "");
        makeLink(at("dangling"), "nowhere");
        QCOMPARE(::chmod(newFolder("forbidden").c_str(), 0555), 0);
        std::vector<FilterRule> rules;
        for (const auto& each : cases)
            rules.push_back(nameIs(each.destination, at(each.destination)));
        rules.back().destination = FileUrl::fromString(QStringLiteral("https://example.org/folder"));
        rules.push_back(extensionIs("jpg", m_out));
        QVERIFY(start(rules));
        for (const auto& each : cases) {
            arrive(each.destination, "content");
            arrive(each.destination + ".jpg", "content");
        }
        for (const auto& each : cases) {
            const std::string photo = each.destination + ".jpg";
            QVERIFY(isLogged(moveFailed(each.destination, each.reason)));
            QVERIFY(isLogged(moved(photo)));
            QCOMPARE(log(photo.c_str()), QStringList({moveFailed(photo, each.reason), moved(photo)}));
            QCOMPARE(countPrinted("Processing: " + QByteArray::fromStdString(photo)), 2);
            QCOMPARE(contents(m_inbox + '/' + each.destination), QByteArray("content"));
            QCOMPARE(contents(m_out + '/' + photo), QByteArray("content"));
        }
        QVERIFY(namesIn(at("forbidden")).isEmpty());
        QVERIFY(!exists(at("missing")));

        // No later scan tries them again, but another entry finds the folder that is there now.
        makeFolder(at("missing"));
        arriveFolder("missing.later");
        QVERIFY(sentinelFoldersPass());
        QCOMPARE(namesIn(at("missing")), QByteArrayList{"missing.later"});
        QCOMPARE(log("failed").size(), qsizetype(2 * std::size(cases)));
    }

    void everyFileOfABurstIsMoved()
    {
        constexpr int count = 2000;
        // Usually a volume in memory, where many files are created in less time.
        const ScratchFolder memory(folderOnAnotherVolume());
        const std::string prepared = memory.makeFolder("prepared");
        const std::string inbox = memory.makeFolder("inbox");
        const std::string out = memory.makeFolder("out");
        const auto name = [](int i) { return "/photo-" + std::to_string(i) + ".jpg"; };
        for (int i = 0; i < count; ++i)
            writeFile(prepared + name(i), std::to_string(i));
        QVERIFY(start({watched(inbox, {takeAll(out)})}));
        for (int i = 0; i < count; ++i)
            renameEntry(prepared + name(i), inbox + name(i));
        QTRY_COMPARE_WITH_TIMEOUT(namesIn(out).size(), count, patience);
        for (int i = 0; i < count; ++i)
            QCOMPARE(contents(out + name(i)), QByteArray::number(i));
        QCOMPARE(namesIn(inbox), QByteArrayList());
    }

    void anEntryOfAnotherFolderThatReplacedTheWatchedOneStays()
    {
        const std::string other = newFolder("other");
        const QByteArray ofSameSize = "of another";
        writeFile(other + "/photo.jpg", ofSameSize.toStdString());
        const auto work = [this] {
            if (!start({takeAll(m_out)})) return false;
            arrive("photo.jpg", "of its own");
            return isLogged(skipped("photo.jpg"));
        };
        // The fifth sample comes right before the move.
        const SampleAction replace{m_inbox + "/photo.jpg", 5, [&] {
                                       renameEntry(m_inbox, at("elsewhere"));
                                       renameEntry(other, m_inbox);
                                   }};
        const InterceptedRun run = runInChild({replace}, work);
        QVERIFY(run.succeeded());
        QCOMPARE(childLog().size(), 2);
        QCOMPARE(contents(m_inbox + "/photo.jpg"), ofSameSize);
        QCOMPARE(namesIn(m_out), QByteArrayList());
    }

    void anEntryWhoseDestinationIsItsOwnFolderStays()
    {
        makeLink(at("link"), m_inbox);
        QVERIFY(start({nameIs("same", m_inbox), nameIs("link", at("link")), takeAll(m_out)}));
        for (const char* name : {"same.jpg", "link.jpg", "letter.pdf"})
            arrive(name);
        QVERIFY(sentinelPasses());
        QCOMPARE(namesIn(m_inbox), QByteArrayList({"link.jpg", "same.jpg"}));
        QCOMPARE(namesIn(m_out), QByteArrayList{"letter.pdf"});
        QCOMPARE(log(".jpg"), QStringList());
        for (const char* name : {"same", "link"})
            QCOMPARE(countPrinted(QByteArray("[\"") + name + "\", \"jpg\"]"), 1);
    }
};

HARBEX_TEST(TestEngineMoves)

#include "tst_EngineMoves.moc"
