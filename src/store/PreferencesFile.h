#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace harbex
{

/// What the preferences hold, as far as it can be understood.
struct Preferences {
    /// The file is not, or not only, what this program writes: something in it would be lost by the next
    /// write.
    bool isDamaged = false;
    /// A list of folders is stored, if only one that cannot be used.
    bool hasFolderList = false;
    /// Its bytes; nothing when there is no list or when the value under its key is of a type that has none.
    std::optional<QByteArray> folderList;
    /// The text stored for the selected folder, empty when there is none.
    QString selectedFolder;
};

/// The file in which this user's preferences are kept: $XDG_CONFIG_HOME/harbex/harbex.conf, with a byte array
/// under "savedWatchedFolders" and a string under "selectedWatchedFolderID". Main thread only.
///
/// Reading goes through content() and parsePreferences() and always sees the file as it stands now, whoever
/// changed it.
class PreferencesFile
{
public:
    PreferencesFile();

    [[nodiscard]] const QString& path() const { return m_path; }

    /// The bytes of the file; empty when there is no file, nothing when it cannot be read.
    [[nodiscard]] std::optional<QByteArray> content() const;

    /// Keeps bytes that write() is going to replace in a file beside this one, named after its content:
    /// `stem`-0123456789abcdef.`suffix`. When it returns true the file is on disk and complete, from now or
    /// from an earlier time; false says that it could not be written.
    [[nodiscard]] bool putAside(const QByteArray& bytes, const QString& stem, const QString& suffix) const;

    /// Stores both values at once and leaves other keys as they are; an empty selection removes its key. A
    /// file that does not take the values is put aside and replaced as a whole. The file is then on disk;
    /// false says that it could not be written and stays as it was.
    [[nodiscard]] bool write(const QByteArray& folderList, const QString& selectedFolder) const;

private:
    QString m_path;
};

/// What the content of a preferences file says. Takes any bytes. Nothing when this cannot be found out for
/// want of memory or descriptors.
[[nodiscard]] std::optional<Preferences> parsePreferences(const QByteArray& content);

} // namespace harbex
