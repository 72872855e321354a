#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace harbex
{

/// The file in which this user's preferences are kept: $XDG_CONFIG_HOME/harbex/harbex.json. Takes and gives
/// any bytes. Main thread only.
///
/// What is written is on disk and complete when the call returns true; when it returns false the file is as
/// it was. Symbolic links are followed and stay. A file that this user may not write to is not replaced. A
/// process that is killed while it writes leaves the old file or the new one, whole, and beside it at most
/// one draft, "harbex.json." and six letters. Nothing removes the draft, since a file of somebody's own can
/// have such a name. On volumes with unnamed files only the moment before the last call can leave one.
class PreferencesFile
{
public:
    PreferencesFile();

    [[nodiscard]] const QString& path() const { return m_path; }

    /// The bytes of the file as it stands now; empty when there is no file, nothing when it cannot be read.
    [[nodiscard]] std::optional<QByteArray> content() const;

    /// Replaces the file. Makes its folder where there is none.
    [[nodiscard]] bool write(const QByteArray& bytes) const;

    /// Keeps bytes that write() is going to replace in a file beside this one, named after its content:
    /// `stem`-0123456789abcdef.json, with the permissions of this one. One that is there stays as it is.
    [[nodiscard]] bool putAside(const QByteArray& bytes, const QString& stem) const;

private:
    QString m_path;
};

} // namespace harbex
