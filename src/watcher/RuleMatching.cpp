#include "watcher/RuleMatching.h"

#include "base/ReadableText.h"

namespace harbex
{

const QSet<QString> imageExtensions{
    QStringLiteral("jpg"),  QStringLiteral("jpeg"), QStringLiteral("png"), QStringLiteral("gif"),
    QStringLiteral("heic"), QStringLiteral("heif"), QStringLiteral("webp"), QStringLiteral("bmp"),
    QStringLiteral("tif"),  QStringLiteral("tiff"), QStringLiteral("avif")};

const QSet<QString> documentExtensions{
    QStringLiteral("pdf"),  QStringLiteral("doc"), QStringLiteral("docx"), QStringLiteral("xls"),
    QStringLiteral("xlsx"), QStringLiteral("ppt"), QStringLiteral("pptx"), QStringLiteral("txt"),
    QStringLiteral("rtf")};

const QSet<QString> videoExtensions{
    QStringLiteral("mp4"), QStringLiteral("mov"), QStringLiteral("avi"), QStringLiteral("mkv"),
    QStringLiteral("flv"), QStringLiteral("wmv"), QStringLiteral("webm")};

const QSet<QString> audioExtensions{
    QStringLiteral("mp3"), QStringLiteral("wav"),  QStringLiteral("aac"), QStringLiteral("flac"),
    QStringLiteral("ogg"), QStringLiteral("m4a"),  QStringLiteral("opus"), QStringLiteral("wma"),
    QStringLiteral("alac"), QStringLiteral("dsd")};

const QSet<QString> applicationExtensions{QStringLiteral("app"), QStringLiteral("exe")};

namespace
{

const QSet<QString> partialDownloadExtensions{QStringLiteral("download"), QStringLiteral("crdownload"),
                                              QStringLiteral("part"), QStringLiteral("tmp")};

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

bool isOfKind(RuleKind kind, const QString& extension, std::optional<bool> isDirectory)
{
    switch (kind) {
    case RuleKind::image:
        return imageExtensions.contains(extension);
    case RuleKind::video:
        return videoExtensions.contains(extension);
    case RuleKind::document:
        return documentExtensions.contains(extension);
    case RuleKind::folder:
        return isDirectory.value_or(false);
    case RuleKind::audio:
        return audioExtensions.contains(extension);
    case RuleKind::application:
        return applicationExtensions.contains(extension);
    }
    Q_UNREACHABLE();
}

} // namespace

ComparableText::ComparableText(const QString& text)
    : exact(text.normalized(QString::NormalizationForm_C)),
      // Lower-casing can leave a letter and a mark that compose anew.
      lowerCased(exact.toLower().normalized(QString::NormalizationForm_C))
{
}

SplitName::SplitName(std::string_view name)
{
    const QString text = textOfName(name);
    for (const QStringView piece : QStringView(text).split(u'.', Qt::SkipEmptyParts))
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

bool isPartialDownload(const QString& lowerCasedExtension)
{
    return partialDownloadExtensions.contains(lowerCasedExtension);
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
