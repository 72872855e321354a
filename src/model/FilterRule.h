#pragma once

#include "model/FileUrl.h"

#include <QByteArray>
#include <QString>
#include <QStringView>
#include <QUuid>

#include <array>
#include <optional>

namespace harbex
{

/// Which property of a new entry a rule looks at.
enum class RuleField { name, fileExtension, kind };

/// How the value of a rule is compared.
enum class RuleOperator { contains, isEqual };

/// The coarse category of files a rule can test for.
enum class RuleKind { image, video, document, folder, audio, application };

/// The cases in the order in which they are offered.
inline constexpr std::array allRuleFields{RuleField::name, RuleField::fileExtension, RuleField::kind};
inline constexpr std::array allRuleOperators{RuleOperator::contains, RuleOperator::isEqual};
inline constexpr std::array allRuleKinds{RuleKind::image,  RuleKind::video, RuleKind::document,
                                         RuleKind::folder, RuleKind::audio, RuleKind::application};

/// A case's raw value: its stored form and, untranslated, its label ("Name", "is", "Image").
[[nodiscard]] QString rawValue(RuleField field);
[[nodiscard]] QString rawValue(RuleOperator operatorType);
[[nodiscard]] QString rawValue(RuleKind kind);

/// The case with exactly this raw value, letter case included; nothing when there is none.
/// Case is RuleField, RuleOperator or RuleKind.
template <class Case>
[[nodiscard]] std::optional<Case> fromRawValue(QStringView rawValue);

/// One rule of a watched folder. A plain value; every field may change. Both `value` and `kind` are kept at
/// all times, `field` decides which of them matters. A rule without a destination never moves anything.
struct FilterRule {
    QUuid id = QUuid::createUuid();
    RuleField field = RuleField::name;
    RuleOperator operatorType = RuleOperator::contains;
    QString value;
    std::optional<FileUrl> destination;
    /// What finds the destination again after it was renamed, made when the user picked it; opaque here.
    std::optional<QByteArray> destinationBookmarkData;
    RuleKind kind = RuleKind::image;

    /// Equal in every field, the bytes of the bookmark included.
    friend bool operator==(const FilterRule&, const FilterRule&) = default;
};

} // namespace harbex
