#include "base/ReadableText.h"
#include "fs/EntryName.h"
#include "support/RandomSeed.h"
#include "support/RuleModel.h"
#include "support/TestMain.h"
#include "watcher/RuleMatching.h"

#include <QLocale>

#include <iterator>
#include <span>

using namespace harbex;
using namespace harbex::test;

namespace
{

using Names = std::vector<std::string>;
using Rules = std::vector<FilterRule>;
using IsDirectory = std::optional<bool>;

const std::string longName = std::string(251, 'X') + ".jpg";

FilterRule ruleFor(RuleField field, RuleOperator operatorType, QStringView value)
{
    FilterRule rule;
    rule.field = field;
    rule.operatorType = operatorType;
    rule.value = value.toString();
    rule.destination = FileUrl::fromPath("/somewhere");
    return rule;
}

FilterRule nameContains(QStringView value)
{
    return ruleFor(RuleField::name, RuleOperator::contains, value);
}

FilterRule nameIs(QStringView value)
{
    return ruleFor(RuleField::name, RuleOperator::isEqual, value);
}

FilterRule extensionContains(QStringView value)
{
    return ruleFor(RuleField::fileExtension, RuleOperator::contains, value);
}

FilterRule extensionIs(QStringView value)
{
    return ruleFor(RuleField::fileExtension, RuleOperator::isEqual, value);
}

FilterRule kindIs(RuleKind kind, QStringView value = {}, RuleOperator operatorType = RuleOperator::contains)
{
    FilterRule rule = ruleFor(RuleField::kind, operatorType, value);
    rule.kind = kind;
    return rule;
}

bool passes(const std::string& name, const FilterRule& rule)
{
    return passesNameFilter(SplitName(name), MatchableRule(rule));
}

/// Returns the result of the second stage alone.
bool matchesOnDisk(const std::string& name, const FilterRule& rule, IsDirectory isDirectory)
{
    const QString extension = ComparableText(textOfName(pathExtension(name))).lowerCased;
    return !isPartialDownload(name) && matches(MatchableRule(rule), extension, isDirectory);
}

/// Returns the result of both stages for a file.
bool takes(const std::string& name, const FilterRule& rule)
{
    return passes(name, rule) && matchesOnDisk(name, rule, false);
}

/// Makes pairs of a name and a rule that often have to do with each other.
class RandomPairs
{
public:
    RandomPairs() : m_random(seededRandom()) {}

    std::string name()
    {
        std::string name(oneOf<size_t>({0, 0, 0, 0, 0, 1, 2}), '.');
        const size_t count = oneOf<size_t>({0, 1, 1, 2, 2, 2, 2, 3, 4});
        for (size_t i = 0; i < count; ++i) {
            if (i > 0) name.append(oneOf<size_t>({1, 1, 1, 1, 2}), '.');
            name += piece();
        }
        name.append(oneOf<size_t>({0, 0, 0, 0, 0, 0, 1, 2}), '.');
        return name.empty() ? "." : name;
    }

    FilterRule rule(const std::string& name)
    {
        FilterRule rule;
        rule.field = oneOf(allRuleFields);
        rule.operatorType = oneOf(allRuleOperators);
        rule.kind = oneOf(allRuleKinds);
        rule.value = value(QString::fromStdString(name));
        if (below(10) > 0) rule.destination = FileUrl::fromPath("/somewhere");
        return rule;
    }

    IsDirectory isDirectory() { return oneOf<IsDirectory>({false, true, std::nullopt}); }

private:
    template <class Value>
    Value oneOf(std::initializer_list<Value> values)
    {
        return values.begin()[below(values.size())];
    }
    template <class Values>
    typename Values::value_type oneOf(const Values& values)
    {
        return *std::next(values.begin(), static_cast<std::ptrdiff_t>(below(size_t(values.size()))));
    }

    std::string piece()
    {
        static const std::vector<std::string> extensions = {
            "jpg",  "jpeg", "JPG", "heic", "tiff", "pdf", "docx", "txt",        "mp4",  "mov", "mp3",
            "opus", "app",  "exe", "EXE",  "part", "tmp", "TMP",  "crdownload", "Part", "env", "download"};
        static const std::vector<std::string> fragments = {
            "report", "invoice", "a", "b",    "JP",   "Pp",   "2024", " ", "-", "\n",
            "\x01",   "\t",      "_", "\xff", "\x80", "ß",    "Σ",    "ς", "σ", "Я",
            "я",      "😀",      "𐐀", "𐐨",    "日本", "part", "e",    "ﬁ", "²"};
        if (below(2) == 0) return oneOf(extensions);
        std::string piece;
        for (size_t count = 1 + below(3); count > 0; --count)
            piece += below(4) == 0 ? accentedLetter() : oneOf(fragments);
        return piece;
    }

    std::string accentedLetter()
    {
        const ComposedLetter letter = oneOf(composedLetters());
        const auto text = oneOf<std::u32string>({{letter.composed}, {letter.letter, letter.accent}});
        return QString::fromStdU32String(text).toStdString();
    }

    QString value(const QString& name)
    {
        if (below(8) == 0) return {};
        if (below(8) == 0) return QString::fromStdString(piece());
        if (below(8) == 0) return name;
        const QString part = oneOf(name.split(u'.'));
        const QString changed = oneOf<QString>({part, part, part + u'.', part.toUpper(), part.toLower(),
                                                part.normalized(QString::NormalizationForm_C),
                                                part.normalized(QString::NormalizationForm_D)});
        return below(2) == 0 ? changed : someOf(changed.toStdU32String());
    }

    QString someOf(const std::u32string& text)
    {
        const size_t begin = below(text.size() + 1);
        return QString::fromStdU32String(text.substr(begin, below(text.size() - begin + 1)));
    }

    size_t below(size_t end) { return randomBelow(m_random, end); }

    std::mt19937 m_random;
};

QByteArray describe(const std::string& name, IsDirectory isDirectory, const FilterRule& rule)
{
    QString text;
    QDebug(&text) << "name" << QByteArray::fromStdString(name).toPercentEncoding(" ") << "field"
                  << int(rule.field) << "operator" << int(rule.operatorType) << "kind" << int(rule.kind)
                  << "value" << rule.value << "destination" << rule.destination.has_value() << "directory"
                  << (isDirectory ? int(*isDirectory) : -1);
    return text.toUtf8();
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
                    QCOMPARE(takes("file." + extension, kindIs(asked)), asked == kind);
                    QCOMPARE(takes("file." + upperCased, kindIs(asked)), asked == kind);
                    QVERIFY(!takes(extension, kindIs(asked)));
                    QVERIFY(!takes("file." + extension + "q", kindIs(asked)));
                }
            }
            list.sort();
            QCOMPARE(list.join(u' '), QString::fromUtf8(expected));
        }
    }

    void rulesTakeNames_data()
    {
        QTest::addColumn<Rules>("rules");
        QTest::addColumn<Names>("taken");
        QTest::addColumn<Names>("notTaken");
        const auto row = [](const char* what, const Rules& rules, const Names& taken, const Names& notTaken) {
            QTest::newRow(what) << rules << taken << notTaken;
        };

        row("name: part before the first dot", {nameIs(u"invoice")}, {"invoice.2024.pdf", ".invoice.pdf"},
            {"\ufeffinvoice.jpg"});
        row("name: nothing after the dot",
            {nameContains(u"2024"), nameContains(u"invoice."), nameIs(u"invoice.2024"),
             nameIs(u"invoice.2024.pdf")},
            {}, {"invoice.2024.pdf"});
        row("name contains: any place", {nameContains(u"voice ")}, {"My Invoice 7.pdf"},
            {"My Invoice7.pdf", "bill.pdf"});
        row("name contains: letter case", {nameContains(u"invoice"), nameContains(u"INVOICE")},
            {"Invoice.pdf", "invoice.pdf", "invoice\xff.jpg"}, {});
        row("name is: letter case, spaces", {nameIs(u"Invoice")}, {"Invoice.pdf"},
            {"invoice.pdf", "Invoices.pdf", "Invoice .pdf", " Invoice.pdf"});
        row("name is: spaces of the value", {nameIs(u" Invoice")}, {" Invoice.pdf"}, {"Invoice.pdf"});
        row("name: no value", {nameIs({}), nameContains({})},
            {"a.jpg", "README", ".DS_Store", "...", " ", "\n", "\xff", "name."}, {"a.jpg.part"});
        row("partial downloads", {nameContains({})},
            {"part", ".tmp", "download.", "a.part.txt", "a.parts", "a.apart", "a.tmp ",
             "a.\xd0\xa0\xd0\x90RT", "a.par\xff"},
            {"movie.mp4.crdownload", "movie.mp4.download", "movie.part", "movie.tmp", "movie.MP4.CrDownload",
             "movie.PART", ".movie.tmp", "movie\xff.gqqRF_r1.mp4.Part"});

        row("extension is: lower case", {extensionIs(u"jpg")}, {"a.jpg", "a\xe2\x82.jpg"}, {"a.JPG"});
        row("extension contains: lower case", {extensionContains(u"jpg")}, {"a.JPG", "a.jpg"}, {});
        row("extension: upper case, a part, with a dot",
            {extensionIs(u"JPG"), extensionContains(u"JPG"), extensionContains(u"jp"), extensionIs(u".jpg"),
             extensionContains(u".jpg")},
            {}, {"a.JPG", "a.jpg"});
        row("extension: only the last", {extensionIs(u"tar.gz")}, {}, {"a.tar.gz"});
        row("extension: no value", {extensionIs({}), extensionContains({})},
            {"README", ".env", "name.", "..."}, {"a.jpg"});

        row("kind: any value and operator",
            {kindIs(RuleKind::image, u"pdf"), kindIs(RuleKind::image, u"pdf", RuleOperator::isEqual)},
            {"a.jpg"}, {"a.pdf"});
        row("kind: final name of a download", {kindIs(RuleKind::video)}, {"movie.mp4"},
            {"movie.mp4.crdownload"});
        row("kind: unusual names", {kindIs(RuleKind::image)},
            {"a\nb.jpg", "\xff\xfe.jpg", longName, "a.TIFF"},
            {"a.jpg\n", "a.jpg\xff", "a.\uff4apg", "a.T\u0130FF"});

        row("name contains: control characters", {nameContains(u"\nB")}, {"a\nb.jpg"}, {"ab.jpg"});
        row("name is: control characters", {nameIs(u"\u0001\u001b[31m\u007f")}, {"\x01\x1b[31m\x7f.jpg"}, {});
        row("name contains: newline is not ignored", {nameContains(u"ab")}, {}, {"a\nb.jpg"});
        row("extension: newline", {extensionIs(u"jpg\n")}, {"a.jpg\n"}, {});
        row("name is: U+FFFD", {nameIs(u"a\ufffd")}, {"a\xff.jpg"}, {});
        row("name is: without invalid bytes", {nameIs(u"a")}, {}, {"a\xff.jpg"});
        row("extension: without invalid bytes", {extensionIs(u"jp")}, {}, {"a.jp\xc3"});
        row("longest name", {nameIs(QString(251, u'X')), nameContains(QString(251, u'x'))}, {longName}, {});
        row("longer than the longest name", {nameContains(QString(252, u'x'))}, {}, {longName});

        row("name contains: composed or decomposed",
            {nameContains(u"CAF\u00c9"), nameContains(u"cafe\u0301")},
            {"Cafe\u0301 Noir.pdf", "Caf\u00e9 Noir.pdf", "CAF\u00c9.pdf"}, {"Cafe Noir.pdf"});
        row("name contains: no accent", {nameContains(u"cafe")}, {}, {"Caf\u00e9.pdf", "Cafe\u0301.pdf"});
        row("name is: composed or decomposed", {nameIs(u"Caf\u00e9"), nameIs(u"Cafe\u0301")},
            {"Cafe\u0301.pdf", "Caf\u00e9.pdf"}, {"cafe\u0301.pdf", "CAF\u00c9.pdf"});
        row("extension: composed or decomposed",
            {extensionIs(u"r\u00e9sum\u00e9"), extensionIs(u"re\u0301sume\u0301")},
            {"a.re\u0301sume\u0301", "a.r\u00e9sum\u00e9"}, {"a.resume"});
        row("extension contains: composed", {extensionContains(u"r\u00e9sum\u00e9")},
            {"a.RE\u0301SUME\u0301"}, {});
        row("name is: KELVIN SIGN is K", {nameIs(u"Key")}, {"\u212aey.pdf"}, {});
        row("name contains: KELVIN SIGN is k", {nameContains(u"\u212aey")}, {"key.pdf"}, {});
        row("name is: ANGSTROM SIGN", {nameIs(u"\u00c5"), nameIs(u"A\u030a")}, {"\u212b.pdf"}, {});
        row("name is: any order of marks", {nameIs(u"q\u0307\u0323")}, {"q\u0323\u0307.pdf"}, {});
        row("name contains: a ligature is no other", {nameContains(u"file")}, {}, {"\ufb01le.pdf"});
        row("name is: a ligature", {nameIs(u"\ufb01le")}, {"\ufb01le.pdf"}, {});

        const auto lowered = [&](const char* what, QStringView value, const char* name) {
            QTest::newRow(what) << Rules{nameContains(value)} << Names{name} << Names{};
        };
        lowered("case of Latin", u"\u00fcbersicht", "\u00dcBERSICHT.pdf");
        lowered("case of Cyrillic", u"\u041e\u0422\u0427", "\u041e\u0442\u0447\u0451\u0442.pdf");
        lowered("case beyond U+FFFF", u"\U00010428", "\U00010400.pdf");
        lowered("sharp s", u"STRA\u00dfE", "Stra\u00dfe.pdf");
        lowered("capital sharp s", u"stra\u1e9ee", "STRA\u1e9eE.pdf");
        lowered("final sigma", u"\u039f\u0394\u039f\u03a3", "\u039f\u0394\u039f\u03a3.pdf");
        lowered("sigma before a space", u"\u039f\u0394\u039f\u03a3 a", "\u039f\u0394\u039f\u03a3 A.pdf");
        lowered("small final sigma", u"\u03c2", "\u03c2.pdf");
        lowered("i of ASCII", u"istanbul", "ISTANBUL.pdf");
        lowered("I of ASCII", u"ISTANBUL", "istanbul.pdf");
        lowered("I with a dot", u"\u0130STANBUL", "\u0130stanbul.pdf");
        lowered("after I with a dot", u"STANBUL", "\u0130stanbul.pdf");
        lowered("i without a dot", u"\u0131", "\u0131.pdf");
        row("a letter composed only in lower case", {nameContains(u"\u01f0")}, {"J\u030c.pdf"}, {"J.pdf"});
        row("name is: case beyond U+FFFF", {nameIs(u"\U00010428")}, {}, {"\U00010400.pdf"});
        row("name is: sharp s", {nameIs(u"Stra\u00dfe")}, {"Stra\u00dfe.pdf"}, {"Strasse.pdf"});
        row("name is: byte-order mark", {nameIs(u"\ufeffinvoice")}, {"\ufeffinvoice.jpg"}, {"invoice.jpg"});
        row("name is: I with a dot", {nameIs(u"I\u0307")}, {"\u0130.pdf"}, {});
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
                    QVERIFY2(takes(name, rule), describe(name, false, rule));
                for (const std::string& name : notTaken)
                    QVERIFY2(!takes(name, rule), describe(name, false, rule));
            }
        }
        QLocale::setDefault(QLocale::c());
    }

    void agreesWithTheModelOnRandomRulesAndNames()
    {
        RandomPairs pairs;
        int taken = 0;
        int stoppedByNameFilter = 0;
        int stoppedOnDisk = 0;
        for (int i = 0; i < 60'000; ++i) {
            const std::string name = pairs.name();
            const FilterRule rule = pairs.rule(name);
            const IsDirectory isDirectory = pairs.isDirectory();
            const QByteArray what = describe(name, isDirectory, rule);

            const ModelDecision expected = decide(name, isDirectory, rule);
            QVERIFY2(modelPathExtension(name) == harbex::pathExtension(name), what);
            QVERIFY2(passes(name, rule) == expected.passesNameFilter, what);
            QVERIFY2(matchesOnDisk(name, rule, isDirectory) == expected.matches, what);

            taken += expected.isTaken();
            stoppedByNameFilter += expected.matches && !expected.passesNameFilter;
            stoppedOnDisk += expected.passesNameFilter && !expected.matches;
        }
        // Pairs that have nothing to do with each other would show nothing.
        QVERIFY(taken > 5'000);
        QVERIFY(stoppedByNameFilter > 5'000);
        QVERIFY(stoppedOnDisk > 5'000);
    }
};

HARBEX_TEST(TestRuleMatching)

#include "tst_RuleMatching.moc"
