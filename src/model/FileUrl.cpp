#include "model/FileUrl.h"

#include <QUrl>

#include <utility>

namespace harbex
{

namespace
{

// Do not use QUrl::toLocalFile(): it converts to Unicode and loses bytes that are not UTF-8.
std::string localPath(const QUrl& url)
{
    const bool isLocal = url.scheme() == QLatin1String("file") &&
                         (url.host().isEmpty() || url.host() == QLatin1String("localhost"));
    if (!isLocal) return {};
    std::string path = QByteArray::fromPercentEncoding(url.path(QUrl::FullyEncoded).toLatin1()).toStdString();
    if (!path.starts_with('/') || path.find('\0') != std::string::npos) return {};
    while (path.size() > 1 && path.ends_with('/'))
        path.pop_back();
    return path;
}

} // namespace

std::optional<FileUrl> FileUrl::fromString(const QString& text)
{
    // QUrl accepts a lone surrogate, but the store writes UTF-8, which cannot represent it.
    if (text.isEmpty() || !text.isValidUtf16()) return std::nullopt;
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid()) return std::nullopt;
    return FileUrl(text, localPath(url));
}

FileUrl FileUrl::fromPath(std::string_view path)
{
    while (path.size() > 1 && path.ends_with('/'))
        path.remove_suffix(1);
    const QByteArray bytes(path.data(), static_cast<qsizetype>(path.size()));
    // After "file://", the first component of a relative path would be a host.
    const QString scheme = path.starts_with('/') ? QStringLiteral("file://") : QStringLiteral("file:");
    const QString text = scheme + QLatin1String(bytes.toPercentEncoding("/"));
    return {text, localPath(QUrl(text, QUrl::StrictMode))};
}

std::string FileUrl::lastPathComponent() const
{
    if (m_path == "/") return m_path;
    const std::string text = m_path.empty() ? m_string.toStdString() : m_path;
    return text.substr(text.rfind('/') + 1);
}

} // namespace harbex
