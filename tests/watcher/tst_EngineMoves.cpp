#include "support/EngineResources.h"
#include "support/EngineTest.h"

#include <QElapsedTimer>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

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
        GrowingFiles stops({m_inbox + "/stops.mp4"});
        GrowingFiles vanishes({m_inbox + "/vanishes.mp4"});
        GrowingFiles grows({m_inbox + "/grows.mp4"});
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
        GrowingFiles other({m_inbox + "/other.mp4"});
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
            if (!start({takeAll(m_out), takeNamed(RuleOperator::contains, "two", next)})) return false;
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

    /// The large file is copied to another volume, which takes until after the second attempt is due.
    void aBusyFileOfTwoRulesIsMovedOnceAndSkippedOnce()
    {
        constexpr qint64 largeSize = 64 << 20;
        const std::string other = newFolder("other");
        const ScratchFolder far(folderOnAnotherVolume());
        const Inbox farInbox(far, "inbox");
        const std::vector<FilterRule> rules = {takeKind(RuleKind::video, m_out), takeAll(other)};
        QVERIFY(start({inboxWith(rules), farInbox.with(rules)}));
        GrowingFiles films({m_inbox + "/film-0.mp4", m_inbox + "/film-1.mp4", far.path() + "/large.mp4"});
        appendToFile(far.path() + "/large.mp4", std::string(largeSize, 'x'));
        renameEntry(far.path() + "/large.mp4", farInbox.path + "/large.mp4");
        // The sentinels arrived later: their two tests end after the first tests for both rules.
        QVERIFY(Sentinel::allPass(engine(), {m_sentinel.get(), &farInbox.sentinel}));
        films.stop();
        QVERIFY(waitFor([&] { return log(".mp4").size() == 6; }));
        for (const char* name : {"film-0.mp4", "film-1.mp4", "large.mp4"}) {
            QCOMPARE(countMessages(engine(), moved(name)), 1);
            QCOMPARE(countMessages(engine(), skipped(name)), 1);
        }
        QCOMPARE(namesIn(m_inbox) + namesIn(farInbox.path), QByteArrayList());
        QCOMPARE(namesIn(m_out).size() + namesIn(other).size(), 3);
        const std::string copy = (exists(m_out + "/large.mp4") ? m_out : other) + "/large.mp4";
        QVERIFY(std::filesystem::file_size(copy) > largeSize);
    }

    void aFolderIsMovedWhileItsContentsGrow()
    {
        const std::string app = newFolder("Tool.app");
        const std::string notes = newFolder("Notes");
        const GrowingFiles contents({app + "/log", notes + "/log"});
        QVERIFY(start({takeAll(m_out)}));
        renameEntry(app, m_inbox + "/Tool.app");
        renameEntry(notes, m_inbox + "/Notes");
        QVERIFY(isLogged(moved("Tool.app")));
        QVERIFY(isLogged(moved("Notes")));
        QCOMPARE(namesIn(m_out), QByteArrayList({"Notes", "Tool.app"}));
        QCOMPARE(log().size(), 3);
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
            const QByteArray found = "Processing: file" + QByteArray::number(i);
            QVERIFY(waitFor([&] { return countPrinted(found) > 0; }));
            arriveFolder("folder" + number);
            makeLink(m_inbox + "/link" + number, m_out);
            QVERIFY(waitFor([&] { return log().size() == 1 + 3 * (i + 1); }));
            QCOMPARE(namesIn(m_inbox), QByteArrayList());
            isFileLast = log().last() == moved("file" + number);
        }
        QVERIFY(isFileLast);
    }

    void aTakenNameGetsANumber()
    {
        const std::vector<std::string> old = {"report.pdf",     "photo.jpg", "photo-1.jpg", "gap.jpg",
                                              "gap-2.jpg",      "README",    ".env",        "Photo.JPG",
                                              "archive.tar.gz", "Tool.app",  "original.txt"};
        for (const std::string& name : old)
            writeFile(m_out + '/' + name, "old");
        makeLink(m_out + "/dangling.txt", "nowhere");
        makeLink(m_out + "/link.txt", "original.txt");
        makeFolder(m_out + "/folder.txt");
        makeFolder(m_out + "/Notes");

        const std::vector<std::pair<std::string, std::string>> targets = {
            {"free.txt", "free.txt"},
            {"report.pdf", "report-1.pdf"},
            {"photo.jpg", "photo-2.jpg"},
            {"gap.jpg", "gap-1.jpg"},
            {"archive.tar.gz", "archive.tar-1.gz"},
            {"README", "README-1"},
            {".env", ".env-1"},
            {"Photo.JPG", "Photo-1.JPG"},
            {"dangling.txt", "dangling-1.txt"},
            {"link.txt", "link-1.txt"},
            {"folder.txt", "folder-1.txt"},
        };
        QVERIFY(start({takeAll(m_out)}));
        for (const auto& [name, target] : targets)
            arrive(name, "new");
        arriveFolder("Notes");
        arriveFolder("Tool.app");
        for (const auto& [name, target] : targets) {
            QVERIFY(isLogged(moved(name, target)));
            QVERIFY2(contents(m_out + '/' + target) == "new", target.c_str());
        }
        QVERIFY(isLogged(moved("Notes", "Notes-1")));
        QVERIFY(isLogged(moved("Tool.app", "Tool-1.app")));

        for (const std::string& name : old)
            QVERIFY2(contents(m_out + '/' + name) == "old", name.c_str());
        QVERIFY(!exists(m_out + "/nowhere"));
        QVERIFY(namesIn(m_out + "/Notes").isEmpty() && namesIn(m_out + "/folder.txt").isEmpty());
        QCOMPARE(namesIn(m_out).size(), qsizetype(old.size() + 4 + targets.size() + 2));
    }

    void filesOfOneNameFromTwoFoldersAreBothKept()
    {
        constexpr int count = 50;
        const std::string second = newFolder("second");
        QVERIFY(start({watched(m_inbox, {takeAll(m_out)}), watched(second, {takeAll(m_out)})}));
        for (int i = 0; i < count; ++i) {
            const std::string number = std::to_string(i);
            arrive("photo" + number, "first" + number);
            m_scratch->arrive(second + "/photo" + number, "second" + number);
        }
        QVERIFY(waitFor([&] { return log().size() == 1 + 2 * count; }));
        QByteArrayList found;
        for (const std::string& folder : {m_inbox, second, m_out})
            for (const QByteArray& name : namesIn(folder))
                found << contents(folder + '/' + name.toStdString());
        QCOMPARE(found.size(), 2 * count);
        for (int i = 0; i < count; ++i) {
            QVERIFY(found.contains("first" + QByteArray::number(i)));
            QVERIFY(found.contains("second" + QByteArray::number(i)));
        }
        // The two folders can choose the same free name. Then one move fails, and its file stays.
        for (const QString& failure : log("Move failed"))
            QVERIFY(failure.endsWith(QStringLiteral("File exists")));
        QCOMPARE(namesIn(m_inbox).size() + namesIn(second).size(), log("Move failed").size());
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
            rules.push_back(takeNamed(RuleOperator::isEqual, each.destination.c_str(), at(each.destination)));
        rules.back().destination = FileUrl::fromString(QStringLiteral("https://example.org/folder"));
        rules.push_back(takeExtension(RuleOperator::isEqual, "jpg", m_out));
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
    }

    void aDestinationThatVanishesIsUsedAgainWhenItReturns()
    {
        QVERIFY(start({takeAll(m_out)}));
        arriveFolder("a");
        QVERIFY(isLogged(moved("a")));
        removeEntry(m_out + "/a");
        removeEntry(m_out);
        arriveFolder("b");
        QVERIFY(isLogged(moveFailed("b", "No such file or directory")));
        makeFolder(m_out);
        arriveFolder("c");
        QVERIFY(isLogged(moved("c")));
        QCOMPARE(namesIn(m_inbox), QByteArrayList{"b"});
    }

    void aNameThatIsTakenAtTheLastMomentIsLogged()
    {
        const auto work = [this] {
            if (!start({takeAll(m_out)})) return false;
            arrive("photo.jpg", "photo");
            return isLogged(moveFailed("photo.jpg", "File exists"));
        };
        const InterceptedRun run = runInChild({"renameat2"}, work, [this](const InterceptedCall& call) {
            if (call.ordinal == 1) writeFile(m_out + "/photo.jpg", "obstacle");
            return Answer::proceed();
        });
        QVERIFY(run.succeeded());
        QCOMPARE(run.calls, std::vector<std::string>{"renameat2 #1"});
        QCOMPARE(contents(m_inbox + "/photo.jpg"), QByteArray("photo"));
        QCOMPARE(contents(m_out + "/photo.jpg"), QByteArray("obstacle"));
        QCOMPARE(namesIn(m_out), QByteArrayList{"photo.jpg"});
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
        const std::vector<std::pair<const char*, const char*>> paths = {
            {"same", "/inbox"}, {"slash", "/inbox/"}, {"link", "/link"}, {"roundabout", "/out/../inbox/."}};
        const QString base = FileUrl::fromPath(m_scratch->path()).absoluteString();
        std::vector<FilterRule> rules;
        for (const auto& [name, path] : paths) {
            rules.push_back(takeNamed(RuleOperator::isEqual, name, m_inbox));
            rules.back().destination = FileUrl::fromString(base + QString::fromUtf8(path));
        }
        rules.push_back(takeAll(m_out));
        QVERIFY(start(rules));
        for (const auto& [name, path] : paths)
            arrive(std::string(name) + ".jpg");
        arrive("letter.pdf");
        QVERIFY(sentinelPasses());
        QCOMPARE(namesIn(m_inbox), QByteArrayList({"link.jpg", "roundabout.jpg", "same.jpg", "slash.jpg"}));
        QCOMPARE(namesIn(m_out), QByteArrayList{"letter.pdf"});
        QCOMPARE(log(".jpg"), QStringList());
        for (const auto& [name, path] : paths)
            QCOMPARE(countPrinted(QByteArray("[\"") + name + "\", \"jpg\"]"), 1);
    }

    void entriesAreMovedToAnotherVolume()
    {
        const ScratchFolder far(folderOnAnotherVolume());
        writeFile(far.path() + "/photo.jpg", "old");
        const std::string notes = newFolder("Notes");
        writeFile(notes + "/note.txt", "note");
        writeFile(at("original.txt"), "original");
        QVERIFY(start({takeAll(far.path())}));
        arrive("photo.jpg", "new");
        renameEntry(notes, m_inbox + "/Notes");
        makeLink(m_inbox + "/link.txt", at("original.txt"));
        QVERIFY(isLogged(moved("photo.jpg", "photo-1.jpg")));
        QVERIFY(isLogged(moved("Notes")));
        QVERIFY(isLogged(moved("link.txt")));
        QCOMPARE(log().size(), 4);
        QCOMPARE(namesIn(m_inbox), QByteArrayList());
        QCOMPARE(namesIn(far.path()), QByteArrayList({"Notes", "link.txt", "photo-1.jpg", "photo.jpg"}));
        QCOMPARE(contents(far.path() + "/photo.jpg"), QByteArray("old"));
        QCOMPARE(contents(far.path() + "/photo-1.jpg"), QByteArray("new"));
        QCOMPARE(contents(far.path() + "/Notes/note.txt"), QByteArray("note"));
        QVERIFY(std::filesystem::is_symlink(far.path() + "/link.txt"));
        QCOMPARE(contents(far.path() + "/link.txt"), QByteArray("original"));
    }

    void anUnusableStandardOutputStopsNoMove_data()
    {
        QTest::addColumn<bool>("isPipe");
        QTest::newRow("nobody reads it") << true;
        QTest::newRow("it cannot be written") << false;
    }

    void anUnusableStandardOutputStopsNoMove()
    {
        QFETCH(const bool, isPipe);
        // As main() does. Qt Test replaces it by a handler that ends the test.
        std::signal(SIGPIPE, SIG_IGN);
        int ends[2];
        QCOMPARE(::pipe2(ends, O_CLOEXEC), 0);
        const FileDescriptor writing(ends[1]);
        ::close(ends[0]);
        const FileDescriptor readOnly(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        const RedirectedOutput redirected((isPipe ? writing : readOnly).get());
        QVERIFY(start({takeAll(m_out)}));
        arriveFolder("Notes");
        QVERIFY(isLogged(moved("Notes")));
    }
};

HARBEX_ENGINE_TEST(TestEngineMoves)

#include "tst_EngineMoves.moc"
