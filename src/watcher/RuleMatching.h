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

// The decision whether a rule takes an entry. Pure functions and plain values, for any thread.
//
// It is made in two stages, and an entry must pass both. The first looks at the name alone and costs next to
// nothing; the second at what stands on the disk. For extension rules the two differ on purpose: the first
// may be a substring test, the second always asks for the whole extension in lower case.
//
// Text is compared under canonical equivalence: an "é" that a person typed finds one that another system
// wrote as "e" and a combining accent. Letters are folded by Unicode's lower-casing.

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

/// A text in the two forms it is compared in.
struct ComparableText {
    ComparableText() = default;
    explicit ComparableText(const QString& text);

    QString exact;
    QString lowerCased;
};

/// The name of an entry, split for the first stage.
struct SplitName {
    /// `name` is raw bytes; what is no UTF-8 takes part as U+FFFD.
    explicit SplitName(std::string_view name);

    /// What stands between the dots, empty pieces left out. None at all for a name made of dots only.
    std::vector<QString> pieces;
    /// The first and the last piece; without pieces, empty.
    ComparableText base;
    ComparableText tail;
};

/// A rule with its value prepared for comparing.
struct MatchableRule {
    explicit MatchableRule(const FilterRule& rule) : filter(rule), value(rule.value) {}

    FilterRule filter;
    ComparableText value;
};

/// The first stage. A rule without a destination takes nothing; one without a value, and one for a kind, lets
/// every name pass; a name without pieces passes no test of its text.
[[nodiscard]] bool passesNameFilter(const SplitName& name, const MatchableRule& rule);

/// Whether the name (raw bytes) is that of an unfinished download, which no rule takes.
[[nodiscard]] bool isPartialDownload(std::string_view name);

/// What a browser's names for one download have in common: "film" for "film.mp4", which it creates empty to
/// keep the name, and for "film.gqqRF_r1.mp4.part", which it writes. The text before the first dot.
[[nodiscard]] std::string_view downloadBase(std::string_view name);

/// The second stage, for an entry that exists. `isDirectory` does not follow links and is absent when it
/// could not be read.
[[nodiscard]] bool matches(const MatchableRule& rule, const QString& lowerCasedExtension,
                           std::optional<bool> isDirectory);

} // namespace harbex
