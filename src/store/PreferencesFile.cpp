#include "store/PreferencesFile.h"

#include "base/FileDescriptor.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QTemporaryDir>
#include <QVariant>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/file.h>
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

std::string nativePath(const QString& path)
{
    return QFile::encodeName(path).toStdString();
}

/// The file that a path leads to at last through links, whether it exists or not; nothing when they have no
/// end or cannot be read.
std::optional<std::string> endOfLinks(std::string path)
{
    constexpr int maximumLinks = 40;
    for (int i = 0; i < maximumLinks; ++i) {
        std::array<char, PATH_MAX> text;
        const ssize_t size = ::readlink(path.c_str(), text.data(), text.size());
        if (size < 0 && (errno == EINVAL || errno == ENOENT)) return path;
        if (size <= 0) return std::nullopt;
        const std::string_view target(text.data(), static_cast<size_t>(size));
        if (target.front() == '/')
            path = target;
        else
            path.replace(path.rfind('/') + 1, std::string::npos, target);
    }
    return std::nullopt;
}

enum class Draft { ours, gone, somebodyElses };

/// What is open as `fd` and should be the draft at `path`. One that another user made, or gave a second name
/// that is a file of this user's, must not be written into.
Draft draftAt(const std::string& path, int fd)
{
    struct stat opened;
    struct stat there;
    if (::fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode)) return Draft::somebodyElses;
    if (::lstat(path.c_str(), &there) != 0 || opened.st_dev != there.st_dev || opened.st_ino != there.st_ino)
        return Draft::gone;
    return opened.st_uid == ::geteuid() && opened.st_nlink == 1 ? Draft::ours : Draft::somebodyElses;
}

/// Opens the draft of a file, empty and for this process alone. Its name is always the same, so that a
/// process that was killed leaves one at most, which the next one uses.
FileDescriptor openDraft(const std::string& path)
{
    constexpr int maximumTries = 10;
    for (int i = 0; i < maximumTries; ++i) {
        FileDescriptor draft(
            ::open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
        if (!draft) return draft;
        // A file system may have no locks.
        if (::flock(draft.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) return {};
        // Whoever had the lock until now may have given the draft its final name.
        const Draft found = draftAt(path, draft.get());
        if (found == Draft::gone) continue;
        if (found == Draft::somebodyElses || ::ftruncate(draft.get(), 0) != 0) return {};
        return draft;
    }
    return {};
}

bool writeAll(int fd, QByteArrayView bytes)
{
    while (!bytes.isEmpty()) {
        const ssize_t written = ::write(fd, bytes.data(), static_cast<size_t>(bytes.size()));
        if (written <= 0) return false;
        bytes = bytes.sliced(written);
    }
    return true;
}

/// Writes a file that is either complete and on disk or as it was before; through links, which stay. It gets
/// the permissions of the file `model`, where there is one.
bool replaceFile(const std::string& path, const QByteArray& bytes, const std::string& model)
{
    const std::optional<std::string> target = endOfLinks(path);
    if (!target) return false;
    // Somebody may have protected it on purpose.
    if (::access(target->c_str(), W_OK) != 0 && errno != ENOENT) return false;

    const std::string draftPath = *target + ".new";
    const FileDescriptor draft = openDraft(draftPath);
    if (!draft) return false;
    struct stat rights;
    bool isWritten = false;
    // On a draft that is ours EPERM says that the file system has no permissions.
    if (::stat(model.c_str(), &rights) == 0)
        isWritten = ::fchmod(draft.get(), rights.st_mode & 07777) == 0 || errno == EPERM;
    else
        isWritten = errno == ENOENT;
    isWritten = isWritten && writeAll(draft.get(), bytes) && ::fsync(draft.get()) == 0;
    if (!isWritten || ::rename(draftPath.c_str(), target->c_str()) != 0) {
        ::unlink(draftPath.c_str());
        return false;
    }
    // Not all file systems can sync a folder; then a loss of power may still bring back the old file, whole.
    const FileDescriptor folder(
        ::open(target->substr(0, target->rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder) (void)::fsync(folder.get());
    return true;
}

/// The content of the file `old` with these values in it, as far as it takes them; nothing when there is no
/// place to make it.
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
    return file.readAll();
}

bool holds(const std::optional<QByteArray>& content, const QByteArray& folderList,
           const QString& selectedFolder)
{
    const auto written = content ? parsePreferences(*content) : std::nullopt;
    return written && written->folderList == folderList && written->selectedFolder == selectedFolder;
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
    return QFileInfo(path).isFile() || replaceFile(nativePath(path), bytes, nativePath(m_path));
}

bool PreferencesFile::write(const QByteArray& folderList, const QString& selectedFolder) const
{
    const auto old = content();
    if (!old) return false;
    auto bytes = withValues(*old, folderList, selectedFolder);
    bool isWhole = holds(bytes, folderList, selectedFolder);
    // A file can be such that it does not take them: a value in a section without a name stays for ever.
    if (bytes && !isWhole) {
        bytes = withValues({}, folderList, selectedFolder);
        isWhole = holds(bytes, folderList, selectedFolder) &&
                  putAside(*old, QStringLiteral("harbex"), QStringLiteral("conf"));
    }
    return isWhole && QDir().mkpath(QFileInfo(m_path).absolutePath()) &&
           replaceFile(nativePath(m_path), *bytes, nativePath(m_path));
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
    // Of a file that it may not look at QSettings says no more than that nothing is in it.
    const bool wasNotRead = settings.allKeys().isEmpty() && harmless.contains(folderListKey().toUtf8());
    preferences.isDamaged = settings.status() != QSettings::NoError || harmless != content || wasNotRead;
    return preferences;
}

} // namespace harbex
