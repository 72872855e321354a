#pragma once

#include <QByteArray>
#include <QString>

#include <optional>
#include <string>
#include <string_view>

namespace harbex
{

/// Where a folder or an entry is, as the configuration keeps it: the absolute string of a file URL.
/// A plain value that may be used on any thread. Two URLs are equal when their strings are; no path is
/// normalised. A path may hold any byte but NUL, by percent-encoding.
class FileUrl
{
public:
    /// Reads the text of a URL. Nothing when the text is empty or is no well-formed URL (RFC 3986; letters
    /// beyond ASCII may stand unencoded). The text is kept as it stands, so that it is written back
    /// unchanged.
    [[nodiscard]] static std::optional<FileUrl> fromString(const QString& text);

    /// The URL of an absolute path, given as raw bytes. A folder gets no trailing slash.
    [[nodiscard]] static FileUrl fromPath(std::string_view path);

    /// The URL's string, percent-encoded as it was given.
    [[nodiscard]] const QString& absoluteString() const { return m_string; }

    /// The absolute path in raw bytes, without a trailing slash (but "/" for the root). Empty for what names
    /// no local path: another scheme, another host, a relative path, a NUL byte. Nothing can be done with an
    /// empty path: the system answers ENOENT.
    [[nodiscard]] const std::string& path() const { return m_path; }

    /// The last component of path() in raw bytes, the name shown and logged; "/" for the root. A URL without
    /// a local path gives the text after its last slash.
    [[nodiscard]] std::string lastPathComponent() const;

    friend bool operator==(const FileUrl& a, const FileUrl& b) { return a.m_string == b.m_string; }
    friend bool operator<(const FileUrl& a, const FileUrl& b) { return a.m_string < b.m_string; }

private:
    FileUrl(QString string, std::string path) : m_string(std::move(string)), m_path(std::move(path)) {}

    QString m_string;
    std::string m_path;
};

} // namespace harbex
