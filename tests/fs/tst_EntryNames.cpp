#include "fs/EntryName.h"
#include "fs/FreeName.h"
#include "support/InterceptedMove.h"
#include "support/TestMain.h"

#include <memory>

using namespace harbex;
using namespace harbex::test;

/// The parts of a path, and free names.
class TestEntryNames : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_scratch = std::make_unique<ScratchFolder>();
        m_folder = m_scratch->makeFolder("out");
    }

    void lastComponentAndParent()
    {
        const auto check = [](const std::string& path, const char* last, const char* parent) {
            QCOMPARE(std::string(lastPathComponent(path)), std::string(last));
            QCOMPARE(parentPath(path), std::string(parent));
        };
        check("/a/b/c.txt", "c.txt", "/a/b");
        check("/c.txt", "c.txt", "/");
        check("/", "/", "/");
        check("///", "/", "/");
        check("/a/b/", "b", "/a");
        check("/a//b", "b", "/a");
        check("c.txt", "c.txt", ".");
        check("", "", "");
        check("/a\xff/\x01\n\xfe", "\x01\n\xfe", "/a\xff");
    }

    void theNumberStandsBeforeTheExtension()
    {
        const auto check = [this](const std::string& name, const char* extension, const char* second) {
            QCOMPARE(std::string(pathExtension(name)), std::string(extension));
            QCOMPARE(freeName(name), inFolder(name));
            writeFile(inFolder(name), "");
            QCOMPARE(freeName(name), inFolder(second));
        };
        check("report.pdf", "pdf", "report-1.pdf");
        check("archive.tar.gz", "gz", "archive.tar-1.gz");
        check("README", "", "README-1");
        // Hidden names.
        check(".env", "", ".env-1");
        check(".config.json", "json", ".config-1.json");
        check("..name", "name", ".-1.name");
        // Dots at the end.
        check("name.", "", "name.-1");
        check("name.pdf.", "", "name.pdf.-1");
        check("...", "", "...-1");
        check("IMAGE.JPeG", "JPeG", "IMAGE-1.JPeG");
        check("a b. c", " c", "a b-1. c");
        check("photo-1.jpg", "jpg", "photo-1-1.jpg");
        check("\xff\xfe.\xfd", "\xfd", "\xff\xfe-1.\xfd");
        check("a\n\x01.b\tc", "b\tc", "a\n\x01-1.b\tc");
    }

    void theFirstFreeNumberIsUsed()
    {
        writeFile(inFolder("photo.jpg"), "");
        writeFile(inFolder("photo-2.jpg"), "");
        QCOMPARE(freeName("photo.jpg"), inFolder("photo-1.jpg"));
        for (int i = 1; i < 1000; ++i)
            if (i != 2) writeFile(inFolder("photo-" + std::to_string(i) + ".jpg"), "");
        QCOMPARE(freeName("photo.jpg"), inFolder("photo-1000.jpg"));
    }

    void everyKindOfEntryTakesAName()
    {
        for (const char* kind : {"file", "folder", "link", "dangling link", "pipe"}) {
            const std::string path = inFolder(kind);
            makeObstacle(kind, path);
            QCOMPARE(freeName(kind), path + "-1");
        }
        // Letter case makes another name.
        QCOMPARE(freeName("FILE"), inFolder("FILE"));
    }

    void withoutAFolderTheNameIsFree()
    {
        writeFile(inFolder("file"), "");
        for (const char* name : {"/missing", "/file"}) {
            m_folder = m_scratch->path() + "/out" + name;
            QCOMPARE(freeName("photo.jpg"), inFolder("photo.jpg"));
        }
    }

    void aNumberedNameMayBeTooLong()
    {
        const std::string name = std::string(251, 'n') + ".jpg";
        writeFile(inFolder(name), "");
        QCOMPARE(freeName(name), inFolder(std::string(251, 'n') + "-1.jpg"));
    }

    void oddTextsOfAFolder()
    {
        // Otherwise the path would name an entry of the root.
        QCOMPARE(uniqueDestination("/a/photo.jpg", ""), std::string());
        QCOMPARE(uniqueDestination("/a/photo.jpg", "/"), std::string("/photo.jpg"));
        QCOMPARE(uniqueDestination("/a/photo.jpg", m_folder + '/'), inFolder("photo.jpg"));
    }

private:
    [[nodiscard]] std::string inFolder(const std::string& name) const { return m_folder + '/' + name; }
    [[nodiscard]] std::string freeName(const std::string& name) const
    {
        return uniqueDestination("/somewhere/else/" + name, m_folder);
    }

    std::unique_ptr<ScratchFolder> m_scratch;
    std::string m_folder;
};

HARBEX_TEST(TestEntryNames)

#include "tst_EntryNames.moc"
