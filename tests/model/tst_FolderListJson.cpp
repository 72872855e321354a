#include "model/FolderListJson.h"
#include "support/RandomSeed.h"
#include "support/TestMain.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <algorithm>
#include <functional>
#include <utility>

using namespace harbex;
using namespace harbex::test;

namespace
{

const char* const folderID = "0F8E6C1A-1111-4222-8333-ABCDEFABCDEF";
const char* const ruleID = "2B5F0C11-AAAA-4BBB-9CCC-0123456789AB";

QString text(const char* utf8)
{
    return QString::fromUtf8(utf8);
}

/// The JSON of a rule that has every key.
QJsonObject ruleObject()
{
    return {{text("id"), text(ruleID)},
            {text("field"), text("Extension")},
            {text("operatorType"), text("is")},
            {text("value"), text("pdf")},
            {text("destination"), text("file:///home/u/Documents")},
            {text("destinationBookmarkData"), text("AAEC/w==")},
            {text("kind"), text("Application")}};
}

/// The JSON of a folder that has every key and the rule above.
QJsonObject folderObject()
{
    return {{text("id"), text(folderID)},
            {text("url"), text("file:///home/u/Downloads")},
            {text("bookmarkData"), text("/+8=")},
            {text("rules"), QJsonArray{ruleObject()}}};
}

QByteArray listOf(const QJsonObject& folder)
{
    return QJsonDocument(QJsonArray{folder}).toJson(QJsonDocument::Compact);
}

QByteArray listWithRule(const QJsonObject& rule)
{
    QJsonObject folder = folderObject();
    folder.insert(text("rules"), QJsonArray{rule});
    return listOf(folder);
}

/// The list whose only rule has these bytes, JSON or not, as the value of `value`.
QByteArray listWithRuleValue(const QByteArray& json)
{
    QJsonObject rule = ruleObject();
    rule.insert(text("value"), text("HERE"));
    return listWithRule(rule).replace("\"HERE\"", json);
}

/// From and to the text, as it is stored.
Outcome<QByteArray, JsonError> encode(const std::vector<WatchedFolder>& folders)
{
    const auto list = encodeFolderList(folders);
    if (!list) return list.error();
    return QJsonDocument(*list).toJson(QJsonDocument::Compact);
}
Outcome<std::vector<WatchedFolder>, JsonError> decode(const QByteArray& text)
{
    const auto json = parseJson(text);
    if (!json) return json.error();
    return decodeFolderList(*json);
}

/// Why it does not decode; empty when it does.
QString decodingError(const QByteArray& json)
{
    const auto decoded = decode(json);
    return decoded ? QString() : decoded.error().description;
}

std::vector<WatchedFolder> decoded(const QByteArray& json)
{
    auto folders = decode(json);
    if (folders) return *std::move(folders);
    qWarning("%s", qPrintable(folders.error().description));
    return {};
}

QJsonArray encoded(const std::vector<WatchedFolder>& folders)
{
    const auto json = encodeFolderList(folders);
    return json ? *json : QJsonArray{text("does not encode")};
}

WatchedFolder folderWith(std::vector<FilterRule> rules)
{
    return {.url = FileUrl::fromPath("/home/u/Downloads"), .bookmarkData = {}, .rules = std::move(rules)};
}

bool isSameFolder(const WatchedFolder& a, const WatchedFolder& b)
{
    return a.id == b.id && a.url == b.url && a.bookmarkData == b.bookmarkData && a.rules == b.rules;
}

bool isOneLine(const QString& text)
{
    return !text.isEmpty() &&
           std::ranges::none_of(text, [](QChar c) { return c.category() == QChar::Other_Control; });
}

} // namespace

class TestFolderListJson : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Encoding.
    void newRuleEncodesToExactlyFiveKeys();
    void fullRuleEncodesToSevenKeys();
    void folderWithoutBookmarkEncodesToThreeKeys();
    void emptyListEncodesToAnEmptyArray();
    void orderOfFoldersAndRulesIsKept();
    void uuidsAreWrittenInUpperCase();
    void bookmarksAreWrittenAsPaddedBase64();
    void loneSurrogateInAValueDoesNotEncode();

    // Decoding of single keys.
    void fullListDecodes();
    void ruleWithoutDestinationDecodes();
    void nullForAnOptionalKeyIsAbsent();
    void emptyBookmarkIsPresent();
    void ruleWithoutKindFailsEvenWhenItsFieldIsName();
    void missingRequiredKeyFails_data();
    void missingRequiredKeyFails();
    void nullForARequiredKeyFails_data();
    void nullForARequiredKeyFails();
    void wrongJsonTypeFails_data();
    void wrongJsonTypeFails();
    void operatorIsEqualFailsAndIsDecodes();
    void lowerCaseFieldNameFailsAndNameDecodes();
    void unknownRawValueFails();
    void emptyOrUnparsableUrlFails();
    void urlWithAnyByteComesBack();
    void invalidBase64Fails_data();
    void invalidBase64Fails();
    void loneSurrogateInAValueDoesNotDecode();
    void valueMayHoldAnyUnicodeText();
    void unknownKeysAreIgnored();
    void firstFailureInTheOrderOfTheKeysIsReported();
    void oneBadRuleFailsTheWholeList();
    void errorsAreOneLine();

    // UUIDs.
    void uuidIsReadInEitherCase();
    void allZeroUuidIsValid();
    void onlyThe36CharacterFormIsAUuid_data();
    void onlyThe36CharacterFormIsAUuid();

    // Texts that are no list.
    void topLevelMustBeAnArray();
    void textThatIsNoJsonIsReportedWithItsOffset();
    void cutTextFailsAtEveryLength();
    void byteOrderMarkDoesNotCrash();
    void deepNestingDoesNotCrash();
    void hugeNumbersDoNotCrash();
    void duplicateKeysGiveOneOfTheValues();
    void invalidUtf8Fails();

    // At random.
    void randomListsComeBackUnchanged();
    void mutatedTextsNeverCrash();
};

void TestFolderListJson::newRuleEncodesToExactlyFiveKeys()
{
    const FilterRule rule;
    const QJsonObject object = encoded({folderWith({rule})})[0][text("rules")][0].toObject();
    QCOMPARE(object, (QJsonObject{{text("id"), uuidText(rule.id)},
                                  {text("field"), text("Name")},
                                  {text("operatorType"), text("contains")},
                                  {text("value"), text("")},
                                  {text("kind"), text("Image")}}));
}

void TestFolderListJson::fullRuleEncodesToSevenKeys()
{
    FilterRule rule;
    rule.id = QUuid(text(ruleID));
    rule.field = RuleField::fileExtension;
    rule.operatorType = RuleOperator::isEqual;
    rule.value = text("pdf");
    rule.destination = FileUrl::fromPath("/home/u/Documents");
    rule.destinationBookmarkData = QByteArray::fromHex("000102ff");
    rule.kind = RuleKind::application;
    QCOMPARE(encoded({folderWith({rule})})[0][text("rules")][0].toObject(), ruleObject());
}

void TestFolderListJson::folderWithoutBookmarkEncodesToThreeKeys()
{
    const WatchedFolder folder = folderWith({});
    QCOMPARE(encoded({folder})[0].toObject(), (QJsonObject{{text("id"), uuidText(folder.id)},
                                                           {text("url"), text("file:///home/u/Downloads")},
                                                           {text("rules"), QJsonArray()}}));
}

void TestFolderListJson::emptyListEncodesToAnEmptyArray()
{
    const auto json = encode({});
    QVERIFY(json);
    QCOMPARE(*json, QByteArray("[]"));
    QCOMPARE(decodingError("[]"), QString());
    QCOMPARE(decoded("[]").size(), size_t(0));
}

void TestFolderListJson::orderOfFoldersAndRulesIsKept()
{
    std::vector<WatchedFolder> folders;
    folders.reserve(20);
    for (int i = 0; i < 20; ++i)
        folders.push_back(folderWith({FilterRule(), FilterRule(), FilterRule()}));
    const auto json = encode(folders);
    QVERIFY(json);
    const auto read = decoded(*json);
    QCOMPARE(read.size(), folders.size());
    for (size_t i = 0; i < folders.size(); ++i)
        QVERIFY(isSameFolder(read[i], folders[i]));
}

void TestFolderListJson::uuidsAreWrittenInUpperCase()
{
    WatchedFolder folder = folderWith({});
    folder.id = QUuid(text(folderID).toLower());
    QCOMPARE(encoded({folder})[0][text("id")].toString(), text(folderID));
    QCOMPARE(uuidText(QUuid()), text("00000000-0000-0000-0000-000000000000"));
}

void TestFolderListJson::bookmarksAreWrittenAsPaddedBase64()
{
    WatchedFolder folder = folderWith({});
    folder.bookmarkData = QByteArray::fromHex("fbeffe");
    QCOMPARE(encoded({folder})[0][text("bookmarkData")].toString(), text("++/+"));
    folder.bookmarkData = QByteArray::fromHex("00");
    QCOMPARE(encoded({folder})[0][text("bookmarkData")].toString(), text("AA=="));
    folder.bookmarkData = QByteArray();
    QCOMPARE(encoded({folder})[0][text("bookmarkData")], QJsonValue(text("")));
}

void TestFolderListJson::loneSurrogateInAValueDoesNotEncode()
{
    FilterRule good;
    good.value = text("\U0001F600");
    QVERIFY(encode({folderWith({good})}));
    for (const QString& value : {QString(QChar(0xd83d)), text("a") + QChar(0xde00) + text("b"),
                                 text("\U0001F600") + QChar(0xd83d)}) {
        FilterRule bad;
        bad.value = value;
        const auto json = encode({folderWith({}), folderWith({good, bad})});
        QVERIFY(!json);
        QCOMPARE(json.error().description, text("[1].rules[1].value: no Unicode text"));
    }
}

void TestFolderListJson::fullListDecodes()
{
    const auto folders = decoded(listOf(folderObject()));
    QCOMPARE(folders.size(), size_t(1));
    const WatchedFolder& folder = folders.front();
    QCOMPARE(folder.id, QUuid(text(folderID)));
    QCOMPARE(folder.url.absoluteString(), text("file:///home/u/Downloads"));
    QVERIFY(folder.bookmarkData == QByteArray::fromHex("ffef"));
    QCOMPARE(folder.rules.size(), size_t(1));
    const FilterRule& rule = folder.rules.front();
    QCOMPARE(rule.id, QUuid(text(ruleID)));
    QVERIFY(rule.field == RuleField::fileExtension);
    QVERIFY(rule.operatorType == RuleOperator::isEqual);
    QCOMPARE(rule.value, text("pdf"));
    QVERIFY(rule.destination == FileUrl::fromPath("/home/u/Documents"));
    QVERIFY(rule.destinationBookmarkData == QByteArray::fromHex("000102ff"));
    QVERIFY(rule.kind == RuleKind::application);
}

void TestFolderListJson::ruleWithoutDestinationDecodes()
{
    QJsonObject rule = ruleObject();
    rule.remove(text("destination"));
    rule.remove(text("destinationBookmarkData"));
    QJsonObject folder = folderObject();
    folder.remove(text("bookmarkData"));
    folder.insert(text("rules"), QJsonArray{rule});
    const auto folders = decoded(listOf(folder));
    QCOMPARE(folders.size(), size_t(1));
    QVERIFY(!folders[0].bookmarkData);
    QVERIFY(!folders[0].rules[0].destination);
    QVERIFY(!folders[0].rules[0].destinationBookmarkData);
}

void TestFolderListJson::nullForAnOptionalKeyIsAbsent()
{
    QJsonObject rule = ruleObject();
    rule.insert(text("destination"), QJsonValue::Null);
    rule.insert(text("destinationBookmarkData"), QJsonValue::Null);
    QJsonObject folder = folderObject();
    folder.insert(text("bookmarkData"), QJsonValue::Null);
    folder.insert(text("rules"), QJsonArray{rule});
    const auto folders = decoded(listOf(folder));
    QCOMPARE(folders.size(), size_t(1));
    QVERIFY(!folders[0].bookmarkData);
    QVERIFY(!folders[0].rules[0].destination);
    QVERIFY(!folders[0].rules[0].destinationBookmarkData);
}

void TestFolderListJson::emptyBookmarkIsPresent()
{
    QJsonObject folder = folderObject();
    folder.insert(text("bookmarkData"), text(""));
    const auto folders = decoded(listOf(folder));
    QCOMPARE(folders.size(), size_t(1));
    QVERIFY(folders[0].bookmarkData == QByteArray());
}

void TestFolderListJson::ruleWithoutKindFailsEvenWhenItsFieldIsName()
{
    QJsonObject rule = ruleObject();
    rule.insert(text("field"), text("Name"));
    QCOMPARE(decodingError(listWithRule(rule)), QString());
    rule.remove(text("kind"));
    QCOMPARE(decodingError(listWithRule(rule)), text("[0].rules[0].kind: missing key"));
}

namespace
{

void addRequiredKeys()
{
    QTest::addColumn<bool>("isOfRule");
    QTest::addColumn<QString>("key");
    for (const char* key : {"id", "url", "rules"})
        QTest::addRow("folder %s", key) << false << text(key);
    for (const char* key : {"id", "field", "operatorType", "value", "kind"})
        QTest::addRow("rule %s", key) << true << text(key);
}

/// The list with one key of its folder or of its rule changed.
QByteArray changed(bool isOfRule, const std::function<void(QJsonObject&)>& change)
{
    QJsonObject object = isOfRule ? ruleObject() : folderObject();
    change(object);
    return isOfRule ? listWithRule(object) : listOf(object);
}

QString placeOf(bool isOfRule, const QString& key)
{
    return text(isOfRule ? "[0].rules[0]." : "[0].") + key;
}

} // namespace

void TestFolderListJson::missingRequiredKeyFails_data()
{
    addRequiredKeys();
}

void TestFolderListJson::missingRequiredKeyFails()
{
    QFETCH(const bool, isOfRule);
    QFETCH(const QString, key);
    const QByteArray json = changed(isOfRule, [&key](QJsonObject& object) { object.remove(key); });
    QCOMPARE(decodingError(json), placeOf(isOfRule, key) + text(": missing key"));
}

void TestFolderListJson::nullForARequiredKeyFails_data()
{
    addRequiredKeys();
}

void TestFolderListJson::nullForARequiredKeyFails()
{
    QFETCH(const bool, isOfRule);
    QFETCH(const QString, key);
    const QByteArray json =
        changed(isOfRule, [&key](QJsonObject& object) { object.insert(key, QJsonValue::Null); });
    QCOMPARE(decodingError(json),
             placeOf(isOfRule, key) +
                 text(key == text("rules") ? ": expected an array" : ": expected a string"));
}

void TestFolderListJson::wrongJsonTypeFails_data()
{
    QTest::addColumn<bool>("isOfRule");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QJsonValue>("value");
    const auto rows = [](bool isOfRule, const QJsonObject& object) {
        for (const QString& key : object.keys()) {
            const char* const owner = isOfRule ? "rule" : "folder";
            const auto row = [&](const char* type, const QJsonValue& value) {
                QTest::addRow("%s %s %s", owner, qPrintable(key), type) << isOfRule << key << value;
            };
            row("number", 1);
            row("true", true);
            row("object", QJsonObject());
            if (key == text("rules"))
                row("string", text("[]"));
            else
                row("array", QJsonArray());
        }
    };
    rows(false, folderObject());
    rows(true, ruleObject());
}

void TestFolderListJson::wrongJsonTypeFails()
{
    QFETCH(const bool, isOfRule);
    QFETCH(const QString, key);
    QFETCH(const QJsonValue, value);
    const QByteArray json = changed(isOfRule, [&](QJsonObject& object) { object.insert(key, value); });
    QCOMPARE(decodingError(json),
             placeOf(isOfRule, key) +
                 text(key == text("rules") ? ": expected an array" : ": expected a string"));
}

void TestFolderListJson::operatorIsEqualFailsAndIsDecodes()
{
    QJsonObject rule = ruleObject();
    rule.insert(text("operatorType"), text("isEqual"));
    QCOMPARE(decodingError(listWithRule(rule)), text("[0].rules[0].operatorType: unknown value \"isEqual\""));
    rule.insert(text("operatorType"), text("is"));
    QVERIFY(decoded(listWithRule(rule)).at(0).rules[0].operatorType == RuleOperator::isEqual);
}

void TestFolderListJson::lowerCaseFieldNameFailsAndNameDecodes()
{
    QJsonObject rule = ruleObject();
    rule.insert(text("field"), text("name"));
    QCOMPARE(decodingError(listWithRule(rule)), text("[0].rules[0].field: unknown value \"name\""));
    rule.insert(text("field"), text("Name"));
    QVERIFY(decoded(listWithRule(rule)).at(0).rules[0].field == RuleField::name);
}

void TestFolderListJson::unknownRawValueFails()
{
    QJsonObject rule = ruleObject();
    rule.insert(text("kind"), text("Pictures"));
    QJsonObject folder = folderObject();
    folder.insert(text("rules"), QJsonArray{ruleObject(), rule});
    const QByteArray json =
        QJsonDocument(QJsonArray{folderObject(), folderObject(), folder}).toJson(QJsonDocument::Indented);
    QCOMPARE(decodingError(json), text("[2].rules[1].kind: unknown value \"Pictures\""));
}

void TestFolderListJson::emptyOrUnparsableUrlFails()
{
    for (const char* url : {"", "file:///a b", "file:///a%", "file:///a\nb"}) {
        QJsonObject folder = folderObject();
        folder.insert(text("url"), text(url));
        QVERIFY2(decodingError(listOf(folder)).startsWith(text("[0].url: no URL ")), url);
        QJsonObject rule = ruleObject();
        rule.insert(text("destination"), text(url));
        QVERIFY2(decodingError(listWithRule(rule)).startsWith(text("[0].rules[0].destination: no URL ")),
                 url);
    }
}

void TestFolderListJson::urlWithAnyByteComesBack()
{
    std::string path = "/";
    for (int byte = 1; byte < 256; ++byte)
        path += static_cast<char>(byte);
    WatchedFolder folder = folderWith({});
    folder.url = FileUrl::fromPath(path);
    const auto json = encode({folder});
    QVERIFY(json);
    QCOMPARE(decoded(*json).at(0).url.path(), path);

    QJsonObject object = folderObject();
    object.insert(text("url"), text("file:///%61%c3%A9/"));
    QCOMPARE(encoded(decoded(listOf(object)))[0][text("url")].toString(), text("file:///%61%c3%A9/"));
}

void TestFolderListJson::invalidBase64Fails_data()
{
    QTest::addColumn<QString>("base64");
    QTest::newRow("no padding") << text("AA");
    QTest::newRow("half of the padding") << text("AA=");
    QTest::newRow("too much padding") << text("AAA==");
    QTest::newRow("padding alone") << text("====");
    QTest::newRow("one character") << text("A");
    QTest::newRow("alphabet of URLs") << text("-_-_");
    QTest::newRow("space") << text("AAAA AAAA");
    QTest::newRow("line end") << text("AAAA\n");
    QTest::newRow("text after the padding") << text("AA==AAAA");
    QTest::newRow("stray bits") << text("AB==");
    QTest::newRow("beyond ASCII") << text("AAA\u00e9");
    QTest::newRow("beyond Latin-1") << text("AAA\u0141");
    QTest::newRow("NUL") << text("AAA") + QChar(u'\0');
    QTest::newRow("no Base64 at all") << text("{}");
}

void TestFolderListJson::invalidBase64Fails()
{
    QFETCH(const QString, base64);
    QJsonObject folder = folderObject();
    folder.insert(text("bookmarkData"), base64);
    QVERIFY(decodingError(listOf(folder)).startsWith(text("[0].bookmarkData: no Base64 \"")));
    QJsonObject rule = ruleObject();
    rule.insert(text("destinationBookmarkData"), base64);
    QVERIFY(decodingError(listWithRule(rule))
                .startsWith(text("[0].rules[0].destinationBookmarkData: no Base64 \"")));
}

void TestFolderListJson::loneSurrogateInAValueDoesNotDecode()
{
    QCOMPARE(decoded(listWithRuleValue("\"\\ud83d\\ude00\"")).at(0).rules[0].value, text("\U0001F600"));
    for (const char* value : {"\"\\ud83d\"", "\"\\ude00\"", "\"\\ude00\\ud83d\"", "\"a\\ud83db\""})
        QCOMPARE(decodingError(listWithRuleValue(value)), text("[0].rules[0].value: no Unicode text"));
}

void TestFolderListJson::valueMayHoldAnyUnicodeText()
{
    const QString values[] = {text("\"\\/\b\f\n\r\t\x01\x7f"), QString(QChar(u'\0')) + text("a"),
                              text("\u2028\u202e\ufeff\uffff"), text("e\u0301 \u00e9 \U0010FFFF"),
                              QString(100'000, u'\u00e9')};
    for (const QString& value : values) {
        FilterRule rule;
        rule.value = value;
        const auto json = encode({folderWith({rule})});
        QVERIFY(json);
        QVERIFY(decoded(*json).at(0).rules.at(0) == rule);
    }
}

void TestFolderListJson::unknownKeysAreIgnored()
{
    QJsonObject rule = ruleObject();
    rule.insert(text("Kind"), 5);
    rule.insert(text(""), QJsonValue::Null);
    QJsonObject folder = folderObject();
    folder.insert(text("rules"), QJsonArray{rule});
    folder.insert(text("comment"), QJsonArray{1, QJsonObject{{text("id"), 2}}});
    const auto folders = decoded(listOf(folder));
    QVERIFY(isSameFolder(folders.at(0), decoded(listOf(folderObject())).at(0)));
}

void TestFolderListJson::firstFailureInTheOrderOfTheKeysIsReported()
{
    const char* const keysOfRule[] = {
        "id", "field", "operatorType", "value", "destination", "destinationBookmarkData", "kind"};
    QJsonObject rule;
    for (const char* key : keysOfRule)
        rule.insert(text(key), 1);
    for (const char* key : keysOfRule) {
        QCOMPARE(decodingError(listWithRule(rule)),
                 text("[0].rules[0].%1: expected a string").arg(text(key)));
        rule.insert(text(key), ruleObject().value(text(key)));
    }
    QCOMPARE(decodingError(listWithRule(rule)), QString());

    const char* const keysOfFolder[] = {"id", "url", "bookmarkData", "rules"};
    QJsonObject folder;
    for (const char* key : keysOfFolder)
        folder.insert(text(key), 1);
    for (const char* key : keysOfFolder) {
        QVERIFY(decodingError(listOf(folder)).startsWith(text("[0].%1: expected a").arg(text(key))));
        folder.insert(text(key), folderObject().value(text(key)));
    }
    QCOMPARE(decodingError(listOf(folder)), QString());
}

void TestFolderListJson::oneBadRuleFailsTheWholeList()
{
    QJsonObject folder = folderObject();
    folder.insert(text("rules"), QJsonArray{ruleObject(), ruleObject(), 5});
    const QJsonArray list{folderObject(), folder, folderObject()};
    QCOMPARE(decodingError(QJsonDocument(list).toJson()), text("[1].rules[2]: expected an object"));
    QCOMPARE(decodingError("[null]"), text("[0]: expected an object"));
    QCOMPARE(decodingError("[[]]"), text("[0]: expected an object"));
}

void TestFolderListJson::errorsAreOneLine()
{
    QJsonObject rule = ruleObject();
    rule.insert(text("kind"), text("a\nb\r\u2028\u0085\x1b[31m"));
    QCOMPARE(decodingError(listWithRule(rule)),
             text("[0].rules[0].kind: unknown value \"a\\nb\\r\\u{2028}\\u{85}\\u{1b}[31m\""));
    rule.insert(text("kind"), QString(1'000'000, u'\n'));
    QVERIFY(isOneLine(decodingError(listWithRule(rule))));
    QVERIFY(decodingError(listWithRule(rule)).size() < 300);
    rule.insert(text("kind"), QString(59, u'a') + text("\U0001F600") + text("b"));
    QVERIFY(isOneLine(decodingError(listWithRule(rule))));
}

void TestFolderListJson::uuidIsReadInEitherCase()
{
    const QUuid id(text(folderID));
    QVERIFY(uuidFromText(text(folderID)) == id);
    QVERIFY(uuidFromText(text(folderID).toLower()) == id);
    QVERIFY(uuidFromText(text("0f8E6c1A-1111-4222-8333-aBcDeFABCDEF")) == id);
    QJsonObject folder = folderObject();
    folder.insert(text("id"), text(folderID).toLower());
    QCOMPARE(decoded(listOf(folder)).at(0).id, id);
}

void TestFolderListJson::allZeroUuidIsValid()
{
    const QString zero = text("00000000-0000-0000-0000-000000000000");
    QVERIFY(uuidFromText(zero) == QUuid());
    QJsonObject folder = folderObject();
    folder.insert(text("id"), zero);
    const auto folders = decoded(listOf(folder));
    QCOMPARE(folders.size(), size_t(1));
    QCOMPARE(encoded(folders)[0][text("id")].toString(), zero);
}

void TestFolderListJson::onlyThe36CharacterFormIsAUuid_data()
{
    QTest::addColumn<QString>("uuid");
    const QString good = text(folderID);
    QTest::newRow("empty") << QString();
    QTest::newRow("braces") << u'{' + good + u'}';
    QTest::newRow("no hyphens") << QString(good).remove(u'-');
    QTest::newRow("no hyphens, 36 characters") << QString(good).remove(u'-') + text("0000");
    QTest::newRow("space before") << u' ' + good;
    QTest::newRow("space after") << good + u' ';
    QTest::newRow("text after") << good + text("0");
    QTest::newRow("one digit short") << good.chopped(1);
    QTest::newRow("brace in place of the last digit") << good.chopped(1) + u'}';
    QTest::newRow("no hexadecimal digit") << good.chopped(1) + u'G';
    QTest::newRow("sign") << u'+' + good.sliced(1);
    QTest::newRow("hyphen at the wrong place") << text("0F8E6C1-A1111-4222-8333-ABCDEFABCDEF");
    QTest::newRow("hyphen for a digit") << text("0F8E6C1A-1111-4222-8333-ABCDEFABCDE-");
    QTest::newRow("digit for a hyphen") << text("0F8E6C1A01111-4222-8333-ABCDEFABCDEF");
    QTest::newRow("digits beyond ASCII") << good.chopped(1) + QChar(0xff11);
    QTest::newRow("URN") << text("urn:uuid:") + good;
    QTest::newRow("NUL") << good.chopped(1) + QChar(u'\0');
}

void TestFolderListJson::onlyThe36CharacterFormIsAUuid()
{
    QFETCH(const QString, uuid);
    QVERIFY(!uuidFromText(uuid));
    QJsonObject folder = folderObject();
    folder.insert(text("id"), uuid);
    QVERIFY(decodingError(listOf(folder)).startsWith(text("[0].id: no UUID \"")));
    QJsonObject rule = ruleObject();
    rule.insert(text("id"), uuid);
    folder = folderObject();
    folder.insert(text("rules"), QJsonArray{rule});
    QVERIFY(decodingError(listOf(folder)).startsWith(text("[0].rules[0].id: no UUID \"")));
}

void TestFolderListJson::topLevelMustBeAnArray()
{
    QCOMPARE(decodingError("{}"), text("top level: expected an array"));
    for (const char* json : {"", " ", "null", "1", "\"[]\"", "true"})
        QVERIFY2(isOneLine(decodingError(json)), json);
}

void TestFolderListJson::textThatIsNoJsonIsReportedWithItsOffset()
{
    const QString error = decodingError("[{\"id\":}]");
    QVERIFY2(QRegularExpression(text("^offset [78]: [a-z].+")).match(error).hasMatch(), qPrintable(error));
    QVERIFY(isOneLine(decodingError("[]x")));
    QVERIFY(isOneLine(decodingError("[],[]")));
    QVERIFY(isOneLine(decodingError(QByteArray("[]\0", 3))));
}

void TestFolderListJson::cutTextFailsAtEveryLength()
{
    const QByteArray json = listOf(folderObject());
    QCOMPARE(decodingError(json), QString());
    for (qsizetype length = 0; length < json.size(); ++length)
        QVERIFY(isOneLine(decodingError(json.first(length))));
}

void TestFolderListJson::byteOrderMarkDoesNotCrash()
{
    // One at the start is passed over, as a text editor may leave it there.
    QCOMPARE(decodingError("\xef\xbb\xbf" + listOf(folderObject())), QString());
    QVERIFY(isOneLine(decodingError("\xef\xbb\xbf")));
    QVERIFY(isOneLine(decodingError("[\xef\xbb\xbf]")));
    QVERIFY(isOneLine(decodingError(QByteArray("\xff\xfe[\0]\0", 6))));
}

void TestFolderListJson::deepNestingDoesNotCrash()
{
    for (const qsizetype depth : {100, 1'000, 1'000'000}) {
        const QByteArray open(depth, '[');
        const QByteArray close(depth, ']');
        QVERIFY(isOneLine(decodingError(open)));
        QVERIFY(isOneLine(decodingError(open + close)));
        QVERIFY(isOneLine(decodingError(QByteArray("[{\"a\":").repeated(depth))));
        QVERIFY(isOneLine(decodingError(listWithRuleValue(open + close))));
    }
    // Below what the parser allows it is ignored like every unknown key.
    QJsonObject folder = folderObject();
    QByteArray json = listOf(folder);
    json.replace("{\"bookmarkData\"",
                 "{\"x\":" + QByteArray(500, '[') + QByteArray(500, ']') + ",\"bookmarkData\"");
    QCOMPARE(decodingError(json), QString());
}

void TestFolderListJson::hugeNumbersDoNotCrash()
{
    for (const QByteArray& number :
         {QByteArray("1e999999999"), QByteArray("-1e999999999"), QByteArray("99999999999999999999999999"),
          QByteArray(100'000, '9'), QByteArray("1e-999999999"),
          QByteArray("0.") + QByteArray(100'000, '1')}) {
        QVERIFY(isOneLine(decodingError(listWithRuleValue(number))));
        QByteArray json = listOf(folderObject());
        json.replace("{\"bookmarkData\"", "{\"x\":" + number + ",\"bookmarkData\"");
        // As an unknown key it is a value or an error.
        const QString error = decodingError(json);
        QVERIFY(error.isEmpty() || isOneLine(error));
    }
}

void TestFolderListJson::duplicateKeysGiveOneOfTheValues()
{
    const auto folders = decoded(listWithRuleValue("\"first\",\"value\":\"second\""));
    QCOMPARE(folders.size(), size_t(1));
    const QString value = folders[0].rules[0].value;
    QVERIFY(value == text("first") || value == text("second"));
    QVERIFY(isOneLine(decodingError(listWithRuleValue("1,\"value\":2"))));
}

void TestFolderListJson::invalidUtf8Fails()
{
    for (const char* value :
         {"\"\xff\"", "\"\xc3\"", "\"\xed\xa0\x80\"", "\"\xc0\x80\"", "\"\xf4\x90\x80\x80\""})
        QVERIFY2(isOneLine(decodingError(listWithRuleValue(value))), value);
}

namespace
{

QString randomValue(std::mt19937& random)
{
    QString value;
    for (size_t length = randomBelow(random, 20); length > 0; --length) {
        char32_t c = 0;
        do {
            // As often below 0x100 as beyond.
            c = static_cast<char32_t>(randomBelow(random, randomBelow(random, 2) == 0 ? 0x100 : 0x110000));
        } while (c >= 0xd800 && c < 0xe000);
        value += QString::fromUcs4(&c, 1);
    }
    return value;
}

QByteArray randomBytes(std::mt19937& random)
{
    QByteArray bytes;
    for (size_t length = randomBelow(random, 40); length > 0; --length)
        bytes += static_cast<char>(randomBelow(random, 256));
    return bytes;
}

std::vector<WatchedFolder> randomList(std::mt19937& random)
{
    const auto url = [&random] {
        return FileUrl::fromPath('/' + randomBytes(random).replace('\0', "").toStdString());
    };
    std::vector<WatchedFolder> folders;
    for (size_t count = randomBelow(random, 5); count > 0; --count) {
        WatchedFolder folder{.url = url(), .bookmarkData = {}, .rules = {}};
        if (randomBelow(random, 2) == 0) folder.bookmarkData = randomBytes(random);
        for (size_t rules = randomBelow(random, 5); rules > 0; --rules) {
            FilterRule rule;
            rule.field = allRuleFields[randomBelow(random, allRuleFields.size())];
            rule.operatorType = allRuleOperators[randomBelow(random, allRuleOperators.size())];
            rule.kind = allRuleKinds[randomBelow(random, allRuleKinds.size())];
            rule.value = randomValue(random);
            if (randomBelow(random, 2) == 0) rule.destination = url();
            if (randomBelow(random, 2) == 0) rule.destinationBookmarkData = randomBytes(random);
            folder.rules.push_back(rule);
        }
        folders.push_back(folder);
    }
    return folders;
}

} // namespace

void TestFolderListJson::randomListsComeBackUnchanged()
{
    std::mt19937 random = seededRandom();
    for (int i = 0; i < 2'000; ++i) {
        const auto folders = randomList(random);
        const auto json = encode(folders);
        QVERIFY(json);
        const auto read = decode(*json);
        QVERIFY2(read, *json);
        QVERIFY2(std::ranges::equal(*read, folders, isSameFolder), *json);
    }
}

void TestFolderListJson::mutatedTextsNeverCrash()
{
    std::mt19937 random = seededRandom();
    int valid = 0;
    int invalid = 0;
    for (int i = 0; i < 8'000; ++i) {
        QByteArray json = *encode(randomList(random));
        for (size_t mutations = 1 + randomBelow(random, 4); mutations > 0; --mutations) {
            const auto place =
                static_cast<qsizetype>(randomBelow(random, static_cast<size_t>(json.size()) + 1));
            static const QByteArray pieces[] = {"\"", "\\", "{",    "}",       "[",  "]",
                                                ":",  ",",  "null", "\\ud800", "1e9"};
            switch (randomBelow(random, 5)) {
            case 0:
                json.insert(place, static_cast<char>(randomBelow(random, 256)));
                break;
            case 1:
                json.remove(place, static_cast<qsizetype>(randomBelow(random, 3)) + 1);
                break;
            case 2:
                json.truncate(place);
                break;
            case 3:
                json.insert(place, json.mid(place / 2, place / 3));
                break;
            default:
                json.insert(place, pieces[randomBelow(random, std::size(pieces))]);
                break;
            }
        }
        const auto folders = decode(json);
        if (folders) {
            ++valid;
            // What was taken for a list can be stored as one.
            const auto again = encode(*folders);
            QVERIFY2(again, json);
            const auto read = decode(*again);
            QVERIFY2(read && std::ranges::equal(*read, *folders, isSameFolder), json);
        } else {
            ++invalid;
            QVERIFY2(isOneLine(folders.error().description), json);
        }
    }
    // Both happen, or the mutations would show nothing.
    QVERIFY(valid > 100);
    QVERIFY(invalid > 100);
}

HARBEX_TEST_MAIN(TestFolderListJson)

#include "tst_FolderListJson.moc"
