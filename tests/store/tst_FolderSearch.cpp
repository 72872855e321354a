#include "store/FolderSearch.h"
#include "support/EngineFiles.h"
#include "support/SyscallInterceptor.h"
#include "support/TestMain.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <memory>
#include <thread>

using namespace harbex;
using namespace harbex::test;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace
{

using Lost = std::map<QByteArray, LostFolder>;

/// A search that no clock ends.
SearchBounds boundsOf(size_t folders)
{
    return {.deadline = Clock::time_point::max(), .folders = folders};
}

/// Searches in a child process, which fails with ENOENT if a folder is not found.
InterceptedRun searchIntercepted(const char* call, Lost lost, const SearchBounds& bounds,
                                 const Interceptor& interceptor, const MountTable& mounts = {})
{
    const auto work = [&]() -> Outcome<void> {
        findLostFolders(lost, mounts, bounds);
        const bool isEverythingFound =
            std::ranges::all_of(lost, [](const auto& folder) { return folder.second.foundAt.has_value(); });
        if (!isEverythingFound) return SystemError{ENOENT};
        return {};
    };
    return runIntercepted({call}, work, interceptor);
}

struct Listed {
    /// The listed folders in order, those of parents first, relative to the home.
    QByteArrayList folders;
    /// How often a folder was opened to confirm its identity.
    int confirmations = 0;
    bool isEverythingFound = false;
};

} // namespace

class TestFolderSearch : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        // In memory, because thousands of files take long on a busy disk.
        m_scratch = std::make_unique<ScratchFolder>("/dev/shm");
        m_home = m_scratch->makeFolder("home");
        m_taken.clear();
        qputenv("HOME", QByteArray::fromStdString(m_home));
    }

    void theNearestFoldersAreListedFirstAndEachOnce()
    {
        for (const char* folder : {"a/b/c/d", "other/inner", ".hidden/x", "Trash/files", "$RECYCLE.BIN/x"})
            fs::create_directories(m_home + '/' + folder);
        makeLink(m_home + "/a/b/link", m_home + "/other");
        writeFile(m_home + "/a/b/file", "");
        makeFolder(m_scratch->path() + "/outside");
        const Lost lost{
            {"1", takenAway("a/b/one")}, {"2", takenAway("a/b/two")}, {"3", takenAway("a/missing/three")}};
        const Listed listed = listedBy(lost, boundsOf(1000));
        QCOMPARE(listed.folders,
                 (QByteArrayList{"a/b", "a/b", "a/b/c", "a/b/c/d", "a", ".", "other", "other/inner"}));
        // No other folder has the inode number of a lost one.
        QCOMPARE(listed.confirmations, 0);
    }

    void foldersOutsideOfTheHomeAreSearchedToo()
    {
        fs::create_directories(m_home + "/srv/x");
        fs::create_directories(m_home + "/srv/y");
        const LostFolder lost = takenAway("srv/x/Downloads");
        qputenv("HOME", "/nowhere");
        fs::rename(m_taken.back(), m_home + "/srv/y/moved");
        const Lost found = searched({{"1", lost}});
        QCOMPARE(found.at("1").foundAt, m_home + "/srv/y/moved");
    }

    void nothingIsListedWithoutHopeOfFinding()
    {
        LostFolder onMissingVolume = takenAway("a");
        onMissingVolume.path = "/missing-volume/folder/a";
        QCOMPARE(listedBy({{"1", onMissingVolume}}, boundsOf(1000)).folders, QByteArrayList());

        // Another folder may have the inode number.
        LostFolder withNumberOnly = takenAway("b");
        withNumberOnly.identity = {.inode = withNumberOnly.identity.inode, .handle = {}};
        QCOMPARE(listedBy({{"1", withNumberOnly}}, boundsOf(1000)).folders, QByteArrayList());
        QCOMPARE(listedBy({}, boundsOf(1000)).folders, QByteArrayList());
    }

    void oneSearchFindsSeveralFolders()
    {
        fs::create_directories(m_home + "/new/place");
        const Lost lost{{"1", takenAway("a")}, {"2", takenAway("old/b")}, {"3", takenAway("old/c")}};
        Lost both = lost;
        both.insert({"1 at another path", {"/missing/path", lost.at("1").identity, {}}});
        fs::rename(m_taken[0], m_home + "/new/place/a");
        fs::rename(m_taken[1], m_home + "/new/place/a/b");
        const Lost found = searched(both);
        QCOMPARE(found.at("1").foundAt, m_home + "/new/place/a");
        QCOMPARE(found.at("1 at another path").foundAt, m_home + "/new/place/a");
        QCOMPARE(found.at("2").foundAt, m_home + "/new/place/a/b");
        QVERIFY(!found.at("3").foundAt);
    }

    void theSearchEndsAfterSoManyFolders()
    {
        fs::create_directories(m_home + "/in/1/2/3/4/5");
        const LostFolder lost = takenAway("in/Downloads");
        fs::rename(m_taken.back(), m_home + "/in/1/2/3/Downloads");
        for (int folders = 0; folders <= 6; ++folders) {
            const Listed listed = listedBy({{"1", lost}}, boundsOf(size_t(folders)));
            // The parent is listed outside of the bounds. The search ends with the fourth folder, "3".
            QCOMPARE(listed.folders.size(), 1 + std::min(folders, 4));
            QCOMPARE(listed.isEverythingFound, folders >= 4);
        }
    }

    void theSearchEndsAtTheDeadline()
    {
        for (int i = 0; i < 20; ++i)
            makeFolder(m_home + "/folder" + std::to_string(i));
        const Lost lost{{"1", takenAway("Downloads")}};
        // The clock is the same in the child process.
        SearchBounds bounds = boundsOf(1000);
        bounds.deadline = Clock::now() + std::chrono::seconds(1);
        int later = 0;
        const Listed listed = listedBy(lost, bounds, {}, [&](const QByteArray&) {
            if (++later == 5) std::this_thread::sleep_until(bounds.deadline);
            return Answer::proceed();
        });
        // Fewer if the machine is very busy.
        QVERIFY(listed.folders.size() <= 5);
    }

    void aRenamedFolderIsFoundAfterTheDeadline()
    {
        const LostFolder lost = takenAway("Downloads");
        fs::rename(m_taken.back(), m_home + "/.renamed");
        const Lost found = searched({{"1", lost}}, {.deadline = Clock::time_point::min(), .folders = 0});
        QCOMPARE(found.at("1").foundAt, m_home + "/.renamed");
    }

    void theDeadlineEndsALongListing()
    {
        makeFolder(m_home + "/in");
        for (int i = 0; i < 6'000; ++i)
            writeFile(m_home + "/in/a-file-with-a-rather-long-name-" + std::to_string(i), "");
        const LostFolder lost = takenAway("in/x/Downloads");
        const auto reads = [&](bool isEnded) {
            const auto deadline = isEnded ? Clock::now() + std::chrono::seconds(1) : Clock::time_point::max();
            const auto interceptor = [&](const InterceptedCall& call) {
                if (call.ordinal == 2 && isEnded) std::this_thread::sleep_until(deadline);
                return Answer::proceed();
            };
            // Only the large folder is listed.
            const SearchBounds bounds{.deadline = deadline, .folders = 1};
            return searchIntercepted("getdents64", {{"1", lost}}, bounds, interceptor).count("getdents64");
        };
        QVERIFY(reads(false) > 4);
        QVERIFY(reads(true) <= 2);
    }

    void aFolderThatCannotBeReadIsSkipped()
    {
        fs::create_directories(m_home + "/closed/x");
        fs::create_directories(m_home + "/open/y");
        const LostFolder lost = takenAway("Downloads");
        fs::rename(m_taken.back(), m_home + "/open/y/Downloads");
        const Listed listed = listedBy({{"1", lost}}, boundsOf(1000), {}, [](const QByteArray& folder) {
            return folder == "closed" ? Answer::fail(EACCES) : Answer::proceed();
        });
        QVERIFY(listed.isEverythingFound);
        QVERIFY(!listed.folders.contains("closed/x"));
    }

    void typesOfEntriesMayBeUnknown()
    {
        fs::create_directories(m_home + "/new/place");
        writeFile(m_home + "/file", "");
        writeFile(m_home + "/new/file", "");
        const LostFolder lost = takenAway("Downloads");
        fs::rename(m_taken.back(), m_home + "/new/place/Downloads");
        int changed = 0;
        const auto hideTypes = [&changed](const InterceptedCall& call) {
            // Reads for the child and hides the types.
            std::string records(call.arguments[2], '\0');
            const ssize_t size = ::getdents64(call.descriptor(0).get(), records.data(), records.size());
            if (size < 0) return Answer::fail(errno);
            records.resize(static_cast<size_t>(size));
            for (size_t offset = 0; offset < records.size(); ++changed) {
                auto* const record = reinterpret_cast<dirent64*>(records.data() + offset);
                record->d_type = DT_UNKNOWN;
                offset += record->d_reclen;
            }
            if (size > 0) call.writeMemory(call.arguments[1], records);
            return Answer::give(size);
        };
        QVERIFY(searchIntercepted("getdents64", {{"1", lost}}, boundsOf(1000), hideTypes).succeeded());
        QVERIFY(changed > 0);
    }

    // An automount point would be mounted, from a server that may not answer.
    void remoteVolumesAreNotOpened()
    {
        fs::create_directories(m_home + "/nas/inside");
        fs::create_directories(m_home + "/open");
        makeLink(m_scratch->path() + "/link", m_home);
        LostFolder lost = takenAway("Downloads");
        const MountTable mounts = MountTable::parse("36 35 0:40 / " + m_home + "/nas rw - autofs x rw");
        QCOMPARE(listedBy({{"1", lost}}, boundsOf(1000), mounts).folders, (QByteArrayList{".", ".", "open"}));
        // The mount table has paths without links.
        lost.path = m_scratch->path() + "/link/Downloads";
        qputenv("HOME", QByteArray::fromStdString(m_scratch->path() + "/link"));
        QCOMPARE(listedBy({{"1", lost}}, boundsOf(1000), mounts).folders, (QByteArrayList{".", ".", "open"}));
        // Not even to confirm that the mount point is the wanted folder.
        fs::rename(m_home + "/nas/inside", m_scratch->path() + "/inside");
        fs::remove(m_home + "/nas");
        fs::rename(m_taken.back(), m_home + "/nas");
        QVERIFY(!listedBy({{"1", lost}}, boundsOf(1000), mounts).isEverythingFound);
        QVERIFY(listedBy({{"1", lost}}, boundsOf(1000)).isEverythingFound);
    }

private:
    /// Creates a folder in the home, and moves it to where no search looks. `name` can have missing parents:
    /// these are removed again.
    LostFolder takenAway(const std::string& name)
    {
        const fs::path path = fs::path(m_home) / name;
        const fs::path parent = path.parent_path();
        const bool hadParent = fs::exists(parent);
        fs::create_directories(path);
        LostFolder lost{.path = path, .identity = *identityOfFolder(path), .foundAt = {}};
        m_taken.push_back(m_scratch->path() + "/taken" + std::to_string(m_taken.size()));
        fs::rename(path, m_taken.back());
        if (!hadParent) fs::remove(parent);
        return lost;
    }

    static Lost searched(Lost lost, const SearchBounds& bounds = boundsOf(1000))
    {
        findLostFolders(lost, {}, bounds);
        return lost;
    }

    /// Searches in a child process. `beforeListing` is asked before a folder is opened to list it.
    [[nodiscard]] Listed
    listedBy(const Lost& lost, const SearchBounds& bounds, const MountTable& mounts = {},
             const std::function<Answer(const QByteArray& folder)>& beforeListing = {}) const
    {
        Listed listed;
        const auto interceptor = [&](const InterceptedCall& call) {
            uint64_t flags = 0;
            std::memcpy(&flags, call.readMemory(call.arguments[2], sizeof flags).data(), sizeof flags);
            if (flags & O_PATH) {
                ++listed.confirmations;
                return Answer::proceed();
            }
            const fs::path root = call.pathOfOpen(static_cast<int>(call.arguments[0]));
            const std::string name = call.text(1);
            const fs::path folder = name == "." ? root : root / name;
            listed.folders << folder.lexically_relative(m_home).c_str();
            return beforeListing ? beforeListing(listed.folders.last()) : Answer::proceed();
        };
        const InterceptedRun run = searchIntercepted("openat2", lost, bounds, interceptor, mounts);
        if (run.error != 0 && run.error != ENOENT) qFatal("the search failed");
        listed.isEverythingFound = run.succeeded();
        return listed;
    }

    std::unique_ptr<ScratchFolder> m_scratch;
    std::string m_home;
    std::vector<std::string> m_taken;
};

HARBEX_TEST(TestFolderSearch)

#include "tst_FolderSearch.moc"
