#pragma once

#include "model/FilterRule.h"

#include <QString>
#include <QStringView>

#include <array>
#include <optional>
#include <string_view>
#include <vector>

namespace harbex
{

// These functions decide whether a rule matches an entry. Pure functions and plain values. Thread-safe.
//
// An entry must pass two stages. The first stage is cheap and tests only the name. The second stage is for an
// entry that exists, and tests its extension or kind. The stages differ on purpose for extension rules: the
// first can be a substring test, the second compares the rule's value with the whole lower-case extension. So
// `contains` accepts what `isEqual` accepts, and also extensions with capitals. A value with capitals matches
// no extension.
//
// Comparisons use canonical equivalence: a composed "é" equals "e" plus a combining accent. Case-insensitive
// comparisons use Unicode lower case.

/// The extensions of each kind, in lower case without a dot.
inline constexpr std::array<QStringView, 11> imageExtensions{
    u"jpg", u"jpeg", u"png", u"gif", u"heic", u"heif", u"webp", u"bmp", u"tif", u"tiff", u"avif"};
inline constexpr std::array<QStringView, 9> documentExtensions{u"pdf", u"doc",  u"docx", u"xls", u"xlsx",
                                                               u"ppt", u"pptx", u"txt",  u"rtf"};
inline constexpr std::array<QStringView, 7> videoExtensions{u"mp4", u"mov", u"avi", u"mkv",
                                                            u"flv", u"wmv", u"webm"};
inline constexpr std::array<QStringView, 10> audioExtensions{u"mp3", u"wav",  u"aac", u"flac", u"ogg",
                                                             u"m4a", u"opus", u"wma", u"alac", u"dsd"};
inline constexpr std::array<QStringView, 2> applicationExtensions{u"app", u"exe"};

/// A text in its two forms for comparison.
struct ComparableText {
    ComparableText() = default;
    explicit ComparableText(const QString& text);

    /// In normal form C.
    QString exact;
    /// In lower case and normal form C.
    QString lowerCased;
};

/// The name of an entry, split at its dots for the first stage.
struct SplitName {
    /// `name` is raw bytes. Bytes that are not UTF-8 become U+FFFD.
    explicit SplitName(std::string_view name);

    /// The non-empty parts between the dots. A name of dots only has none.
    std::vector<QString> pieces;
    /// The first and the last piece, the same one if there is only one; empty if there are no pieces.
    ComparableText base;
    ComparableText tail;
};

/// A rule with its value prepared for comparison.
struct MatchableRule {
    explicit MatchableRule(const FilterRule& rule) : filter(rule), value(rule.value) {}

    FilterRule filter;
    ComparableText value;
};

/// Returns whether `name` passes the first stage. No name passes a rule without a destination. Otherwise
/// every name passes a rule without a value or with the field Kind. All other rules compare their value with
/// `name.base` or `name.tail`; a name without pieces does not pass them.
[[nodiscard]] bool passesNameFilter(const SplitName& name, const MatchableRule& rule);

/// Returns whether `name` (raw bytes) is that of an unfinished download. No rule matches such an entry.
[[nodiscard]] bool isPartialDownload(std::string_view name);

/// Returns the part of `name` (raw bytes) before the first dot. A browser uses it in all names of one
/// download: "film" in the empty placeholder "film.mp4" and in the partial file "film.gqqRF_r1.mp4.part".
/// Empty for a hidden name; browsers give no such names.
[[nodiscard]] std::string_view downloadBase(std::string_view name);

/// Returns whether an entry that exists passes the second stage. `lowerCasedExtension` is its pathExtension()
/// as ComparableText::lowerCased. `isDirectory` does not follow symbolic links; nullopt means unknown.
[[nodiscard]] bool matches(const MatchableRule& rule, const QString& lowerCasedExtension,
                           std::optional<bool> isDirectory);

} // namespace harbex
