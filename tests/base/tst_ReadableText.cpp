#include "base/ReadableText.h"
#include "support/TestMain.h"

using namespace harbex;

class TestReadableText : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void ordinaryTextStaysAsItIs()
    {
        for (const char* name : {"", "photo.jpg", " a  b ", "\u00e9 e\u0301", "\u65e5\u672c", "\U0001F600",
                                 "\\n", "\u05d0\u05d1", "a\u200db", "..."}) {
            QCOMPARE(readableName(name), QString(name));
            QCOMPARE(readableText(name), QString(name));
        }
        // Neighbours of the escaped characters.
        for (const char16_t c : {u' ', u'~', u'\u00a0', u'\u061b', u'\u061d', u'\u200d', u'\u2010', u'\u2027',
                                 u'\u202f', u'\u2065', u'\u206a'})
            QCOMPARE(readableText(QString(QChar(c))), QString(QChar(c)));
    }

    void charactersThatBreakOrReorderALineAreEscaped()
    {
        QCOMPARE(readableName("a\nb\rc\td"), QString("a\\nb\\rc\\td"));
        QCOMPARE(readableName(std::string_view("\0\x01\x1b[31m\x7f", 8)),
                 QString("\\u{0}\\u{1}\\u{1b}[31m\\u{7f}"));
        QCOMPARE(readableName("photo\u202egpj.exe"), QString("photo\\u{202e}gpj.exe"));
        for (const char16_t c : {u'\x0b', u'\x0c', u'\u0080', u'\u0085', u'\u009f', u'\u061c', u'\u200e',
                                 u'\u200f', u'\u2028', u'\u2029', u'\u202a', u'\u202b', u'\u202c', u'\u202d',
                                 u'\u202e', u'\u2066', u'\u2067', u'\u2068', u'\u2069'})
            QCOMPARE(readableText(QString(QChar(c))), QString("\\u{%1}").arg(static_cast<uint>(c), 0, 16));
    }

    void invalidTextBecomesReplacementCharacters()
    {
        QCOMPARE(readableName("a\xff.jpg"), QString("a\ufffd.jpg"));
        for (const char* name : {"\xc3", "\xed\xa0\x80"})
            QVERIFY(readableName(name).contains(QChar(0xfffd)));
        // An overlong line feed is invalid.
        QVERIFY(!readableName("\xc0\x8a").contains(u'\n'));
        QCOMPARE(readableText(QChar(0xd800) + QString("a")), QString("\ufffda"));
        QCOMPARE(readableText(QString("a") + QChar(0xdc00)), QString("a\ufffd"));
    }

    void textOfANameKeepsEveryCharacter()
    {
        QCOMPARE(textOfName("\ufeffa\nb\u202e"), QChar(0xfeff) + QString("a\nb\u202e"));
        QCOMPARE(textOfName("a\xff.jpg"), QString("a\ufffd.jpg"));
        // An incomplete character at the end counts.
        for (const char* name : {"a\xc3", "a\xe2\x82", "a\xf0\x9f\x98"}) {
            QVERIFY2(textOfName(name).startsWith("a\ufffd"), name);
            QVERIFY2(readableName(name).startsWith("a\ufffd"), name);
        }
    }
};

HARBEX_TEST(TestReadableText)

#include "tst_ReadableText.moc"
