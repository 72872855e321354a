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

/// The property of a new entry that a rule tests.
enum class RuleField { name, fileExtension, kind };

/// The comparison of the property with the rule's value.
enum class RuleOperator { contains, isEqual };

/// The category of entries that a rule with the field `kind` matches.
enum class RuleKind { image, video, document, folder, audio, application };

/// All enumerators, in the order in which the window lists them.
inline constexpr std::array allRuleFields{RuleField::name, RuleField::fileExtension, RuleField::kind};
inline constexpr std::array allRuleOperators{RuleOperator::contains, RuleOperator::isEqual};
inline constexpr std::array allRuleKinds{RuleKind::image,  RuleKind::video, RuleKind::document,
                                         RuleKind::folder, RuleKind::audio, RuleKind::application};

/// Returns the stored form of an enumerator, which is also its untranslated label: "Name", "is", "Image".
[[nodiscard]] QString rawValue(RuleField field);
[[nodiscard]] QString rawValue(RuleOperator operatorType);
[[nodiscard]] QString rawValue(RuleKind kind);

/// Returns the enumerator with this raw value (case-sensitive); nullopt if there is none. Case is RuleField,
/// RuleOperator or RuleKind.
template <class Case>
[[nodiscard]] std::optional<Case> fromRawValue(QStringView rawValue);

/// One rule of a watched folder. `field` decides whether `value` or `kind` applies. A rule without a
/// destination moves nothing. A plain value.
struct FilterRule {
    QUuid id = QUuid::createUuid();
    RuleField field = RuleField::name;
    RuleOperator operatorType = RuleOperator::contains;
    QString value;
    std::optional<FileUrl> destination;
    /// Opaque bookmark, created when the user picks the destination. Finds it again after a rename or move.
    std::optional<QByteArray> destinationBookmarkData;
    RuleKind kind = RuleKind::image;

    /// Compares all fields, including the bookmark bytes.
    friend bool operator==(const FilterRule&, const FilterRule&) = default;
};

} // namespace harbex
