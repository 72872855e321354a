#include "files/FileMove.h"

#include "files/EntryName.h"
#include "files/EntryPlace.h"
#include "files/NoReplaceRename.h"
#include "files/PartFolder.h"
#include "files/VolumeCrossing.h"

#include <algorithm>
#include <utility>

namespace harbex
{

FileMove::FileMove(std::stop_token stop) : m_stop(std::move(stop)) {}

Outcome<void> FileMove::moveItem(const std::string& source, const std::string& target)
{
    Outcome<void> moved = renameWithoutReplacing({AT_FDCWD, source}, {AT_FDCWD, target});
    if (!moved && moved.error().code == EXDEV) moved = moveAcrossVolumes(source, target, m_stop);
    removeLeftoversOnce(parentPath(target));
    return moved;
}

void FileMove::removeLeftoversOnce(const std::string& path)
{
    if (m_stop.stop_requested()) return;
    // A folder that nothing can be told of is one that nothing was moved into.
    const Outcome<FileIdentity> identity = identityOf(path);
    if (!identity || !isFirstMoveInto(*identity)) return;
    if (const Outcome<FileDescriptor> folder = openFolder(path)) PartFolder::removeLeftovers(folder->get());
}

bool FileMove::isFirstMoveInto(const FileIdentity& folder)
{
    const MutexLock lock(m_mutex);
    if (std::ranges::find(m_visited, folder) != m_visited.end()) return false;
    m_visited.push_back(folder);
    return true;
}

} // namespace harbex
