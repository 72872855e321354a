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

    // In an overlay, a folder of the lower layer cannot be renamed. Changes go into the upper layer.
    void layers()
    {
        for (const char* kind : {"file", "dangling link", "tree"}) {
            for (const char* layer : {"lower", "upper"}) {
                checkLayers(kind, layer, "merged", "outside");
                checkLayers(kind, layer, "merged", "merged");
            }
            checkLayers(kind, "no", "outside", "merged");
        }
        checkLayers("tree", "both", "merged", "merged");
        checkLayers("tree", "both", "merged", "outside");
    }

private:
    /// Moves an entry that is in this layer, or in both, between two folders of a volume.
    void checkLayers(const std::string& kind, const std::string& layer, const char* from, const char* into)
    {
        init();
        makeFolder(here() + "/volume");
        const Mount volume = Mount::memory(here() + "/volume");
        const auto folder = [this](const std::string& name) { return here() + "/volume/" + name; };
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

        const QByteArray where = QByteArray::fromStdString(kind + ", " + layer + " layer, ") + from + ": ";
        makeObstacle("file", target);
        QCOMPARE(where + move(), where + kept(EEXIST));
        removeEntry(target);
        QCOMPARE(where + move(), where + moved());
    }
};

HARBEX_MAIN(TestFileMoveMounts)
{
    enterPrivateNamespace();
    return harbex::test::runTest<QCoreApplication, TestFileMoveMounts>(argc, argv);
}

#include "tst_FileMoveMounts.moc"
