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

/// A new file gets the permissions `rights` if any are given; one that is there keeps its own.
bool replaceFile(const QString& path, const QByteArray& bytes, QFile::Permissions rights = {})
{
    // QSaveFile follows links too, but replaces one that it cannot read, and knows no names but Unicode
    // texts.
    std::error_code error;
    const std::filesystem::path target =
        std::filesystem::weakly_canonical(QFile::encodeName(path).toStdString(), error);
    const QString name = QFile::decodeName(target.c_str());
    if (error || QFile::encodeName(name) != target.c_str()) return false;

    // Without a commit the draft is removed. With a buffer, a disk that is nearly full would get the
    // beginning of the bytes and report success.
    QSaveFile draft(name);
    if (!draft.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) return false;
    if (rights && draft.permissions() != rights && !draft.setPermissions(rights)) return false;
    if (draft.write(bytes) != bytes.size() || ::fsync(draft.handle()) != 0 || !draft.commit()) return false;

    // Not all file systems can sync a folder; then a loss of power may still bring back the old file, whole.
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
    const QFile::Permissions rights = QFile::permissions(m_path);
    return rights && replaceFile(path, bytes, rights);
}

} // namespace harbex
