#include "fs/MountTable.h"
#include "support/EngineFiles.h"
#include "support/TestMain.h"

#include <algorithm>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace harbex;
using namespace harbex::test;

namespace
{

using Place = std::optional<std::string>;
using Lines = std::vector<std::string>;

/// A line of the kernel's table.
std::string mounted(const std::string& type, const std::string& place)
{
    return "36 35 98:0 / " + place + " rw,noatime shared:1 - " + type + " source rw,errors=continue\n";
}

MountTable remoteAt(const std::string& place)
{
    return MountTable::parse(mounted("nfs4", place));
}

/// What was visited, each as "folder name".
using Visits = std::vector<std::string>;

std::pair<Place, Visits> follow(const MountTable& table, const std::string& path)
{
    Visits visits;
    const Place mount = table.follow(path, [&](const std::string& folder, const std::string& name) {
        visits.push_back(folder + ' ' + name);
        return false;
    });
    return {mount, visits};
}

} // namespace

/// Which paths lead to remote volumes, on local volumes alone; tst_RemoteVolumes.cpp has a server.
class TestMountTable : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void typeTellsWhetherAVolumeIsRemote_data();
    void typeTellsWhetherAVolumeIsRemote();
    void lineIsRead_data();
    void lineIsRead();
    void emptyTableHasNoRemoteVolume();
    void kernelsTableIsRead();
    void pathIsFollowedToTheFirstRemoteVolume_data();
    void pathIsFollowedToTheFirstRemoteVolume();
    void visitsEveryNameOnThePath_data();
    void visitsEveryNameOnThePath();
    void knownFolderIsNotLookedUp();
    void asManyLinksAsTheKernelFollows_data();
    void asManyLinksAsTheKernelFollows();
};

void TestMountTable::typeTellsWhetherAVolumeIsRemote_data()
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

void TestMountTable::typeTellsWhetherAVolumeIsRemote()
{
    QFETCH(const bool, isRemote);
    const MountTable table = MountTable::parse(mounted(QTest::currentDataTag(), "/mnt"));
    QCOMPARE(table.remoteMount("/mnt/folder"), isRemote ? Place("/mnt") : Place());
}

void TestMountTable::lineIsRead_data()
{
    QTest::addColumn<std::string>("text");
    QTest::addColumn<std::string>("path");
    QTest::addColumn<bool>("isRemote");

    QTest::newRow("no optional field")
        << std::string("36 35 98:0 /root /mnt rw,noatime - nfs4 server:/x rw\n") << std::string("/mnt")
        << true;
    QTest::newRow("three optional fields")
        << std::string("36 35 98:0 / /mnt rw shared:1 master:2 propagate_from:3 - nfs4 server:/x rw\n")
        << std::string("/mnt") << true;
    QTest::newRow("no end of the line")
        << std::string("36 35 98:0 / /mnt rw - nfs4 x rw") << std::string("/mnt") << true;
    QTest::newRow("source of the name of a type")
        << std::string("36 35 98:0 / /mnt rw - ext4 nfs4 rw\n") << std::string("/mnt") << false;
    QTest::newRow("space") << mounted("nfs4", "/a\\040b") << std::string("/a b") << true;
    QTest::newRow("tab, end of line, backslash")
        << mounted("nfs4", "/\\011\\012\\134") << std::string("/\t\n\\") << true;
    QTest::newRow("escape that is none") << mounted("nfs4", "/a\\134040") << std::string("/a\\040") << true;
    QTest::newRow("bytes above ASCII")
        << mounted("nfs4", "/\xff\xc3\xa4") << std::string("/\xff\xc3\xa4") << true;
    QTest::newRow("root") << mounted("nfs4", "/") << std::string("/") << true;
    QTest::newRow("local over remote")
        << mounted("nfs4", "/mnt") + mounted("ext4", "/mnt") << std::string("/mnt") << false;
    QTest::newRow("remote over local")
        << mounted("ext4", "/mnt") + mounted("nfs4", "/mnt") << std::string("/mnt") << true;
    QTest::newRow("automounted") << mounted("autofs", "/mnt") + mounted("ext4", "/mnt") << std::string("/mnt")
                                 << false;
    QTest::newRow("one of many") << mounted("ext4", "/") + mounted("proc", "/proc") +
                                        mounted("nfs4", "/mnt") + mounted("tmpfs", "/tmp")
                                 << std::string("/mnt") << true;
    QTest::newRow("broken lines") << "\nx\n1 2 3 4 5 6\n1 2 3 4 /a rw -\n" + mounted("nfs4", "/mnt")
                                  << std::string("/mnt") << true;
}

void TestMountTable::lineIsRead()
{
    QFETCH(const std::string, text);
    QFETCH(const std::string, path);
    QFETCH(const bool, isRemote);
    QCOMPARE(MountTable::parse(text).remoteMount(path), isRemote ? Place(path) : Place());
}

void TestMountTable::emptyTableHasNoRemoteVolume()
{
    for (const MountTable& table : {MountTable(), MountTable::parse({})}) {
        QCOMPARE(table.remoteMount("/"), Place());
        QCOMPARE(table.remoteMount("/home/me"), Place());
        QCOMPARE(table.remoteMount(""), Place());
    }
}

void TestMountTable::kernelsTableIsRead()
{
    const ScratchFolder scratch;
    QCOMPARE(MountTable::read().remoteMount("/proc/self"), Place());
    QCOMPARE(MountTable::read().remoteMount(scratch.path()), Place());
}

void TestMountTable::pathIsFollowedToTheFirstRemoteVolume_data()
{
    QTest::addColumn<Lines>("links");
    QTest::addColumn<std::string>("path");
    QTest::addColumn<bool>("isRemote");

    // Within a folder that has "mnt", where the remote volume is, and "folder/inside"; "@" is that folder.
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

void TestMountTable::pathIsFollowedToTheFirstRemoteVolume()
{
    QFETCH(const Lines, links);
    QFETCH(std::string, path);
    QFETCH(const bool, isRemote);
    const ScratchFolder scratch;
    scratch.makeFolder("mnt");
    makeFolder(scratch.makeFolder("folder") + "/inside");
    const auto completed = [&](std::string text) {
        if (const size_t at = text.find('@'); at != std::string::npos) text.replace(at, 1, scratch.path());
        return text;
    };
    for (size_t i = 0; i + 1 < links.size(); i += 2)
        makeLink(scratch.path() + '/' + links[i], completed(links[i + 1]));

    const std::string mount = scratch.path() + "/mnt";
    QCOMPARE(remoteAt(mount).remoteMount(completed(path)), isRemote ? Place(mount) : Place());
}

void TestMountTable::visitsEveryNameOnThePath_data()
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

void TestMountTable::visitsEveryNameOnThePath()
{
    QFETCH(const std::string, path);
    QFETCH(const Lines, visits);
    const ScratchFolder scratch;
    scratch.makeFolder("mnt");
    makeFolder(scratch.makeFolder("folder") + "/inside");
    makeLink(scratch.path() + "/link", "folder/inside");

    const MountTable table = remoteAt(scratch.path() + "/mnt");
    const Visits above = follow(table, scratch.path()).second;
    const Visits all = follow(table, scratch.path() + path).second;
    QVERIFY(all.size() >= above.size());
    QVERIFY(std::equal(above.begin(), above.end(), all.begin()));
    Lines expected;
    for (const std::string& visit : visits)
        expected.push_back(scratch.path() + visit);
    QCOMPARE(Lines(all.begin() + ptrdiff_t(above.size()), all.end()), expected);
}

void TestMountTable::knownFolderIsNotLookedUp()
{
    const ScratchFolder scratch;
    // It is none, so that looking would show.
    makeLink(scratch.path() + "/known", "mnt");
    const std::string mount = scratch.path() + "/known/mnt";
    const Place found = remoteAt(mount).follow(scratch.path() + "/known/mnt",
                                               [](const std::string&, const std::string&) { return true; });
    QCOMPARE(found, Place(mount));
    QCOMPARE(remoteAt(mount).remoteMount(scratch.path() + "/known/mnt"), Place());
}

void TestMountTable::asManyLinksAsTheKernelFollows_data()
{
    QTest::addColumn<int>("links");
    for (const int links : {1, 39, 40, 41, 100})
        QTest::addRow("%d", links) << links;
}

void TestMountTable::asManyLinksAsTheKernelFollows()
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

HARBEX_TEST_MAIN(TestMountTable)

#include "tst_MountTable.moc"
