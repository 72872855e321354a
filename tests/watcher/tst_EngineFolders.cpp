#include "base/FileDescriptor.h"
#include "support/EngineResources.h"
#include "support/EngineTest.h"

#include <fcntl.h>
#include <filesystem>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// A change below the scratch folder. `path` and `other` begin with a slash and are relative to it.
struct Step {
    enum Kind { make, makeFile, link, remove, rename, exchange };
    Kind kind;
    std::string path;
    /// The new path, or the target of a link. A target without a slash at its beginning is a relative link.
    std::string other = {};

    void apply(const std::string& scratch) const
    {
        const std::string from = scratch + path;
        const std::string to = other.starts_with('/') ? scratch + other : other;
        switch (kind) {
        case make:
            std::filesystem::create_directories(from);
            return;
        case makeFile:
            return writeFile(from, "");
        case link:
            return makeLink(from, to);
        case remove:
            std::filesystem::remove_all(from);
            return;
        case rename:
            return renameEntry(from, to);
        case exchange:
            // There is no moment at which one of them is missing.
            if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_EXCHANGE) != 0)
                qFatal("cannot exchange %s and %s", from.c_str(), to.c_str());
        }
    }
};
using Steps = std::vector<Step>;

} // namespace

/// Watched folders that are missing, go away, and come back.
class TestEngineFolders : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void aFolderIsWatchedWheneverOneIsAtItsPath_data()
    {
        // The engine watches /a/b/watched.
        QTest::addColumn<Steps>("beforeTheStart");
        QTest::addColumn<Steps>("leave");
        QTest::addColumn<Steps>("comeBack");
        const auto row = [](const char* name, const Steps& begin, const Steps& leave, const Steps& comeBack) {
            QTest::newRow(name) << begin << leave << comeBack;
        };
        const Step watched{Step::make, "/a/b/watched"};
        const Step spare{Step::make, "/spare/b/watched/old"};
        const Step replace{Step::rename, "/spare/b/watched", "/a/b/watched"};

        row("deleted, and another comes", {watched, spare}, {{Step::remove, "/a/b/watched"}}, {replace});
        row("renamed, and renamed back with another entry", {watched},
            {{Step::rename, "/a/b/watched", "/a/b/away"}, {Step::make, "/a/b/away/old"}},
            {{Step::rename, "/a/b/away", "/a/b/watched"}});
        row("folder above renamed, and another comes", {watched, spare}, {{Step::rename, "/a/b", "/a/away"}},
            {{Step::rename, "/spare/b", "/a/b"}});
        row("folder two levels above renamed, and another comes", {watched, spare},
            {{Step::rename, "/a", "/away"}}, {{Step::rename, "/spare", "/a"}});
        row("all deleted, and made one level at a time", {watched, spare}, {{Step::remove, "/a"}},
            {{Step::make, "/a"}, {Step::make, "/a/b"}, replace});
        row("replaced by a file, and by a folder", {watched, spare},
            {{Step::remove, "/a/b/watched"}, {Step::makeFile, "/a/b/watched"}},
            {{Step::exchange, "/spare/b/watched", "/a/b/watched"}});

        row("missing at the start, and made one level at a time", {spare}, {},
            {{Step::make, "/a"}, {Step::make, "/a/b"}, replace});
        row("missing at the start, and other things made above it", {spare},
            {{Step::makeFile, "/a"},
             {Step::remove, "/a"},
             {Step::link, "/a", "spare/b"},
             {Step::remove, "/a"}},
            {{Step::rename, "/spare", "/a"}});

        row("a dangling link gets a target",
            {spare, {Step::make, "/a/b"}, {Step::link, "/a/b/watched", "../../target/b/watched"}}, {},
            {{Step::rename, "/spare", "/target"}});
        row("the target of a link is renamed and replaced",
            {spare, {Step::make, "/target/b/watched"}, {Step::link, "/a", "target"}},
            {{Step::rename, "/target/b", "/target/away"}}, {{Step::rename, "/spare/b", "/target/b"}});
        row("a link is removed, and another one made",
            {spare, {Step::make, "/target/watched"}, {Step::make, "/a"}, {Step::link, "/a/b", "../target"}},
            {{Step::remove, "/a/b"}}, {{Step::link, "/a/b", "../spare/b"}});
    }

    void aFolderIsWatchedWheneverOneIsAtItsPath()
    {
        QFETCH(const Steps, beforeTheStart);
        QFETCH(const Steps, leave);
        QFETCH(const Steps, comeBack);
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
        QTest::addColumn<Steps>("replace");
        QTest::newRow("the folders change places") << Steps{{Step::exchange, "/a/real", "/spare/real"}};
        QTest::newRow("the folders above change places") << Steps{{Step::exchange, "/a", "/spare"}};
        QTest::newRow("an empty one is replaced") << Steps{{Step::rename, "/spare/real", "/a/real"}};
        QTest::newRow("a link is replaced")
            << Steps{{Step::link, "/a/link", "../spare/real"}, {Step::rename, "/a/link", "/a/watched"}};
    }

    void aFolderThatTakesThePlaceOfAnotherIsWatched()
    {
        QFETCH(const Steps, replace);
        const std::string path = at("a/watched");
        apply({{Step::make, "/a/real"},
               {Step::make, "/spare/real/old"},
               {Step::link, "/a/watched", "real"},
               {Step::link, "/spare/watched", "real"}});
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
        apply({{Step::make, "/a/watched"}, {Step::make, "/target"}, {Step::link, "/target/a", "target/a"}});
        QVERIFY(start({watched(path, {takeAll(m_out)})}));
        const auto watches = kernelWatchCount();
        apply({{Step::exchange, "/a", "/target/a"}});
        // The folder itself is not affected. The engine now watches the folder of the link's target too.
        QVERIFY(waitFor([&] { return kernelWatchCount() > watches; }));
        QCOMPARE(engine().activeFDs().size(), 1U);
        apply({{Step::rename, "/target", "/away"}});
        QVERIFY(areWatched(0));
        apply({{Step::rename, "/away", "/target"}});
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
        apply({{Step::make, "/top/middle/bottom"}});
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
    void apply(const Steps& steps) const
    {
        for (const Step& step : steps)
            step.apply(m_scratch->path());
    }
};

HARBEX_TEST(TestEngineFolders)

#include "tst_EngineFolders.moc"
