#include "store/PreferencesFile.h"

#include "base/FileDescriptor.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QVariant>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace harbex
{

namespace
{

// Both the organization's name and the program's.
QString settingsName()
{
    return QStringLiteral("harbex");
}
QString folderListKey()
{
    return QStringLiteral("savedWatchedFolders");
}
QString selectedFolderKey()
{
    return QStringLiteral("selectedWatchedFolderID");
}

/// Whether a line has a NUL character in it, as a byte or as an escape of QSettings: a backslash and octal
/// digits, or a backslash, an x and hexadecimal ones.
bool mayHaveNul(QByteArrayView line)
{
    if (line.contains('\0')) return true;
    for (qsizetype i = line.indexOf('\\'); i >= 0; i = line.indexOf('\\', i + 2)) {
        const bool isHexadecimal = line.sliced(i + 1).startsWith('x');
        const QByteArrayView number = line.sliced(i + (isHexadecimal ? 2 : 1));
        const auto end = std::ranges::find_if_not(number, [isHexadecimal](char c) {
            return isHexadecimal ? std::isxdigit(static_cast<unsigned char>(c)) != 0 : c >= '0' && c <= '7';
        });
        const auto length = end - number.begin();
        if (length == 0 && !isHexadecimal) continue;
        // Of a longer number QSettings keeps the last 16 bits; it writes none itself.
        const bool isZero = std::all_of(number.begin(), end, [](char c) { return c == '0'; });
        if (isZero || length > 4) return true;
    }
    return false;
}

/// The content without the lines that QSettings might not survive. It reads a typed value (of a list, a map)
/// with all that it claims to hold: without a limit to its size or to how deep it nests. Each such value has
/// NUL characters, of which what this program stores has none.
QByteArray withoutTypedValues(const QByteArray& content)
{
    QByteArrayList lines = content.split('\n');
    lines.removeIf(mayHaveNul);
    return lines.join('\n');
}

/// Writes a file that is either complete and on disk or as it was before. Its rights are those of the file
/// that it replaces, or else `permissions` if any are given.
bool replaceFile(const QString& path, const QByteArray& bytes, QFile::Permissions permissions = {})
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) return false;
    if (permissions) file.setPermissions(permissions);
    // QSaveFile on its own takes a write that was cut short for a whole one, and goes on when syncing fails.
    const bool isWritten = file.write(bytes) == bytes.size() && file.flush() && ::fsync(file.handle()) == 0;
    if (!isWritten || !file.commit()) return false;
    // Not all file systems can sync a folder; then a loss of power may still bring back the old file, whole.
    const FileDescriptor folder(
        ::open(QFile::encodeName(QFileInfo(path).path()).constData(), O_RDONLY | O_CLOEXEC));
    if (folder) (void)::fsync(folder.get());
    return true;
}

/// The content of the file `old` with these values in it; nothing when there is no place to make it.
///
/// QSettings gives it its form in a folder for temporary files. It is not let near the file itself: on a disk
/// that is nearly full it replaces a file by the beginning of the new one and reports success.
std::optional<QByteArray> withValues(const QByteArray& old, const QByteArray& folderList,
                                     const QString& selectedFolder)
{
    const QTemporaryDir place;
    QFile file(place.filePath(QStringLiteral("harbex.conf")));
    const QByteArray harmless = withoutTypedValues(old);
    if (!file.open(QIODevice::WriteOnly)) return std::nullopt;
    if (file.write(harmless) != harmless.size() || !file.flush()) return std::nullopt;
    file.close();
    {
        QSettings settings(file.fileName(), QSettings::NativeFormat);
        settings.setValue(folderListKey(), folderList);
        if (selectedFolder.isEmpty())
            settings.remove(selectedFolderKey());
        else
            settings.setValue(selectedFolderKey(), selectedFolder);
    }
    if (!file.open(QIODevice::ReadOnly)) return std::nullopt;
    const QByteArray bytes = file.readAll();
    const auto written = parsePreferences(bytes);
    const bool isWhole =
        written && written->folderList == folderList && written->selectedFolder == selectedFolder;
    return isWhole ? std::optional(bytes) : std::nullopt;
}

} // namespace

PreferencesFile::PreferencesFile() : m_path(QSettings(settingsName(), settingsName()).fileName()) {}

std::optional<QByteArray> PreferencesFile::content() const
{
    const FileDescriptor descriptor(::open(QFile::encodeName(m_path).constData(), O_RDONLY | O_CLOEXEC));
    if (!descriptor) {
        if (errno == ENOENT || errno == ENOTDIR) return QByteArray();
        return std::nullopt;
    }
    QFile file;
    if (!file.open(descriptor.get(), QIODevice::ReadOnly)) return std::nullopt;
    QByteArray bytes = file.readAll();
    if (file.error() != QFile::NoError) return std::nullopt;
    return bytes;
}

bool PreferencesFile::putAside(const QByteArray& bytes, const QString& stem, const QString& suffix) const
{
    constexpr qsizetype shownHashLength = 16;
    const QByteArray hash = QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
    const QString path =
        QStringLiteral("%1/%2-%3.%4")
            .arg(QFileInfo(m_path).absolutePath(), stem, QLatin1String(hash.first(shownHashLength)), suffix);
    return QFileInfo(path).isFile() || replaceFile(path, bytes, QFile::permissions(m_path));
}

bool PreferencesFile::write(const QByteArray& folderList, const QString& selectedFolder) const
{
    const auto old = content();
    const auto bytes = old ? withValues(*old, folderList, selectedFolder) : std::nullopt;
    return bytes && QDir().mkpath(QFileInfo(m_path).absolutePath()) && replaceFile(m_path, *bytes);
}

std::optional<Preferences> parsePreferences(const QByteArray& content)
{
    const QByteArray harmless = withoutTypedValues(content);

    // In a file in memory, since a full disk must not keep the preferences from being read. Each has a time
    // of its own, since QSettings remembers files by name, size and time and tells of damage only once.
    QFile memory;
    const int descriptor = ::memfd_create("harbex.conf", MFD_CLOEXEC);
    if (descriptor < 0 || !memory.open(descriptor, QIODevice::ReadWrite, QFile::AutoCloseHandle))
        return std::nullopt;
    if (memory.write(harmless) != harmless.size() || !memory.flush()) return std::nullopt;
    static time_t distinctTime = 0;
    ++distinctTime;
    const std::array times{timespec{.tv_sec = distinctTime, .tv_nsec = 0},
                           timespec{.tv_sec = distinctTime, .tv_nsec = 0}};
    if (::futimens(descriptor, times.data()) != 0) return std::nullopt;
    const QSettings settings(QStringLiteral("/proc/self/fd/%1").arg(descriptor), QSettings::NativeFormat);

    Preferences preferences;
    preferences.hasFolderList = settings.contains(folderListKey());
    const QVariant list = settings.value(folderListKey());
    // A text, too: that is what a list becomes that was put in by hand.
    if (list.typeId() == QMetaType::QByteArray || list.typeId() == QMetaType::QString)
        preferences.folderList = list.toByteArray();
    const QVariant selected = settings.value(selectedFolderKey());
    if (selected.typeId() == QMetaType::QString) preferences.selectedFolder = selected.toString();
    // Damage shows only once the keys have been asked for.
    if (settings.status() == QSettings::AccessError) return std::nullopt;
    preferences.isDamaged = settings.status() != QSettings::NoError || harmless != content;
    return preferences;
}

} // namespace harbex
