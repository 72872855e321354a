#include "fs/EntryName.h"
#include "support/RandomSeed.h"
#include "support/RuleModel.h"
#include "support/TestMain.h"
#include "watcher/RuleMatching.h"

#include <QLocale>
#include <QSet>

#include <algorithm>
#include <span>

using namespace harbex;
using namespace harbex::test;

namespace
{

FilterRule ruleFor(RuleField field, RuleOperator operatorType, const QString& value)
{
    FilterRule rule;
    rule.field = field;
    rule.operatorType = operatorType;
    rule.value = value;
    rule.destination = FileUrl::fromPath("/somewhere");
    return rule;
}

FilterRule nameContains(const QString& value)
{
    return ruleFor(RuleField::name, RuleOperator::contains, value);
}

FilterRule nameIs(const QString& value)
{
    return ruleFor(RuleField::name, RuleOperator::isEqual, value);
}

FilterRule extensionContains(const QString& value)
{
    return ruleFor(RuleField::fileExtension, RuleOperator::contains, value);
}

FilterRule extensionIs(const QString& value)
{
    return ruleFor(RuleField::fileExtension, RuleOperator::isEqual, value);
}

FilterRule kindIs(RuleKind kind, const QString& value = {})
{
    FilterRule rule = ruleFor(RuleField::kind, RuleOperator::contains, value);
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

QString lowerCasedExtension(const std::string& name)
{
    const std::string_view extension = pathExtension(name);
    return ComparableText(QString::fromUtf8(extension.data(), static_cast<qsizetype>(extension.size())))
        .lowerCased;
}

/// The second stage alone.
bool matchesOnDisk(const std::string& name, const FilterRule& rule, std::optional<bool> isDirectory = false)
{
    const QString extension = lowerCasedExtension(name);
    return !isPartialDownload(name) && matches(MatchableRule(rule), extension, isDirectory);
}

/// Both stages.
bool takes(const std::string& name, const FilterRule& rule, std::optional<bool> isDirectory = false)
{
    return passes(name, rule) && matchesOnDisk(name, rule, isDirectory);
}

std::vector<QString> pieces(const std::string& name)
{
    return SplitName(name).pieces;
}

using Pieces = std::vector<QString>;

/// Makes pairs of a name and a rule that often have to do with each other.
class RandomPairs
{
public:
    RandomPairs() : m_random(seededRandom()) {}

    std::string name()
    {
        std::string name(oneOf({0, 0, 0, 0, 0, 1, 2}), '.');
        const size_t count = oneOf({0, 1, 1, 2, 2, 2, 2, 3, 4});
        for (size_t i = 0; i < count; ++i) {
            if (i > 0) name.append(oneOf({1, 1, 1, 1, 2}), '.');
            name += piece();
        }
        name.append(oneOf({0, 0, 0, 0, 0, 0, 1, 2}), '.');
        return name.empty() ? "." : name;
    }

    FilterRule rule(const std::string& name)
    {
        FilterRule rule;
        rule.field = allRuleFields[randomBelow(m_random, allRuleFields.size())];
        rule.operatorType = allRuleOperators[randomBelow(m_random, allRuleOperators.size())];
        rule.kind = allRuleKinds[randomBelow(m_random, allRuleKinds.size())];
        rule.value = value(QString::fromStdString(name));
        if (randomBelow(m_random, 10) > 0) rule.destination = FileUrl::fromPath("/somewhere");
        return rule;
    }

    std::optional<bool> isDirectory()
    {
        const size_t which = randomBelow(m_random, 3);
        return which == 2 ? std::nullopt : std::optional(which == 1);
    }

private:
    template <class Value>
    Value oneOf(const std::vector<Value>& values)
    {
        return values[randomBelow(m_random, values.size())];
    }
    size_t oneOf(std::initializer_list<size_t> values) { return oneOf(std::vector(values)); }

    std::string piece()
    {
        static const std::vector<std::string> extensions = {
            "jpg",  "jpeg", "JPG", "heic", "tiff", "pdf", "docx", "txt",        "mp4",  "mov", "mp3",
            "opus", "app",  "exe", "EXE",  "part", "tmp", "TMP",  "crdownload", "Part", "env", "download"};
        static const std::vector<std::string> fragments = {
            "report", "invoice", "a", "b",    "JP",   "Pp",   "2024", " ", "-", "\n",
            "\x01",   "\t",      "_", "\xff", "\x80", "ß",    "Σ",    "ς", "σ", "Я",
            "я",      "😀",      "𐐀", "𐐨",    "日本", "part", "e",    "ﬁ", "²"};
        if (randomBelow(m_random, 2) == 0) return oneOf(extensions);
        std::string piece;
        for (size_t count = 1 + randomBelow(m_random, 3); count > 0; --count)
            piece += randomBelow(m_random, 4) == 0 ? accentedLetter() : oneOf(fragments);
        return piece;
    }

    std::string accentedLetter()
    {
        const ComposedLetter letter = oneOf(composedLetters());
        const QString composed = QString::fromUcs4(&letter.composed, 1);
        const QString decomposed =
            QString::fromUcs4(&letter.letter, 1) + QString::fromUcs4(&letter.accent, 1);
        return (randomBelow(m_random, 2) == 0 ? composed : decomposed).toStdString();
    }

    QString value(const QString& name)
    {
        if (randomBelow(m_random, 8) == 0) return {};
        if (randomBelow(m_random, 8) == 0) return QString::fromStdString(piece());
        const QStringList parts = name.split(u'.');
        QString value =
            parts[static_cast<qsizetype>(randomBelow(m_random, static_cast<size_t>(parts.size())))];
        switch (randomBelow(m_random, 8)) {
        case 0:
            return name;
        case 1:
            return value + u'.';
        case 2:
            value = value.toUpper();
            break;
        case 3:
            value = value.toLower();
            break;
        case 4:
            value = value.normalized(QString::NormalizationForm_C);
            break;
        case 5:
            value = value.normalized(QString::NormalizationForm_D);
            break;
        default:
            break;
        }
        return randomBelow(m_random, 2) == 0 ? value : partOf(value);
    }

    QString partOf(const QString& text)
    {
        const QList<uint> codePoints = text.toUcs4();
        const size_t size = static_cast<size_t>(codePoints.size());
        const size_t begin = randomBelow(m_random, size + 1);
        const size_t length = randomBelow(m_random, size - begin + 1);
        const auto* first = reinterpret_cast<const char32_t*>(codePoints.data()) + begin;
        return QString::fromUcs4(first, static_cast<qsizetype>(length));
    }

    std::mt19937 m_random;
};

QString describe(const std::string& name, std::optional<bool> isDirectory, const FilterRule& rule)
{
    return QStringLiteral("name \"%1\", field %2, operator %3, kind %4, value \"%5\", %6 destination, "
                          "directory %7")
        .arg(QString::fromLatin1(QByteArray::fromStdString(name).toPercentEncoding(" ")))
        .arg(static_cast<int>(rule.field))
        .arg(static_cast<int>(rule.operatorType))
        .arg(static_cast<int>(rule.kind))
        .arg(QString::fromLatin1(rule.value.toUtf8().toPercentEncoding(" ")))
        .arg(rule.destination ? QStringLiteral("a") : QStringLiteral("no"))
        .arg(isDirectory ? int(*isDirectory) : -1);
}

QSet<QString> setOf(std::span<const QStringView> extensions)
{
    QSet<QString> set;
    for (const QStringView extension : extensions)
        set.insert(extension.toString());
    return set;
}

} // namespace

class TestRuleMatching : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // What the kinds are.
    void imageExtensionsAreExactlyThese();
    void documentExtensionsAreExactlyThese();
    void videoExtensionsAreExactlyThese();
    void audioExtensionsAreExactlyThese();
    void applicationExtensionsAreExactlyThese();
    void everyKindTakesItsExtensionsInAnyLetterCaseAndNoOthers();

    // How a name is split.
    void splitAtEveryDotWithEmptyPiecesOmitted();
    void dotsOnlyHaveNoPieces();
    void pathExtension_data();
    void pathExtension();

    // Values and text tests.
    void nameRuleTestsOnlyWhatStandsBeforeTheFirstDot();
    void nameContainsIgnoresLetterCase();
    void nameIsRespectsLetterCaseAndTrimsNothing();
    void extensionContainsJpPassesTheNameFilterForJpgButDoesNotMatch();
    void extensionIsUpperCaseJpgNeverTakesAnything();
    void extensionIsLowerCaseJpgDoesNotTakeUpperCaseName();
    void extensionContainsLowerCaseJpgTakesUpperCaseName();
    void extensionValueWithADotTakesNothing();
    void extensionFilterTestsTheLastPieceOfANameWithoutExtension();
    void emptyExtensionValueTakesOnlyWhatHasNoExtension();
    void emptyNameValueTakesEverythingButPartialDownloads();
    void dotsOnlyPassNoTextTest();
    void ruleWithoutDestinationTakesNothing();

    // Kinds and partial downloads.
    void kindIgnoresTheValue();
    void kindIgnoresTheOperator();
    void kindFolderTakesAnApplicationBundle();
    void kindApplicationTakesAnApplicationBundle();
    void kindFolderTakesWhatIsADirectoryAndNothingElse();
    void partialDownloadIsTakenByNoRule();
    void partialDownloadIsTakenOnceItHasItsFinalName();
    void onlyTheLastExtensionMakesAPartialDownload();
    void namesOfOneDownloadHaveTheSameBase_data();
    void namesOfOneDownloadHaveTheSameBase();

    // Unusual text.
    void controlCharactersAreOrdinary();
    void invalidUtf8TakesPartAsReplacementCharacters();
    void longestNameIsTaken();
    void composedValueFindsDecomposedName();
    void decomposedValueFindsComposedName();
    void extensionsAreComparedUnderCanonicalEquivalence();
    void singleCharactersThatAreCanonicallyOthersAreFound();
    void compatibleCharactersAreOthers();
    void accentsAreNotFolded();
    void lettersBeyondAsciiAreFolded();
    void turkishDottedIDoesNotDisturbAscii();
    void sharpSFindsItself();
    void greekFinalSigmaFindsItself();
    void byteOrderMarkIsPartOfTheName();

    void agreesWithTheModelOnRandomRulesAndNames();
};

void TestRuleMatching::imageExtensionsAreExactlyThese()
{
    QCOMPARE(setOf(imageExtensions),
             QSet<QString>({QStringLiteral("jpg"), QStringLiteral("jpeg"), QStringLiteral("png"),
                            QStringLiteral("gif"), QStringLiteral("heic"), QStringLiteral("heif"),
                            QStringLiteral("webp"), QStringLiteral("bmp"), QStringLiteral("tif"),
                            QStringLiteral("tiff"), QStringLiteral("avif")}));
}

void TestRuleMatching::documentExtensionsAreExactlyThese()
{
    QCOMPARE(setOf(documentExtensions),
             QSet<QString>({QStringLiteral("pdf"), QStringLiteral("doc"), QStringLiteral("docx"),
                            QStringLiteral("xls"), QStringLiteral("xlsx"), QStringLiteral("ppt"),
                            QStringLiteral("pptx"), QStringLiteral("txt"), QStringLiteral("rtf")}));
}

void TestRuleMatching::videoExtensionsAreExactlyThese()
{
    QCOMPARE(setOf(videoExtensions),
             QSet<QString>({QStringLiteral("mp4"), QStringLiteral("mov"), QStringLiteral("avi"),
                            QStringLiteral("mkv"), QStringLiteral("flv"), QStringLiteral("wmv"),
                            QStringLiteral("webm")}));
}

void TestRuleMatching::audioExtensionsAreExactlyThese()
{
    QCOMPARE(setOf(audioExtensions),
             QSet<QString>({QStringLiteral("mp3"), QStringLiteral("wav"), QStringLiteral("aac"),
                            QStringLiteral("flac"), QStringLiteral("ogg"), QStringLiteral("m4a"),
                            QStringLiteral("opus"), QStringLiteral("wma"), QStringLiteral("alac"),
                            QStringLiteral("dsd")}));
}

void TestRuleMatching::applicationExtensionsAreExactlyThese()
{
    QCOMPARE(setOf(applicationExtensions), QSet<QString>({QStringLiteral("app"), QStringLiteral("exe")}));
}

void TestRuleMatching::everyKindTakesItsExtensionsInAnyLetterCaseAndNoOthers()
{
    const std::vector<std::pair<RuleKind, QSet<QString>>> sets = {
        {RuleKind::image, setOf(imageExtensions)},
        {RuleKind::video, setOf(videoExtensions)},
        {RuleKind::document, setOf(documentExtensions)},
        {RuleKind::audio, setOf(audioExtensions)},
        {RuleKind::application, setOf(applicationExtensions)}};
    for (const auto& [kind, extensions] : sets) {
        for (const QString& extension : extensions) {
            for (const RuleKind asked : allRuleKinds) {
                QCOMPARE(takes("file." + extension.toStdString(), kindIs(asked)), asked == kind);
                QCOMPARE(takes("file." + extension.toUpper().toStdString(), kindIs(asked)), asked == kind);
                QVERIFY(!takes(extension.toStdString(), kindIs(asked)));
                QVERIFY(!takes("file." + extension.toStdString() + "q", kindIs(asked)));
            }
        }
    }
}

void TestRuleMatching::splitAtEveryDotWithEmptyPiecesOmitted()
{
    QCOMPARE(pieces("report.final.PDF"),
             Pieces({QStringLiteral("report"), QStringLiteral("final"), QStringLiteral("PDF")}));
    QCOMPARE(pieces("README"), Pieces({QStringLiteral("README")}));
    QCOMPARE(pieces(".DS_Store"), Pieces({QStringLiteral("DS_Store")}));
    QCOMPARE(pieces("..a...b.."), Pieces({QStringLiteral("a"), QStringLiteral("b")}));
    QCOMPARE(pieces(" . "), Pieces({QStringLiteral(" "), QStringLiteral(" ")}));

    const SplitName report("report.final.PDF");
    QCOMPARE(report.base.exact, QStringLiteral("report"));
    QCOMPARE(report.tail.exact, QStringLiteral("PDF"));
    QCOMPARE(report.tail.lowerCased, QStringLiteral("pdf"));
    const SplitName readme("README");
    QCOMPARE(readme.base.exact, QStringLiteral("README"));
    QCOMPARE(readme.tail.exact, QStringLiteral("README"));
}

void TestRuleMatching::dotsOnlyHaveNoPieces()
{
    for (const std::string& name :
         {std::string("."), std::string(".."), std::string("..."), std::string(255, '.')}) {
        const SplitName split(name);
        QVERIFY(split.pieces.empty());
        QVERIFY(split.base.exact.isEmpty());
        QVERIFY(split.tail.lowerCased.isEmpty());
    }
}

void TestRuleMatching::pathExtension_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("extension");

    const auto row = [](const char* what, const char* name, const char* extension) {
        QTest::newRow(what) << QByteArray(name) << QByteArray(extension);
    };
    row("one dot", "photo.jpg", "jpg");
    row("letter case is kept", "photo.JPG", "JPG");
    row("the last of several", "archive.tar.gz", "gz");
    row("no dot", "README", "");
    row("hidden file", ".env", "");
    row("hidden file with an extension", ".env.bak", "bak");
    row("dot at the end", "name.", "");
    row("dots at the end", "name..", "");
    row("dots next to each other", "a..b", "b");
    row("dots only", "...", "");
    row("invalid UTF-8 is kept to the byte", "a.\xff\xfe", "\xff\xfe");
    row("newline", "a\n.b\nc", "b\nc");
}

void TestRuleMatching::pathExtension()
{
    QFETCH(const QByteArray, name);
    QFETCH(const QByteArray, extension);
    QCOMPARE(std::string(harbex::pathExtension(name.toStdString())), extension.toStdString());
}

void TestRuleMatching::nameRuleTestsOnlyWhatStandsBeforeTheFirstDot()
{
    QVERIFY(takes("invoice.2024.pdf", nameIs(QStringLiteral("invoice"))));
    QVERIFY(!takes("invoice.2024.pdf", nameIs(QStringLiteral("invoice.2024"))));
    QVERIFY(!takes("invoice.2024.pdf", nameIs(QStringLiteral("invoice.2024.pdf"))));
    QVERIFY(!takes("invoice.2024.pdf", nameContains(QStringLiteral("2024"))));
    QVERIFY(!takes("invoice.2024.pdf", nameContains(QStringLiteral("invoice."))));
    QVERIFY(takes(".invoice.pdf", nameIs(QStringLiteral("invoice"))));
}

void TestRuleMatching::nameContainsIgnoresLetterCase()
{
    QVERIFY(takes("Invoice.pdf", nameContains(QStringLiteral("invoice"))));
    QVERIFY(takes("invoice.pdf", nameContains(QStringLiteral("INVOICE"))));
    QVERIFY(takes("My Invoice 7.pdf", nameContains(QStringLiteral("voice "))));
    QVERIFY(!takes("My Invoice7.pdf", nameContains(QStringLiteral("voice "))));
    QVERIFY(!takes("bill.pdf", nameContains(QStringLiteral("invoice"))));
}

void TestRuleMatching::nameIsRespectsLetterCaseAndTrimsNothing()
{
    QVERIFY(takes("Invoice.pdf", nameIs(QStringLiteral("Invoice"))));
    QVERIFY(!takes("invoice.pdf", nameIs(QStringLiteral("Invoice"))));
    QVERIFY(!takes("Invoices.pdf", nameIs(QStringLiteral("Invoice"))));
    QVERIFY(!takes("Invoice .pdf", nameIs(QStringLiteral("Invoice"))));
    QVERIFY(!takes("Invoice.pdf", nameIs(QStringLiteral(" Invoice"))));
    QVERIFY(takes(" Invoice.pdf", nameIs(QStringLiteral(" Invoice"))));
}

void TestRuleMatching::extensionContainsJpPassesTheNameFilterForJpgButDoesNotMatch()
{
    const FilterRule rule = extensionContains(QStringLiteral("jp"));
    QVERIFY(passes("a.jpg", rule));
    QVERIFY(!matchesOnDisk("a.jpg", rule));
}

void TestRuleMatching::extensionIsUpperCaseJpgNeverTakesAnything()
{
    const FilterRule rule = extensionIs(QStringLiteral("JPG"));
    QVERIFY(passes("a.JPG", rule));
    QVERIFY(!matchesOnDisk("a.JPG", rule));
    QVERIFY(!passes("a.jpg", rule));
    QVERIFY(!matchesOnDisk("a.jpg", rule));
}

void TestRuleMatching::extensionIsLowerCaseJpgDoesNotTakeUpperCaseName()
{
    const FilterRule rule = extensionIs(QStringLiteral("jpg"));
    QVERIFY(takes("a.jpg", rule));
    QVERIFY(!passes("a.JPG", rule));
    QVERIFY(matchesOnDisk("a.JPG", rule));
}

void TestRuleMatching::extensionContainsLowerCaseJpgTakesUpperCaseName()
{
    QVERIFY(takes("a.JPG", extensionContains(QStringLiteral("jpg"))));
    QVERIFY(!takes("a.JPG", extensionContains(QStringLiteral("JPG"))));
}

void TestRuleMatching::extensionValueWithADotTakesNothing()
{
    QVERIFY(!takes("a.jpg", extensionIs(QStringLiteral(".jpg"))));
    QVERIFY(!takes("a.jpg", extensionContains(QStringLiteral(".jpg"))));
    QVERIFY(!takes("a.tar.gz", extensionIs(QStringLiteral("tar.gz"))));
}

void TestRuleMatching::extensionFilterTestsTheLastPieceOfANameWithoutExtension()
{
    for (const auto& [name, piece] :
         {std::pair(".env", QStringLiteral("env")), std::pair("name.", QStringLiteral("name")),
          std::pair("README", QStringLiteral("README"))}) {
        QVERIFY(passes(name, extensionIs(piece)));
        QVERIFY(!matchesOnDisk(name, extensionIs(piece)));
    }
}

void TestRuleMatching::emptyExtensionValueTakesOnlyWhatHasNoExtension()
{
    for (const RuleOperator operatorType : allRuleOperators) {
        const FilterRule rule = ruleFor(RuleField::fileExtension, operatorType, QString());
        QVERIFY(takes("README", rule));
        QVERIFY(takes("Notes", rule, true));
        QVERIFY(takes(".env", rule));
        QVERIFY(takes("name.", rule));
        QVERIFY(takes("...", rule));
        QVERIFY(passes("a.jpg", rule));
        QVERIFY(!takes("a.jpg", rule));
        QVERIFY(!takes("Tool.app", rule, true));
    }
}

void TestRuleMatching::emptyNameValueTakesEverythingButPartialDownloads()
{
    for (const RuleOperator operatorType : allRuleOperators) {
        const FilterRule rule = ruleFor(RuleField::name, operatorType, QString());
        for (const char* name : {"a.jpg", "README", ".DS_Store", "...", " ", "\n", "\xff", "name."}) {
            QVERIFY(takes(name, rule, false));
            QVERIFY(takes(name, rule, true));
            QVERIFY(takes(name, rule, std::nullopt));
        }
        QVERIFY(passes("a.jpg.part", rule));
        QVERIFY(!takes("a.jpg.part", rule));
    }
}

void TestRuleMatching::dotsOnlyPassNoTextTest()
{
    for (const std::string& name : {std::string("..."), std::string("...."), std::string(255, '.')}) {
        for (const QString& value : {QStringLiteral("."), QStringLiteral("..."), QStringLiteral("a")}) {
            QVERIFY(!passes(name, nameIs(value)));
            QVERIFY(!passes(name, nameContains(value)));
            QVERIFY(!passes(name, extensionIs(value)));
            QVERIFY(!passes(name, extensionContains(value)));
        }
        QVERIFY(takes(name, kindIs(RuleKind::folder, QStringLiteral("a")), true));
        QVERIFY(!takes(name, kindIs(RuleKind::image)));
    }
}

void TestRuleMatching::ruleWithoutDestinationTakesNothing()
{
    for (const std::string& name : {std::string("a.jpg"), std::string("Notes"), std::string("...")}) {
        for (FilterRule rule : rulesThatFit(name)) {
            rule.destination.reset();
            QVERIFY(!passes(name, rule));
        }
    }
}

void TestRuleMatching::kindIgnoresTheValue()
{
    QVERIFY(takes("a.jpg", kindIs(RuleKind::image, QStringLiteral("something else"))));
    QVERIFY(takes("a.jpg", kindIs(RuleKind::image, QStringLiteral("pdf"))));
    QVERIFY(!takes("a.jpg", kindIs(RuleKind::document, QStringLiteral("jpg"))));
}

void TestRuleMatching::kindIgnoresTheOperator()
{
    FilterRule rule = kindIs(RuleKind::image, QStringLiteral("something else"));
    rule.operatorType = RuleOperator::isEqual;
    QVERIFY(takes("a.jpg", rule));
}

void TestRuleMatching::kindFolderTakesAnApplicationBundle()
{
    QVERIFY(takes("Tool.app", kindIs(RuleKind::folder), true));
    QVERIFY(takes("Holiday.jpg", kindIs(RuleKind::folder), true));
}

void TestRuleMatching::kindApplicationTakesAnApplicationBundle()
{
    QVERIFY(takes("Tool.app", kindIs(RuleKind::application), true));
    QVERIFY(takes("Tool.app", kindIs(RuleKind::application), false));
    QVERIFY(takes("Tool.app", kindIs(RuleKind::application), std::nullopt));
}

void TestRuleMatching::kindFolderTakesWhatIsADirectoryAndNothingElse()
{
    QVERIFY(takes("Notes", kindIs(RuleKind::folder), true));
    QVERIFY(!takes("Notes", kindIs(RuleKind::folder), false));
    QVERIFY(!takes("Notes", kindIs(RuleKind::folder), std::nullopt));
    QVERIFY(takes("Holiday.jpg", kindIs(RuleKind::image), true));
}

void TestRuleMatching::partialDownloadIsTakenByNoRule()
{
    for (const std::string& name :
         {std::string("movie.mp4.crdownload"), std::string("movie.mp4.download"), std::string("movie.part"),
          std::string("movie.tmp"), std::string("movie.MP4.CrDownload"), std::string("movie.PART"),
          std::string(".movie.tmp"), std::string("movie\xff.gqqRF_r1.mp4.Part")}) {
        for (const FilterRule& rule : rulesThatFit(name)) {
            QVERIFY(!takes(name, rule, false));
            QVERIFY(!takes(name, rule, true));
        }
    }
}

void TestRuleMatching::partialDownloadIsTakenOnceItHasItsFinalName()
{
    QVERIFY(!takes("movie.mp4.crdownload", kindIs(RuleKind::video)));
    QVERIFY(takes("movie.mp4", kindIs(RuleKind::video)));
    QVERIFY(!takes("movie.mp4.crdownload", nameIs(QStringLiteral("movie"))));
    QVERIFY(takes("movie.mp4", nameIs(QStringLiteral("movie"))));
}

void TestRuleMatching::onlyTheLastExtensionMakesAPartialDownload()
{
    for (const char* name : {"part", ".tmp", "download.", "a.part.txt", "a.parts", "a.apart", "a.tmp ",
                             "a.\xd0\xa0\xd0\x90RT", "a.par\xff"})
        QVERIFY2(takes(name, nameContains(QString())), name);
}

void TestRuleMatching::namesOfOneDownloadHaveTheSameBase_data()
{
    QTest::addColumn<std::string>("name");
    QTest::addColumn<std::string>("base");
    const auto row = [](const char* name, const char* base) {
        QTest::newRow(name) << std::string(name) << std::string(base);
    };
    row("film.mp4", "film");
    row("film.gqqRF_r1.mp4.part", "film");
    row("film.tar.gz", "film");
    row("film", "film");
    row("film.", "film");
    row("Film.mp4", "Film");
    row(".film.part", "");
    row("fi lm\xff.mp4", "fi lm\xff");
    row("", "");
}

void TestRuleMatching::namesOfOneDownloadHaveTheSameBase()
{
    QFETCH(const std::string, name);
    QFETCH(const std::string, base);
    QCOMPARE(std::string(downloadBase(name)), base);
}

void TestRuleMatching::controlCharactersAreOrdinary()
{
    QVERIFY(takes("a\nb.jpg", nameIs(QStringLiteral("a\nb"))));
    QVERIFY(takes("a\nb.jpg", nameContains(QStringLiteral("\nB"))));
    QVERIFY(takes("a\nb.jpg", kindIs(RuleKind::image)));
    QVERIFY(!takes("a\nb.jpg", nameContains(QStringLiteral("ab"))));
    QVERIFY(takes("\x01\x1b[31m\x7f.jpg", nameIs(QStringLiteral("\x01\x1b[31m\x7f"))));
    QVERIFY(!takes("a.jpg\n", kindIs(RuleKind::image)));
    QVERIFY(takes("a.jpg\n", extensionIs(QStringLiteral("jpg\n"))));
}

void TestRuleMatching::invalidUtf8TakesPartAsReplacementCharacters()
{
    QVERIFY(takes("\xff\xfe.jpg", kindIs(RuleKind::image)));
    QVERIFY(takes("invoice\xff.jpg", nameContains(QStringLiteral("Invoice"))));
    QVERIFY(takes("a\xff.jpg", nameIs(QStringLiteral("a\ufffd"))));
    QVERIFY(!takes("a\xff.jpg", nameIs(QStringLiteral("a"))));
    QVERIFY(!takes("a.jpg\xff", kindIs(RuleKind::image)));
    QVERIFY(!takes("a.jp\xc3", extensionIs(QStringLiteral("jp"))));
    // The end of a letter is cut off by the dot.
    QVERIFY(takes("a\xe2\x82.jpg", extensionIs(QStringLiteral("jpg"))));
}

void TestRuleMatching::longestNameIsTaken()
{
    const std::string name = std::string(251, 'X') + ".jpg";
    QVERIFY(takes(name, kindIs(RuleKind::image)));
    QVERIFY(takes(name, nameIs(QString(251, u'X'))));
    QVERIFY(takes(name, nameContains(QString(251, u'x'))));
    QVERIFY(!takes(name, nameContains(QString(252, u'x'))));
    QCOMPARE(pieces("a" + std::string(253, '.') + "b").size(), size_t(2));
}

void TestRuleMatching::composedValueFindsDecomposedName()
{
    QVERIFY(takes("Cafe\u0301 Noir.pdf", nameContains(QStringLiteral("caf\u00e9"))));
    QVERIFY(takes("Cafe\u0301 Noir.pdf", nameContains(QStringLiteral("CAF\u00c9 n"))));
    QVERIFY(takes("Cafe\u0301.pdf", nameIs(QStringLiteral("Caf\u00e9"))));
    QVERIFY(!takes("Cafe\u0301.pdf", nameIs(QStringLiteral("caf\u00e9"))));
}

void TestRuleMatching::decomposedValueFindsComposedName()
{
    QVERIFY(takes("Caf\u00e9 Noir.pdf", nameContains(QStringLiteral("cafe\u0301"))));
    QVERIFY(takes("CAF\u00c9.pdf", nameContains(QStringLiteral("cafe\u0301"))));
    QVERIFY(takes("Caf\u00e9.pdf", nameIs(QStringLiteral("Cafe\u0301"))));
    QVERIFY(!takes("CAF\u00c9.pdf", nameIs(QStringLiteral("Cafe\u0301"))));
}

void TestRuleMatching::extensionsAreComparedUnderCanonicalEquivalence()
{
    QVERIFY(takes("a.re\u0301sume\u0301", extensionIs(QStringLiteral("r\u00e9sum\u00e9"))));
    QVERIFY(takes("a.r\u00e9sum\u00e9", extensionIs(QStringLiteral("re\u0301sume\u0301"))));
    QVERIFY(takes("a.RE\u0301SUME\u0301", extensionContains(QStringLiteral("r\u00e9sum\u00e9"))));
    QVERIFY(!takes("a.resume", extensionIs(QStringLiteral("r\u00e9sum\u00e9"))));
}

void TestRuleMatching::singleCharactersThatAreCanonicallyOthersAreFound()
{
    // KELVIN SIGN is a K, ANGSTROM SIGN an A with a ring.
    QVERIFY(takes("\u212aey.pdf", nameIs(QStringLiteral("Key"))));
    QVERIFY(takes("key.pdf", nameContains(QStringLiteral("\u212aey"))));
    QVERIFY(takes("\u212b.pdf", nameIs(QStringLiteral("\u00c5"))));
    QVERIFY(takes("\u212b.pdf", nameIs(QStringLiteral("A\u030a"))));
    // Marks of different classes may stand in any order.
    QVERIFY(takes("q\u0323\u0307.pdf", nameIs(QStringLiteral("q\u0307\u0323"))));
}

void TestRuleMatching::compatibleCharactersAreOthers()
{
    // A ligature, a letter of full width, a dot that is none of ASCII's.
    QVERIFY(!takes("\ufb01le.pdf", nameContains(QStringLiteral("file"))));
    QVERIFY(takes("\ufb01le.pdf", nameIs(QStringLiteral("\ufb01le"))));
    QVERIFY(!takes("a.\uff4apg", kindIs(RuleKind::image)));
    QCOMPARE(pieces("a\u2024jpg").size(), size_t(1));
}

void TestRuleMatching::accentsAreNotFolded()
{
    QVERIFY(!takes("Caf\u00e9.pdf", nameContains(QStringLiteral("cafe"))));
    QVERIFY(!takes("Cafe\u0301.pdf", nameContains(QStringLiteral("cafe"))));
    QVERIFY(!takes("Cafe.pdf", nameContains(QStringLiteral("caf\u00e9"))));
}

void TestRuleMatching::lettersBeyondAsciiAreFolded()
{
    QVERIFY(takes("\u00dcBERSICHT.pdf", nameContains(QStringLiteral("\u00fcbersicht"))));
    QVERIFY(takes("\u041e\u0442\u0447\u0451\u0442.pdf", nameContains(QStringLiteral("\u041e\u0422\u0427"))));
    QVERIFY(takes("\U00010400.pdf", nameContains(QStringLiteral("\U00010428"))));
    QVERIFY(!takes("\U00010400.pdf", nameIs(QStringLiteral("\U00010428"))));
}

void TestRuleMatching::turkishDottedIDoesNotDisturbAscii()
{
    QLocale::setDefault(QLocale(QLocale::Turkish));
    QVERIFY(takes("ISTANBUL.pdf", nameContains(QStringLiteral("istanbul"))));
    QVERIFY(takes("istanbul.pdf", nameContains(QStringLiteral("ISTANBUL"))));
    QVERIFY(takes("a.TIFF", kindIs(RuleKind::image)));
    QVERIFY(takes("\u0130stanbul.pdf", nameContains(QStringLiteral("\u0130STANBUL"))));
    QVERIFY(takes("\u0130stanbul.pdf", nameContains(QStringLiteral("STANBUL"))));
    QVERIFY(takes("\u0130.pdf", nameIs(QStringLiteral("I\u0307"))));
    QVERIFY(takes("\u0131.pdf", nameContains(QStringLiteral("\u0131"))));
    QVERIFY(!takes("a.T\u0130FF", kindIs(RuleKind::image)));
    QLocale::setDefault(QLocale::c());
}

void TestRuleMatching::sharpSFindsItself()
{
    QVERIFY(takes("Stra\u00dfe.pdf", nameContains(QStringLiteral("STRA\u00dfE"))));
    QVERIFY(takes("Stra\u00dfe.pdf", nameIs(QStringLiteral("Stra\u00dfe"))));
    QVERIFY(!takes("Stra\u00dfe.pdf", nameIs(QStringLiteral("Strasse"))));
    QVERIFY(takes("STRA\u1e9eE.pdf", nameContains(QStringLiteral("stra\u1e9ee"))));
}

void TestRuleMatching::greekFinalSigmaFindsItself()
{
    const QString street = QStringLiteral("\u039f\u0394\u039f\u03a3");
    QVERIFY(takes(street.toStdString() + ".pdf", nameContains(street)));
    QVERIFY(takes(street.toStdString() + " A.pdf", nameContains(street + QStringLiteral(" a"))));
    QVERIFY(takes("\u03c2.pdf", nameContains(QStringLiteral("\u03c2"))));
    QVERIFY(takes("\u03c2.pdf", nameIs(QStringLiteral("\u03c2"))));
}

void TestRuleMatching::byteOrderMarkIsPartOfTheName()
{
    QVERIFY(takes("\ufeffinvoice.jpg", nameIs(QStringLiteral("\ufeffinvoice"))));
    QVERIFY(!takes("\ufeffinvoice.jpg", nameIs(QStringLiteral("invoice"))));
    QCOMPARE(pieces("\ufeff.jpg").size(), size_t(2));
}

void TestRuleMatching::agreesWithTheModelOnRandomRulesAndNames()
{
    RandomPairs pairs;
    int taken = 0;
    int stoppedByNameFilter = 0;
    int stoppedOnDisk = 0;
    for (int i = 0; i < 60'000; ++i) {
        const std::string name = pairs.name();
        const FilterRule rule = pairs.rule(name);
        const std::optional<bool> isDirectory = pairs.isDirectory();
        const QByteArray what = describe(name, isDirectory, rule).toUtf8();

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

HARBEX_TEST_MAIN(TestRuleMatching)

#include "tst_RuleMatching.moc"
