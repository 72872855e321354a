#include "fs/TreeWalk.h"

#include <unistd.h>

namespace harbex
{

namespace
{

Outcome<void> walk(const DirEntry& place, const std::string& path, const TreeVisit& visit, size_t depth)
{
    const Outcome<EntryStatus> status = EntryStatus::of(place);
    if (!status) return status.error();
    const TreeEntry entry{place, path, *status};
    const Outcome<void> visited = visit.before(entry);
    if (!visited || !status->isFolder()) return visited;

    if (depth == maximumTreeDepth) return SystemError{EMFILE};
    const Outcome<FileDescriptor> folder = openSubfolder(place, *status);
    if (!folder) return folder.error();
    const Outcome<std::vector<std::string>> names = namesIn(folder->get());
    if (!names) return names.error();
    const std::string prefix = path + '/';
    for (const std::string& name : *names) {
        const Outcome<void> walked = walk({folder->get(), name}, prefix + name, visit, depth + 1);
        if (!walked) return walked;
    }
    return visit.after ? visit.after(entry, folder->get()) : Outcome<void>();
}

Outcome<void> unlink(const DirEntry& place, int flags)
{
    if (::unlinkat(place.folder, place.name.c_str(), flags) != 0) return SystemError::last();
    return {};
}

} // namespace

Outcome<void> walkTree(const DirEntry& root, const TreeVisit& visit)
{
    return walk(root, {}, visit, 0);
}

Outcome<void> removeTree(const DirEntry& root, const std::function<bool(const TreeEntry&)>& mayRemove)
{
    const auto before = [&mayRemove](const TreeEntry& entry) -> Outcome<void> {
        if (!mayRemove(entry)) return SystemError{EBUSY};
        return entry.status.isFolder() ? Outcome<void>() : unlink(entry.place, 0);
    };
    const auto after = [](const TreeEntry& entry, int) { return unlink(entry.place, AT_REMOVEDIR); };
    return walkTree(root, {before, after});
}

} // namespace harbex
