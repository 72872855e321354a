#include "fs/FreeName.h"
#include "support/EngineFiles.h"
#include "support/TestMain.h"

#include <memory>
#include <sys/stat.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

class TestFreeName : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void aFreeNameStaysAsItIs();
    void theNumberStandsBeforeTheExtension_data();
    void theNumberStandsBeforeTheExtension();
    void photoAndPhoto1BecomePhoto2();
    void aGapIsUsed();
    void anythingTakesAName_data();
    void anythingTakesAName();
    void letterCaseMakesAnotherName();
    void aMissingFolderGivesTheFirstCandidate();
    void aFileInPlaceOfTheFolderGivesTheFirstCandidate();
    void aNameThatGrewTooLongIsTheAnswer();
    void anEmptyFolderGivesAnEmptyPath();
    void aFolderWithASlashAtTheEnd();
    void theFirstFreeNameBehindTenThousandTakenOnes();

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

void TestFreeName::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_folder = m_scratch->makeFolder("out");
}

void TestFreeName::cleanup()
{
    m_scratch.reset();
}

void TestFreeName::aFreeNameStaysAsItIs()
{
    QCOMPARE(freeName("photo.jpg"), expected("photo.jpg"));
}

void TestFreeName::theNumberStandsBeforeTheExtension_data()
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

void TestFreeName::theNumberStandsBeforeTheExtension()
{
    QFETCH(const QByteArray, name);
    QFETCH(const QByteArray, second);
    writeFile(inFolder(name.toStdString()), "");
    QCOMPARE(freeName(name.toStdString()), expected(second.toStdString()));
}

void TestFreeName::photoAndPhoto1BecomePhoto2()
{
    writeFile(inFolder("photo.jpg"), "");
    writeFile(inFolder("photo-1.jpg"), "");
    QCOMPARE(freeName("photo.jpg"), expected("photo-2.jpg"));
}

void TestFreeName::aGapIsUsed()
{
    writeFile(inFolder("photo.jpg"), "");
    writeFile(inFolder("photo-2.jpg"), "");
    QCOMPARE(freeName("photo.jpg"), expected("photo-1.jpg"));
}

void TestFreeName::anythingTakesAName_data()
{
    QTest::addColumn<QByteArray>("kind");
    for (const char* kind : {"file", "folder", "link", "dangling link", "pipe"})
        QTest::newRow(kind) << QByteArray(kind);
}

void TestFreeName::anythingTakesAName()
{
    QFETCH(const QByteArray, kind);
    const std::string path = inFolder("photo.jpg");
    if (kind == "file") writeFile(path, "");
    if (kind == "folder") makeFolder(path);
    if (kind == "link") makeLink(path, "/");
    if (kind == "dangling link") makeLink(path, "nowhere");
    if (kind == "pipe") QCOMPARE(::mkfifo(path.c_str(), 0600), 0);
    QCOMPARE(freeName("photo.jpg"), expected("photo-1.jpg"));
}

void TestFreeName::letterCaseMakesAnotherName()
{
    writeFile(inFolder("PHOTO.JPG"), "");
    QCOMPARE(freeName("photo.jpg"), expected("photo.jpg"));
}

void TestFreeName::aMissingFolderGivesTheFirstCandidate()
{
    m_folder += "/missing";
    QCOMPARE(freeName("photo.jpg"), expected("photo.jpg"));
}

void TestFreeName::aFileInPlaceOfTheFolderGivesTheFirstCandidate()
{
    writeFile(inFolder("file"), "");
    m_folder += "/file";
    QCOMPARE(freeName("photo.jpg"), expected("photo.jpg"));
}

void TestFreeName::aNameThatGrewTooLongIsTheAnswer()
{
    const std::string name = std::string(251, 'n') + ".jpg";
    writeFile(inFolder(name), "");
    QCOMPARE(freeName(name), expected(std::string(251, 'n') + "-1.jpg"));
}

// An entry of the root would be the answer otherwise.
void TestFreeName::anEmptyFolderGivesAnEmptyPath()
{
    QCOMPARE(uniqueDestination("/a/photo.jpg", ""), std::string());
}

void TestFreeName::aFolderWithASlashAtTheEnd()
{
    QCOMPARE(uniqueDestination("/a/photo.jpg", "/"), std::string("/photo.jpg"));
    QCOMPARE(uniqueDestination("/a/photo.jpg", m_folder + '/'), inFolder("photo.jpg"));
}

void TestFreeName::theFirstFreeNameBehindTenThousandTakenOnes()
{
    writeFile(inFolder("photo.jpg"), "");
    for (int i = 1; i < 10'000; ++i)
        writeFile(inFolder("photo-" + std::to_string(i) + ".jpg"), "");
    QCOMPARE(freeName("photo.jpg"), expected("photo-10000.jpg"));
}

HARBEX_TEST_MAIN(TestFreeName)

#include "tst_FreeName.moc"
