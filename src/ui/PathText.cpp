#include "ui/PathText.h"

#include "base/ReadableText.h"
#include "store/Bookmark.h"
#include "store/Document.h"

#include <QDir>
#include <QTextBoundaryFinder>

namespace harbex
{

namespace
{

constexpr int longestPath = 40;

bool hasMoreCharactersThan(int limit, const QString& text)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    int count = 0;
    while (count <= limit && finder.toNextBoundary() != -1)
        ++count;
    return count > limit;
}

QString pathOf(const FileUrl& url)
{
    const std::string bytes = pathInDocument(url.path()).value_or(url.path());
    return QString::fromUtf8(bytes.data(), static_cast<qsizetype>(bytes.size()));
}

} // namespace

FileUrl shownUrl(const FileUrl& url, const std::optional<QByteArray>& bookmark)
{
    return bookmark ? hostUrl(url, *bookmark).value_or(url) : url;
}

QString folderLabel(const FileUrl& url)
{
    const QString path = pathOf(url);
    if (path.isEmpty() || hasMoreCharactersThan(longestPath, path))
        return readableName(url.lastPathComponent());
    const QString home = QDir::homePath();
    return readableText(home == QLatin1String("/") ? path : QString(path).replace(home, QStringLiteral("~")));
}

QString fullPath(const FileUrl& url)
{
    return readableText(pathOf(url));
}

QString pathToolTip(const FileUrl& url)
{
    return QStringLiteral("<p dir=\"ltr\" style=\"white-space:pre-wrap\">%1</p>")
        .arg(fullPath(url).toHtmlEscaped());
}

} // namespace harbex
