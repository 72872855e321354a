#include "support/EntryPicture.h"
#include "support/GatedMove.h"
#include "support/PrivateMounts.h"
#include "support/TestMain.h"

#include <memory>

using namespace harbex;
using namespace harbex::test;

/// Moves between, into and around volumes that are mounted for the purpose, in a namespace of the test's own.
class TestFileMoveMounts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void aMountInTheTreeIsNotCrossed_data();
    void aMountInTheTreeIsNotCrossed();
    void aMountItselfIsNotMoved();
    void oneVolumeMountedTwiceIsCrossed_data();
    void oneVolumeMountedTwiceIsCrossed();
    void aFolderIntoItselfThroughAnotherMount();
    void aFullVolumeKeepsTheSource_data();
    void aFullVolumeKeepsTheSource();
    void aVolumeWithoutRoomForMoreEntries();
    void aReadOnlyTarget();
    void aReadOnlySourceIsNotCopied();

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::string m_source;
    std::string m_out;
    std::string m_target;
};

void TestFileMoveMounts::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_source = m_scratch->makeFolder("in") + "/source";
    m_out = m_scratch->makeFolder("out");
    m_target = m_out + "/target";
}

void TestFileMoveMounts::cleanup()
{
    m_scratch.reset();
}

void TestFileMoveMounts::aMountInTheTreeIsNotCrossed_data()
{
    QTest::addColumn<bool>("isFolder");
    QTest::newRow("a folder") << true;
    QTest::newRow("a file") << false;
}

void TestFileMoveMounts::aMountInTheTreeIsNotCrossed()
{
    QFETCH(const bool, isFolder);
    makeFolder(m_source);
    writeFile(m_source + "/file", "content");
    const std::string inside = m_source + "/inside";
    const std::string other = m_scratch->path() + "/other";
    for (const std::string& path : {inside, other}) {
        if (isFolder)
            makeFolder(path);
        else
            writeFile(path, "");
    }
    if (isFolder) writeFile(other + "/precious", "precious");
    const Mount target = Mount::memory(m_out);
    const Mount mounted = Mount::again(other, inside);
    const QByteArray before = pictureOf(m_source);
    const GatedRun run = moveGated(m_source, m_target, Lacks());
    QCOMPARE(run.error, EBUSY);
    QCOMPARE(pictureOf(m_source), before);
    QCOMPARE(namesIn(m_out), QByteArrayList());
    // It is found before anything is copied.
    for (const std::string& label : run.calls)
        QVERIFY2(!label.starts_with("mkdirat"), label.c_str());
}

void TestFileMoveMounts::aMountItselfIsNotMoved()
{
    makeFolder(m_source);
    const Mount target = Mount::memory(m_out);
    const Mount mounted = Mount::memory(m_source);
    writeFile(m_source + "/file", "content");
    QCOMPARE(errorOfMove(m_source, m_target), EBUSY);
    QCOMPARE(contents(m_source + "/file"), QByteArray("content"));
    QCOMPARE(namesIn(m_out), QByteArrayList());
}

void TestFileMoveMounts::oneVolumeMountedTwiceIsCrossed_data()
{
    QTest::addColumn<bool>("isFolder");
    QTest::newRow("folder") << true;
    QTest::newRow("file") << false;
}

// The device numbers are the same, and still a rename is refused.
void TestFileMoveMounts::oneVolumeMountedTwiceIsCrossed()
{
    QFETCH(const bool, isFolder);
    if (isFolder) makeFolder(m_source);
    writeFile(isFolder ? m_source + "/file" : m_source, "content");
    const QByteArray before = pictureOf(m_source);
    const Mount again = Mount::again(m_out, m_out);
    QCOMPARE(errorOfMove(m_source, m_target), 0);
    QCOMPARE(pictureOf(m_target), before);
    QVERIFY(!exists(m_source));
    QCOMPARE(namesIn(m_out), QByteArrayList{"target"});
}

void TestFileMoveMounts::aFolderIntoItselfThroughAnotherMount()
{
    makeFolder(m_source);
    makeFolder(m_source + "/sub");
    writeFile(m_source + "/sub/file", "content");
    const QByteArray before = pictureOf(m_source);
    const Mount again = Mount::again(m_source, m_out);
    QCOMPARE(errorOfMove(m_source, m_out + "/target"), EINVAL);
    QCOMPARE(errorOfMove(m_source, m_out + "/sub/target"), EINVAL);
    QCOMPARE(pictureOf(m_source), before);
}

void TestFileMoveMounts::aFullVolumeKeepsTheSource_data()
{
    QTest::addColumn<bool>("isFolder");
    QTest::addColumn<bool>("unnamedFiles");
    QTest::newRow("file") << false << true;
    QTest::newRow("file, no files without a name") << false << false;
    QTest::newRow("folder") << true << true;
}

void TestFileMoveMounts::aFullVolumeKeepsTheSource()
{
    QFETCH(const bool, isFolder);
    QFETCH(const bool, unnamedFiles);
    if (isFolder) makeFolder(m_source);
    if (isFolder) writeFile(m_source + "/small", "fits");
    writeFile(isFolder ? m_source + "/large" : m_source, std::string(3'000'000, 'x'));
    const QByteArray before = pictureOf(m_source);
    const Mount target = Mount::memory(m_out, "size=1m");
    QCOMPARE(moveGated(m_source, m_target, Lacks{.unnamedFiles = !unnamedFiles}).error, ENOSPC);
    QCOMPARE(pictureOf(m_source), before);
    QCOMPARE(namesIn(m_out), QByteArrayList());
}

void TestFileMoveMounts::aVolumeWithoutRoomForMoreEntries()
{
    makeFolder(m_source);
    for (int i = 0; i < 30; ++i)
        writeFile(m_source + '/' + std::to_string(i), "");
    const QByteArray before = pictureOf(m_source);
    const Mount target = Mount::memory(m_out, "nr_inodes=20");
    QCOMPARE(errorOfMove(m_source, m_target), ENOSPC);
    QCOMPARE(pictureOf(m_source), before);
    QCOMPARE(namesIn(m_out), QByteArrayList());
}

void TestFileMoveMounts::aReadOnlyTarget()
{
    writeFile(m_source, "content");
    const Mount target = Mount::memory(m_out);
    target.makeReadOnly();
    QCOMPARE(errorOfMove(m_source, m_target), EROFS);
    QCOMPARE(contents(m_source), QByteArray("content"));
}

void TestFileMoveMounts::aReadOnlySourceIsNotCopied()
{
    const Mount source = Mount::memory(m_scratch->path() + "/in");
    writeFile(m_source, "content");
    source.makeReadOnly();
    const GatedRun run = moveGated(m_source, m_target, Lacks());
    QCOMPARE(run.error, EROFS);
    QCOMPARE(namesIn(m_out), QByteArrayList());
    for (const std::string& label : run.calls)
        QVERIFY2(!label.starts_with("pread64"), label.c_str());
}

int main(int argc, char** argv)
{
    enterPrivateNamespace();
    return harbex::test::runTest<QCoreApplication, TestFileMoveMounts>(argc, argv);
}

#include "tst_FileMoveMounts.moc"
