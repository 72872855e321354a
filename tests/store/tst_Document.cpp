#include "store/Document.h"

#include "support/DocumentFolder.h"
#include "support/TestMain.h"

using namespace harbex;
using namespace harbex::test;

namespace
{

const std::string nothing = "(nothing)";

} // namespace

/// The documents of a portal, which is a folder in this test.
class TestDocument : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void thePathInADocument_data()
    {
        QTest::addColumn<QByteArray>("runtimeFolder");
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<QByteArray>("inDocument");
        const auto row = [](const char* path, const char* inDocument,
                            const QByteArray& runtimeFolder = "/run/user/7") {
            QTest::addRow("%s, %s", path, runtimeFolder.constData())
                << runtimeFolder << QByteArray(path) << QByteArray(inDocument);
        };
        row("/run/user/7/doc/1a2b/Scans", "Scans");
        row("/run/user/7/doc/1a2b/Scans/2026", "Scans/2026");
        row("/run/user/7/doc/1a2b/caf\xe9", "caf\xe9");
        row("/run/user/7/doc/1a2b/", "(nothing)");
        row("/run/user/7/doc/1a2b", "(nothing)");
        row("/run/user/7/doc", "(nothing)");
        row("/run/user/7/docs/1a2b/Scans", "(nothing)");
        row("/run/user/8/doc/1a2b/Scans", "(nothing)");
        row("/home/a/run/user/7/doc/1a2b/Scans", "(nothing)");
        row("/run/user/7/doc/1a2b/Scans", "(nothing)", {});
    }

    void thePathInADocument()
    {
        QFETCH(const QByteArray, runtimeFolder);
        QFETCH(const QByteArray, path);
        QFETCH(const QByteArray, inDocument);
        if (runtimeFolder.isEmpty())
            qunsetenv("XDG_RUNTIME_DIR");
        else
            qputenv("XDG_RUNTIME_DIR", runtimeFolder);
        QCOMPARE(pathInDocument(path.toStdString()).value_or(nothing), inDocument.toStdString());
    }

    void theBookmarkKeepsTheRealPath_data()
    {
        QTest::addColumn<QByteArray>("place");
        QTest::addColumn<QByteArray>("attribute");
        QTest::addColumn<QByteArray>("hostPath");
        const auto row = [](const char* name, const char* place, const QByteArray& attribute,
                            const char* hostPath) {
            QTest::newRow(name) << QByteArray(place) << attribute << QByteArray(hostPath);
        };
        row("a document", "doc/1a2b/Scans", "/home/a/Scans", "/home/a/Scans");
        row("with a final NUL", "doc/1a2b/Scans", QByteArray("/home/a/Scans", 14), "/home/a/Scans");
        row("bytes that are not UTF-8", "doc/1a2b/S", "/home/a/caf\xe9", "/home/a/caf\xe9");
        row("the portal says nothing", "doc/1a2b/Scans", {}, "(nothing)");
        // Anybody can give a folder of their own this attribute.
        row("no document", "Scans", "/home/a/Scans", "(nothing)");
    }

    void theBookmarkKeepsTheRealPath()
    {
        QFETCH(const QByteArray, place);
        QFETCH(const QByteArray, attribute);
        QFETCH(const QByteArray, hostPath);
        const DocumentFolder folder({attribute.constData(), static_cast<size_t>(attribute.size())},
                                    place.toStdString());
        if (!folder.isPossible()) QSKIP("the file system keeps no attributes");

        QCOMPARE(hostPathOf(folder.path()).value_or(nothing), hostPath.toStdString());
        const QByteArray bookmark = folder.bookmark();
        const auto url = hostUrl(folder.url(), bookmark);
        QCOMPARE(url ? url->path() : nothing, hostPath.toStdString());
        // The program can access only the path in the document.
        QCOMPARE(resolveBookmarks({bookmark}, MountTable()).at(bookmark), folder.url());
        // The URL was edited by hand.
        QVERIFY(!hostUrl(FileUrl::fromPath(folder.path() + "/other"), bookmark));
        QVERIFY(!hostUrl(folder.url(), bookmark + 'x'));
    }
};

HARBEX_TEST(TestDocument)

#include "tst_Document.moc"
