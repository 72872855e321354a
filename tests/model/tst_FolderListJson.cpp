#include "base/ReadableText.h"
#include "model/FolderListJson.h"
#include "support/SameFolders.h"
#include "support/TestMain.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <utility>

using namespace harbex;
using namespace harbex::test;

namespace
{

const char* const folderID = "0F8E6C1A-1111-4222-8333-ABCDEFABCDEF";
const char* const ruleID = "2B5F0C11-AAAA-4BBB-9CCC-0123456789AB";

/// The JSON of a rule and of a folder that have every key.
QJsonObject ruleObject()
{
    return {{"id", ruleID},
            {"field", "Extension"},
            {"operatorType", "is"},
            {"value", "pdf"},
            {"destination", "file:///home/u/Documents"},
            {"destinationBookmarkData", "AAEC/w=="},
            {"kind", "Application"}};
}
QJsonObject folderObject()
{
    return {{"id", folderID},
            {"url", "file:///home/u/Downloads"},
            {"bookmarkData", "/+8="},
            {"rules", QJsonArray{ruleObject()}}};
}

/// The folder that folderObject() describes.
WatchedFolder fullFolder()
{
    const FilterRule rule{.id = QUuid(ruleID),
                          .field = RuleField::fileExtension,
                          .operatorType = RuleOperator::isEqual,
                          .value = "pdf",
                          .destination = FileUrl::fromPath("/home/u/Documents"),
                          .destinationBookmarkData = QByteArray::fromHex("000102ff"),
                          .kind = RuleKind::application};
    return {.id = QUuid(folderID),
            .url = FileUrl::fromPath("/home/u/Downloads"),
            .bookmarkData = QByteArray::fromHex("ffef"),
            .rules = {rule}};
}

WatchedFolder folderWith(std::vector<FilterRule> rules)
{
    return {.url = FileUrl::fromPath("/home/u/Downloads"), .bookmarkData = {}, .rules = std::move(rules)};
}

QByteArray textOf(const QJsonArray& list)
{
    return QJsonDocument(list).toJson(QJsonDocument::Compact);
}

const QString ofFolder = "[0].";
const QString ofRule = "[0].rules[0].";

/// A list whose folder or rule has `value` at `place`, for example "[0].rules[0].kind". An undefined value
/// removes the key.
QByteArray listWith(const QString& place, const QJsonValue& value)
{
    const QString key = place.section(u'.', -1);
    QJsonObject folder = folderObject();
    QJsonObject rule = ruleObject();
    const bool isOfRule = place.startsWith(ofRule);
    (isOfRule ? rule : folder).insert(key, value);
    if (isOfRule) folder.insert("rules", QJsonArray{rule});
    return textOf({folder});
}

/// A list whose rule has these bytes, JSON or not, as its value.
QByteArray listWithRuleValue(const QByteArray& json)
{
    return listWith(ofRule + "value", "HERE").replace("\"HERE\"", json);
}

/// A list whose folder has an unknown key with these bytes as its value.
QByteArray listWithUnknownKey(const QByteArray& json)
{
    return textOf({folderObject()}).replace("{\"bookmarkData\"", "{\"x\":" + json + ",\"bookmarkData\"");
}

Outcome<std::vector<WatchedFolder>, JsonError> decode(const QByteArray& text)
{
    const auto json = parseJson(text);
    if (!json) return json.error();
    return decodeFolderList(*json);
}

/// Why a text does not decode; empty if it does.
QString decodingError(const QByteArray& json)
{
    const auto decoded = decode(json);
    return decoded ? QString() : decoded.error().description;
}

} // namespace

class TestFolderListJson : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyFieldHasAKey()
    {
        QCOMPARE(textOf(*encodeFolderList({fullFolder()})), textOf({folderObject()}));
        QVERIFY(isSame(*decode(textOf({folderObject()})), {fullFolder()}));
    }

    void newRuleHasFiveKeys()
    {
        FilterRule rule;
        rule.id = QUuid(folderID);
        WatchedFolder folder = folderWith({rule});
        folder.id = QUuid();
        const QByteArray json =
            R"([{"id":"00000000-0000-0000-0000-000000000000","rules":[)"
            R"({"field":"Name","id":"0F8E6C1A-1111-4222-8333-ABCDEFABCDEF","kind":"Image",)"
            R"("operatorType":"contains","value":""}],"url":"file:///home/u/Downloads"}])";
        QCOMPARE(textOf(*encodeFolderList({folder})), json);
        QVERIFY(isSame(*decode(json), {folder}));
    }

    void nullOfAnOptionalKeyIsAbsent()
    {
        for (const char* place :
             {"[0].bookmarkData", "[0].rules[0].destination", "[0].rules[0].destinationBookmarkData"})
            QVERIFY(isSame(*decode(listWith(place, QJsonValue::Null)),
                           *decode(listWith(place, QJsonValue::Undefined))));
    }

    void everyValueComesBack()
    {
        std::string path = "/";
        QByteArray bytes(1, '\0');
        for (int byte = 1; byte < 256; ++byte) {
            path += static_cast<char>(byte);
            bytes += static_cast<char>(byte);
        }
        std::vector<FilterRule> rules(allRuleKinds.size());
        for (size_t i = 0; i < rules.size(); ++i) {
            rules[i].field = allRuleFields[i % allRuleFields.size()];
            rules[i].operatorType = allRuleOperators[i % allRuleOperators.size()];
            rules[i].kind = allRuleKinds[i];
        }
        rules[0].value = "\"\\/\b\f\n\r\t\x01\x7f";
        rules[1].value = QString(QChar(u'\0')) + "a";
        rules[2].value = "\u2028\u202e\ufeff\uffff";
        rules[3].value = "e\u0301 \u00e9 \U0010FFFF";
        rules[4].value = QString(100'000, u'\u00e9');
        rules[0].destination = FileUrl::fromPath(path);
        rules[0].destinationBookmarkData = bytes;
        rules[1].destinationBookmarkData = QByteArray();
        std::vector<WatchedFolder> folders{fullFolder(), folderWith({}), folderWith(rules)};
        folders[0].url = FileUrl::fromPath(path);
        folders[1].url = *FileUrl::fromString("file:///%61%c3%a9/");
        folders[1].bookmarkData = QByteArray();
        folders[2].bookmarkData = bytes;

        QVERIFY(isSame(*decode(textOf(*encodeFolderList(folders))), folders));
    }

    void loneSurrogateDoesNotEncode()
    {
        FilterRule good;
        good.value = "\U0001F600";
        QVERIFY(encodeFolderList({folderWith({good})}));
        for (const QString& value :
             {QString(QChar(0xd83d)), QString("a") + QChar(0xde00) + "b", good.value + QChar(0xd83d)}) {
            FilterRule bad;
            bad.value = value;
            QCOMPARE(encodeFolderList({folderWith({}), folderWith({good, bad})}).error().description,
                     QString("[1].rules[1].value: no Unicode text"));
        }
    }

    void valueOfTheWrongTypeFails()
    {
        const auto check = [](const QString& place, const QJsonValue& value, const char* error) {
            QCOMPARE(decodingError(listWith(place, value)), place + ": " + error);
        };
        for (const QString& object : {ofFolder, ofRule}) {
            for (const QString& key : (object == ofFolder ? folderObject() : ruleObject()).keys()) {
                const QString place = object + key;
                const bool isArray = key == "rules";
                const char* const error = isArray ? "expected an array" : "expected a string";
                check(place, 1, error);
                check(place, true, error);
                check(place, QJsonObject(), error);
                check(place, isArray ? QJsonValue("[]") : QJsonArray(), error);
                const bool isOptional = key.endsWith("ookmarkData") || key == "destination";
                if (isOptional) continue;
                check(place, QJsonValue::Undefined, "missing key");
                check(place, QJsonValue::Null, error);
            }
        }
    }

    void unknownTextFails()
    {
        const auto check = [](const QString& place, const QString& value, const char* reason) {
            QCOMPARE(decodingError(listWith(place, value)),
                     place + ": " + reason + " \"" + readableText(value) + '"');
        };
        check("[0].rules[0].kind", "Pictures", "unknown value");
        check("[0].rules[0].operatorType", "isEqual", "unknown value");
        check("[0].rules[0].field", "name", "unknown value");
        for (const char* place : {"[0].url", "[0].rules[0].destination"}) {
            for (const char* url : {"", "file:///a b", "file:///a%", "file:///a\nb"})
                check(place, url, "no URL");
        }

        // Among them: wrong padding, the alphabet of URLs, stray bits.
        QStringList badBase64 = {"AA",   "AA=",       "AAA==",     "====", "A",      "-_-_",     "AA==AAAA",
                                 "AB==", "AAA\u00e9", "AAA\u0141", "{}",   "AAAA\n", "AAAA AAAA"};
        badBase64 << QString("AAA") + QChar(u'\0');
        for (const QString& base64 : badBase64) {
            check("[0].bookmarkData", base64, "no Base64");
            check("[0].rules[0].destinationBookmarkData", base64, "no Base64");
        }

        const QString good = folderID;
        const QString noHyphens = QString(good).remove(u'-');
        const QString shorter = good.chopped(1);
        QStringList badUuids = {"", shorter, noHyphens, noHyphens + "0000", '+' + good.sliced(1)};
        badUuids << '{' + good + '}' << ' ' + good << good + ' ' << good + '0' << "urn:uuid:" + good;
        // A hyphen at the wrong place, and a digit in place of a hyphen.
        badUuids << "0F8E6C1-A1111-4222-8333-ABCDEFABCDEF" << "0F8E6C1A01111-4222-8333-ABCDEFABCDEF";
        for (const char16_t last : {u'}', u'G', u'-', u'\uff11', u'\0'})
            badUuids << shorter + QChar(last);
        for (const QString& uuid : badUuids) {
            check("[0].id", uuid, "no UUID");
            check("[0].rules[0].id", uuid, "no UUID");
        }
    }

    void unknownTextIsShownUpTo60Characters()
    {
        const auto shown = [](const QString& value) {
            return decodingError(listWith("[0].rules[0].kind", value)).section(u'"', 1, 1);
        };
        QCOMPARE(shown("a\nb\r\u2028\u0085\x1b[31m"), QString("a\\nb\\r\\u{2028}\\u{85}\\u{1b}[31m"));
        QCOMPARE(shown(QString(1'000'000, u'\n')), QString("\\n").repeated(60) + u'\u2026');
        const QString longest(60, u'a');
        QCOMPARE(shown(longest), longest);
        // The text is cut in a character.
        QCOMPARE(shown(longest.chopped(1) + "\U0001F600b"), longest.chopped(1) + "\ufffd\u2026");
    }

    void firstFailureInTheOrderOfTheKeysIsReported()
    {
        const auto check = [](const QString& place, const QJsonObject& good, const char* inOrder) {
            const QStringList keys = QString(inOrder).split(u' ');
            QJsonObject object;
            for (const QString& key : keys)
                object.insert(key, 1);
            for (const QString& key : keys) {
                QJsonObject folder = folderObject();
                folder.insert("rules", QJsonArray{object});
                const QString error = decodingError(textOf({place == ofRule ? folder : object}));
                QVERIFY2(error.startsWith(place + key + ": expected a"), qPrintable(error));
                object.insert(key, good.value(key));
            }
            QCOMPARE(object, good);
        };
        check(ofRule, ruleObject(), "id field operatorType value destination destinationBookmarkData kind");
        check(ofFolder, folderObject(), "id url bookmarkData rules");
    }

    void damagedTextFailsInOneLine()
    {
        // `error` is a regular expression for the whole error.
        const auto check = [](const QByteArray& json, const char* error) {
            const QString found = decodingError(json);
            QVERIFY2(found.contains(QRegularExpression(QRegularExpression::anchoredPattern(error))),
                     qPrintable(found));
        };
        // Without control characters.
        const char* const offset = R"(offset \d+: \P{Cc}+)";
        check("[{\"id\":}]", "offset [78]: [a-z].+");
        for (const char* json : {"", " ", "null", "1", "\"[]\"", "true", "[]x", "[],[]"})
            check(json, offset);
        check(QByteArray("[]\0", 3), offset);
        // Byte order marks, and UTF-16.
        for (const QByteArray& json :
             {QByteArray("\xef\xbb\xbf"), QByteArray("[\xef\xbb\xbf]"), QByteArray("\xff\xfe[\0]\0", 6)})
            check(json, offset);
        for (const char* invalid :
             {"\"\xff\"", "\"\xc3\"", "\"\xed\xa0\x80\"", "\"\xc0\x80\"", "\"\xf4\x90\x80\x80\""})
            check(listWithRuleValue(invalid), offset);

        check("{}", "top level: expected an array");
        check("[null]", R"(\[0\]: expected an object)");
        check("[[]]", R"(\[0\]: expected an object)");
        QJsonObject bad = folderObject();
        bad.insert("rules", QJsonArray{ruleObject(), ruleObject(), 5});
        check(QJsonDocument(QJsonArray{folderObject(), bad, folderObject()}).toJson(),
              R"(\[1\]\.rules\[2\]: expected an object)");
        // Surrogates alone and exchanged.
        for (const char* value : {R"("\ud83d")", R"("\ude00")", R"("\ude00\ud83d")", R"("a\ud83db")"})
            check(listWithRuleValue(value), R"(\[0\]\.rules\[0\]\.value: no Unicode text)");
        check(listWithRuleValue("1,\"value\":2"), R"(\[0\]\.rules\[0\]\.value: expected a string)");
        check(QByteArray(1'000'000, '['), offset);
    }

    void harmlessAdditionsAreIgnored()
    {
        const auto check = [](const QByteArray& json) {
            QVERIFY2(isSame(*decode(json), {fullFolder()}), json);
        };
        // Unknown keys of a rule and of a folder, one with a deep value.
        check(listWith("[0].rules[0].Kind", 5));
        check(listWith("[0].rules[0].", QJsonValue::Null));
        check(listWithUnknownKey("[1,{\"id\":2}]"));
        check(listWithUnknownKey(QByteArray(500, '[') + QByteArray(500, ']')));
        check(listWithRuleValue(R"("pdf","value":"pdf")"));
        // Some editors write a byte order mark.
        check("\xef\xbb\xbf" + textOf({folderObject()}));
        check(listWith("[0].id", QString(folderID).toLower()));
        check(listWith("[0].id", "0f8E6c1A-1111-4222-8333-aBcDeFABCDEF"));
    }
};

HARBEX_TEST(TestFolderListJson)

#include "tst_FolderListJson.moc"
