#include "model/FileUrl.h"
#include "support/RandomSeed.h"
#include "support/TestMain.h"

#include <set>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// The URL of a text that must be one.
FileUrl urlOf(const QString& text)
{
    const auto url = FileUrl::fromString(text);
    if (!url) qFatal("no URL: %s", qPrintable(text));
    return *url;
}

FileUrl urlOf(const char* text)
{
    return urlOf(QString::fromUtf8(text));
}

} // namespace

class TestFileUrl : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void malformedTextIsNoUrl_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("null") << QString();
        QTest::newRow("empty") << QStringLiteral("");
        QTest::newRow("space") << QStringLiteral("file:///a b");
        QTest::newRow("half an escape") << QStringLiteral("file:///a%4");
        QTest::newRow("escape without hexadecimal digits") << QStringLiteral("file:///a%zz");
        QTest::newRow("line feed") << QStringLiteral("file:///a\nb");
        QTest::newRow("NUL") << QStringLiteral("file:///a") + QChar(u'\0');
        QTest::newRow("quotation mark") << QStringLiteral("file:///a\"b");
        QTest::newRow("brackets of a template") << QStringLiteral("file:///a<b>");
        QTest::newRow("port that is no number") << QStringLiteral("file://host:port/a");
        QTest::newRow("path without a scheme that looks like one") << QStringLiteral("1:/a");
        QTest::newRow("open bracket in the host") << QStringLiteral("file://[::1/a");
        QTest::newRow("high surrogate") << QStringLiteral("file:///a") + QChar(0xd800);
        QTest::newRow("low surrogate") << QStringLiteral("file:///a") + QChar(0xdc00) + u'b';
    }

    void malformedTextIsNoUrl()
    {
        QFETCH(const QString, text);
        QVERIFY(!FileUrl::fromString(text));
    }

    void textIsKeptAndPathIsDecoded_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<QByteArray>("lastComponent");
        const auto row = [](const char* text, const QByteArray& path, const char* lastComponent) {
            QTest::newRow(text) << QByteArray(text) << path << QByteArray(lastComponent);
        };
        row("file:///home/u/Downloads", "/home/u/Downloads", "Downloads");
        row("file:/a", "/a", "a");
        row("FILE:///a", "/a", "a");
        row("file://localhost/a", "/a", "a");
        row("file://LocalHost/a", "/a", "a");
        // Escapes, in either case and also where they are not necessary.
        row("file:///a%20b%0Ac%25d%3Fe%23f", "/a b\nc%d?e#f", "a b\nc%d?e#f");
        row("file:///a%2520b", "/a%20b", "a%20b");
        row("file:///%61%7e%7E+", "/a~~+", "a~~+");
        row("file:///a%FF%c3", "/a\xff\xc3", "a\xff\xc3");
        row("file:///a%2Fb", "/a/b", "b");
        // Letters beyond ASCII need no escapes. They are not composed, since they are different names.
        row("file:///\u00e9", "/\u00e9", "\u00e9");
        row("file:///e\u0301", "/e\u0301", "e\u0301");
        row("file:///\U0001F600%C3%a9", "/\U0001F600\u00e9", "\U0001F600\u00e9");
        // Slashes and dots.
        row("file:///a/", "/a", "a");
        row("file:///a//", "/a", "a");
        row("file:///a%2F", "/a", "a");
        row("file:///", "/", "/");
        row("file:////", "/", "/");
        row("file:///a/../b/./c", "/a/../b/./c", "c");
        row("file:///a//b", "/a//b", "b");
        // Query and fragment are no part of the path.
        row("file:///a?b/c", "/a", "a");
        row("file:///a#b/c", "/a", "a");
        // These have no local path.
        row("file://server/a", "", "a");
        row("file://localhost.example/a", "", "a");
        row("http://localhost/a/b%20c", "", "b%20c");
        row("http:/a", "", "a");
        row("files:///a", "", "a");
        row("data:,/a", "", "a");
        row("file:a", "", "file:a");
        row("file:", "", "file:");
        row("/a", "", "a");
        row("a", "", "a");
        row("file:///a%00b", "", "a%00b");
        row("file:///a%00", "", "a%00");
    }

    void textIsKeptAndPathIsDecoded()
    {
        QFETCH(const QByteArray, text);
        QFETCH(const QByteArray, path);
        QFETCH(const QByteArray, lastComponent);
        const FileUrl url = urlOf(text.constData());
        QCOMPARE(url.absoluteString().toUtf8(), text);
        QCOMPARE(url.path(), path.toStdString());
        QCOMPARE(url.lastPathComponent(), lastComponent.toStdString());
    }

    void pathIsEncoded_data()
    {
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<QByteArray>("text");
        const auto row = [](const QByteArray& path, const char* text) {
            QTest::newRow(text) << path << QByteArray(text);
        };
        row("/home/u/Az09-._~", "file:///home/u/Az09-._~");
        row("/a b?#%&+=:@!$'()*,;[]\\\"",
            "file:///a%20b%3F%23%25%26%2B%3D%3A%40%21%24%27%28%29%2A%2C%3B%5B%5D%5C%22");
        row("/\u00e9\xff\n", "file:///%C3%A9%FF%0A");
        row("/", "file:///");
        row("/a/../b/./c", "file:///a/../b/./c");
    }

    void pathIsEncoded()
    {
        QFETCH(const QByteArray, path);
        QFETCH(const QByteArray, text);
        for (const QByteArray& slashes : {QByteArray(), QByteArray("/"), QByteArray("//")}) {
            const FileUrl url = FileUrl::fromPath((path + slashes).toStdString());
            QCOMPARE(url.absoluteString().toUtf8(), text);
            QCOMPARE(url.path(), path.toStdString());
        }
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

    void everyByteComesBack()
    {
        for (int byte = 1; byte < 256; ++byte) {
            const std::string path = std::string("/a") + static_cast<char>(byte) + "z";
            const FileUrl url = FileUrl::fromPath(path);
            QCOMPARE(url.path(), path);
            QCOMPARE(urlOf(url.absoluteString()).path(), path);
        }
    }

    void randomPathsComeBack()
    {
        std::mt19937 random = seededRandom();
        for (int i = 0; i < 20'000; ++i) {
            std::string path = "/a";
            for (size_t length = randomBelow(random, 40); length > 0; --length) {
                // Half of the bytes mean something in a URL or in UTF-8.
                static constexpr std::string_view special = "%2F.~ ?#:\\\n/\xc3\xa9\xf0\x9f\x98\x80\xff";
                path += randomBelow(random, 2) == 0 ? special[randomBelow(random, special.size())]
                                                    : static_cast<char>(1 + randomBelow(random, 255));
            }
            path += 'z';
            const FileUrl url = FileUrl::fromPath(path);
            const FileUrl read = urlOf(url.absoluteString());
            QVERIFY2(url.path() == path, qPrintable(url.absoluteString()));
            QVERIFY2(read.path() == path, qPrintable(url.absoluteString()));
            QCOMPARE(read.lastPathComponent(), path.substr(path.rfind('/') + 1));
            QVERIFY(read == url);
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
