#include "model/FilterRule.h"

#include <algorithm>

namespace harbex
{

QString rawValue(RuleField field)
{
    switch (field) {
    case RuleField::name:
        return QStringLiteral("Name");
    case RuleField::fileExtension:
        return QStringLiteral("Extension");
    case RuleField::kind:
        return QStringLiteral("Kind");
    }
    return {};
}

QString rawValue(RuleOperator operatorType)
{
    switch (operatorType) {
    case RuleOperator::contains:
        return QStringLiteral("contains");
    case RuleOperator::isEqual:
        return QStringLiteral("is");
    }
    return {};
}

QString rawValue(RuleKind kind)
{
    switch (kind) {
    case RuleKind::image:
        return QStringLiteral("Image");
    case RuleKind::video:
        return QStringLiteral("Video");
    case RuleKind::document:
        return QStringLiteral("Document");
    case RuleKind::folder:
        return QStringLiteral("Folder");
    case RuleKind::audio:
        return QStringLiteral("Audio");
    case RuleKind::application:
        return QStringLiteral("Application");
    }
    return {};
}

namespace
{

template <class Cases>
std::optional<typename Cases::value_type> find(const Cases& cases, QStringView text)
{
    const auto found = std::ranges::find_if(cases, [text](auto each) { return rawValue(each) == text; });
    if (found == cases.end()) return std::nullopt;
    return *found;
}

} // namespace

template <>
std::optional<RuleField> fromRawValue(QStringView text)
{
    return find(allRuleFields, text);
}

template <>
std::optional<RuleOperator> fromRawValue(QStringView text)
{
    return find(allRuleOperators, text);
}

template <>
std::optional<RuleKind> fromRawValue(QStringView text)
{
    return find(allRuleKinds, text);
}

} // namespace harbex
