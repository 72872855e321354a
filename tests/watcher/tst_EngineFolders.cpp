#include "base/FileDescriptor.h"
#include "support/EngineResources.h"
#include "support/EngineTest.h"

#include <fcntl.h>
#include <filesystem>

using namespace harbex;
using namespace harbex::test;

/// Watched folders that are missing, go away, and come back.
class TestEngineFolders : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void aFolderIsWatchedWheneverOneIsAtItsPath_data()
    {
        // The engine watches a/b/watched. See apply().
        QTest::addColumn<std::string>("beforeTheStart");
        QTest::addColumn<std::string>("leave");
        QTest::addColumn<std::string>("comeBack");
        using Steps = std::string;
        const auto row = [](const char* name, const Steps& begin, const Steps& leave, const Steps& comeBack) {
            QTest::newRow(name) << begin << leave << comeBack;
        };
        const Steps spare = "make spare/b/watched/old";
        const Steps both = spare + ", make a/b/watched";
        const Steps replace = "rename spare/b/watched a/b/watched";

        row("deleted, and another comes", both, "remove a/b/watched", replace);
        row("renamed, and renamed back with another entry", "make a/b/watched",
            "rename a/b/watched a/b/away, make a/b/away/old", "rename a/b/away a/b/watched");
        row("folder above renamed, and another comes", both, "rename a/b a/away", "rename spare/b a/b");
        row("folder two levels above renamed, and another comes", both, "rename a away", "rename spare a");
        row("all deleted, and made one level at a time", both, "remove a", "make a, make a/b, " + replace);
        row("replaced by a file, and by a folder", both, "remove a/b/watched, file a/b/watched",
            "exchange spare/b/watched a/b/watched");

        row("missing at the start, and made one level at a time", spare, "", "make a, make a/b, " + replace);
        row("missing at the start, and other things made above it", spare,
            "file a, remove a, link a spare/b, remove a", "rename spare a");

        row("a dangling link gets a target", spare + ", make a/b, link a/b/watched ../../target/b/watched",
            "", "rename spare target");
        row("the target of a link is renamed and replaced", spare + ", make target/b/watched, link a target",
            "rename target/b target/away", "rename spare/b target/b");
        row("a link is removed, and another one made",
            spare + ", make target/watched, make a, link a/b ../target", "remove a/b", "link a/b ../spare/b");
    }

    void aFolderIsWatchedWheneverOneIsAtItsPath()
    {
        QFETCH(const std::string, beforeTheStart);
        QFETCH(const std::string, leave);
        QFETCH(const std::string, comeBack);
        const std::string path = at("a/b/watched");
        apply(beforeTheStart);
        const bool isThere = exists(path + "/.");
        const Sentinel sentinel(*m_scratch, path);
        QVERIFY(start({watched(path, {sentinel.rule(), takeAll(m_out)}), inboxWith({})}));
        QCOMPARE(engine().activeFDs().size(), isThere ? 2U : 1U);
        if (isThere) {
            makeFolder(path + "/first");
            QVERIFY(hasNames(path, {}));
        }

        apply(leave);
        QVERIFY(areWatched(1));
        QVERIFY(sentinelFoldersPass());

        apply(comeBack);
        QVERIFY(areWatched(2));
        QVERIFY(sentinel.foldersPass(engine()));
        QCOMPARE(namesIn(path), QByteArrayList{"old"});
        makeFolder(path + "/late");
        QVERIFY(isLogged(moved("late")));
        QCOMPARE(namesIn(path), QByteArrayList{"old"});
        QVERIFY(engine().isRunning());
        QCOMPARE(log("ailed"), QStringList());
    }

    void aFolderThatTakesThePlaceOfAnotherIsWatched_data()
    {
        QTest::addColumn<std::string>("replace");
        QTest::newRow("the folders change places") << std::string("exchange a/real spare/real");
        QTest::newRow("the folders above change places") << std::string("exchange a spare");
        QTest::newRow("an empty one is replaced") << std::string("rename spare/real a/real");
        QTest::newRow("a link is replaced")
            << std::string("link a/link ../spare/real, rename a/link a/watched");
    }

    void aFolderThatTakesThePlaceOfAnotherIsWatched()
    {
        QFETCH(const std::string, replace);
        const std::string path = at("a/watched");
        apply("make a/real, make spare/real/old, link a/watched real, link spare/watched real");
        const Sentinel sentinel(*m_scratch, path);
        QVERIFY(start({watched(path, {sentinel.rule(), takeAll(m_out)})}));
        QVERIFY(sentinel.foldersPass(engine()));
        const std::vector<int> before = engine().activeFDs();

        apply(replace);
        QVERIFY(areReplaced(before));
        QVERIFY(sentinel.foldersPass(engine()));
        QCOMPARE(namesIn(path), QByteArrayList{"old"});
        QCOMPARE(namesIn(m_out), QByteArrayList());
        // The former folder is not watched any more, wherever it is now.
        const std::string former = exists(at("spare/real/old")) ? at("a/real") : at("spare/real");
        if (exists(former)) makeFolder(former + "/strange");
        makeFolder(path + "/late");
        QVERIFY(isLogged(moved("late")));
        QVERIFY(sentinel.foldersPass(engine()));
        QCOMPARE(namesIn(m_out), QByteArrayList{"late"});
    }

    void aNameThatBecomesALinkToTheSameFolderIsFollowed()
    {
        const std::string path = at("a/watched");
        apply("make a/watched, make target, link target/a target/a");
        QVERIFY(start({watched(path, {takeAll(m_out)})}));
        const auto watches = kernelWatchCount();
        apply("exchange a target/a");
        // The folder itself is not affected. The engine now watches the folder of the link's target too.
        QVERIFY(waitFor([&] { return kernelWatchCount() > watches; }));
        QCOMPARE(engine().activeFDs().size(), 1U);
        apply("rename target away");
        QVERIFY(areWatched(0));
        apply("rename away target");
        QVERIFY(areWatched(1));
        makeFolder(path + "/late");
        QVERIFY(isLogged(moved("late")));
    }

    /// The kernel reports the deletion of a folder only after its last user has closed it.
    void aFolderThatIsRemovedWhileItIsInUseIsGone()
    {
        const std::string spare = newFolder("spare");
        makeFolder(spare + "/old");
        const FileDescriptor user(::open(m_inbox.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        QVERIFY(user);
        QVERIFY(start({takeAll(m_out)}));
        removeEntry(m_inbox);
        QVERIFY(areWatched(0));
        renameEntry(spare, m_inbox);
        QVERIFY(areWatched(1));
        QVERIFY(sentinelFoldersPass());
        QCOMPARE(namesIn(m_inbox), QByteArrayList{"old"});
    }

    void foldersInsideEachOtherComeBackTogether()
    {
        const std::vector<std::string> paths = {at("top"), at("top/middle"), at("top/middle/bottom")};
        apply("make top/middle/bottom");
        std::vector<WatchedFolder> folders;
        for (size_t i = 0; i < paths.size(); ++i)
            folders.push_back(watched(paths[i], {takeAll(newFolder("out " + std::to_string(i)))}));
        QVERIFY(start(folders));
        for (int times = 0; times < 3; ++times) {
            renameEntry(paths[0], at("away"));
            QVERIFY(areWatched(0));
            renameEntry(at("away"), paths[0]);
            QVERIFY(areWatched(3));
        }
        for (const std::string& path : paths)
            makeFolder(path + "/Notes");
        for (size_t i = 0; i < paths.size(); ++i)
            QVERIFY(hasNames(at("out " + std::to_string(i)), {"Notes"}));
        QCOMPARE(namesIn(paths[0]), QByteArrayList{"middle"});
    }

private:
    /// Makes changes in the scratch folder, such as "make a/b, rename a c". The target of a link is taken as
    /// it is.
    void apply(const std::string& steps) const
    {
        for (const QString& step : QString::fromStdString(steps).split(u',', Qt::SkipEmptyParts)) {
            const QStringList words = step.trimmed().split(u' ');
            const std::string path = at(words[1].toStdString());
            const std::string other = words.value(2).toStdString();
            if (words[0] == u"make")
                std::filesystem::create_directories(path);
            else if (words[0] == u"file")
                writeFile(path, {});
            else if (words[0] == u"link")
                makeLink(path, other);
            else if (words[0] == u"remove")
                std::filesystem::remove_all(path);
            else if (words[0] == u"rename")
                renameEntry(path, at(other));
            // There is no moment at which one of the two is missing.
            else if (words[0] != u"exchange" ||
                     ::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, at(other).c_str(), RENAME_EXCHANGE) != 0)
                qFatal("cannot do \"%s\"", qPrintable(step));
        }
    }
};

HARBEX_TEST(TestEngineFolders)

#include "tst_EngineFolders.moc"
