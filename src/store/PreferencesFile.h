#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace harbex
{

/// The user's preferences file: $XDG_CONFIG_HOME/harbex/harbex.json. Its content can be any bytes. Main
/// thread only.
///
/// A write that returns true is complete, and on disk if the file system can sync a folder. A write that
/// returns false leaves the file unchanged.
/// Symbolic links are followed and kept. A file that the user may not write to is not replaced. A process
/// that is killed during a write leaves the old or the new file, whole. It may also leave one temporary file,
/// "harbex.json." and six letters. Nothing removes that file, because a file of the user may have such a
/// name. On file systems with O_TMPFILE it can remain only after a kill just before the final rename.
class PreferencesFile
{
public:
    PreferencesFile();

    [[nodiscard]] const QString& path() const { return m_path; }

    /// Returns the current bytes of the file; empty if there is no file, nullopt if it cannot be read.
    [[nodiscard]] std::optional<QByteArray> content() const;

    /// Replaces the file. Creates its folder if necessary. Returns false on failure.
    [[nodiscard]] bool write(const QByteArray& bytes) const;

    /// Copies `bytes`, which write() will replace, to a file beside this one with its permissions. The name
    /// comes from the content: `stem`-0123456789abcdef.json. An existing file of that name is kept. Returns
    /// false on failure.
    [[nodiscard]] bool putAside(const QByteArray& bytes, const QString& stem) const;

private:
    QString m_path;
};

} // namespace harbex
