#include "support/TreeSnapshot.h"

#include "support/EngineFiles.h"

#include <QByteArrayList>
#include <QCryptographicHash>

#include <algorithm>
#include <filesystem>
#include <map>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <utility>

namespace harbex::test
{

namespace
{

/// The kernel's limit for a list of attribute names and for an attribute value.
constexpr size_t longestAttribute = 65536;

/// Returns user attributes and ACLs. System attributes, such as labels, differ between volumes.
QByteArrayList attributesOf(const std::string& path)
{
    QByteArray names(longestAttribute, '\0');
    names.resize(std::max<ssize_t>(0, ::llistxattr(path.c_str(), names.data(), longestAttribute)));
    QByteArrayList attributes;
    for (const QByteArray& name : names.split('\0')) {
        if (!name.startsWith("user.") && !name.startsWith("system.posix_acl")) continue;
        QByteArray value(longestAttribute, '\0');
        value.resize(std::max<ssize_t>(
            0, ::lgetxattr(path.c_str(), name.constData(), value.data(), longestAttribute)));
        attributes << name + '=' + value.toHex();
    }
    std::sort(attributes.begin(), attributes.end());
    return attributes;
}

/// For each file, by volume and inode number, the name under which it was shown first.
using FirstNames = std::map<std::pair<dev_t, ino_t>, QByteArray>;

QByteArrayList linesOf(const std::string& path, const QByteArray& shownPath, FirstNames& firstNames)
{
    struct stat data;
    if (::lstat(path.c_str(), &data) != 0) return {shownPath + " (nothing)"};
    QByteArray line =
        shownPath + QString::asprintf(" mode %o owner %u:%u modified %jd.%09ld", data.st_mode, data.st_uid,
                                      data.st_gid, intmax_t(data.st_mtim.tv_sec), data.st_mtim.tv_nsec)
                        .toLatin1();
    for (const QByteArray& attribute : attributesOf(path))
        line += ' ' + attribute;
    if (S_ISREG(data.st_mode))
        line += " size " + QByteArray::number(qint64(data.st_size)) + ' ' +
                QCryptographicHash::hash(contents(path), QCryptographicHash::Sha1).toHex();
    if (S_ISLNK(data.st_mode))
        line += " -> " + QByteArray::fromStdString(std::filesystem::read_symlink(path));
    if (!S_ISDIR(data.st_mode)) {
        const auto [first, isNew] = firstNames.try_emplace({data.st_dev, data.st_ino}, shownPath);
        return {isNew ? line : line + " is " + first->second};
    }
    QByteArrayList lines{line};
    for (const QByteArray& name : namesIn(path))
        lines += linesOf(path + '/' + name.toStdString(), shownPath + '/' + name, firstNames);
    return lines;
}

} // namespace

QByteArray snapshotOf(const std::string& path)
{
    FirstNames firstNames;
    return linesOf(path, ".", firstNames).join('\n');
}

} // namespace harbex::test
