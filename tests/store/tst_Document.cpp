#include "store/Document.h"

#include "support/DocumentFolder.h"
#include "support/TestMain.h"

#include <optional>
#include <string>
#include <tuple>

using namespace harbex;
using namespace harbex::test;

/// The documents of a portal, which is a folder in this test.
class TestDocument : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void thePathInADocument()
    {
        qputenv("XDG_RUNTIME_DIR", "/run/user/7");
        QCOMPARE(pathInDocument("/run/user/7/doc/1a2b/Scans"), "Scans");
        QCOMPARE(pathInDocument("/run/user/7/doc/1a2b/Scans/2026"), "Scans/2026");
        QCOMPARE(pathInDocument("/run/user/7/doc/1a2b/caf\xe9"), "caf\xe9");
        for (const char* path : {"/run/user/7/doc/1a2b/", "/run/user/7/doc/1a2b", "/run/user/7/doc",
                                 "/run/user/7/docs/1a2b/Scans", "/run/user/8/doc/1a2b/Scans",
                                 "/home/a/run/user/7/doc/1a2b/Scans"})
            QVERIFY2(!pathInDocument(path), path);
        // An empty folder is no prefix of every path.
        qunsetenv("XDG_RUNTIME_DIR");
        QVERIFY(!pathInDocument("/doc/1a2b/Scans"));
    }

    void theBookmarkKeepsTheRealPath()
    {
        const std::tuple<std::string, std::string, std::optional<std::string>> rows[] = {
            {"doc/1a2b/Scans", "/home/a/Scans", "/home/a/Scans"},
            {"doc/1a2b/Scans", std::string("/home/a/Scans", 14), "/home/a/Scans"}, // with a final NUL
            {"doc/1a2b/S", "/home/a/caf\xe9", "/home/a/caf\xe9"},                  // not UTF-8
            {"doc/1a2b/Scans", "", std::nullopt},                                  // the portal says nothing
            // Anybody can give a folder of their own this attribute.
            {"Scans", "/home/a/Scans", std::nullopt},
        };
        for (const auto& [place, attribute, hostPath] : rows) {
            const DocumentFolder folder(attribute, place);
            if (!folder.isPossible()) QSKIP("the file system keeps no attributes");
            QCOMPARE(hostPathOf(folder.path()), hostPath);
            const QByteArray bookmark = folder.bookmark();
            const auto url = hostUrl(folder.url(), bookmark);
            QCOMPARE(url ? std::optional(url->path()) : std::nullopt, hostPath);
            // The program can access only the path in the document.
            QCOMPARE(resolveBookmarks({bookmark}, MountTable()).at(bookmark), folder.url());
            // The URL was edited by hand.
            QVERIFY(!hostUrl(FileUrl::fromPath(folder.path() + "/other"), bookmark));
            QVERIFY(!hostUrl(folder.url(), bookmark + 'x'));
        }
    }
};

HARBEX_TEST(TestDocument)

#include "tst_Document.moc"
