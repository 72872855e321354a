#include "watcher/RuleMatching.h"

#include "base/ReadableText.h"
#include "fs/EntryName.h"

#include <QList>

#include <algorithm>
#include <span>

namespace harbex
{

namespace
{

constexpr std::array<std::string_view, 4> partialDownloadExtensions{"download", "crdownload", "part", "tmp"};

bool compare(const ComparableText& text, const MatchableRule& rule)
{
    switch (rule.filter.operatorType) {
    case RuleOperator::contains:
        return text.lowerCased.contains(rule.value.lowerCased);
    case RuleOperator::isEqual:
        return text.exact == rule.value.exact;
    }
    Q_UNREACHABLE();
}

bool contains(std::span<const QStringView> extensions, const QString& extension)
{
    return std::ranges::find(extensions, extension) != extensions.end();
}

bool isOfKind(RuleKind kind, const QString& extension, std::optional<bool> isDirectory)
{
    switch (kind) {
    case RuleKind::image:
        return contains(imageExtensions, extension);
    case RuleKind::video:
        return contains(videoExtensions, extension);
    case RuleKind::document:
        return contains(documentExtensions, extension);
    case RuleKind::folder:
        return isDirectory.value_or(false);
    case RuleKind::audio:
        return contains(audioExtensions, extension);
    case RuleKind::application:
        return contains(applicationExtensions, extension);
    }
    Q_UNREACHABLE();
}

} // namespace

ComparableText::ComparableText(const QString& text)
    : exact(text.normalized(QString::NormalizationForm_C)),
      // Normalise again: lower case can contain a letter and a combining mark that compose.
      lowerCased(exact.toLower().normalized(QString::NormalizationForm_C))
{
}

SplitName::SplitName(std::string_view name)
{
    const QString text = textOfName(name);
    const QList<QStringView> split = QStringView(text).split(u'.', Qt::SkipEmptyParts);
    for (const QStringView piece : split)
        pieces.push_back(piece.toString());
    if (pieces.empty()) return;
    base = ComparableText(pieces.front());
    tail = ComparableText(pieces.back());
}

bool passesNameFilter(const SplitName& name, const MatchableRule& rule)
{
    if (!rule.filter.destination) return false;
    if (rule.filter.value.isEmpty() || rule.filter.field == RuleField::kind) return true;
    if (name.pieces.empty()) return false;
    return compare(rule.filter.field == RuleField::name ? name.base : name.tail, rule);
}

bool isPartialDownload(std::string_view name)
{
    // A byte comparison is fast enough for all names of a large folder. It is sufficient, because no
    // non-ASCII letter has a letter of these extensions as its lower case.
    const auto isSame = [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b; };
    const std::string_view extension = pathExtension(name);
    return std::ranges::any_of(partialDownloadExtensions, [&](std::string_view partial) {
        return std::ranges::equal(extension, partial, isSame);
    });
}

std::string_view downloadBase(std::string_view name)
{
    return name.substr(0, name.find('.'));
}

bool matches(const MatchableRule& rule, const QString& lowerCasedExtension, std::optional<bool> isDirectory)
{
    switch (rule.filter.field) {
    case RuleField::name:
        return true;
    case RuleField::fileExtension:
        return lowerCasedExtension == rule.value.exact;
    case RuleField::kind:
        return isOfKind(rule.filter.kind, lowerCasedExtension, isDirectory);
    }
    Q_UNREACHABLE();
}

} // namespace harbex
