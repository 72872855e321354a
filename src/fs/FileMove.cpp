#include "fs/FileMove.h"

#include "fs/CrossDeviceMove.h"
#include "fs/DirEntry.h"
#include "fs/EntryName.h"
#include "fs/NoReplaceRename.h"
#include "fs/StagingDirectory.h"

#include <utility>

namespace harbex
{

FileMove::FileMove(std::stop_token stop) : m_stop(std::move(stop)) {}

Outcome<void> FileMove::moveItem(const std::string& source, const std::string& target)
{
    Outcome<void> moved = renameWithoutReplacing({AT_FDCWD, source}, {AT_FDCWD, target});
    if (!moved && moved.error().code == EXDEV) moved = moveAcrossDevices(source, target, m_stop);
    removeLeftoversOnce(parentPath(target));
    return moved;
}

void FileMove::removeLeftoversOnce(const std::string& folder)
{
    if (m_stop.stop_requested() || !isFirstMoveInto(folder)) return;
    if (const Outcome<FileDescriptor> opened = openFolder(folder))
        StagingDirectory::removeLeftovers(opened->get());
}

bool FileMove::isFirstMoveInto(const std::string& folder)
{
    const MutexLock lock(m_mutex);
    return m_searchedFolders.insert(folder).second;
}

} // namespace harbex
