#include "store/PreferencesFile.h"

#include "base/FileDescriptor.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <unistd.h>

namespace harbex
{

namespace
{

/// Replaces the file atomically. An existing file keeps its permissions. A new file gets `permissions`, or
/// the defaults if `permissions` is empty.
bool replaceFile(const QString& path, const QByteArray& bytes, QFile::Permissions permissions = {})
{
    // QSaveFile follows symbolic links, but replaces a link that it cannot read. It supports only Unicode
    // names.
    std::error_code error;
    const std::filesystem::path target =
        std::filesystem::weakly_canonical(QFile::encodeName(path).toStdString(), error);
    const QString name = QFile::decodeName(target.c_str());
    if (error || QFile::encodeName(name) != target.c_str()) return false;

    // QSaveFile removes the temporary file unless it is committed. It is unbuffered, because a buffered write
    // to an almost full disk writes the first bytes and reports success.
    QSaveFile temporaryFile(name);
    if (!temporaryFile.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) return false;
    if (permissions && temporaryFile.permissions() != permissions &&
        !temporaryFile.setPermissions(permissions))
        return false;
    if (temporaryFile.write(bytes) != bytes.size() || ::fsync(temporaryFile.handle()) != 0 ||
        !temporaryFile.commit())
        return false;

    // Some file systems cannot sync a folder. There a power loss may bring back the old file, whole.
    const QByteArray folderName = QFile::encodeName(QFileInfo(name).canonicalPath());
    const FileDescriptor folder(::open(folderName.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder) (void)::fsync(folder.get());
    return true;
}

} // namespace

PreferencesFile::PreferencesFile()
    : m_path(QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
             QStringLiteral("/harbex/harbex.json"))
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

bool PreferencesFile::write(const QByteArray& bytes) const
{
    return QDir().mkpath(QFileInfo(m_path).path()) && replaceFile(m_path, bytes);
}

bool PreferencesFile::putAside(const QByteArray& bytes, const QString& stem) const
{
    constexpr qsizetype shownHashLength = 16;
    const QByteArray hash = QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
    const QString path = QStringLiteral("%1/%2-%3.json")
                             .arg(QFileInfo(m_path).path(), stem, QLatin1String(hash.first(shownHashLength)));
    if (QFileInfo(path).isFile()) return true;
    const QFile::Permissions permissions = QFile::permissions(m_path);
    return permissions && replaceFile(path, bytes, permissions);
}

} // namespace harbex
