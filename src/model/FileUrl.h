#pragma once

#include <QByteArray>
#include <QString>

#include <optional>
#include <string>
#include <string_view>

namespace harbex
{

/// The URL of a folder or entry, in the form that the configuration stores. Equality compares the URL strings
/// without normalisation. Percent-encoding allows paths with any byte except NUL. A plain value.
class FileUrl
{
public:
    /// Parses a URL (RFC 3986; non-ASCII letters may be unencoded) and keeps its text unchanged. Returns
    /// nullopt if the text is empty or malformed.
    [[nodiscard]] static std::optional<FileUrl> fromString(const QString& text);

    /// Returns the URL of a path (raw bytes), without trailing slashes. The path should be absolute: path()
    /// is empty for a relative one.
    [[nodiscard]] static FileUrl fromPath(std::string_view path);

    /// Returns the URL string with its original percent-encoding.
    [[nodiscard]] const QString& absoluteString() const { return m_string; }

    /// Returns the absolute path (raw bytes) without a trailing slash; "/" for the root. Empty if the URL has
    /// no local path: another scheme or host, a relative path, or a NUL byte. System calls fail with ENOENT
    /// for an empty path.
    [[nodiscard]] const std::string& path() const { return m_path; }

    /// Returns the last component of path() (raw bytes), for display and logs; "/" for the root. Without a
    /// local path: the URL text (UTF-8) after its last slash.
    [[nodiscard]] std::string lastPathComponent() const;

    friend bool operator==(const FileUrl& a, const FileUrl& b) { return a.m_string == b.m_string; }
    friend bool operator<(const FileUrl& a, const FileUrl& b) { return a.m_string < b.m_string; }

private:
    FileUrl(QString string, std::string path) : m_string(std::move(string)), m_path(std::move(path)) {}

    QString m_string;
    std::string m_path;
};

} // namespace harbex
