#include "support/EngineProbe.h"
#include "support/TestMain.h"
#include "watcher/RuleMatching.h"

#include <QLocale>

#include <span>

using namespace harbex;
using namespace harbex::test;

namespace
{

using Names = std::vector<std::string>;
using Rules = std::vector<FilterRule>;

const std::string longName = std::string(251, 'X') + ".jpg";

QByteArray describe(const std::string& name, const FilterRule& rule)
{
    return "name " + QByteArray::fromStdString(name).toPercentEncoding(" ") + ", value " +
           rule.value.toUtf8();
}

} // namespace

class TestRuleMatching : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyKindTakesItsExtensionsInAnyLetterCaseAndNoOthers()
    {
        struct {
            RuleKind kind;
            std::span<const QStringView> extensions;
            const char* expected;
        } const cases[] = {
            {RuleKind::image, imageExtensions, "avif bmp gif heic heif jpeg jpg png tif tiff webp"},
            {RuleKind::document, documentExtensions, "doc docx pdf ppt pptx rtf txt xls xlsx"},
            {RuleKind::video, videoExtensions, "avi flv mkv mov mp4 webm wmv"},
            {RuleKind::audio, audioExtensions, "aac alac dsd flac m4a mp3 ogg opus wav wma"},
            {RuleKind::application, applicationExtensions, "app exe"},
        };
        for (const auto& [kind, extensions, expected] : cases) {
            QStringList list;
            for (const QStringView view : extensions) {
                list << view.toString();
                const std::string extension = list.last().toStdString();
                const std::string upperCased = list.last().toUpper().toStdString();
                for (const RuleKind asked : allRuleKinds) {
                    QCOMPARE(takes(kindIs(asked), "file." + extension), asked == kind);
                    QCOMPARE(takes(kindIs(asked), "file." + upperCased), asked == kind);
                    QVERIFY(!takes(kindIs(asked), extension));
                    QVERIFY(!takes(kindIs(asked), "file." + extension + "q"));
                }
            }
            list.sort();
            QCOMPARE(list.join(u' '), QString::fromUtf8(expected));
        }
    }

    void onlyAFolderIsOfKindFolder()
    {
        const MatchableRule rule(kindIs(RuleKind::folder));
        QVERIFY(matches(rule, {}, true));
        QVERIFY(!matches(rule, {}, false));
        QVERIFY(!matches(rule, {}, std::nullopt));
    }

    void rulesTakeNames_data()
    {
        QTest::addColumn<Rules>("rules");
        QTest::addColumn<Names>("taken");
        QTest::addColumn<Names>("notTaken");
        const auto row = [](const char* what, const Rules& rules, const Names& taken, const Names& notTaken) {
            QTest::newRow(what) << rules << taken << notTaken;
        };

        row("name: part before the first dot", {nameIs("invoice")}, {"invoice.2024.pdf", ".invoice.pdf"},
            {"\ufeffinvoice.jpg"});
        row("name: nothing after the dot",
            {nameContains("2024"), nameContains("invoice."), nameIs("invoice.2024"),
             nameIs("invoice.2024.pdf")},
            {}, {"invoice.2024.pdf"});
        row("name contains: any place", {nameContains("voice ")}, {"My Invoice 7.pdf"},
            {"My Invoice7.pdf", "bill.pdf"});
        row("name contains: letter case", {nameContains("invoice"), nameContains("INVOICE")},
            {"Invoice.pdf", "invoice.pdf", "invoice\xff.jpg"}, {});
        row("name is: letter case, spaces", {nameIs("Invoice")}, {"Invoice.pdf"},
            {"invoice.pdf", "Invoices.pdf", "Invoice .pdf", " Invoice.pdf"});
        row("name is: spaces of the value", {nameIs(" Invoice")}, {" Invoice.pdf"}, {"Invoice.pdf"});
        row("name: no value", {nameIs({}), nameContains({})},
            {"a.jpg", "README", ".DS_Store", "...", " ", "\n", "\xff", "name."}, {"a.jpg.part"});
        row("name: only dots", {nameContains("a"), nameContains(".")}, {}, {"..."});
        row("partial downloads", {nameContains({})},
            {"part", ".tmp", "download.", "a.part.txt", "a.parts", "a.apart", "a.tmp ",
             "a.\xd0\xa0\xd0\x90RT", "a.par\xff"},
            {"movie.mp4.crdownload", "movie.mp4.download", "movie.part", "movie.tmp", "movie.MP4.CrDownload",
             "movie.PART", ".movie.tmp", "movie\xff.gqqRF_r1.mp4.Part"});

        row("extension is: lower case", {extensionIs("jpg")}, {"a.jpg", "a\xe2\x82.jpg"}, {"a.JPG"});
        row("extension contains: lower case", {extensionContains("jpg")}, {"a.JPG", "a.jpg"}, {});
        row("extension: upper case, a part, with a dot",
            {extensionIs("JPG"), extensionContains("JPG"), extensionContains("jp"), extensionIs(".jpg"),
             extensionContains(".jpg")},
            {}, {"a.JPG", "a.jpg"});
        row("extension: only the last", {extensionIs("tar.gz")}, {}, {"a.tar.gz"});
        row("extension: no value", {extensionIs({}), extensionContains({})},
            {"README", ".env", "name.", "..."}, {"a.jpg"});

        row("kind: any value and operator",
            {ruleFor(RuleField::kind, RuleOperator::contains, "pdf"),
             ruleFor(RuleField::kind, RuleOperator::isEqual, "pdf")},
            {"a.jpg"}, {"a.pdf"});
        row("kind: final name of a download", {kindIs(RuleKind::video)}, {"movie.mp4"},
            {"movie.mp4.crdownload"});
        row("kind: unusual names", {kindIs(RuleKind::image)},
            {"a\nb.jpg", "\xff\xfe.jpg", longName, "a.TIFF"},
            {"a.jpg\n", "a.jpg\xff", "a.\uff4apg", "a.T\u0130FF"});

        row("name contains: control characters", {nameContains("\nB")}, {"a\nb.jpg"}, {"ab.jpg"});
        row("name is: control characters", {nameIs("\u0001\u001b[31m\u007f")}, {"\x01\x1b[31m\x7f.jpg"}, {});
        row("name contains: newline is not ignored", {nameContains("ab")}, {}, {"a\nb.jpg"});
        row("extension: newline", {extensionIs("jpg\n")}, {"a.jpg\n"}, {});
        row("name is: U+FFFD", {nameIs("a\ufffd")}, {"a\xff.jpg"}, {});
        row("name is: without invalid bytes", {nameIs("a")}, {}, {"a\xff.jpg"});
        row("extension: without invalid bytes", {extensionIs("jp")}, {}, {"a.jp\xc3"});
        row("longest name", {nameIs(std::string(251, 'X')), nameContains(std::string(251, 'x'))}, {longName},
            {});
        row("longer than the longest name", {nameContains(std::string(252, 'x'))}, {}, {longName});

        row("name contains: composed or decomposed", {nameContains("CAF\u00c9"), nameContains("cafe\u0301")},
            {"Cafe\u0301 Noir.pdf", "Caf\u00e9 Noir.pdf", "CAF\u00c9.pdf"}, {"Cafe Noir.pdf"});
        row("name contains: no accent", {nameContains("cafe")}, {}, {"Caf\u00e9.pdf", "Cafe\u0301.pdf"});
        row("name is: composed or decomposed", {nameIs("Caf\u00e9"), nameIs("Cafe\u0301")},
            {"Cafe\u0301.pdf", "Caf\u00e9.pdf"}, {"cafe\u0301.pdf", "CAF\u00c9.pdf"});
        row("extension: composed or decomposed",
            {extensionIs("r\u00e9sum\u00e9"), extensionIs("re\u0301sume\u0301")},
            {"a.re\u0301sume\u0301", "a.r\u00e9sum\u00e9"}, {"a.resume"});
        row("extension contains: composed", {extensionContains("r\u00e9sum\u00e9")}, {"a.RE\u0301SUME\u0301"},
            {});
        row("name is: KELVIN SIGN is K", {nameIs("Key")}, {"\u212aey.pdf"}, {});
        row("name contains: KELVIN SIGN is k", {nameContains("\u212aey")}, {"key.pdf"}, {});
        row("name is: ANGSTROM SIGN", {nameIs("\u00c5"), nameIs("A\u030a")}, {"\u212b.pdf"}, {});
        row("name is: any order of marks", {nameIs("q\u0307\u0323")}, {"q\u0323\u0307.pdf"}, {});
        row("name contains: a ligature is no other", {nameContains("file")}, {}, {"\ufb01le.pdf"});
        row("name is: a ligature", {nameIs("\ufb01le")}, {"\ufb01le.pdf"}, {});

        const auto lowered = [&](const char* what, const char* value, const char* name) {
            QTest::newRow(what) << Rules{nameContains(value)} << Names{name} << Names{};
        };
        lowered("case of Latin", "\u00fcbersicht", "\u00dcBERSICHT.pdf");
        lowered("case of Cyrillic", "\u041e\u0422\u0427", "\u041e\u0442\u0447\u0451\u0442.pdf");
        lowered("case beyond U+FFFF", "\U00010428", "\U00010400.pdf");
        lowered("sharp s", "STRA\u00dfE", "Stra\u00dfe.pdf");
        lowered("capital sharp s", "stra\u1e9ee", "STRA\u1e9eE.pdf");
        lowered("final sigma", "\u039f\u0394\u039f\u03a3", "\u039f\u0394\u039f\u03a3.pdf");
        lowered("sigma before a space", "\u039f\u0394\u039f\u03a3 a", "\u039f\u0394\u039f\u03a3 A.pdf");
        lowered("small final sigma", "\u03c2", "\u03c2.pdf");
        lowered("i of ASCII", "istanbul", "ISTANBUL.pdf");
        lowered("I of ASCII", "ISTANBUL", "istanbul.pdf");
        lowered("I with a dot", "\u0130STANBUL", "\u0130stanbul.pdf");
        lowered("after I with a dot", "STANBUL", "\u0130stanbul.pdf");
        lowered("i without a dot", "\u0131", "\u0131.pdf");
        row("a letter composed only in lower case", {nameContains("\u01f0")}, {"J\u030c.pdf"}, {"J.pdf"});
        row("name is: case beyond U+FFFF", {nameIs("\U00010428")}, {}, {"\U00010400.pdf"});
        row("name is: sharp s", {nameIs("Stra\u00dfe")}, {"Stra\u00dfe.pdf"}, {"Strasse.pdf"});
        row("name contains: a final sigma is no other", {nameContains("\u03c3")}, {}, {"\u03c2.pdf"});
        row("name is: I with a dot", {nameIs("I\u0307")}, {"\u0130.pdf"}, {});
    }

    void rulesTakeNames()
    {
        QFETCH(const Rules, rules);
        QFETCH(const Names, taken);
        QFETCH(const Names, notTaken);
        // The Turkish i has other letter cases. The language of the user has no effect.
        for (const QLocale::Language language : {QLocale::C, QLocale::Turkish}) {
            QLocale::setDefault(QLocale(language));
            for (const FilterRule& rule : rules) {
                for (const std::string& name : taken)
                    QVERIFY2(takes(rule, name), describe(name, rule));
                for (const std::string& name : notTaken)
                    QVERIFY2(!takes(rule, name), describe(name, rule));
            }
        }
        QLocale::setDefault(QLocale::c());
    }
};

HARBEX_TEST(TestRuleMatching)

#include "tst_RuleMatching.moc"
