#include "model/FileUrl.h"
#include "support/TestMain.h"

#include <set>

using namespace harbex;

namespace
{

/// The URL of a text that must be one.
FileUrl urlOf(const char* text)
{
    return FileUrl::fromString(text).value();
}

} // namespace

class TestFileUrl : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void malformedTextIsNoUrl()
    {
        for (const char* malformed :
             {"", "file:///a b", "file:///a%4", "file:///a%zz", "file:///a\nb", "file:///a\"b",
              "file:///a<b>", "file://host:port/a", "1:/a", "file://[::1/a"})
            QVERIFY2(!FileUrl::fromString(malformed), malformed);
        QVERIFY(!FileUrl::fromString(QString()));
        for (const char16_t alone : {u'\0', char16_t(0xd800), char16_t(0xdc00)})
            QVERIFY(!FileUrl::fromString(QString("file:///a") + QChar(alone) + u'b'));
    }

    void textIsKeptAndPathIsDecoded()
    {
        const auto check = [](const char* text, const std::string& path, const std::string& lastComponent) {
            const FileUrl url = urlOf(text);
            QCOMPARE(url.absoluteString().toUtf8(), QByteArray(text));
            QCOMPARE(url.path(), path);
            QCOMPARE(url.lastPathComponent(), lastComponent);
        };
        check("file:///home/u/Downloads", "/home/u/Downloads", "Downloads");
        check("file:/a", "/a", "a");
        check("FILE:///a", "/a", "a");
        check("file://localhost/a", "/a", "a");
        check("file://LocalHost/a", "/a", "a");
        // Escapes, in either case and also where they are not necessary.
        check("file:///a%20b%0Ac%25d%3Fe%23f", "/a b\nc%d?e#f", "a b\nc%d?e#f");
        check("file:///a%2520b", "/a%20b", "a%20b");
        check("file:///%61%7e%7E+", "/a~~+", "a~~+");
        check("file:///a%FF%c3", "/a\xff\xc3", "a\xff\xc3");
        check("file:///a%2Fb", "/a/b", "b");
        // Letters beyond ASCII need no escapes. They are not composed, since they are different names.
        check("file:///\u00e9", "/\u00e9", "\u00e9");
        check("file:///e\u0301", "/e\u0301", "e\u0301");
        check("file:///\U0001F600%C3%a9", "/\U0001F600\u00e9", "\U0001F600\u00e9");
        // Slashes and dots.
        check("file:///a/", "/a", "a");
        check("file:///a//", "/a", "a");
        check("file:///a%2F", "/a", "a");
        check("file:///", "/", "/");
        check("file:////", "/", "/");
        check("file:///a/../b/./c", "/a/../b/./c", "c");
        check("file:///a//b", "/a//b", "b");
        // Query and fragment are no part of the path.
        check("file:///a?b/c", "/a", "a");
        check("file:///a#b/c", "/a", "a");
        // These have no local path.
        check("file://server/a", "", "a");
        check("file://localhost.example/a", "", "a");
        check("http://localhost/a/b%20c", "", "b%20c");
        check("http:/a", "", "a");
        check("files:///a", "", "a");
        check("data:,/a", "", "a");
        check("file:a", "", "file:a");
        check("file:", "", "file:");
        check("/a", "", "a");
        check("a", "", "a");
        check("file:///a%00b", "", "a%00b");
        check("file:///a%00", "", "a%00");
    }

    void pathIsEncoded()
    {
        const auto check = [](const std::string& path, const char* text) {
            for (const char* slashes : {"", "/", "//"}) {
                const FileUrl url = FileUrl::fromPath(path + slashes);
                QCOMPARE(url.absoluteString().toUtf8(), QByteArray(text));
                QCOMPARE(url.path(), path);
                QVERIFY(urlOf(text) == url);
            }
        };
        check("/home/u/Az09-._~", "file:///home/u/Az09-._~");
        check("/a b?#%&+=:@!$'()*,;[]\\\"",
              "file:///a%20b%3F%23%25%26%2B%3D%3A%40%21%24%27%28%29%2A%2C%3B%5B%5D%5C%22");
        check("/\u00e9\xff\n%2F", "file:///%C3%A9%FF%0A%252F");
        check("/", "file:///");
        check("/a/../b/./c", "file:///a/../b/./c");
    }

    void urlOfNoAbsolutePathHasNoPath()
    {
        for (const std::string& path :
             {std::string(), std::string("a/b"), std::string("a:b/c"), std::string("/a\0b", 4)}) {
            const FileUrl url = FileUrl::fromPath(path);
            QVERIFY2(url.path().empty(), path.c_str());
            // It can be stored.
            QVERIFY2(FileUrl::fromString(url.absoluteString()) == url, path.c_str());
        }
    }

    void urlsAreComparedByTheirTexts()
    {
        QVERIFY(urlOf("file:///a") == urlOf("file:///a"));
        // These mean the same folder.
        for (const char* other : {"file:///a/", "file:///%61", "file://localhost/a"})
            QVERIFY2(urlOf("file:///a") != urlOf(other), other);
        const std::set<FileUrl> urls{urlOf("file:///b"), urlOf("file:///a"), urlOf("file:///b")};
        QCOMPARE(urls.size(), size_t(2));
        QCOMPARE(urls.begin()->path(), std::string("/a"));
    }
};

HARBEX_TEST(TestFileUrl)

#include "tst_FileUrl.moc"
