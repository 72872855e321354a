#include "store/PreferencesFile.h"

#include "base/FileDescriptor.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSettings>
#include <QVariant>

#include <array>
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
QString settingsName() { return QStringLiteral("harbex"); }
QString folderListKey() { return QStringLiteral("savedWatchedFolders"); }
QString selectedFolderKey() { return QStringLiteral("selectedWatchedFolderID"); }

/// Whether QSettings could run out of stack over this file: typed values may stand inside each other without a
/// limit, and it reads them by recursion. Each level takes some NUL characters, of which the file of this
/// program has none.
bool mayNestTooDeeply(const QByteArray& content)
{
    constexpr int mostNuls = 3000;
    int nuls = static_cast<int>(content.count('\0'));
    for (qsizetype i = 0; i + 1 < content.size(); ++i) {
        if (content[i] != '\\') continue;
        const QByteArrayView escape = QByteArrayView(content).sliced(++i);
        if (escape.startsWith('0') || escape.startsWith("x0")) ++nuls;
    }
    return nuls > mostNuls;
}

} // namespace

PreferencesFile::PreferencesFile() : m_path(QSettings(settingsName(), settingsName()).fileName())
{
}

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
    const QString folder = QFileInfo(m_path).absolutePath();
    const QString path = QStringLiteral("%1/%2-%3.%4")
                             .arg(folder, stem, QLatin1String(hash.first(shownHashLength)), suffix);
    if (QFileInfo::exists(path)) return true;

    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) return false;
    file.setPermissions(QFile::permissions(m_path));
    // QSaveFile syncs too, but goes on when that fails.
    const bool isWritten = file.write(bytes) == bytes.size() && file.flush() && ::fsync(file.handle()) == 0;
    if (!isWritten || !file.commit()) return false;
    const FileDescriptor directory(::open(QFile::encodeName(folder).constData(), O_RDONLY | O_CLOEXEC));
    return directory && ::fsync(directory.get()) == 0;
}

bool PreferencesFile::write(const QByteArray& folderList, const QString& selectedFolder) const
{
    // QSettings reads the old file for its other keys, and this one it might not survive.
    if (const auto old = content(); old && mayNestTooDeeply(*old)) QFile::remove(m_path);

    // An object of its own for each time: the status of a QSettings stays at the first error.
    QSettings settings(settingsName(), settingsName());
    settings.setValue(folderListKey(), folderList);
    if (selectedFolder.isEmpty())
        settings.remove(selectedFolderKey());
    else
        settings.setValue(selectedFolderKey(), selectedFolder);
    settings.sync();
    return settings.status() == QSettings::NoError;
}

std::optional<Preferences> parsePreferences(const QByteArray& content)
{
    Preferences preferences;
    if (mayNestTooDeeply(content)) {
        preferences.isDamaged = true;
        return preferences;
    }

    // QSettings remembers files by name, size and time, reports damage only when it first reads one, and writes
    // what it could not write before as soon as it reads again. So it is given a file in memory, with a time of
    // its own.
    QFile memory;
    const int descriptor = ::memfd_create("harbex.conf", MFD_CLOEXEC);
    if (descriptor < 0 || !memory.open(descriptor, QIODevice::ReadWrite, QFile::AutoCloseHandle))
        return std::nullopt;
    if (memory.write(content) != content.size() || !memory.flush()) return std::nullopt;
    static time_t distinctTime = 0;
    ++distinctTime;
    const std::array times{timespec{.tv_sec = distinctTime, .tv_nsec = 0},
                           timespec{.tv_sec = distinctTime, .tv_nsec = 0}};
    if (::futimens(descriptor, times.data()) != 0) return std::nullopt;
    const QSettings settings(QStringLiteral("/proc/self/fd/%1").arg(descriptor), QSettings::NativeFormat);

    preferences.hasFolderList = settings.contains(folderListKey());
    const QVariant list = settings.value(folderListKey());
    // A text, too: that is what a list becomes that was put in by hand.
    if (list.typeId() == QMetaType::QByteArray || list.typeId() == QMetaType::QString)
        preferences.folderList = list.toByteArray();
    const QVariant selected = settings.value(selectedFolderKey());
    if (selected.typeId() == QMetaType::QString) preferences.selectedFolder = selected.toString();
    // Damage shows only once the keys have been asked for.
    if (settings.status() == QSettings::AccessError) return std::nullopt;
    preferences.isDamaged = settings.status() != QSettings::NoError;
    return preferences;
}

} // namespace harbex
