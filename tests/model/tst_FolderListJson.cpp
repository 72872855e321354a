#include "base/ReadableText.h"
#include "model/FolderListJson.h"
#include "support/SameFolders.h"
#include "support/TestMain.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <algorithm>
#include <utility>

using namespace harbex;
using namespace harbex::test;

namespace
{

const char* const folderID = "0F8E6C1A-1111-4222-8333-ABCDEFABCDEF";

QString text(const char* utf8)
{
    return QString::fromUtf8(utf8);
}

/// The JSON of a rule and of a folder that have every key.
QJsonObject ruleObject()
{
    return QJsonDocument::fromJson(R"({
        "id": "2B5F0C11-AAAA-4BBB-9CCC-0123456789AB",
        "field": "Extension",
        "operatorType": "is",
        "value": "pdf",
        "destination": "file:///home/u/Documents",
        "destinationBookmarkData": "AAEC/w==",
        "kind": "Application"})")
        .object();
}
QJsonObject folderObject()
{
    return {{text("id"), text(folderID)},
            {text("url"), text("file:///home/u/Downloads")},
            {text("bookmarkData"), text("/+8=")},
            {text("rules"), QJsonArray{ruleObject()}}};
}

/// The folder that folderObject() describes.
WatchedFolder fullFolder()
{
    const FilterRule rule{.id = QUuid(QStringLiteral("2B5F0C11-AAAA-4BBB-9CCC-0123456789AB")),
                          .field = RuleField::fileExtension,
                          .operatorType = RuleOperator::isEqual,
                          .value = text("pdf"),
                          .destination = FileUrl::fromPath("/home/u/Documents"),
                          .destinationBookmarkData = QByteArray::fromHex("000102ff"),
                          .kind = RuleKind::application};
    return {.id = QUuid(text(folderID)),
            .url = FileUrl::fromPath("/home/u/Downloads"),
            .bookmarkData = QByteArray::fromHex("ffef"),
            .rules = {rule}};
}

WatchedFolder folderWith(std::vector<FilterRule> rules)
{
    return {.url = FileUrl::fromPath("/home/u/Downloads"), .bookmarkData = {}, .rules = std::move(rules)};
}

QByteArray listOf(const QJsonObject& folder)
{
    return QJsonDocument(QJsonArray{folder}).toJson(QJsonDocument::Compact);
}

const char* const ofFolder = "[0].";
const char* const ofRule = "[0].rules[0].";

/// A list whose folder or rule has `value` at `place`, for example "[0].rules[0].kind". An undefined value
/// removes the key.
QByteArray listWith(const QString& place, const QJsonValue& value)
{
    const QString key = place.section(u'.', -1);
    QJsonObject folder = folderObject();
    QJsonObject rule = ruleObject();
    if (place.startsWith(text(ofRule))) {
        rule.insert(key, value);
        folder.insert(text("rules"), QJsonArray{rule});
    } else {
        folder.insert(key, value);
    }
    return listOf(folder);
}

/// A list whose rule has these bytes, JSON or not, as its value.
QByteArray listWithRuleValue(const QByteArray& json)
{
    return listWith(text(ofRule) + text("value"), text("HERE")).replace("\"HERE\"", json);
}

/// A list whose folder has an unknown key with these bytes as its value.
QByteArray listWithUnknownKey(const QByteArray& json)
{
    return listOf(folderObject()).replace("{\"bookmarkData\"", "{\"x\":" + json + ",\"bookmarkData\"");
}

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

/// Why a text does not decode; empty if it does.
QString decodingError(const QByteArray& json)
{
    const auto decoded = decode(json);
    return decoded ? QString() : decoded.error().description;
}

/// The folders of a text, which must decode.
std::vector<WatchedFolder> decoded(const QByteArray& json)
{
    auto folders = decode(json);
    if (!folders) qFatal("%s: %s", json.constData(), qPrintable(folders.error().description));
    return *std::move(folders);
}

} // namespace

class TestFolderListJson : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyFieldHasAKey()
    {
        QCOMPARE(*encode({fullFolder()}), listOf(folderObject()));
        QVERIFY(isSame(decoded(listOf(folderObject())), {fullFolder()}));
    }

    void newRuleHasFiveKeys()
    {
        FilterRule rule;
        rule.id = QUuid(text(folderID));
        WatchedFolder folder = folderWith({rule});
        folder.id = QUuid();
        const QByteArray json =
            R"([{"id":"00000000-0000-0000-0000-000000000000","rules":[)"
            R"({"field":"Name","id":"0F8E6C1A-1111-4222-8333-ABCDEFABCDEF","kind":"Image",)"
            R"("operatorType":"contains","value":""}],"url":"file:///home/u/Downloads"}])";
        QCOMPARE(*encode({folder}), json);
        QVERIFY(isSame(decoded(json), {folder}));
    }

    void nullOfAnOptionalKeyIsAbsent()
    {
        const auto loaded = [](const char* place, const QJsonValue& value) {
            return decoded(listWith(text(place), value));
        };
        for (const char* place :
             {"[0].bookmarkData", "[0].rules[0].destination", "[0].rules[0].destinationBookmarkData"})
            QVERIFY(isSame(loaded(place, QJsonValue::Null), loaded(place, QJsonValue::Undefined)));
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
        rules[0].value = text("\"\\/\b\f\n\r\t\x01\x7f");
        rules[1].value = QChar(u'\0') + text("a");
        rules[2].value = text("\u2028\u202e\ufeff\uffff");
        rules[3].value = text("e\u0301 \u00e9 \U0010FFFF");
        rules[4].value = QString(100'000, u'\u00e9');
        rules[0].destination = FileUrl::fromPath(path);
        rules[0].destinationBookmarkData = bytes;
        rules[1].destinationBookmarkData = QByteArray();
        std::vector<WatchedFolder> folders{fullFolder(), folderWith({}), folderWith(rules)};
        folders[0].url = FileUrl::fromPath(path);
        folders[1].url = *FileUrl::fromString(text("file:///%61%c3%a9/"));
        folders[1].bookmarkData = QByteArray();
        folders[2].bookmarkData = bytes;

        const auto json = encode(folders);
        QVERIFY(json);
        QVERIFY(isSame(decoded(*json), folders));
    }

    void loneSurrogateDoesNotEncode()
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

    void valueOfTheWrongTypeFails()
    {
        const auto check = [](const QString& place, const QJsonValue& value, const char* error) {
            QCOMPARE(decodingError(listWith(place, value)), place + text(": ") + text(error));
        };
        for (const char* object : {ofFolder, ofRule}) {
            for (const QString& key : (object == ofFolder ? folderObject() : ruleObject()).keys()) {
                const QString place = text(object) + key;
                const bool isArray = key == text("rules");
                const char* const error = isArray ? "expected an array" : "expected a string";
                check(place, 1, error);
                check(place, true, error);
                check(place, QJsonObject(), error);
                check(place, isArray ? QJsonValue(text("[]")) : QJsonArray(), error);
                const bool isOptional = key.endsWith(text("ookmarkData")) || key == text("destination");
                if (isOptional) continue;
                check(place, QJsonValue::Undefined, "missing key");
                check(place, QJsonValue::Null, error);
            }
        }
    }

    void unknownTextFails()
    {
        const auto check = [](const char* place, const QString& value, const char* reason) {
            QCOMPARE(decodingError(listWith(text(place), value)),
                     text("%1: %2 \"%3\"").arg(text(place), text(reason), readableText(value)));
        };
        const char* const kind = "[0].rules[0].kind";
        check(kind, text("Pictures"), "unknown value");
        check("[0].rules[0].operatorType", text("isEqual"), "unknown value");
        check("[0].rules[0].field", text("name"), "unknown value");
        for (const char* place : {"[0].url", "[0].rules[0].destination"}) {
            for (const char* url : {"", "file:///a b", "file:///a%", "file:///a\nb"})
                check(place, text(url), "no URL");
        }

        // Among them: wrong padding, the alphabet of URLs, stray bits.
        QStringList badBase64 =
            text("AA AA= AAA== ==== A -_-_ AA==AAAA AB== AAA\u00e9 AAA\u0141 {} AAAA\n").split(u' ');
        badBase64 << text("AAAA AAAA") << text("AAA") + QChar(u'\0');
        for (const QString& base64 : badBase64) {
            check("[0].bookmarkData", base64, "no Base64");
            check("[0].rules[0].destinationBookmarkData", base64, "no Base64");
        }

        const QString good = text(folderID);
        const QString noHyphens = QString(good).remove(u'-');
        const QString shorter = good.chopped(1);
        QStringList badUuids = {QString(), shorter, noHyphens, noHyphens + text("0000"),
                                u'+' + good.sliced(1)};
        badUuids << u'{' + good + u'}' << u' ' + good << good + u' ' << good + u'0'
                 << text("urn:uuid:") + good;
        for (const char16_t last : {u'}', u'G', u'-', u'\uff11', u'\0'})
            badUuids << shorter + QChar(last);
        // A hyphen at the wrong place, and a digit in place of a hyphen.
        badUuids << text("0F8E6C1-A1111-4222-8333-ABCDEFABCDEF")
                 << text("0F8E6C1A01111-4222-8333-ABCDEFABCDEF");
        for (const QString& uuid : badUuids) {
            check("[0].id", uuid, "no UUID");
            check("[0].rules[0].id", uuid, "no UUID");
        }
    }

    void unknownTextIsShownUpTo60Characters()
    {
        const auto shown = [](const QString& value) {
            return decodingError(listWith(text("[0].rules[0].kind"), value)).section(u'"', 1, 1);
        };
        QCOMPARE(shown(text("a\nb\r\u2028\u0085\x1b[31m")), text("a\\nb\\r\\u{2028}\\u{85}\\u{1b}[31m"));
        QCOMPARE(shown(QString(1'000'000, u'\n')), text("\\n").repeated(60) + u'\u2026');
        QCOMPARE(shown(QString(60, u'a')), QString(60, u'a'));
        // The text is cut in a character.
        QCOMPARE(shown(QString(59, u'a') + text("\U0001F600b")), QString(59, u'a') + text("\ufffd\u2026"));
    }

    void firstFailureInTheOrderOfTheKeysIsReported()
    {
        const auto check = [](const char* place, const QJsonObject& good, const QStringList& keys) {
            QJsonObject object;
            for (const QString& key : keys)
                object.insert(key, 1);
            for (const QString& key : keys) {
                QJsonObject folder = folderObject();
                folder.insert(text("rules"), QJsonArray{object});
                const QString error = decodingError(listOf(place == ofRule ? folder : object));
                QVERIFY2(error.startsWith(text(place) + key + text(": expected a")), qPrintable(error));
                object.insert(key, good.value(key));
            }
            QCOMPARE(object, good);
        };
        check(ofRule, ruleObject(),
              text("id field operatorType value destination destinationBookmarkData kind").split(u' '));
        check(ofFolder, folderObject(), text("id url bookmarkData rules").split(u' '));
    }

    void damagedTextFailsInOneLine()
    {
        // `error` is a regular expression for the whole error.
        const auto check = [](const QByteArray& json, const char* error) {
            const QString found = decodingError(json);
            const QRegularExpression pattern(QRegularExpression::anchoredPattern(text(error)));
            QVERIFY2(pattern.match(found).hasMatch(), qPrintable(found));
            QVERIFY(
                std::ranges::none_of(found, [](QChar c) { return c.category() == QChar::Other_Control; }));
        };
        const char* const offset = R"(offset \d+: .+)";
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
        bad.insert(text("rules"), QJsonArray{ruleObject(), ruleObject(), 5});
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
            QVERIFY2(isSame(decoded(json), {fullFolder()}), json);
        };
        // Unknown keys of a rule and of a folder, one with a deep value.
        check(listWith(text("[0].rules[0].Kind"), 5));
        check(listWith(text("[0].rules[0]."), QJsonValue::Null));
        check(listWithUnknownKey("[1,{\"id\":2}]"));
        check(listWithUnknownKey(QByteArray(500, '[') + QByteArray(500, ']')));
        check(listWithRuleValue(R"("pdf","value":"pdf")"));
        // Some editors write a byte order mark.
        check("\xef\xbb\xbf" + listOf(folderObject()));
        check(listWith(text("[0].id"), text(folderID).toLower()));
        check(listWith(text("[0].id"), text("0f8E6c1A-1111-4222-8333-aBcDeFABCDEF")));
    }
};

HARBEX_TEST(TestFolderListJson)

#include "tst_FolderListJson.moc"
