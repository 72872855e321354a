#include "support/InterceptedMove.h"
#include "support/PrivateMounts.h"
#include "support/TestMain.h"
#include "support/TreeSnapshot.h"

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
    void aVolumeWithoutRoomForOneEntry_data();
    void aVolumeWithoutRoomForOneEntry();
    void aReadOnlyTarget();
    void aReadOnlySourceIsNotCopied();
    void layers_data();
    void layers();

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
    const InterceptedRun run = moveGated(m_source, m_target, Lacks());
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

void TestFileMoveMounts::aVolumeWithoutRoomForOneEntry_data()
{
    QTest::addColumn<bool>("unnamedFiles");
    QTest::newRow("files without a name") << true;
    QTest::newRow("no files without a name") << false;
}

void TestFileMoveMounts::aVolumeWithoutRoomForOneEntry()
{
    QFETCH(const bool, unnamedFiles);
    writeFile(m_source, "content");
    const QByteArray before = pictureOf(m_source);
    const Mount target = Mount::memory(m_out, "nr_inodes=2");
    writeFile(m_out + "/other", "");
    QCOMPARE(moveGated(m_source, m_target, Lacks{.unnamedFiles = !unnamedFiles}).error, ENOSPC);
    QCOMPARE(pictureOf(m_source), before);
    QCOMPARE(namesIn(m_out), QByteArrayList{"other"});
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
    const InterceptedRun run = moveGated(m_source, m_target, Lacks());
    QCOMPARE(run.error, EROFS);
    QCOMPARE(namesIn(m_out), QByteArrayList());
    for (const std::string& label : run.calls)
        QVERIFY2(!label.starts_with("pread64"), label.c_str());
}

void TestFileMoveMounts::layers_data()
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

// In a file system that is made of layers a folder of the lower one cannot be renamed, and what is removed or
// changed there is so in the upper layer only.
void TestFileMoveMounts::layers()
{
    QFETCH(const QByteArray, kind);
    QFETCH(const QByteArray, layer);
    QFETCH(const QByteArray, from);
    QFETCH(const QByteArray, into);
    const auto folder = [this](const char* name) { return m_scratch->path() + "/volume/" + name; };
    m_scratch->makeFolder("volume");
    const Mount volume = Mount::memory(m_scratch->path() + "/volume");
    for (const char* name : {"lower", "upper", "work", "merged", "outside"})
        makeFolder(folder(name));
    const auto makeTree = [](const std::string& path) {
        makeFolder(path);
        makeFolder(path + "/sub");
        writeFile(path + "/file", "content");
        writeFile(path + "/sub/other", "other content");
        if (::link((path + "/sub/other").c_str(), (path + "/same").c_str()) != 0) qFatal("cannot link");
        makeLink(path + "/link", "sub");
    };
    const auto make = [&](const std::string& path) {
        if (kind == "file") writeFile(path, "content");
        if (kind == "link") makeLink(path, "nowhere");
        if (kind == "tree") makeTree(path);
    };
    if (layer == "lower" || layer == "both") make(folder("lower") + "/source");
    const Mount merged = Mount::overlay(folder("lower"), folder("upper"), folder("work"), folder("merged"));
    const std::string source = folder(from.constData()) + "/source";
    if (layer == "upper" || layer == "no") make(source);
    if (layer == "both") appendToFile(source + "/file", " and more");
    const QByteArray before = pictureOf(source);
    const std::string out = folder(into.constData()) + "/out";
    makeFolder(out);

    makeVictim("file", out + "/target");
    const QByteArray victim = pictureOf(out + "/target");
    QCOMPARE(errorOfMove(source, out + "/target"), EEXIST);
    QCOMPARE(pictureOf(source), before);
    QCOMPARE(pictureOf(out + "/target"), victim);
    removeEntry(out + "/target");

    QCOMPARE(errorOfMove(source, out + "/target"), 0);
    QCOMPARE(pictureOf(out + "/target"), before);
    QVERIFY(!exists(source));
    QCOMPARE(namesIn(out), QByteArrayList{"target"});
}

int main(int argc, char** argv)
{
    enterPrivateNamespace();
    return harbex::test::runTest<QCoreApplication, TestFileMoveMounts>(argc, argv);
}

#include "tst_FileMoveMounts.moc"
