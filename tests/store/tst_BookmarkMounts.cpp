#include "store/Bookmark.h"
#include "support/EngineFiles.h"
#include "support/PrivateMounts.h"
#include "support/TestMain.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>

using namespace harbex;
using namespace harbex::test;
namespace fs = std::filesystem;

namespace
{

/// The path to which a bookmark resolves, or nothing.
std::optional<std::string> resolved(const QByteArray& bookmark)
{
    const SearchBounds bounds{.deadline = std::chrono::steady_clock::time_point::max()};
    const auto urls = resolveBookmarks({bookmark}, MountTable::read(), bounds);
    return urls.empty() ? std::nullopt : std::optional(urls.at(bookmark).path());
}

} // namespace

/// Bookmarks of folders on and beside other volumes.
class TestBookmarkMounts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_scratch = std::make_unique<ScratchFolder>();
        m_home = m_scratch->makeFolder("home");
        m_outside = m_scratch->makeFolder("outside");
        qputenv("HOME", QByteArray::fromStdString(m_home));
    }

    void aMountPointIsNotEntered()
    {
        const std::string folder = make("a/Downloads");
        const std::string second = make("a/a");
        const Mount mount = Mount::again(m_outside, second);
        const QByteArray bookmark = *createBookmark(folder);
        renameEntry(folder, m_outside + "/Downloads");
        // It is there, with the same identity.
        QVERIFY(fs::exists(second + "/Downloads"));
        QCOMPARE(resolved(bookmark), std::nullopt);
        renameEntry(m_outside + "/Downloads", make("b") + "/Downloads");
        QCOMPARE(resolved(bookmark), m_home + "/b/Downloads");
    }

    // A renaming never leaves a mount.
    void theSearchEndsAtTheRootOfTheMount()
    {
        const std::string stick = make("stick");
        const Mount volume = Mount::again(m_outside, stick);
        const std::string folder = make("stick/a/Downloads");
        const QByteArray bookmark = *createBookmark(folder);
        renameEntry(folder, make("stick/b/c") + "/Downloads");
        QCOMPARE(resolved(bookmark), stick + "/b/c/Downloads");
        renameEntry(m_outside + "/b/c/Downloads", m_home + "/Downloads");
        QCOMPARE(resolved(bookmark), std::nullopt);
    }

    void anOverlayKeepsTheIdentityUntilTheFolderIsCopiedUp()
    {
        for (const char* name : {"lower/a/Lower", "upper", "work", "merged"})
            (void)make(name);
        const std::string merged = m_home + "/merged";
        const Mount mount = Mount::overlay(m_home + "/lower", m_home + "/upper", m_home + "/work", merged);
        const std::string upper = make("merged/Upper");
        const std::string lower = merged + "/a/Lower";
        const QByteArray ofUpper = *createBookmark(upper);
        const QByteArray ofLower = *createBookmark(lower);
        renameEntry(upper, merged + "/a/Upper");
        QCOMPARE(resolved(ofUpper), merged + "/a/Upper");
        QCOMPARE(resolved(ofLower), lower);
        // Copying up changes the birth time.
        writeFile(lower + "/file", "");
        QCOMPARE(resolved(ofLower), std::nullopt);
    }

private:
    /// Creates a folder and its parents in the home.
    [[nodiscard]] std::string make(const std::string& name) const
    {
        fs::create_directories(m_home + '/' + name);
        return m_home + '/' + name;
    }

    std::unique_ptr<ScratchFolder> m_scratch;
    std::string m_home;
    std::string m_outside;
};

HARBEX_MAIN(TestBookmarkMounts)
{
    enterPrivateNamespace();
    return harbex::test::runTest<QCoreApplication, TestBookmarkMounts>(argc, argv);
}

#include "tst_BookmarkMounts.moc"
