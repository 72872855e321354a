#include "fs/MountTable.h"
#include "support/EngineFiles.h"
#include "support/TestMain.h"

#include <memory>
#include <optional>
#include <string>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

using Place = std::optional<std::string>;

/// Returns a line of the kernel's mount table.
std::string mounted(const std::string& type, const std::string& place)
{
    return "36 35 98:0 / " + place + " rw,noatime shared:1 - " + type + " source rw,errors=continue\n";
}

/// Returns the remote volume that `path` leads to, according to the text of a mount table.
Place mountAt(const std::string& path, const std::string& text)
{
    return MountTable::parse(text).remoteMount(path);
}

} // namespace

/// Which paths lead to remote volumes. All volumes here are local. tst_EngineServers.cpp uses a server.
class TestMountTable : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_scratch = std::make_unique<ScratchFolder>();
        m_mount = m_scratch->makeFolder("mnt");
        makeFolder(m_scratch->makeFolder("folder") + "/inside");
    }

    void theTypeShowsWhetherAVolumeIsRemote()
    {
        for (const char* type :
             {"9p", "afs", "autofs", "ceph", "cifs", "coda", "fuse", "fuse.bindfs", "fuse.sshfs", "fuseblk",
              "lustre", "ncp", "ncpfs", "nfs", "nfs4", "ocfs2", "smb3", "smbfs", "vboxsf"})
            QVERIFY2(mountAt("/mnt/folder", mounted(type, "/mnt")) == Place("/mnt"), type);
        for (const char* type : {"bcachefs", "btrfs", "ecryptfs", "exfat", "ext4", "f2fs", "iso9660", "nfsd",
                                 "ntfs3", "overlay", "proc", "tmpfs", "vfat", "xfs", "zfs"})
            QVERIFY2(!mountAt("/mnt/folder", mounted(type, "/mnt")), type);
    }

    void aLineIsRead()
    {
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

    void aPathIsFollowedToTheFirstRemoteVolume()
    {
        makeLink(at("absolute"), m_mount);
        makeLink(at("relative"), "folder/../mnt/a");
        makeLink(at("slash"), "mnt/");
        makeLink(at("folder/link"), "../mnt");
        makeLink(at("up"), "folder");
        makeLink(at("deep"), "folder/inside");
        makeLink(at("dangling"), "missing");
        makeLink(at("loop"), "back");
        makeLink(at("back"), "loop");
        for (const char* path :
             {"mnt", "mnt/a/b", "/mnt///a/", "./folder/../mnt/.", "mnt/../folder", "absolute/a", "relative",
              "slash/", "folder/link", "up/../mnt", "deep/../../mnt"})
            QVERIFY2(remoteAt(at(path)) == Place(m_mount), path);
        // Above the root.
        QCOMPARE(remoteAt("/../../.." + m_mount), Place(m_mount));
        for (const char* path : {"folder/inside", "mnt2", "missing/x", "missing/../mnt", "deep/../mnt",
                                 "dangling/../mnt", "loop/../mnt"})
            QVERIFY2(!remoteAt(at(path)), path);
    }

    void everyNameOnThePathIsVisited()
    {
        makeLink(at("link"), "folder/inside");
        const auto visits = [this](const std::string& path) {
            std::string text;
            const auto visit = [&text](const std::string& folder, const std::string& name, const auto&) {
                text += folder + ' ' + name + '\n';
                return false;
            };
            table().follow(path, visit);
            return text;
        };
        const std::string& here = m_scratch->path();
        const std::string above = visits(here);
        const std::string folder = above + here + " folder\n";
        QVERIFY(above.starts_with("/ "));
        QCOMPARE(visits(at("folder/inside")), folder + here + "/folder inside\n");
        // Nothing below a missing folder, nor in a remote volume.
        QCOMPARE(visits(at("folder/missing/x/y")), folder + here + "/folder missing\n");
        QCOMPARE(visits(at("folder/../mnt/x/y")), folder + here + " mnt\n");
        // A link, and what it leads to.
        QCOMPARE(visits(at("link/x")), above + here + " link\n" + here + " folder\n" + here +
                                           "/folder inside\n" + here + "/folder/inside x\n");
    }

    void aKnownFolderIsNotLookedUp()
    {
        // A lookup would find a dangling link.
        makeLink(at("known"), "missing");
        const MountTable table = MountTable::parse(mounted("nfs4", at("known/mnt")));
        const Place found = table.follow(at("known/mnt"), [](const auto&...) { return true; });
        QCOMPARE(found, Place(at("known/mnt")));
        QCOMPARE(table.remoteMount(at("known/mnt")), Place());
    }

    void asManyLinksAsTheKernelFollows()
    {
        makeLink(at("1"), "mnt");
        for (int links = 2; links < 50; ++links) {
            const std::string link = at(std::to_string(links));
            makeLink(link, std::to_string(links - 1));
            QCOMPARE(remoteAt(link), ::access(link.c_str(), F_OK) == 0 ? Place(m_mount) : Place());
        }
    }

private:
    [[nodiscard]] std::string at(const std::string& name) const { return m_scratch->path() + '/' + name; }
    [[nodiscard]] MountTable table() const { return MountTable::parse(mounted("nfs4", m_mount)); }
    [[nodiscard]] Place remoteAt(const std::string& path) const { return table().remoteMount(path); }

    std::unique_ptr<ScratchFolder> m_scratch;
    /// A folder in it, at which the table has a server.
    std::string m_mount;
};

HARBEX_TEST(TestMountTable)

#include "tst_MountTable.moc"
