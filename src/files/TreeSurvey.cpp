#include "files/TreeSurvey.h"

#include "files/EntryRemoval.h"

#include <unistd.h>

namespace harbex
{

namespace
{

/// Goes through a tree, each folder before what is in it, and refuses what cannot be moved.
class Walk
{
public:
    using Visit = std::function<Outcome<void>(const std::string& path, const EntryStatus&)>;

    Walk(const EntryStatus& targetFolder, const std::stop_token& stop, const Visit& visit)
        : m_targetFolder(targetFolder), m_stop(stop), m_visit(visit)
    {
    }

    /// `folder` is what `place.folder` is like.
    Outcome<void> run(const EntryPlace& place, const std::string& path, const EntryStatus& folder,
                      size_t depth)
    {
        if (m_stop.stop_requested()) return SystemError{ECANCELED};
        const Outcome<EntryStatus> status = EntryStatus::of(place);
        if (!status) return status.error();
        const Outcome<void> possible = expectMovable(*status, folder);
        if (!possible) return possible;
        const Outcome<void> visited = m_visit(path, *status);
        if (!visited) return visited;
        return status->isFolder() ? enter(place, path, *status, depth) : Outcome<void>();
    }

private:
    Outcome<void> expectMovable(const EntryStatus& entry, const EntryStatus& folder) const
    {
        if (!entry.isFolder() && !entry.isRegularFile() && !entry.isLink()) return SystemError{EOPNOTSUPP};
        if (entry.isMountPoint) return SystemError{EBUSY};
        if (entry.isProtected) return SystemError{EPERM};
        // In a folder with the sticky bit only the owner of an entry or of the folder may remove the entry.
        const uid_t us = ::geteuid();
        if ((folder.mode & S_ISVTX) && us != 0 && us != entry.owner && us != folder.owner)
            return SystemError{EPERM};
        if (entry.isSameEntry(m_targetFolder)) return SystemError{EINVAL};
        return {};
    }

    Outcome<void> enter(const EntryPlace& place, const std::string& path, const EntryStatus& status,
                        size_t depth)
    {
        if (depth == maximumTreeDepth) return SystemError{EMFILE};
        const Outcome<FileDescriptor> folder = openSubfolder(place, status);
        if (!folder) return folder.error();
        if (::faccessat(folder->get(), ".", R_OK | W_OK | X_OK, AT_EACCESS) != 0) return SystemError::last();
        const Outcome<std::vector<std::string>> names = namesIn(folder->get());
        if (!names) return names.error();
        const std::string prefix = path + '/';
        for (const std::string& name : *names) {
            const Outcome<void> walked = run({folder->get(), name}, prefix + name, status, depth + 1);
            if (!walked) return walked;
        }
        return {};
    }

    const EntryStatus& m_targetFolder;
    const std::stop_token& m_stop;
    const Visit& m_visit;
};

Outcome<void> walk(const EntryPlace& root, int targetFolder, const std::stop_token& stop,
                   const Walk::Visit& visit)
{
    if (::faccessat(root.folder, ".", W_OK | X_OK, AT_EACCESS) != 0) return SystemError::last();
    const Outcome<EntryStatus> folder = EntryStatus::ofOpen(root.folder);
    if (!folder) return folder.error();
    // Nothing may leave a folder with one of these flags.
    if (folder->isProtected) return SystemError{EPERM};
    const Outcome<EntryStatus> target = EntryStatus::ofOpen(targetFolder);
    if (!target) return target.error();
    return Walk(*target, stop, visit).run(root, {}, *folder, 0);
}

} // namespace

Outcome<TreeSurvey> TreeSurvey::take(const EntryPlace& root, int targetFolder, const std::stop_token& stop)
{
    TreeSurvey survey;
    const auto remember = [&survey](const std::string& path, const EntryStatus& entry) -> Outcome<void> {
        if (path.empty()) survey.m_root = entry;
        survey.m_entries.emplace(path, entry);
        return {};
    };
    const Outcome<void> walked = walk(root, targetFolder, stop, remember);
    if (!walked) return walked.error();
    return survey;
}

bool TreeSurvey::holdsUnchanged(const std::string& path, const EntryStatus& now) const
{
    const auto found = m_entries.find(path);
    return found != m_entries.end() && now.isUnchanged(found->second);
}

Outcome<void> TreeSurvey::expectUnchanged(const EntryPlace& root, int targetFolder,
                                          const std::stop_token& stop) const
{
    size_t count = 0;
    const auto compare = [this, &count](const std::string& path, const EntryStatus& now) -> Outcome<void> {
        ++count;
        if (!holdsUnchanged(path, now)) return SystemError{EBUSY};
        return {};
    };
    const Outcome<void> walked = walk(root, targetFolder, stop, compare);
    if (!walked) return walked;
    if (count != m_entries.size()) return SystemError{EBUSY};
    return {};
}

Outcome<void> TreeSurvey::removeTree(const EntryPlace& root) const
{
    return removeEntry(root, [this](const std::string& path, const EntryStatus& now) {
        const auto found = m_entries.find(path);
        if (found == m_entries.end() || now.isMountPoint) return false;
        const EntryStatus& then = found->second;
        // Emptying a folder changes its times, and removing one of its names the change time of a file.
        if (now.isFolder()) return then.isFolder();
        return then.links > 1 ? now.hasSameContent(then) : now.isUnchanged(then);
    });
}

} // namespace harbex
