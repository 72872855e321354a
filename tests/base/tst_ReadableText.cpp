#include "base/ReadableText.h"
#include "support/TestMain.h"

#include <algorithm>

using namespace harbex;

namespace
{

QString text(const char* utf8)
{
    return QString::fromUtf8(utf8);
}

} // namespace

class TestReadableText : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void ordinaryTextStaysAsItIs();
    void lineBreaksAreEscaped();
    void controlCharactersAreEscaped();
    void bidirectionalMarksAreEscaped();
    void neighboursOfWhatIsEscapedStay();
    void invalidUtf8BecomesReplacementCharacters();
    void loneSurrogatesBecomeReplacementCharacters();
    void textOfANameKeepsEveryCharacter();
    void everyNameIsOneLine();
};

void TestReadableText::ordinaryTextStaysAsItIs()
{
    for (const char* name : {"", "photo.jpg", " a  b ", "\u00e9 e\u0301", "\u65e5\u672c", "\U0001F600", "\\n",
                             "\u05d0\u05d1", "a\u200db", "..."}) {
        QCOMPARE(readableName(name), text(name));
        QCOMPARE(readableText(text(name)), text(name));
    }
}

void TestReadableText::lineBreaksAreEscaped()
{
    QCOMPARE(readableName("a\nb\rc\td"), text("a\\nb\\rc\\td"));
    QCOMPARE(readableName("a\u2028b\u2029c\u0085d\x0b\x0c"),
             text("a\\u{2028}b\\u{2029}c\\u{85}d\\u{b}\\u{c}"));
}

void TestReadableText::controlCharactersAreEscaped()
{
    QCOMPARE(readableName(std::string_view("\0\x01\x1b[31m\x7f", 8)), text("\\u{0}\\u{1}\\u{1b}[31m\\u{7f}"));
    QCOMPARE(readableName("\u0080\u009f"), text("\\u{80}\\u{9f}"));
}

void TestReadableText::bidirectionalMarksAreEscaped()
{
    QCOMPARE(readableName("photo\u202egpj.exe"), text("photo\\u{202e}gpj.exe"));
    for (const char16_t mark : {u'\u061c', u'\u200e', u'\u200f', u'\u202a', u'\u202b', u'\u202c', u'\u202d',
                                u'\u202e', u'\u2066', u'\u2067', u'\u2068', u'\u2069'})
        QCOMPARE(readableText(QString(QChar(mark))), text("\\u{%1}").arg(static_cast<uint>(mark), 0, 16));
}

void TestReadableText::neighboursOfWhatIsEscapedStay()
{
    for (const char16_t c : {u' ', u'~', u'\u00a0', u'\u061b', u'\u061d', u'\u200d', u'\u2010', u'\u2027',
                             u'\u202f', u'\u2065', u'\u206a'})
        QCOMPARE(readableText(QString(QChar(c))), QString(QChar(c)));
}

void TestReadableText::invalidUtf8BecomesReplacementCharacters()
{
    QCOMPARE(readableName("a\xff.jpg"), text("a\ufffd.jpg"));
    QVERIFY(readableName("\xc3").contains(QChar(0xfffd)));
    QVERIFY(readableName("\xed\xa0\x80").contains(QChar(0xfffd)));
    // An overlong form of a line feed is none.
    QVERIFY(!readableName("\xc0\x8a").contains(u'\n'));
}

void TestReadableText::loneSurrogatesBecomeReplacementCharacters()
{
    QCOMPARE(readableText(QChar(0xd800) + text("a")), text("\ufffda"));
    QCOMPARE(readableText(text("a") + QChar(0xdc00)), text("a\ufffd"));
}

void TestReadableText::textOfANameKeepsEveryCharacter()
{
    QCOMPARE(textOfName("\ufeffa\nb\u202e"), text("").append(QChar(0xfeff)) + text("a\nb\u202e"));
    QCOMPARE(textOfName("a\xff.jpg"), text("a\ufffd.jpg"));
    // The beginning of a letter at the end of the name is not forgotten.
    for (const char* name : {"a\xc3", "a\xe2\x82", "a\xf0\x9f\x98"}) {
        QVERIFY2(textOfName(name).startsWith(text("a\ufffd")), name);
        QVERIFY2(readableName(name).startsWith(text("a\ufffd")), name);
    }
}

void TestReadableText::everyNameIsOneLine()
{
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            const std::string name{static_cast<char>(first), static_cast<char>(second)};
            const QString readable = readableName(name);
            QVERIFY(
                std::ranges::none_of(readable, [](QChar c) { return c.category() == QChar::Other_Control; }));
        }
    }
}

HARBEX_TEST_MAIN(TestReadableText)

#include "tst_ReadableText.moc"
