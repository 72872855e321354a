#include "model/FileUrl.h"
#include "support/RandomSeed.h"
#include "support/TestMain.h"

#include <QUrl>

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

std::string pathOf(const char* text)
{
    return urlOf(QString::fromUtf8(text)).path();
}

std::string lastComponentOf(const char* text)
{
    return urlOf(QString::fromUtf8(text)).lastPathComponent();
}

} // namespace

class TestFileUrl : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void emptyTextIsNoUrl();
    void unparsableTextIsNoUrl_data();
    void unparsableTextIsNoUrl();
    void loneSurrogateIsNoUrl();
    void textIsKeptAsGiven_data();
    void textIsKeptAsGiven();
    void pathIsDecoded();
    void lettersBeyondAsciiMayStandUnencoded();
    void encodedSlashIsASlash();
    void trailingSlashesAreDropped();
    void rootKeepsItsSlash();
    void dotsInAPathAreKept();
    void localhostIsThisMachine();
    void otherHostHasNoPath();
    void otherSchemeHasNoPath();
    void relativeReferenceHasNoPath();
    void nulByteHasNoPath();
    void queryAndFragmentAreNoPartOfThePath();
    void fromPathEncodesEverythingButUnreservedAndSlash();
    void fromPathDropsTrailingSlashes();
    void fromPathOfWhatIsNoAbsolutePathHasNoPath();
    void everyByteComesBack();
    void randomPathsComeBackByteForByte();
    void lastPathComponent();
    void urlsAreEqualWhenTheirTextsAre();
    void urlsHaveAnOrder();
};

void TestFileUrl::emptyTextIsNoUrl()
{
    QVERIFY(!FileUrl::fromString(QString()));
    QVERIFY(!FileUrl::fromString(QLatin1String("")));
}

void TestFileUrl::unparsableTextIsNoUrl_data()
{
    QTest::addColumn<QString>("text");
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
}

void TestFileUrl::unparsableTextIsNoUrl()
{
    QFETCH(const QString, text);
    QVERIFY(!FileUrl::fromString(text));
}

void TestFileUrl::loneSurrogateIsNoUrl()
{
    QVERIFY(!FileUrl::fromString(QStringLiteral("file:///a") + QChar(0xd800)));
    QVERIFY(!FileUrl::fromString(QStringLiteral("file:///a") + QChar(0xdc00) + u'b'));
    QVERIFY(FileUrl::fromString(QStringLiteral("file:///a\U0001F600")));
}

void TestFileUrl::textIsKeptAsGiven_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("plain") << QStringLiteral("file:///home/u/Downloads");
    QTest::newRow("trailing slash") << QStringLiteral("file:///home/u/Downloads/");
    QTest::newRow("lower-case escapes") << QStringLiteral("file:///a%c3%a9");
    QTest::newRow("needless escapes") << QStringLiteral("file:///%61%2F%7e");
    QTest::newRow("no escapes beyond ASCII") << QStringLiteral("file:///\u00e9/e\u0301");
    QTest::newRow("upper-case scheme") << QStringLiteral("FILE:///a");
    QTest::newRow("invalid UTF-8") << QStringLiteral("file:///%FF%fe");
    QTest::newRow("localhost") << QStringLiteral("file://LocalHost/a");
    QTest::newRow("dots") << QStringLiteral("file:///a/../b/./c");
    QTest::newRow("no authority") << QStringLiteral("file:/a");
}

void TestFileUrl::textIsKeptAsGiven()
{
    QFETCH(const QString, text);
    QCOMPARE(urlOf(text).absoluteString(), text);
}

void TestFileUrl::pathIsDecoded()
{
    QCOMPARE(pathOf("file:///home/u/Downloads"), std::string("/home/u/Downloads"));
    QCOMPARE(pathOf("file:/home/u"), std::string("/home/u"));
    QCOMPARE(pathOf("file:///a%20b%0Ac%25d%3Fe%23f"), std::string("/a b\nc%d?e#f"));
    QCOMPARE(pathOf("file:///a%2520b"), std::string("/a%20b"));
    QCOMPARE(pathOf("file:///a%FF%c3"), std::string("/a\xff\xc3"));
    QCOMPARE(pathOf("file:///%61%7E"), std::string("/a~"));
    QCOMPARE(pathOf("file:///a+b"), std::string("/a+b"));
}

void TestFileUrl::lettersBeyondAsciiMayStandUnencoded()
{
    QCOMPARE(pathOf("file:///\u00e9"), std::string("/\u00e9"));
    // Not composed: the file system tells these two apart.
    QCOMPARE(pathOf("file:///e\u0301"), std::string("/e\u0301"));
    QCOMPARE(pathOf("file:///\U0001F600%C3%A9"), std::string("/\U0001F600\u00e9"));
}

void TestFileUrl::encodedSlashIsASlash()
{
    QCOMPARE(pathOf("file:///a%2Fb"), std::string("/a/b"));
}

void TestFileUrl::trailingSlashesAreDropped()
{
    QCOMPARE(pathOf("file:///a/"), std::string("/a"));
    QCOMPARE(pathOf("file:///a//"), std::string("/a"));
    QCOMPARE(pathOf("file:///a%2F"), std::string("/a"));
}

void TestFileUrl::rootKeepsItsSlash()
{
    QCOMPARE(pathOf("file:///"), std::string("/"));
    QCOMPARE(pathOf("file:////"), std::string("/"));
    QCOMPARE(FileUrl::fromPath("/").path(), std::string("/"));
    QCOMPARE(FileUrl::fromPath("/").absoluteString(), QStringLiteral("file:///"));
}

void TestFileUrl::dotsInAPathAreKept()
{
    QCOMPARE(pathOf("file:///a/../b/./c"), std::string("/a/../b/./c"));
    QCOMPARE(pathOf("file:///a//b"), std::string("/a//b"));
    QCOMPARE(FileUrl::fromPath("/a/../b/./c").path(), std::string("/a/../b/./c"));
}

void TestFileUrl::localhostIsThisMachine()
{
    QCOMPARE(pathOf("file://localhost/a"), std::string("/a"));
    QCOMPARE(pathOf("file://LOCALHOST/a"), std::string("/a"));
}

void TestFileUrl::otherHostHasNoPath()
{
    QCOMPARE(pathOf("file://server/a"), std::string());
    QCOMPARE(pathOf("file://localhost.example/a"), std::string());
}

void TestFileUrl::otherSchemeHasNoPath()
{
    QCOMPARE(pathOf("http://localhost/a"), std::string());
    QCOMPARE(pathOf("http:/a"), std::string());
    QCOMPARE(pathOf("files:///a"), std::string());
    QCOMPARE(pathOf("data:,/a"), std::string());
}

void TestFileUrl::relativeReferenceHasNoPath()
{
    QCOMPARE(pathOf("file:a"), std::string());
    QCOMPARE(pathOf("file:"), std::string());
    QCOMPARE(pathOf("/a"), std::string());
    QCOMPARE(pathOf("a"), std::string());
}

void TestFileUrl::nulByteHasNoPath()
{
    QCOMPARE(pathOf("file:///a%00b"), std::string());
    QCOMPARE(pathOf("file:///a%00"), std::string());
}

void TestFileUrl::queryAndFragmentAreNoPartOfThePath()
{
    QCOMPARE(pathOf("file:///a?b/c"), std::string("/a"));
    QCOMPARE(pathOf("file:///a#b/c"), std::string("/a"));
}

void TestFileUrl::fromPathEncodesEverythingButUnreservedAndSlash()
{
    QCOMPARE(FileUrl::fromPath("/home/u/Az09-._~").absoluteString(),
             QStringLiteral("file:///home/u/Az09-._~"));
    QCOMPARE(FileUrl::fromPath("/a b?#%&+=:@!$'()*,;[]\\\"").absoluteString(),
             QStringLiteral("file:///a%20b%3F%23%25%26%2B%3D%3A%40%21%24%27%28%29%2A%2C%3B%5B%5D%5C%22"));
    QCOMPARE(FileUrl::fromPath("/\u00e9\xff\n").absoluteString(), QStringLiteral("file:///%C3%A9%FF%0A"));
}

void TestFileUrl::fromPathDropsTrailingSlashes()
{
    QCOMPARE(FileUrl::fromPath("/a/").absoluteString(), QStringLiteral("file:///a"));
    QCOMPARE(FileUrl::fromPath("/a//").path(), std::string("/a"));
    QCOMPARE(FileUrl::fromPath("//").absoluteString(), QStringLiteral("file:///"));
}

void TestFileUrl::fromPathOfWhatIsNoAbsolutePathHasNoPath()
{
    QCOMPARE(FileUrl::fromPath("").path(), std::string());
    QCOMPARE(FileUrl::fromPath("a/b").path(), std::string());
    QCOMPARE(FileUrl::fromPath(std::string("/a\0b", 4)).path(), std::string());
    // They can be stored all the same.
    for (const FileUrl& url :
         {FileUrl::fromPath(""), FileUrl::fromPath("a:b/c"), FileUrl::fromPath(std::string("/a\0b", 4))})
        QVERIFY(FileUrl::fromString(url.absoluteString()) == url);
}

void TestFileUrl::everyByteComesBack()
{
    for (int byte = 1; byte < 256; ++byte) {
        // A slash at the end is a trailing one.
        const std::string path = std::string("/a") + static_cast<char>(byte) + "z";
        const FileUrl url = FileUrl::fromPath(path);
        QCOMPARE(url.path(), path);
        QCOMPARE(urlOf(url.absoluteString()).path(), path);
    }
}

void TestFileUrl::randomPathsComeBackByteForByte()
{
    std::mt19937 random = seededRandom();
    for (int i = 0; i < 20'000; ++i) {
        std::string path;
        for (size_t components = 1 + randomBelow(random, 4); components > 0; --components) {
            path += '/';
            for (size_t length = 1 + randomBelow(random, 12); length > 0; --length) {
                // Half of the bytes from those that mean something in a URL or in UTF-8.
                static constexpr std::string_view special = "%2F.~ ?#:\\\n\xc3\xa9\xf0\x9f\x98\x80\xff";
                path += randomBelow(random, 2) == 0 ? special[randomBelow(random, special.size())]
                                                    : static_cast<char>(1 + randomBelow(random, 255));
            }
            while (path.ends_with('/'))
                path.pop_back();
            if (path.empty()) path = "/a";
        }
        const FileUrl url = FileUrl::fromPath(path);
        const FileUrl read = urlOf(url.absoluteString());
        QVERIFY2(url.path() == path, qPrintable(url.absoluteString()));
        QVERIFY2(read.path() == path, qPrintable(url.absoluteString()));
        QCOMPARE(read.lastPathComponent(), path.substr(path.rfind('/') + 1));
        QVERIFY(read == url);
    }
}

void TestFileUrl::lastPathComponent()
{
    QCOMPARE(lastComponentOf("file:///home/u/My%20Downloads"), std::string("My Downloads"));
    QCOMPARE(lastComponentOf("file:///home/u/Downloads/"), std::string("Downloads"));
    QCOMPARE(lastComponentOf("file:///a%FF"), std::string("a\xff"));
    QCOMPARE(lastComponentOf("file:///"), std::string("/"));
    QCOMPARE(lastComponentOf("http://example.org/a/b%20c"), std::string("b%20c"));
    QCOMPARE(lastComponentOf("name"), std::string("name"));
}

void TestFileUrl::urlsAreEqualWhenTheirTextsAre()
{
    const auto url = [](const char* text) { return *FileUrl::fromString(QString::fromUtf8(text)); };
    QVERIFY(url("file:///a") == url("file:///a"));
    // The same folder each time, and another URL.
    QVERIFY(url("file:///a") != url("file:///a/"));
    QVERIFY(url("file:///a") != url("file:///%61"));
    QVERIFY(url("file:///a") != url("file://localhost/a"));
}

void TestFileUrl::urlsHaveAnOrder()
{
    const std::set<FileUrl> urls{FileUrl::fromPath("/b"), FileUrl::fromPath("/a"), FileUrl::fromPath("/b")};
    QCOMPARE(urls.size(), size_t(2));
    QCOMPARE(urls.begin()->path(), std::string("/a"));
}

HARBEX_TEST_MAIN(TestFileUrl)

#include "tst_FileUrl.moc"
