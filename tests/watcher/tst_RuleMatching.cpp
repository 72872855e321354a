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

/// Every combination of field, operator and kind, with a value that fits `name` where one is needed.
std::vector<FilterRule> rulesThatFit(const std::string& name)
{
    const SplitName split(name);
    std::vector<FilterRule> rules;
    for (const RuleField field : allRuleFields) {
        for (const RuleOperator operatorType : allRuleOperators) {
            for (const RuleKind kind : allRuleKinds) {
                const QString piece = field == RuleField::name ? split.base.exact : split.tail.exact;
                for (const QString& value : {QString(), piece, piece.toLower()}) {
                    rules.push_back(ruleFor(field, operatorType, value));
                    rules.back().kind = kind;
                }
            }
        }
    }
    return rules;
}

bool passes(const std::string& name, const FilterRule& rule)
{
    return passesNameFilter(SplitName(name), MatchableRule(rule));
}

/// Returns the result of the second stage alone.
bool matchesOnDisk(const std::string& name, const FilterRule& rule, IsDirectory isDirectory = false)
{
    const QString extension = ComparableText(textOfName(pathExtension(name))).lowerCased;
    return !isPartialDownload(name) && matches(MatchableRule(rule), extension, isDirectory);
}

/// Returns the result of both stages.
bool takes(const std::string& name, const FilterRule& rule, IsDirectory isDirectory = false)
{
    return passes(name, rule) && matchesOnDisk(name, rule, isDirectory);
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
    void kindsHaveExactlyTheseExtensions()
    {
        const auto text = [](std::span<const QStringView> extensions) {
            QStringList list;
            for (const QStringView extension : extensions)
                list << extension.toString();
            list.sort();
            return list.join(u' ');
        };
        QCOMPARE(text(imageExtensions), QStringLiteral("avif bmp gif heic heif jpeg jpg png tif tiff webp"));
        QCOMPARE(text(documentExtensions), QStringLiteral("doc docx pdf ppt pptx rtf txt xls xlsx"));
        QCOMPARE(text(videoExtensions), QStringLiteral("avi flv mkv mov mp4 webm wmv"));
        QCOMPARE(text(audioExtensions), QStringLiteral("aac alac dsd flac m4a mp3 ogg opus wav wma"));
        QCOMPARE(text(applicationExtensions), QStringLiteral("app exe"));
    }

    void everyKindTakesItsExtensionsInAnyLetterCaseAndNoOthers()
    {
        const std::vector<std::pair<RuleKind, std::span<const QStringView>>> sets = {
            {RuleKind::image, imageExtensions},
            {RuleKind::video, videoExtensions},
            {RuleKind::document, documentExtensions},
            {RuleKind::audio, audioExtensions},
            {RuleKind::application, applicationExtensions}};
        for (const auto& [kind, extensions] : sets) {
            for (const QStringView view : extensions) {
                const std::string extension = view.toString().toStdString();
                for (const RuleKind asked : allRuleKinds) {
                    QCOMPARE(takes("file." + extension, kindIs(asked)), asked == kind);
                    QCOMPARE(takes("file." + view.toString().toUpper().toStdString(), kindIs(asked)),
                             asked == kind);
                    QVERIFY(!takes(extension, kindIs(asked)));
                    QVERIFY(!takes("file." + extension + "q", kindIs(asked)));
                }
            }
        }
    }

    void nameIsSplitAtItsDots_data()
    {
        QTest::addColumn<std::string>("name");
        QTest::addColumn<QString>("pieces");
        const auto row = [](const char* what, const std::string& name, QStringView pieces) {
            QTest::newRow(what) << name << pieces.toString();
        };
        row("at every dot", "report.final.PDF", u"report|final|PDF");
        row("no dot", "README", u"README");
        row("dot at the beginning", ".DS_Store", u"DS_Store");
        row("empty pieces are omitted", "..a...b..", u"a|b");
        row("spaces", " . ", u" | ");
        row("many dots", "a" + std::string(253, '.') + "b", u"a|b");
        row("a dot that is not ASCII", "a\u2024jpg", u"a\u2024jpg");
        row("byte-order mark", "\ufeff.jpg", u"\ufeff|jpg");
        row("one dot only", ".", {});
        row("two dots only", "..", {});
        row("dots only", std::string(255, '.'), {});
    }

    void nameIsSplitAtItsDots()
    {
        QFETCH(const std::string, name);
        QFETCH(const QString, pieces);
        const SplitName split(name);
        QCOMPARE(QStringList(split.pieces.begin(), split.pieces.end()).join(u'|'), pieces);
        QCOMPARE(split.pieces.empty(), pieces.isEmpty());
        QCOMPARE(split.base.exact, pieces.section(u'|', 0, 0));
        QCOMPARE(split.tail.exact, pieces.section(u'|', -1));
        QCOMPARE(split.tail.lowerCased, pieces.section(u'|', -1).toLower());
    }

    void ruleTakesNames_data()
    {
        QTest::addColumn<FilterRule>("rule");
        QTest::addColumn<Names>("taken");
        QTest::addColumn<Names>("notTaken");
        const auto row = [](const char* what, const FilterRule& rule, const Names& taken,
                            const Names& notTaken) { QTest::newRow(what) << rule << taken << notTaken; };

        row("name: part before the first dot", nameIs(u"invoice"), {"invoice.2024.pdf", ".invoice.pdf"}, {});
        row("name: nothing after the dot", nameContains(u"2024"), {}, {"invoice.2024.pdf"});
        row("name contains: no dot", nameContains(u"invoice."), {}, {"invoice.2024.pdf"});
        row("name is: no dot", nameIs(u"invoice.2024"), {}, {"invoice.2024.pdf"});
        row("name is: not the whole name", nameIs(u"invoice.2024.pdf"), {}, {"invoice.2024.pdf"});
        row("name contains: any place", nameContains(u"voice "), {"My Invoice 7.pdf"},
            {"My Invoice7.pdf", "bill.pdf"});
        row("name contains: lower case value", nameContains(u"invoice"), {"Invoice.pdf"}, {});
        row("name contains: upper case value", nameContains(u"INVOICE"), {"invoice.pdf"}, {});
        row("name is: letter case", nameIs(u"Invoice"), {"Invoice.pdf"}, {"invoice.pdf", "Invoices.pdf"});
        row("name is: spaces of the name", nameIs(u"Invoice"), {}, {"Invoice .pdf", " Invoice.pdf"});
        row("name is: spaces of the value", nameIs(u" Invoice"), {" Invoice.pdf"}, {"Invoice.pdf"});

        row("extension is: lower case", extensionIs(u"jpg"), {"a.jpg"}, {"a.JPG"});
        row("extension is: upper case", extensionIs(u"JPG"), {}, {"a.JPG", "a.jpg"});
        row("extension contains: lower case", extensionContains(u"jpg"), {"a.JPG", "a.jpg"}, {});
        row("extension contains: upper case", extensionContains(u"JPG"), {}, {"a.JPG"});
        row("extension contains: a part", extensionContains(u"jp"), {}, {"a.jpg"});
        row("extension is: with a dot", extensionIs(u".jpg"), {}, {"a.jpg"});
        row("extension contains: with a dot", extensionContains(u".jpg"), {}, {"a.jpg"});
        row("extension: only the last", extensionIs(u"tar.gz"), {}, {"a.tar.gz"});
        for (const RuleOperator operatorType : allRuleOperators) {
            QTest::addRow("extension: no value, operator %d", int(operatorType))
                << ruleFor(RuleField::fileExtension, operatorType, {})
                << Names{"README", ".env", "name.", "..."} << Names{"a.jpg"};
            QTest::addRow("name: no value, operator %d", int(operatorType))
                << ruleFor(RuleField::name, operatorType, {})
                << Names{"a.jpg", "README", ".DS_Store", "...", " ", "\n", "\xff", "name."}
                << Names{"a.jpg.part"};
        }

        row("kind: any value", kindIs(RuleKind::image, u"pdf"), {"a.jpg"}, {"a.pdf"});
        row("kind: any operator", kindIs(RuleKind::image, u"pdf", RuleOperator::isEqual), {"a.jpg"}, {});
        row("final name of a download", kindIs(RuleKind::video), {"movie.mp4"}, {"movie.mp4.crdownload"});
        row("no partial download", nameContains({}),
            {"part", ".tmp", "download.", "a.part.txt", "a.parts", "a.apart", "a.tmp ",
             "a.\xd0\xa0\xd0\x90RT", "a.par\xff"},
            {});

        row("name contains: control characters", nameContains(u"\nB"), {"a\nb.jpg"}, {"ab.jpg"});
        row("name is: control characters", nameIs(u"\u0001\u001b[31m\u007f"), {"\x01\x1b[31m\x7f.jpg"}, {});
        row("name contains: newline is not ignored", nameContains(u"ab"), {}, {"a\nb.jpg"});
        row("kind: newline", kindIs(RuleKind::image), {"a\nb.jpg"}, {"a.jpg\n"});
        row("extension: newline", extensionIs(u"jpg\n"), {"a.jpg\n"}, {});
        row("kind: invalid UTF-8", kindIs(RuleKind::image), {"\xff\xfe.jpg"}, {"a.jpg\xff"});
        row("name contains: invalid UTF-8", nameContains(u"Invoice"), {"invoice\xff.jpg"}, {});
        row("name is: U+FFFD", nameIs(u"a\ufffd"), {"a\xff.jpg"}, {});
        row("name is: without invalid bytes", nameIs(u"a"), {}, {"a\xff.jpg"});
        row("extension: without invalid bytes", extensionIs(u"jp"), {}, {"a.jp\xc3"});
        row("extension: after an incomplete letter", extensionIs(u"jpg"), {"a\xe2\x82.jpg"}, {});
        row("kind: longest name", kindIs(RuleKind::image), {longName}, {});
        row("name is: longest name", nameIs(QString(251, u'X')), {longName}, {});
        row("name contains: longest name", nameContains(QString(251, u'x')), {longName}, {});
        row("name contains: longer than the name", nameContains(QString(252, u'x')), {}, {longName});

        row("name contains: composed value", nameContains(u"CAF\u00c9 n"),
            {"Cafe\u0301 Noir.pdf", "Caf\u00e9 Noir.pdf"}, {"Cafe Noir.pdf"});
        row("name contains: decomposed value", nameContains(u"cafe\u0301"),
            {"Caf\u00e9 Noir.pdf", "CAF\u00c9.pdf"}, {});
        row("name contains: no accent", nameContains(u"cafe"), {}, {"Caf\u00e9.pdf", "Cafe\u0301.pdf"});
        row("name is: composed value", nameIs(u"Caf\u00e9"), {"Cafe\u0301.pdf"}, {"cafe\u0301.pdf"});
        row("name is: decomposed value", nameIs(u"Cafe\u0301"), {"Caf\u00e9.pdf"}, {"CAF\u00c9.pdf"});
        row("extension is: composed value", extensionIs(u"r\u00e9sum\u00e9"), {"a.re\u0301sume\u0301"},
            {"a.resume"});
        row("extension is: decomposed value", extensionIs(u"re\u0301sume\u0301"), {"a.r\u00e9sum\u00e9"}, {});
        row("extension contains: composed value", extensionContains(u"r\u00e9sum\u00e9"),
            {"a.RE\u0301SUME\u0301"}, {});
        row("name is: KELVIN SIGN is K", nameIs(u"Key"), {"\u212aey.pdf"}, {});
        row("name contains: KELVIN SIGN is k", nameContains(u"\u212aey"), {"key.pdf"}, {});
        row("name is: ANGSTROM SIGN is composed", nameIs(u"\u00c5"), {"\u212b.pdf"}, {});
        row("name is: ANGSTROM SIGN is decomposed", nameIs(u"A\u030a"), {"\u212b.pdf"}, {});
        row("name is: any order of marks", nameIs(u"q\u0307\u0323"), {"q\u0323\u0307.pdf"}, {});
        row("name contains: a ligature is no other", nameContains(u"file"), {}, {"\ufb01le.pdf"});
        row("name is: a ligature", nameIs(u"\ufb01le"), {"\ufb01le.pdf"}, {});
        row("kind: a letter of full width", kindIs(RuleKind::image), {}, {"a.\uff4apg"});

        row("name contains: case of Latin", nameContains(u"\u00fcbersicht"), {"\u00dcBERSICHT.pdf"}, {});
        row("name contains: case of Cyrillic", nameContains(u"\u041e\u0422\u0427"),
            {"\u041e\u0442\u0447\u0451\u0442.pdf"}, {});
        row("name contains: case beyond U+FFFF", nameContains(u"\U00010428"), {"\U00010400.pdf"}, {});
        row("name is: case beyond U+FFFF", nameIs(u"\U00010428"), {}, {"\U00010400.pdf"});
        row("name contains: sharp s", nameContains(u"STRA\u00dfE"), {"Stra\u00dfe.pdf"}, {});
        row("name contains: capital sharp s", nameContains(u"stra\u1e9ee"), {"STRA\u1e9eE.pdf"}, {});
        row("name contains: a letter composed only in lower case", nameContains(u"\u01f0"), {"J\u030c.pdf"},
            {"J.pdf"});
        row("name is: sharp s", nameIs(u"Stra\u00dfe"), {"Stra\u00dfe.pdf"}, {"Strasse.pdf"});
        row("name contains: final sigma", nameContains(u"\u039f\u0394\u039f\u03a3"),
            {"\u039f\u0394\u039f\u03a3.pdf"}, {});
        row("name contains: sigma before a space", nameContains(u"\u039f\u0394\u039f\u03a3 a"),
            {"\u039f\u0394\u039f\u03a3 A.pdf"}, {});
        row("name contains: small final sigma", nameContains(u"\u03c2"), {"\u03c2.pdf"}, {});
        row("name is: small final sigma", nameIs(u"\u03c2"), {"\u03c2.pdf"}, {});
        row("name is: byte-order mark", nameIs(u"\ufeffinvoice"), {"\ufeffinvoice.jpg"}, {});
        row("name is: no byte-order mark", nameIs(u"invoice"), {}, {"\ufeffinvoice.jpg"});
        row("name contains: i of ASCII", nameContains(u"istanbul"), {"ISTANBUL.pdf"}, {});
        row("name contains: I of ASCII", nameContains(u"ISTANBUL"), {"istanbul.pdf"}, {});
        row("name contains: I with a dot", nameContains(u"\u0130STANBUL"), {"\u0130stanbul.pdf"}, {});
        row("name contains: after I with a dot", nameContains(u"STANBUL"), {"\u0130stanbul.pdf"}, {});
        row("name is: I with a dot", nameIs(u"I\u0307"), {"\u0130.pdf"}, {});
        row("name contains: i without a dot", nameContains(u"\u0131"), {"\u0131.pdf"}, {});
        row("kind: i of ASCII only", kindIs(RuleKind::image), {"a.TIFF"}, {"a.T\u0130FF"});
    }

    void ruleTakesNames()
    {
        QFETCH(const FilterRule, rule);
        QFETCH(const Names, taken);
        QFETCH(const Names, notTaken);
        // The Turkish i has other letter cases. The language of the user has no effect.
        for (const QLocale::Language language : {QLocale::C, QLocale::Turkish}) {
            QLocale::setDefault(QLocale(language));
            for (const std::string& name : taken)
                QVERIFY2(takes(name, rule), name.c_str());
            for (const std::string& name : notTaken)
                QVERIFY2(!takes(name, rule), name.c_str());
        }
        QLocale::setDefault(QLocale::c());
    }

    void stagesDecideApart_data()
    {
        QTest::addColumn<FilterRule>("rule");
        QTest::addColumn<std::string>("name");
        QTest::addColumn<bool>("passesNameFilter");
        QTest::addColumn<bool>("matchesOnDisk");
        const auto row = [](const char* what, const FilterRule& rule, const char* name, bool first,
                            bool second) {
            QTest::newRow(what) << rule << std::string(name) << first << second;
        };
        row("extension contains: a part", extensionContains(u"jp"), "a.jpg", true, false);
        row("extension is: upper case, same name", extensionIs(u"JPG"), "a.JPG", true, false);
        row("extension is: upper case, lower name", extensionIs(u"JPG"), "a.jpg", false, false);
        row("extension is: lower case, upper name", extensionIs(u"jpg"), "a.JPG", false, true);
        row("extension: last piece of a hidden file", extensionIs(u"env"), ".env", true, false);
        row("extension: last piece before a dot", extensionIs(u"name"), "name.", true, false);
        row("extension: only piece", extensionIs(u"README"), "README", true, false);
        row("extension: no value", extensionIs({}), "a.jpg", true, false);
        row("name: partial download", nameContains({}), "a.jpg.part", true, false);
    }

    void stagesDecideApart()
    {
        QFETCH(const FilterRule, rule);
        QFETCH(const std::string, name);
        QTEST(passes(name, rule), "passesNameFilter");
        QTEST(matchesOnDisk(name, rule), "matchesOnDisk");
    }

    void ruleTakesFoldersAndFiles_data()
    {
        QTest::addColumn<FilterRule>("rule");
        QTest::addColumn<std::string>("name");
        QTest::addColumn<bool>("takesFolder");
        QTest::addColumn<bool>("takesFile");
        QTest::addColumn<bool>("takesUnknown");
        const auto row = [](const char* what, const FilterRule& rule, const char* name, bool folder,
                            bool file, bool unknown) {
            QTest::newRow(what) << rule << std::string(name) << folder << file << unknown;
        };
        const FilterRule folders = kindIs(RuleKind::folder);
        row("folders", folders, "Notes", true, false, false);
        row("folders with the name of an application", folders, "Tool.app", true, false, false);
        row("folders with the name of an image", folders, "Holiday.jpg", true, false, false);
        row("folders, value and dots only", kindIs(RuleKind::folder, u"a"), "...", true, false, false);
        row("applications", kindIs(RuleKind::application), "Tool.app", true, true, true);
        row("images", kindIs(RuleKind::image), "Holiday.jpg", true, true, true);
        row("images, dots only", kindIs(RuleKind::image), "...", false, false, false);
        row("every name", nameIs({}), "...", true, true, true);
        row("no extension", extensionIs({}), "Notes", true, true, true);
        row("no extension, but the folder has one", extensionIs({}), "Tool.app", false, false, false);
    }

    void ruleTakesFoldersAndFiles()
    {
        QFETCH(const FilterRule, rule);
        QFETCH(const std::string, name);
        QTEST(takes(name, rule, true), "takesFolder");
        QTEST(takes(name, rule, false), "takesFile");
        QTEST(takes(name, rule, std::nullopt), "takesUnknown");
    }

    void dotsOnlyPassNoTextTest()
    {
        for (const std::string& name : {std::string("..."), std::string(255, '.')})
            for (const QString& value : {QStringLiteral("."), QStringLiteral("..."), QStringLiteral("a")})
                for (const auto rule : {nameIs, nameContains, extensionIs, extensionContains})
                    QVERIFY2(!passes(name, rule(value)), qPrintable(value));
    }

    void ruleWithoutDestinationTakesNothing()
    {
        for (const char* name : {"a.jpg", "Notes", "..."}) {
            for (FilterRule rule : rulesThatFit(name)) {
                rule.destination.reset();
                QVERIFY2(!passes(name, rule), name);
            }
        }
    }

    void noRuleTakesAPartialDownload()
    {
        for (const char* name :
             {"movie.mp4.crdownload", "movie.mp4.download", "movie.part", "movie.tmp", "movie.MP4.CrDownload",
              "movie.PART", ".movie.tmp", "movie\xff.gqqRF_r1.mp4.Part"}) {
            for (const FilterRule& rule : rulesThatFit(name)) {
                QVERIFY2(!takes(name, rule, false), name);
                QVERIFY2(!takes(name, rule, true), name);
            }
        }
    }

    void namesOfOneDownloadHaveTheSameBase()
    {
        const std::vector<std::pair<std::string, std::string>> bases = {{"film.mp4", "film"},
                                                                        {"film.gqqRF_r1.mp4.part", "film"},
                                                                        {"film.tar.gz", "film"},
                                                                        {"film", "film"},
                                                                        {"film.", "film"},
                                                                        {"Film.mp4", "Film"},
                                                                        {".film.part", ""},
                                                                        {"fi lm\xff.mp4", "fi lm\xff"},
                                                                        {"", ""}};
        for (const auto& [name, base] : bases)
            QCOMPARE(std::string(downloadBase(name)), base);
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
