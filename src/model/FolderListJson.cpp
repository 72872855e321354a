#include "model/FolderListJson.h"

#include "base/ReadableText.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

#include <utility>

namespace harbex
{

namespace
{

namespace key
{
constexpr QLatin1String id("id");
constexpr QLatin1String url("url");
constexpr QLatin1String bookmarkData("bookmarkData");
constexpr QLatin1String rules("rules");
constexpr QLatin1String field("field");
constexpr QLatin1String operatorType("operatorType");
constexpr QLatin1String value("value");
constexpr QLatin1String destination("destination");
constexpr QLatin1String destinationBookmarkData("destinationBookmarkData");
constexpr QLatin1String kind("kind");
} // namespace key

template <class Value>
using Decoded = Outcome<Value, JsonError>;

QString placeOf(const QString& list, qsizetype index)
{
    return QStringLiteral("%1[%2]").arg(list).arg(index);
}

QString quoted(const QString& text)
{
    // The text of a damaged file can have megabytes.
    constexpr qsizetype shownLength = 60;
    const QString shown = text.size() > shownLength ? text.left(shownLength) + u'…' : text;
    return QStringLiteral("\"%1\"").arg(readableText(shown));
}

/// Reads the keys of one JSON object. Error messages contain the object's position.
class ObjectReader
{
public:
    [[nodiscard]] static Decoded<ObjectReader> open(const QJsonValue& value, const QString& place)
    {
        if (!value.isObject()) return JsonError{place + QStringLiteral(": expected an object")};
        return ObjectReader(value.toObject(), place);
    }

    [[nodiscard]] QString placeOfKey(QLatin1String name) const { return m_place + u'.' + name; }

    [[nodiscard]] Decoded<QString> text(QLatin1String name) const
    {
        const QJsonValue value = m_object.value(name);
        if (value.isUndefined()) return failure(name, QStringLiteral("missing key"));
        if (!value.isString()) return failure(name, QStringLiteral("expected a string"));
        if (!value.toString().isValidUtf16()) return failure(name, QStringLiteral("no Unicode text"));
        return value.toString();
    }

    [[nodiscard]] Decoded<QJsonArray> array(QLatin1String name) const
    {
        const QJsonValue value = m_object.value(name);
        if (value.isUndefined()) return failure(name, QStringLiteral("missing key"));
        if (!value.isArray()) return failure(name, QStringLiteral("expected an array"));
        return value.toArray();
    }

    [[nodiscard]] Decoded<QUuid> uuid(QLatin1String name) const
    {
        return converted<QUuid>(name, QStringLiteral("no UUID"), &uuidFromText);
    }

    [[nodiscard]] Decoded<FileUrl> url(QLatin1String name) const
    {
        return converted<FileUrl>(name, QStringLiteral("no URL"), &FileUrl::fromString);
    }

    template <class Case>
    [[nodiscard]] Decoded<Case> oneOf(QLatin1String name) const
    {
        return converted<Case>(name, QStringLiteral("unknown value"), &fromRawValue<Case>);
    }

    [[nodiscard]] Decoded<QByteArray> bytes(QLatin1String name) const
    {
        return converted<QByteArray>(name, QStringLiteral("no Base64"), [](const QString& text) {
            const QByteArray base64 = text.toLatin1();
            const auto result =
                QByteArray::fromBase64Encoding(base64, QByteArray::AbortOnBase64DecodingErrors);
            // Qt also accepts missing padding and ignores stray bits at the end.
            const bool isExact = result && result.decoded.toBase64() == base64;
            return isExact ? std::optional(result.decoded) : std::nullopt;
        });
    }

    /// Returns the result of `read`, or nothing if the key is missing or null.
    template <class Value>
    [[nodiscard]] Decoded<std::optional<Value>>
    optional(QLatin1String name, Decoded<Value> (ObjectReader::*read)(QLatin1String) const) const
    {
        const QJsonValue value = m_object.value(name);
        if (value.isUndefined() || value.isNull()) return std::optional<Value>();
        auto found = (this->*read)(name);
        if (!found) return found.error();
        return std::optional(*std::move(found));
    }

private:
    ObjectReader(QJsonObject object, QString place) : m_object(std::move(object)), m_place(std::move(place))
    {
    }

    [[nodiscard]] JsonError failure(QLatin1String name, const QString& what) const
    {
        return {placeOfKey(name) + QStringLiteral(": ") + what};
    }

    template <class Value, class Convert>
    [[nodiscard]] Decoded<Value> converted(QLatin1String name, const QString& failureText,
                                           Convert convert) const
    {
        const auto found = text(name);
        if (!found) return found.error();
        auto value = convert(*found);
        if (!value) return failure(name, failureText + u' ' + quoted(*found));
        return *std::move(value);
    }

    QJsonObject m_object;
    QString m_place;
};

// Reads the keys in the order of the members. The first wrong one is reported.
Decoded<FilterRule> decodeRule(const QJsonValue& json, const QString& place)
{
    const auto object = ObjectReader::open(json, place);
    if (!object) return object.error();
    const auto id = object->uuid(key::id);
    if (!id) return id.error();
    const auto field = object->oneOf<RuleField>(key::field);
    if (!field) return field.error();
    const auto operatorType = object->oneOf<RuleOperator>(key::operatorType);
    if (!operatorType) return operatorType.error();
    auto value = object->text(key::value);
    if (!value) return value.error();
    auto destination = object->optional(key::destination, &ObjectReader::url);
    if (!destination) return destination.error();
    auto bookmark = object->optional(key::destinationBookmarkData, &ObjectReader::bytes);
    if (!bookmark) return bookmark.error();
    const auto kind = object->oneOf<RuleKind>(key::kind);
    if (!kind) return kind.error();
    return FilterRule{.id = *id,
                      .field = *field,
                      .operatorType = *operatorType,
                      .value = *std::move(value),
                      .destination = *std::move(destination),
                      .destinationBookmarkData = *std::move(bookmark),
                      .kind = *kind};
}

Decoded<WatchedFolder> decodeFolder(const QJsonValue& json, const QString& place)
{
    const auto object = ObjectReader::open(json, place);
    if (!object) return object.error();
    const auto id = object->uuid(key::id);
    if (!id) return id.error();
    auto url = object->url(key::url);
    if (!url) return url.error();
    auto bookmark = object->optional(key::bookmarkData, &ObjectReader::bytes);
    if (!bookmark) return bookmark.error();
    const auto rules = object->array(key::rules);
    if (!rules) return rules.error();

    WatchedFolder folder{
        .id = *id, .url = *std::move(url), .bookmarkData = *std::move(bookmark), .rules = {}};
    for (qsizetype i = 0; i < rules->size(); ++i) {
        auto rule = decodeRule(rules->at(i), placeOf(object->placeOfKey(key::rules), i));
        if (!rule) return rule.error();
        folder.rules.push_back(*std::move(rule));
    }
    return folder;
}

QJsonObject encodeRule(const FilterRule& rule)
{
    QJsonObject object{
        {key::id, uuidText(rule.id)},
        {key::field, rawValue(rule.field)},
        {key::operatorType, rawValue(rule.operatorType)},
        {key::value, rule.value},
        {key::kind, rawValue(rule.kind)},
    };
    if (rule.destination) object.insert(key::destination, rule.destination->absoluteString());
    if (rule.destinationBookmarkData)
        object.insert(key::destinationBookmarkData, QLatin1String(rule.destinationBookmarkData->toBase64()));
    return object;
}

} // namespace

Outcome<QJsonValue, JsonError> parseJson(const QByteArray& text)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(text, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return JsonError{
            QStringLiteral("offset %1: %2").arg(parseError.offset).arg(parseError.errorString())};
    return document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());
}

Outcome<QJsonArray, JsonError> encodeFolderList(const std::vector<WatchedFolder>& folders)
{
    QJsonArray list;
    for (const WatchedFolder& folder : folders) {
        QJsonArray rules;
        for (const FilterRule& rule : folder.rules) {
            if (!rule.value.isValidUtf16()) {
                const QString place =
                    placeOf(placeOf({}, list.size()) + QStringLiteral(".rules"), rules.size());
                return JsonError{place + QStringLiteral(".value: no Unicode text")};
            }
            rules.append(encodeRule(rule));
        }
        QJsonObject object{
            {key::id, uuidText(folder.id)},
            {key::url, folder.url.absoluteString()},
            {key::rules, rules},
        };
        if (folder.bookmarkData)
            object.insert(key::bookmarkData, QLatin1String(folder.bookmarkData->toBase64()));
        list.append(object);
    }
    return list;
}

Outcome<std::vector<WatchedFolder>, JsonError> decodeFolderList(const QJsonValue& json)
{
    if (!json.isArray()) return JsonError{QStringLiteral("top level: expected an array")};

    std::vector<WatchedFolder> folders;
    const QJsonArray list = json.toArray();
    for (qsizetype i = 0; i < list.size(); ++i) {
        auto folder = decodeFolder(list.at(i), placeOf({}, i));
        if (!folder) return folder.error();
        folders.push_back(*std::move(folder));
    }
    return folders;
}

QString uuidText(const QUuid& id)
{
    return id.toString(QUuid::WithoutBraces).toUpper();
}

std::optional<QUuid> uuidFromText(QStringView text)
{
    // QUuid also accepts braces and text after the last digit, and returns the zero UUID for invalid text.
    constexpr qsizetype textLength = 36;
    if (text.size() != textLength) return std::nullopt;
    for (qsizetype i = 0; i < textLength; ++i) {
        const char16_t c = text[i].unicode();
        const bool isHyphen = i == 8 || i == 13 || i == 18 || i == 23;
        const bool isHex = (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
        if (isHyphen ? c != u'-' : !isHex) return std::nullopt;
    }
    return QUuid::fromString(text);
}

} // namespace harbex
