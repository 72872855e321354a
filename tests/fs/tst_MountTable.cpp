#include "fs/MountTable.h"
#include "support/EngineFiles.h"
#include "support/TestMain.h"

#include <algorithm>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

using namespace harbex;
using namespace harbex::test;

namespace
{

using Place = std::optional<std::string>;
using Lines = std::vector<std::string>;

/// Returns a line of the kernel's mount table.
std::string mounted(const std::string& type, const std::string& place)
{
    return "36 35 98:0 / " + place + " rw,noatime shared:1 - " + type + " source rw,errors=continue\n";
}

MountTable remoteAt(const std::string& place)
{
    return MountTable::parse(mounted("nfs4", place));
}

/// Returns the visited names as "folder name".
Lines visitsOf(const MountTable& table, const std::string& path)
{
    Lines visits;
    table.follow(path, [&](const std::string& folder, const std::string& name) {
        visits.push_back(folder + ' ' + name);
        return false;
    });
    return visits;
}

} // namespace

/// Which paths lead to remote volumes. All volumes here are local. tst_RemoteVolumes.cpp uses a server.
class TestMountTable : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theTypeShowsWhetherAVolumeIsRemote_data()
    {
        QTest::addColumn<bool>("isRemote");
        for (const char* type :
             {"9p", "afs", "autofs", "ceph", "cifs", "coda", "fuse", "fuse.bindfs", "fuse.sshfs", "fuseblk",
              "lustre", "ncp", "ncpfs", "nfs", "nfs4", "ocfs2", "smb3", "smbfs", "vboxsf"})
            QTest::newRow(type) << true;
        for (const char* type : {"bcachefs", "btrfs", "ecryptfs", "exfat", "ext4", "f2fs", "iso9660", "nfsd",
                                 "ntfs3", "overlay", "proc", "tmpfs", "vfat", "xfs", "zfs"})
            QTest::newRow(type) << false;
    }

    void theTypeShowsWhetherAVolumeIsRemote()
    {
        QFETCH(const bool, isRemote);
        const MountTable table = MountTable::parse(mounted(QTest::currentDataTag(), "/mnt"));
        QCOMPARE(table.remoteMount("/mnt/folder"), isRemote ? Place("/mnt") : Place());
    }

    void aLineIsRead_data()
    {
        QTest::addColumn<std::string>("text");
        QTest::addColumn<std::string>("path");
        QTest::addColumn<bool>("isRemote");
        const auto row = [](const char* what, const std::string& text, const char* path, bool isRemote) {
            QTest::newRow(what) << text << std::string(path) << isRemote;
        };
        row("no optional field", "36 35 98:0 /root /mnt rw,noatime - nfs4 server:/x rw\n", "/mnt", true);
        row("three optional fields",
            "36 35 98:0 / /mnt rw shared:1 master:2 propagate_from:3 - nfs4 server:/x rw\n", "/mnt", true);
        row("no line end", "36 35 98:0 / /mnt rw - nfs4 x rw", "/mnt", true);
        row("source named like a type", "36 35 98:0 / /mnt rw - ext4 nfs4 rw\n", "/mnt", false);
        row("space", mounted("nfs4", "/a\\040b"), "/a b", true);
        row("tab, line end, backslash", mounted("nfs4", "/\\011\\012\\134"), "/\t\n\\", true);
        row("escaped backslash before digits", mounted("nfs4", "/a\\134040"), "/a\\040", true);
        row("bytes above ASCII", mounted("nfs4", "/\xff\xc3\xa4"), "/\xff\xc3\xa4", true);
        row("root", mounted("nfs4", "/"), "/", true);
        row("local over remote", mounted("nfs4", "/mnt") + mounted("ext4", "/mnt"), "/mnt", false);
        row("remote over local", mounted("ext4", "/mnt") + mounted("nfs4", "/mnt"), "/mnt", true);
        row("automounted", mounted("autofs", "/mnt") + mounted("ext4", "/mnt"), "/mnt", false);
        row("one of many",
            mounted("ext4", "/") + mounted("proc", "/proc") + mounted("nfs4", "/mnt") +
                mounted("tmpfs", "/tmp"),
            "/mnt", true);
        row("broken lines", "\nx\n1 2 3 4 5 6\n1 2 3 4 /a rw -\n" + mounted("nfs4", "/mnt"), "/mnt", true);
    }

    void aLineIsRead()
    {
        QFETCH(const std::string, text);
        QFETCH(const std::string, path);
        QFETCH(const bool, isRemote);
        QCOMPARE(MountTable::parse(text).remoteMount(path), isRemote ? Place(path) : Place());
    }

    void anEmptyTableHasNoRemoteVolume()
    {
        for (const MountTable& table : {MountTable(), MountTable::parse({})}) {
            QCOMPARE(table.remoteMount("/"), Place());
            QCOMPARE(table.remoteMount("/home/me"), Place());
            QCOMPARE(table.remoteMount(""), Place());
        }
    }

    void theKernelTableIsRead()
    {
        const ScratchFolder scratch;
        QCOMPARE(MountTable::read().remoteMount("/proc/self"), Place());
        QCOMPARE(MountTable::read().remoteMount(scratch.path()), Place());
    }

    void aPathIsFollowedToTheFirstRemoteVolume_data()
    {
        QTest::addColumn<Lines>("links");
        QTest::addColumn<std::string>("path");
        QTest::addColumn<bool>("isRemote");
        // "@" is a folder with the remote mount "mnt" and with "folder/inside".
        const auto row = [](const char* what, const Lines& links, const char* path, bool isRemote) {
            QTest::newRow(what) << links << std::string(path) << isRemote;
        };
        row("itself", {}, "@/mnt", true);
        row("below", {}, "@/mnt/a/b", true);
        row("slashes", {}, "@//mnt///a/", true);
        row("dots", {}, "@/./folder/../mnt/.", true);
        row("beside", {}, "@/folder/inside", false);
        row("longer name", {}, "@/mnt2", false);
        row("missing", {}, "@/missing/x", false);
        row("missing, and back", {}, "@/missing/../mnt", false);
        row("out of the volume again", {}, "@/mnt/../folder", true);
        row("above the root", {}, "/../../..@/mnt", true);
        row("absolute link", {"link", "@/mnt"}, "@/link/a", true);
        row("relative link", {"link", "folder/../mnt/a"}, "@/link", true);
        row("link in a folder", {"folder/link", "../mnt"}, "@/folder/link", true);
        row("link with a slash at its end", {"link", "mnt/"}, "@/link/", true);
        row("chain of links", {"a", "b", "b", "@/c", "c", "folder/d", "folder/d", "../mnt"}, "@/a", true);
        row("link to a folder, with the volume behind", {"link", "folder"}, "@/link/../mnt", true);
        row("link to inside, .. from there", {"link", "folder/inside"}, "@/link/../../mnt", true);
        row("link to inside, .. from the link", {"link", "folder/inside"}, "@/link/../mnt", false);
        row("local link", {"link", "folder"}, "@/link/inside", false);
        row("dangling link", {"link", "missing"}, "@/link/../mnt", false);
        row("loop", {"a", "b", "b", "a"}, "@/a/../mnt", false);
        row("link to itself", {"a", "a"}, "@/a", false);
    }

    void aPathIsFollowedToTheFirstRemoteVolume()
    {
        QFETCH(const Lines, links);
        QFETCH(std::string, path);
        QFETCH(const bool, isRemote);
        const ScratchFolder scratch;
        scratch.makeFolder("mnt");
        makeFolder(scratch.makeFolder("folder") + "/inside");
        const auto completed = [&](std::string text) {
            if (const size_t at = text.find('@'); at != std::string::npos)
                text.replace(at, 1, scratch.path());
            return text;
        };
        for (size_t i = 0; i + 1 < links.size(); i += 2)
            makeLink(scratch.path() + '/' + links[i], completed(links[i + 1]));

        const std::string mount = scratch.path() + "/mnt";
        QCOMPARE(remoteAt(mount).remoteMount(completed(path)), isRemote ? Place(mount) : Place());
    }

    void everyNameOnThePathIsVisited_data()
    {
        QTest::addColumn<std::string>("path");
        QTest::addColumn<Lines>("visits");
        QTest::newRow("folders") << std::string("/folder/inside") << Lines{" folder", "/folder inside"};
        QTest::newRow("missing, and not what is below")
            << std::string("/folder/missing/x/y") << Lines{" folder", "/folder missing"};
        QTest::newRow("link and what it leads to")
            << std::string("/link/x") << Lines{" link", " folder", "/folder inside", "/folder/inside x"};
        QTest::newRow("remote volume, and nothing in it")
            << std::string("/folder/../mnt/x/y") << Lines{" folder", " mnt"};
    }

    void everyNameOnThePathIsVisited()
    {
        QFETCH(const std::string, path);
        QFETCH(const Lines, visits);
        const ScratchFolder scratch;
        scratch.makeFolder("mnt");
        makeFolder(scratch.makeFolder("folder") + "/inside");
        makeLink(scratch.path() + "/link", "folder/inside");

        const MountTable table = remoteAt(scratch.path() + "/mnt");
        const Lines above = visitsOf(table, scratch.path());
        const Lines all = visitsOf(table, scratch.path() + path);
        QVERIFY(all.size() >= above.size());
        QVERIFY(std::equal(above.begin(), above.end(), all.begin()));
        Lines expected;
        for (const std::string& visit : visits)
            expected.push_back(scratch.path() + visit);
        QCOMPARE(Lines(all.begin() + ptrdiff_t(above.size()), all.end()), expected);
    }

    void aKnownFolderIsNotLookedUp()
    {
        const ScratchFolder scratch;
        // A lookup would find a dangling link.
        makeLink(scratch.path() + "/known", "mnt");
        const std::string mount = scratch.path() + "/known/mnt";
        const Place found = remoteAt(mount).follow(
            scratch.path() + "/known/mnt", [](const std::string&, const std::string&) { return true; });
        QCOMPARE(found, Place(mount));
        QCOMPARE(remoteAt(mount).remoteMount(scratch.path() + "/known/mnt"), Place());
    }

    void asManyLinksAsTheKernelFollows_data()
    {
        QTest::addColumn<int>("links");
        for (const int links : {1, 39, 40, 41, 100})
            QTest::addRow("%d", links) << links;
    }

    void asManyLinksAsTheKernelFollows()
    {
        QFETCH(const int, links);
        const ScratchFolder scratch;
        const std::string target = scratch.makeFolder("mnt");
        const std::string first = scratch.path() + "/1";
        for (int i = 1; i <= links; ++i)
            makeLink(scratch.path() + '/' + std::to_string(i), i == links ? "mnt" : std::to_string(i + 1));
        const bool kernelFollows = ::access(first.c_str(), F_OK) == 0;
        QCOMPARE(remoteAt(target).remoteMount(first), kernelFollows ? Place(target) : Place());
    }
};

HARBEX_TEST(TestMountTable)

#include "tst_MountTable.moc"
