#include "fs/MountTable.h"
#include "support/EngineFiles.h"
#include "support/TestMain.h"

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
    table.follow(path, [&](const std::string& folder, const std::string& name, const std::string&) {
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
    void theTypeShowsWhetherAVolumeIsRemote()
    {
        const auto mountWith = [](const std::string& type) {
            return MountTable::parse(mounted(type, "/mnt")).remoteMount("/mnt/folder");
        };
        for (const char* type :
             {"9p", "afs", "autofs", "ceph", "cifs", "coda", "fuse", "fuse.bindfs", "fuse.sshfs", "fuseblk",
              "lustre", "ncp", "ncpfs", "nfs", "nfs4", "ocfs2", "smb3", "smbfs", "vboxsf"})
            QVERIFY2(mountWith(type) == Place("/mnt"), type);
        for (const char* type : {"bcachefs", "btrfs", "ecryptfs", "exfat", "ext4", "f2fs", "iso9660", "nfsd",
                                 "ntfs3", "overlay", "proc", "tmpfs", "vfat", "xfs", "zfs"})
            QVERIFY2(!mountWith(type), type);
    }

    void aLineIsRead()
    {
        const auto mountAt = [](const std::string& path, const std::string& text) {
            return MountTable::parse(text).remoteMount(path);
        };
        // Without and with optional fields, and without a line end.
        const Place place("/mnt");
        QCOMPARE(mountAt("/mnt", "36 35 98:0 /root /mnt rw,noatime - nfs4 server:/x rw\n"), place);
        QCOMPARE(
            mountAt("/mnt", "36 35 98:0 / /mnt rw shared:1 master:2 propagate_from:3 - nfs4 server:/x rw\n"),
            place);
        QCOMPARE(mountAt("/mnt", "36 35 98:0 / /mnt rw - nfs4 x rw"), place);
        // A source that is named like a type.
        QCOMPARE(mountAt("/mnt", "36 35 98:0 / /mnt rw - ext4 nfs4 rw\n"), Place());
        QCOMPARE(mountAt("/mnt", "\nx\n1 2 3 4 5 6\n1 2 3 4 /a rw -\n" + mounted("nfs4", "/mnt")), place);

        // The kernel escapes spaces, tabs, line ends and backslashes.
        QCOMPARE(mountAt("/a b", mounted("nfs4", "/a\\040b")), Place("/a b"));
        QCOMPARE(mountAt("/\t\n\\", mounted("nfs4", "/\\011\\012\\134")), Place("/\t\n\\"));
        QCOMPARE(mountAt("/a\\040", mounted("nfs4", "/a\\134040")), Place("/a\\040"));
        QCOMPARE(mountAt("/\xff\xc3\xa4", mounted("nfs4", "/\xff\xc3\xa4")), Place("/\xff\xc3\xa4"));
        QCOMPARE(mountAt("/", mounted("nfs4", "/")), Place("/"));

        // The last mount at a place hides the others.
        QCOMPARE(mountAt("/mnt", mounted("nfs4", "/mnt") + mounted("ext4", "/mnt")), Place());
        QCOMPARE(mountAt("/mnt", mounted("ext4", "/mnt") + mounted("nfs4", "/mnt")), place);
        QCOMPARE(mountAt("/mnt", mounted("autofs", "/mnt") + mounted("ext4", "/mnt")), Place());
        QCOMPARE(mountAt("/mnt", mounted("ext4", "/") + mounted("nfs4", "/mnt") + mounted("tmpfs", "/tmp")),
                 place);
    }

    void aTableWithoutRemoteVolumes()
    {
        const ScratchFolder scratch;
        for (const MountTable& table : {MountTable(), MountTable::parse({}), MountTable::read()}) {
            for (const std::string& path : {std::string("/proc/self"), std::string(), scratch.path()})
                QCOMPARE(table.remoteMount(path), Place());
        }
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
        row("link to a folder, with the volume behind", {"link", "folder"}, "@/link/../mnt", true);
        row("link to inside, .. from there", {"link", "folder/inside"}, "@/link/../../mnt", true);
        row("link to inside, .. from the link", {"link", "folder/inside"}, "@/link/../mnt", false);
        row("dangling link", {"link", "missing"}, "@/link/../mnt", false);
        row("loop", {"a", "b", "b", "a"}, "@/a/../mnt", false);
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

    void everyNameOnThePathIsVisited()
    {
        const ScratchFolder scratch;
        scratch.makeFolder("mnt");
        makeFolder(scratch.makeFolder("folder") + "/inside");
        makeLink(scratch.path() + "/link", "folder/inside");
        const MountTable table = remoteAt(scratch.path() + "/mnt");
        const Lines above = visitsOf(table, scratch.path());
        // `visits` are the expected ones below the scratch folder.
        const auto visitsAre = [&](const char* path, const Lines& visits) {
            Lines expected = above;
            for (const std::string& visit : visits)
                expected.push_back(scratch.path() + visit);
            return visitsOf(table, scratch.path() + path) == expected;
        };
        QVERIFY(!above.empty());
        QVERIFY(visitsAre("/folder/inside", {" folder", "/folder inside"}));
        // Nothing below a missing folder, nor in a remote volume.
        QVERIFY(visitsAre("/folder/missing/x/y", {" folder", "/folder missing"}));
        QVERIFY(visitsAre("/folder/../mnt/x/y", {" folder", " mnt"}));
        // A link, and what it leads to.
        QVERIFY(visitsAre("/link/x", {" link", " folder", "/folder inside", "/folder/inside x"}));
    }

    void aKnownFolderIsNotLookedUp()
    {
        const ScratchFolder scratch;
        // A lookup would find a dangling link.
        makeLink(scratch.path() + "/known", "mnt");
        const std::string mount = scratch.path() + "/known/mnt";
        const Place found =
            remoteAt(mount).follow(scratch.path() + "/known/mnt", [](const auto&...) { return true; });
        QCOMPARE(found, Place(mount));
        QCOMPARE(remoteAt(mount).remoteMount(scratch.path() + "/known/mnt"), Place());
    }

    void asManyLinksAsTheKernelFollows()
    {
        for (const int links : {1, 39, 40, 41, 100}) {
            const ScratchFolder scratch;
            const std::string target = scratch.makeFolder("mnt");
            const std::string first = scratch.path() + "/1";
            for (int i = 1; i <= links; ++i)
                makeLink(scratch.path() + '/' + std::to_string(i),
                         i == links ? "mnt" : std::to_string(i + 1));
            const bool kernelFollows = ::access(first.c_str(), F_OK) == 0;
            QCOMPARE(remoteAt(target).remoteMount(first), kernelFollows ? Place(target) : Place());
        }
    }
};

HARBEX_TEST(TestMountTable)

#include "tst_MountTable.moc"
