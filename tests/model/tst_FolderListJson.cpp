#include "base/ReadableText.h"
#include "model/FolderListJson.h"
#include "support/TestMain.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <algorithm>
#include <utility>

using namespace harbex;

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

/// The folders of a text; none if it does not decode.
std::vector<WatchedFolder> decoded(const QByteArray& json)
{
    auto folders = decode(json);
    if (folders) return *std::move(folders);
    qWarning("%s", qPrintable(folders.error().description));
    return {};
}

bool isSame(const std::vector<WatchedFolder>& a, const std::vector<WatchedFolder>& b)
{
    return std::ranges::equal(a, b, [](const WatchedFolder& x, const WatchedFolder& y) {
        return x.id == y.id && x.url == y.url && x.bookmarkData == y.bookmarkData && x.rules == y.rules;
    });
}

} // namespace

class TestFolderListJson : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void emptyListIsAnEmptyArray()
    {
        QCOMPARE(*encode({}), QByteArray("[]"));
        QVERIFY(decode("[]"));
        QVERIFY(decode("[]")->empty());
    }

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
        WatchedFolder expected = fullFolder();
        expected.bookmarkData.reset();
        QVERIFY(isSame(decoded(listWith(text("[0].bookmarkData"), QJsonValue::Null)), {expected}));
        expected = fullFolder();
        expected.rules[0].destination.reset();
        QVERIFY(isSame(decoded(listWith(text("[0].rules[0].destination"), QJsonValue::Null)), {expected}));
        expected = fullFolder();
        expected.rules[0].destinationBookmarkData.reset();
        QVERIFY(isSame(decoded(listWith(text("[0].rules[0].destinationBookmarkData"), QJsonValue::Null)),
                       {expected}));
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

    void wrongValueOfAKeyFails_data()
    {
        QTest::addColumn<QString>("place");
        QTest::addColumn<QJsonValue>("value");
        QTest::addColumn<QString>("error");
        const auto row = [](const char* name, const QString& place, const QJsonValue& value,
                            const QString& error) {
            QTest::addRow("%s: %s", qPrintable(place), qPrintable(readableText(text(name))))
                << place << value << error;
        };
        for (const char* object : {ofFolder, ofRule}) {
            for (const QString& key : (object == ofFolder ? folderObject() : ruleObject()).keys()) {
                const QString place = text(object) + key;
                const bool isArray = key == text("rules");
                const QString error = text(isArray ? "expected an array" : "expected a string");
                row("number", place, 1, error);
                row("true", place, true, error);
                row("object", place, QJsonObject(), error);
                row("other type", place, isArray ? QJsonValue(text("[]")) : QJsonArray(), error);
                const bool isOptional = key.endsWith(text("ookmarkData")) || key == text("destination");
                if (isOptional) continue;
                row("missing", place, QJsonValue::Undefined, text("missing key"));
                row("null", place, QJsonValue::Null, error);
            }
        }

        const auto unknown = [&row](const char* name, const QString& place, const char* reason,
                                    const QString& value) {
            row(name, place, value, text("%1 \"%2\"").arg(text(reason), readableText(value)));
        };
        const QString kind = text("[0].rules[0].kind");
        unknown("another word", kind, "unknown value", text("Pictures"));
        unknown("name of the enumerator", text("[0].rules[0].operatorType"), "unknown value",
                text("isEqual"));
        unknown("lower case", text("[0].rules[0].field"), "unknown value", text("name"));
        row("line ends", kind, text("a\nb\r\u2028\u0085\x1b[31m"),
            text("unknown value \"a\\nb\\r\\u{2028}\\u{85}\\u{1b}[31m\""));
        row("long text", kind, QString(1'000'000, u'\n'),
            text("unknown value \"") + text("\\n").repeated(60) + text("\u2026\""));
        row("longest text that is shown", kind, QString(60, u'a'),
            text("unknown value \"") + QString(60, u'a') + u'"');
        row("long text, cut in a character", kind, QString(59, u'a') + text("\U0001F600") + text("b"),
            text("unknown value \"") + QString(59, u'a') + text("\ufffd\u2026\""));

        for (const QString& place : {text("[0].url"), text("[0].rules[0].destination")}) {
            for (const char* url : {"", "file:///a b", "file:///a%", "file:///a\nb"})
                unknown(url, place, "no URL", text(url));
        }
        const std::pair<const char*, QString> badBase64[] = {
            {"no padding", text("AA")},
            {"half of the padding", text("AA=")},
            {"too much padding", text("AAA==")},
            {"padding alone", text("====")},
            {"one character", text("A")},
            {"alphabet of URLs", text("-_-_")},
            {"space", text("AAAA AAAA")},
            {"line end", text("AAAA\n")},
            {"text after the padding", text("AA==AAAA")},
            {"stray bits", text("AB==")},
            {"beyond ASCII", text("AAA\u00e9")},
            {"beyond Latin-1", text("AAA\u0141")},
            {"NUL", text("AAA") + QChar(u'\0')},
            {"no Base64 at all", text("{}")},
        };
        for (const auto& [name, base64] : badBase64) {
            unknown(name, text("[0].bookmarkData"), "no Base64", base64);
            unknown(name, text("[0].rules[0].destinationBookmarkData"), "no Base64", base64);
        }
        const QString good = text(folderID);
        const std::pair<const char*, QString> badUuids[] = {
            {"empty", QString()},
            {"braces", u'{' + good + u'}'},
            {"no hyphens", QString(good).remove(u'-')},
            {"no hyphens, 36 characters", QString(good).remove(u'-') + text("0000")},
            {"space before", u' ' + good},
            {"space after", good + u' '},
            {"text after", good + text("0")},
            {"one digit short", good.chopped(1)},
            {"brace in place of the last digit", good.chopped(1) + u'}'},
            {"no hexadecimal digit", good.chopped(1) + u'G'},
            {"sign", u'+' + good.sliced(1)},
            {"hyphen at the wrong place", text("0F8E6C1-A1111-4222-8333-ABCDEFABCDEF")},
            {"hyphen for a digit", text("0F8E6C1A-1111-4222-8333-ABCDEFABCDE-")},
            {"digit for a hyphen", text("0F8E6C1A01111-4222-8333-ABCDEFABCDEF")},
            {"digits beyond ASCII", good.chopped(1) + QChar(0xff11)},
            {"URN", text("urn:uuid:") + good},
            {"NUL", good.chopped(1) + QChar(u'\0')},
        };
        for (const auto& [name, uuid] : badUuids) {
            unknown(name, text("[0].id"), "no UUID", uuid);
            unknown(name, text("[0].rules[0].id"), "no UUID", uuid);
        }
    }

    void wrongValueOfAKeyFails()
    {
        QFETCH(const QString, place);
        QFETCH(const QJsonValue, value);
        QFETCH(const QString, error);
        QCOMPARE(decodingError(listWith(place, value)), place + text(": ") + error);
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

    void damagedTextFailsInOneLine_data()
    {
        QTest::addColumn<QByteArray>("json");
        // A regular expression for the whole error.
        QTest::addColumn<QString>("error");
        const auto row = [](const char* name, const QByteArray& json, const char* error) {
            QTest::newRow(name) << json << text(error);
        };
        const char* const offset = R"(offset \d+: .+)";
        row("missing value", "[{\"id\":}]", "offset [78]: [a-z].+");
        for (const char* json : {"", " ", "null", "1", "\"[]\"", "true", "[]x", "[],[]"})
            row(json, json, offset);
        row("NUL at the end", QByteArray("[]\0", 3), offset);
        row("byte order mark alone", "\xef\xbb\xbf", offset);
        row("byte order mark inside", "[\xef\xbb\xbf]", offset);
        row("UTF-16", QByteArray("\xff\xfe[\0]\0", 6), offset);
        for (const char* value :
             {"\"\xff\"", "\"\xc3\"", "\"\xed\xa0\x80\"", "\"\xc0\x80\"", "\"\xf4\x90\x80\x80\""})
            QTest::addRow("invalid UTF-8 %s", QByteArray(value).toHex().constData())
                << listWithRuleValue(value) << text(offset);

        row("object", "{}", "top level: expected an array");
        row("list of null", "[null]", R"(\[0\]: expected an object)");
        row("list of a list", "[[]]", R"(\[0\]: expected an object)");
        QJsonObject bad = folderObject();
        bad.insert(text("rules"), QJsonArray{ruleObject(), ruleObject(), 5});
        row("rule in another folder", QJsonDocument(QJsonArray{folderObject(), bad, folderObject()}).toJson(),
            R"(\[1\]\.rules\[2\]: expected an object)");

        const char* const noString = R"(\[0\]\.rules\[0\]\.value: expected a string)";
        const char* const noText = R"(\[0\]\.rules\[0\]\.value: no Unicode text)";
        row("high surrogate", listWithRuleValue(R"("\ud83d")"), noText);
        row("low surrogate", listWithRuleValue(R"("\ude00")"), noText);
        row("exchanged surrogates", listWithRuleValue(R"("\ude00\ud83d")"), noText);
        row("high surrogate in a text", listWithRuleValue(R"("a\ud83db")"), noText);
        row("wrong type twice", listWithRuleValue("1,\"value\":2"), noString);

        // The limits of the parser depend on the version of Qt.
        const char* const parsedOrNot = R"(offset \d+: .+|\[0\](\.rules\[0\]\.value)?: expected .+)";
        for (const char* number :
             {"1e999999999", "-1e999999999", "99999999999999999999999999", "1e-999999999"})
            row(number, listWithRuleValue(number), parsedOrNot);
        row("long number", listWithRuleValue(QByteArray(100'000, '9')), parsedOrNot);
        row("long fraction", listWithRuleValue("0." + QByteArray(100'000, '1')), parsedOrNot);
        for (const int depth : {100, 1'000, 1'000'000}) {
            const QByteArray open(depth, '[');
            const QByteArray closed = open + QByteArray(depth, ']');
            QTest::addRow("open arrays, depth %d", depth) << open << text(offset);
            QTest::addRow("open objects, depth %d", depth)
                << QByteArray("[{\"a\":").repeated(depth) << text(offset);
            QTest::addRow("arrays, depth %d", depth) << closed << text(parsedOrNot);
            QTest::addRow("value, depth %d", depth) << listWithRuleValue(closed) << text(parsedOrNot);
        }
    }

    void damagedTextFailsInOneLine()
    {
        QFETCH(const QByteArray, json);
        QFETCH(const QString, error);
        const QString found = decodingError(json);
        const QRegularExpression pattern(QRegularExpression::anchoredPattern(error));
        QVERIFY2(pattern.match(found).hasMatch(), qPrintable(found));
        QVERIFY(std::ranges::none_of(found, [](QChar c) { return c.category() == QChar::Other_Control; }));
    }

    void cutTextFailsAtEveryLength()
    {
        const QByteArray json = listOf(folderObject());
        for (qsizetype length = 0; length < json.size(); ++length)
            QVERIFY2(decodingError(json.first(length)).startsWith(text("offset ")), json.first(length));
    }

    void harmlessAdditionsAreIgnored_data()
    {
        QTest::addColumn<QByteArray>("json");
        const QByteArray json = listOf(folderObject());
        QTest::newRow("unknown key of a rule") << listWith(text("[0].rules[0].Kind"), 5);
        QTest::newRow("empty key of a rule") << listWith(text("[0].rules[0]."), QJsonValue::Null);
        QTest::newRow("unknown key of a folder") << listWithUnknownKey("[1,{\"id\":2}]");
        QTest::newRow("deep value") << listWithUnknownKey(QByteArray(500, '[') + QByteArray(500, ']'));
        QTest::newRow("byte order mark of an editor") << "\xef\xbb\xbf" + json;
        QTest::newRow("key twice") << listWithRuleValue(R"("pdf","value":"pdf")");
        QTest::newRow("lower-case id") << listWith(text("[0].id"), text(folderID).toLower());
        QTest::newRow("id in both cases")
            << listWith(text("[0].id"), text("0f8E6c1A-1111-4222-8333-aBcDeFABCDEF"));
    }

    void harmlessAdditionsAreIgnored()
    {
        QFETCH(const QByteArray, json);
        QVERIFY(isSame(decoded(json), {fullFolder()}));
    }
};

HARBEX_TEST(TestFolderListJson)

#include "tst_FolderListJson.moc"
