#include "support/MovePlaces.h"
#include "support/PrivateMounts.h"
#include "support/TestMain.h"

using namespace harbex;
using namespace harbex::test;

/// Moves between volumes that are mounted for the test, in a private namespace.
class TestFileMoveMounts : public QObject, private MovePlaces
{
    Q_OBJECT

private Q_SLOTS:
    void init() { makePlaces(); }

    void aMountInTheTreeIsNotCrossed_data()
    {
        QTest::addColumn<QByteArray>("kind");
        QTest::newRow("a folder") << QByteArray("folder");
        QTest::newRow("a file") << QByteArray("file");
    }

    void aMountInTheTreeIsNotCrossed()
    {
        QFETCH(const QByteArray, kind);
        const std::string other = here() + "/other";
        makeObstacle("full folder", source);
        makeObstacle(kind.toStdString(), source + "/mounted");
        makeObstacle(kind == "folder" ? "full folder" : "file", other);
        const Mount volume = Mount::memory(out);
        const Mount mounted = Mount::again(other, source + "/mounted");
        QCOMPARE(move(), kept(EBUSY));
        // The check comes before the copy.
        QCOMPARE(run.count("mkdirat"), 0);
    }

    void aMountItselfIsNotMoved()
    {
        makeFolder(source);
        const Mount volume = Mount::memory(out);
        const Mount mounted = Mount::memory(source);
        writeFile(source + "/file", "content");
        QCOMPARE(move(), kept(EBUSY));
    }

    void oneVolumeMountedTwice_data()
    {
        QTest::addColumn<QByteArray>("kind");
        QTest::newRow("folder") << QByteArray("full folder");
        QTest::newRow("file") << QByteArray("file");
    }

    // The device numbers are the same, but a rename fails with EXDEV.
    void oneVolumeMountedTwice()
    {
        QFETCH(const QByteArray, kind);
        makeObstacle(kind.toStdString(), source);
        const Mount again = Mount::again(out, out);
        QCOMPARE(move(), moved());
    }

    void aFolderIntoItselfThroughAnotherMount()
    {
        makeFolder(source);
        makeObstacle("full folder", source + "/sub");
        const Mount again = Mount::again(source, out);
        QCOMPARE(move(), kept(EINVAL));
        target = out + "/sub/target";
        QCOMPARE(move(), kept(EINVAL));
    }

    void aFullVolume_data()
    {
        QTest::addColumn<bool>("isFolder");
        QTest::addColumn<bool>("unnamedFiles");
        QTest::newRow("file") << false << true;
        QTest::newRow("file, no unnamed files") << false << false;
        QTest::newRow("folder") << true << true;
    }

    void aFullVolume()
    {
        QFETCH(const bool, isFolder);
        QFETCH(const bool, unnamedFiles);
        if (isFolder) makeObstacle("full folder", source);
        writeFile(isFolder ? source + "/large" : source, std::string(3'000'000, 'x'));
        const Mount volume = Mount::memory(out, "size=1m");
        QCOMPARE(move(Lacks{.unnamedFiles = !unnamedFiles}), kept(ENOSPC));
    }

    void noRoomForAllEntries()
    {
        makeFolder(source);
        for (int i = 0; i < 30; ++i)
            writeFile(source + '/' + std::to_string(i), "");
        const Mount volume = Mount::memory(out, "nr_inodes=20");
        QCOMPARE(move(), kept(ENOSPC));
    }

    void noRoomForOneEntry_data()
    {
        QTest::addColumn<bool>("unnamedFiles");
        QTest::newRow("unnamed files") << true;
        QTest::newRow("no unnamed files") << false;
    }

    void noRoomForOneEntry()
    {
        QFETCH(const bool, unnamedFiles);
        writeFile(source, "content");
        const Mount volume = Mount::memory(out, "nr_inodes=2");
        writeFile(out + "/other", "");
        QCOMPARE(move(Lacks{.unnamedFiles = !unnamedFiles}), kept(ENOSPC));
    }

    void aReadOnlyTarget()
    {
        writeFile(source, "content");
        const Mount volume = Mount::memory(out);
        volume.makeReadOnly();
        QCOMPARE(move(), kept(EROFS));
    }

    void aReadOnlySourceIsNotCopied()
    {
        const Mount volume = Mount::memory(in);
        writeFile(source, "content");
        volume.makeReadOnly();
        QCOMPARE(move(), kept(EROFS));
        QCOMPARE(run.count("pread64"), 0);
    }

    void layers_data()
    {
        QTest::addColumn<QByteArray>("kind");
        QTest::addColumn<QByteArray>("layer");
        QTest::addColumn<QByteArray>("from");
        QTest::addColumn<QByteArray>("into");
        const auto add = [](const char* kind, const char* layer, const char* from, const char* into) {
            QTest::addRow("%s, %s layer, from %s to %s", kind, layer, from, into)
                << QByteArray(kind) << QByteArray(layer) << QByteArray(from) << QByteArray(into);
        };
        for (const char* kind : {"file", "link", "tree"}) {
            for (const char* layer : {"lower", "upper"}) {
                add(kind, layer, "merged", "outside");
                add(kind, layer, "merged", "merged");
            }
            add(kind, "no", "outside", "merged");
        }
        add("tree", "both", "merged", "merged");
        add("tree", "both", "merged", "outside");
    }

    // In an overlay, a folder of the lower layer cannot be renamed. Changes go into the upper layer.
    void layers()
    {
        QFETCH(const QByteArray, kind);
        QFETCH(const QByteArray, layer);
        QFETCH(const QByteArray, from);
        QFETCH(const QByteArray, into);
        const auto folder = [this](const char* name) { return here() + "/volume/" + name; };
        makeFolder(here() + "/volume");
        const Mount volume = Mount::memory(here() + "/volume");
        for (const char* name : {"lower", "upper", "work", "merged", "outside"})
            makeFolder(folder(name));
        const auto make = [&](const std::string& path) {
            if (kind == "file") writeFile(path, "content");
            if (kind == "link") makeLink(path, "nowhere");
            if (kind != "tree") return;
            makeFolder(path);
            makeFolder(path + "/sub");
            writeFile(path + "/file", "content");
            writeFile(path + "/sub/other", "other content");
            linkFile(path + "/sub/other", path + "/same");
            makeLink(path + "/link", "sub");
        };
        if (layer == "lower" || layer == "both") make(folder("lower") + "/source");
        const Mount merged =
            Mount::overlay(folder("lower"), folder("upper"), folder("work"), folder("merged"));
        in = folder(from.constData());
        source = in + "/source";
        if (layer == "upper" || layer == "no") make(source);
        if (layer == "both") appendToFile(source + "/file", " and more");
        out = folder(into.constData()) + "/out";
        target = out + "/target";
        makeFolder(out);

        makeObstacle("file", target);
        QCOMPARE(move(), kept(EEXIST));
        removeEntry(target);
        QCOMPARE(move(), moved());
    }
};

HARBEX_MAIN(TestFileMoveMounts)
{
    enterPrivateNamespace();
    return harbex::test::runTest<QCoreApplication, TestFileMoveMounts>(argc, argv);
}

#include "tst_FileMoveMounts.moc"
