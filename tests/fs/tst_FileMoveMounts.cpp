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
    void init()
    {
        makePlaces();
        lacks = {};
    }

    void aMountInTheTreeIsNotCrossed()
    {
        const std::string other = here() + "/other";
        const Mount volume = Mount::memory(out);
        for (const bool isFolder : {true, false}) {
            clearPlaces();
            makeObstacle("full folder", source);
            makeObstacle(isFolder ? "folder" : "file", source + "/mounted");
            makeObstacle(isFolder ? "full folder" : "file", other);
            const Mount mounted = Mount::again(other, source + "/mounted");
            QCOMPARE(move(), kept(EBUSY));
            // The check comes before the copy.
            QCOMPARE(run.count("mkdirat"), 0);
        }
    }

    void noRoom()
    {
        const Mount volume = Mount::memory(out, "size=1m,nr_inodes=20");
        for (const bool noUnnamedFiles : {false, true}) {
            lacks.unnamedFiles = noUnnamedFiles;
            clearPlaces();
            writeFile(source, std::string(3'000'000, 'x'));
            QCOMPARE(move(), kept(ENOSPC));
        }
        clearPlaces();
        makeObstacle("full folder", source);
        writeFile(source + "/large", std::string(3'000'000, 'x'));
        QCOMPARE(move(), kept(ENOSPC));

        // There is room for the content, but not for all entries.
        clearPlaces();
        makeFolder(source);
        for (int i = 0; i < 30; ++i)
            writeFile(source + '/' + std::to_string(i), "");
        QCOMPARE(move(), kept(ENOSPC));
    }

    void aReadOnlyVolume()
    {
        writeFile(source, "content");
        {
            const Mount volume = Mount::memory(out);
            volume.makeReadOnly();
            QCOMPARE(move(), kept(EROFS));
        }
        const Mount volume = Mount::memory(in);
        writeFile(source, "content");
        volume.makeReadOnly();
        QCOMPARE(move(), kept(EROFS));
        QCOMPARE(run.count("pread64"), 0);
    }

    void layers_data()
    {
        QTest::addColumn<std::string>("kind");
        QTest::addColumn<std::string>("layer");
        QTest::addColumn<std::string>("from");
        QTest::addColumn<std::string>("into");
        const auto add = [](const char* kind, const char* layer, const char* from, const char* into) {
            QTest::addRow("%s, %s layer, from %s to %s", kind, layer, from, into)
                << std::string(kind) << std::string(layer) << std::string(from) << std::string(into);
        };
        for (const char* kind : {"file", "dangling link", "tree"}) {
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
        QFETCH(const std::string, kind);
        QFETCH(const std::string, layer);
        QFETCH(const std::string, from);
        QFETCH(const std::string, into);
        const auto folder = [this](const std::string& name) { return here() + "/volume/" + name; };
        makeFolder(here() + "/volume");
        const Mount volume = Mount::memory(here() + "/volume");
        for (const char* name : {"lower", "upper", "work", "merged", "outside"})
            makeFolder(folder(name));
        if (layer == "lower" || layer == "both") makeObstacle(kind, folder("lower") + "/source");
        const Mount merged =
            Mount::overlay(folder("lower"), folder("upper"), folder("work"), folder("merged"));
        in = folder(from);
        source = in + "/source";
        if (layer == "upper" || layer == "no") makeObstacle(kind, source);
        if (layer == "both") appendToFile(source + "/file", " and more");
        out = folder(into) + "/out";
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
