#include "fs/FreeName.h"
#include "support/InterceptedMove.h"
#include "support/TestMain.h"

#include <memory>
#include <sys/stat.h>

using namespace harbex;
using namespace harbex::test;

class TestFreeName : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_scratch = std::make_unique<ScratchFolder>();
        m_folder = m_scratch->makeFolder("out");
    }

    void aFreeNameStaysAsItIs() { QCOMPARE(freeName("photo.jpg"), expected("photo.jpg")); }

    void theNumberStandsBeforeTheExtension_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("second");
        const auto row = [](const char* tag, const char* name, const char* second) {
            QTest::newRow(tag) << QByteArray(name) << QByteArray(second);
        };
        row("extension", "report.pdf", "report-1.pdf");
        row("two extensions", "archive.tar.gz", "archive.tar-1.gz");
        row("no extension", "README", "README-1");
        row("hidden", ".env", ".env-1");
        row("hidden with extension", ".config.json", ".config-1.json");
        row("dot at the end", "name.", "name.-1");
        row("dots only", "...", "...-1");
        row("two leading dots", "..name", ".-1.name");
        row("case is kept", "IMAGE.JPG", "IMAGE-1.JPG");
        row("already numbered", "photo-1.jpg", "photo-1-1.jpg");
        row("invalid text", "\xff\xfe.\xfd", "\xff\xfe-1.\xfd");
        row("control characters", "a\n\x01.b\tc", "a\n\x01-1.b\tc");
    }

    void theNumberStandsBeforeTheExtension()
    {
        QFETCH(const QByteArray, name);
        QFETCH(const QByteArray, second);
        writeFile(inFolder(name.toStdString()), "");
        QCOMPARE(freeName(name.toStdString()), expected(second.toStdString()));
    }

    void theFirstFreeNumberIsUsed()
    {
        writeFile(inFolder("photo.jpg"), "");
        writeFile(inFolder("photo-2.jpg"), "");
        QCOMPARE(freeName("photo.jpg"), expected("photo-1.jpg"));
        for (int i = 1; i < 1000; ++i)
            if (i != 2) writeFile(inFolder("photo-" + std::to_string(i) + ".jpg"), "");
        QCOMPARE(freeName("photo.jpg"), expected("photo-1000.jpg"));
    }

    void everyKindOfEntryTakesAName_data()
    {
        QTest::addColumn<QByteArray>("kind");
        for (const char* kind : {"file", "folder", "link", "dangling link", "pipe"})
            QTest::newRow(kind) << QByteArray(kind);
    }

    void everyKindOfEntryTakesAName()
    {
        QFETCH(const QByteArray, kind);
        const std::string path = inFolder("photo.jpg");
        makeObstacle(kind.toStdString(), path);
        if (kind == "pipe") QCOMPARE(::mkfifo(path.c_str(), 0600), 0);
        QCOMPARE(freeName("photo.jpg"), expected("photo-1.jpg"));
    }

    void letterCaseMakesAnotherName()
    {
        writeFile(inFolder("PHOTO.JPG"), "");
        QCOMPARE(freeName("photo.jpg"), expected("photo.jpg"));
    }

    void withoutAFolderTheNameIsFree()
    {
        writeFile(inFolder("file"), "");
        for (const char* name : {"/missing", "/file"}) {
            m_folder = m_scratch->path() + "/out" + name;
            QCOMPARE(freeName("photo.jpg"), expected("photo.jpg"));
        }
    }

    void aNumberedNameMayBeTooLong()
    {
        const std::string name = std::string(251, 'n') + ".jpg";
        writeFile(inFolder(name), "");
        QCOMPARE(freeName(name), expected(std::string(251, 'n') + "-1.jpg"));
    }

    // Otherwise the path would name an entry of the root.
    void anEmptyFolderGivesAnEmptyPath() { QCOMPARE(uniqueDestination("/a/photo.jpg", ""), std::string()); }

    void aFolderWithASlashAtTheEnd()
    {
        QCOMPARE(uniqueDestination("/a/photo.jpg", "/"), std::string("/photo.jpg"));
        QCOMPARE(uniqueDestination("/a/photo.jpg", m_folder + '/'), inFolder("photo.jpg"));
    }

private:
    std::string inFolder(const std::string& name) const { return m_folder + '/' + name; }
    QByteArray freeName(const std::string& name) const
    {
        return QByteArray::fromStdString(uniqueDestination("/somewhere/else/" + name, m_folder));
    }
    QByteArray expected(const std::string& name) const { return QByteArray::fromStdString(inFolder(name)); }

    std::unique_ptr<ScratchFolder> m_scratch;
    std::string m_folder;
};

HARBEX_TEST(TestFreeName)

#include "tst_FreeName.moc"
