#include "files/TreeCopy.h"

#include "files/EntryAttributes.h"
#include "files/FileCopy.h"

#include <climits>
#include <unistd.h>

namespace harbex
{

Outcome<void> TreeCopy::copy(const EntryPlace& source, const EntryPlace& target)
{
    m_root = target;
    return copyEntry(source, target, {});
}

Outcome<void> TreeCopy::copyEntry(const EntryPlace& source, const EntryPlace& target, const std::string& path)
{
    if (m_stop.stop_requested()) return SystemError{ECANCELED};
    const Outcome<EntryStatus> seen = EntryStatus::of(source);
    if (!seen) return seen.error();
    if (!m_survey.holdsUnchanged(path, *seen)) return SystemError{EBUSY};

    if (seen->isFolder()) return copyFolder(source, *seen, target, path);
    if (seen->links > 1) {
        const Outcome<bool> linked = linkToEarlierCopy(*seen, target, path);
        if (!linked) return linked.error();
        if (*linked) return {};
    }
    return seen->isLink() ? copyLink(source, *seen, target) : copyRegularFile(source, *seen, target);
}

Outcome<bool> TreeCopy::linkToEarlierCopy(const EntryStatus& seen, const EntryPlace& target,
                                          const std::string& path)
{
    const auto [found, isFirst] = m_firstCopies.try_emplace({seen.device, seen.inode}, FirstCopy{seen, path});
    const FirstCopy& first = found->second;
    // The number alone may have been given to another file by now.
    if (isFirst || !seen.isUnchanged(first.original)) return false;
    const std::string copy = m_root.name + first.path;
    if (::linkat(m_root.folder, copy.c_str(), target.folder, target.name.c_str(), 0) == 0) return true;
    switch (errno) {
    // No (more) links there, or a path that is too long to say: it becomes a file of its own.
    case EPERM:
    case EOPNOTSUPP:
    case ENOSYS:
    case EMLINK:
    case ENAMETOOLONG:
        return false;
    default:
        return SystemError::last();
    }
}

Outcome<void> TreeCopy::copyRegularFile(const EntryPlace& source, const EntryStatus& seen,
                                        const EntryPlace& target)
{
    const FileDescriptor file(::openat(target.folder, target.name.c_str(),
                                       O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) return SystemError::last();
    return copyFile(source, seen, file.get(), m_stop);
}

Outcome<void> TreeCopy::copyFolder(const EntryPlace& source, const EntryStatus& seen,
                                   const EntryPlace& target, const std::string& path)
{
    const Outcome<FileDescriptor> from = openSubfolder(source, seen);
    if (!from) return from.error();
    if (::mkdirat(target.folder, target.name.c_str(), 0700) != 0) return SystemError::last();
    const FileDescriptor to(
        ::openat(target.folder, target.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!to) return SystemError::last();

    const Outcome<std::vector<std::string>> names = namesIn(from->get());
    if (!names) return names.error();
    const std::string prefix = path + '/';
    for (const std::string& name : *names) {
        const Outcome<void> copied = copyEntry({from->get(), name}, {to.get(), name}, prefix + name);
        if (!copied) return copied;
    }
    // Last, because every entry that is made in it changes its times.
    return copyAttributes(from->get(), seen, to.get());
}

Outcome<void> TreeCopy::copyLink(const EntryPlace& source, const EntryStatus& seen, const EntryPlace& target)
{
    std::string text(PATH_MAX, '\0');
    const ssize_t size = ::readlinkat(source.folder, source.name.c_str(), text.data(), text.size());
    if (size < 0) return SystemError::last();
    text.resize(static_cast<size_t>(size));
    if (::symlinkat(text.c_str(), target.folder, target.name.c_str()) != 0) return SystemError::last();
    return copyLinkAttributes(seen, target);
}

} // namespace harbex
