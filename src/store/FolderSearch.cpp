#include "store/FolderSearch.h"

#include "base/FileDescriptor.h"
#include "fs/DirectoryListing.h"
#include "model/FileUrl.h"

#include <array>
#include <climits>
#include <deque>
#include <fcntl.h>
#include <functional>
#include <limits>
#include <linux/openat2.h>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unordered_map>
#include <utility>

namespace harbex
{

namespace
{

using Entry = DirectoryListing::Entry;

std::string parentOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string join(const std::string& folder, std::string_view name)
{
    std::string path = folder == "/" ? std::string() : folder;
    return path.append("/").append(name);
}

/// Opens the folder at the relative `path`. Fails if a symbolic link or a mount point is on the way or at the
/// end.
FileDescriptor openBelow(int root, const char* path, int flags)
{
    open_how how = {};
    how.flags = static_cast<uint64_t>(flags | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    how.resolve = RESOLVE_NO_XDEV | RESOLVE_NO_SYMLINKS;
    return FileDescriptor(static_cast<int>(::syscall(SYS_openat2, root, path, &how, sizeof how)));
}

/// A folder that a search begins at.
struct Root {
    FileDescriptor folder;
    /// Its path without symbolic links, as the mount table has it.
    std::string place;
};

/// Opens the folder at `path`. Follows symbolic links. Returns nullopt on failure.
std::optional<Root> openRoot(const std::string& path)
{
    FileDescriptor folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    std::array<char, PATH_MAX> place;
    const std::string link = "/proc/self/fd/" + std::to_string(folder.get());
    const ssize_t size = ::readlink(link.c_str(), place.data(), place.size());
    if (!folder || size < 0) return std::nullopt;
    return Root{std::move(folder), std::string(place.data(), static_cast<size_t>(size))};
}

/// Returns the number of the mount that the entry at `path` is on; nullopt if there is no entry.
std::optional<uint64_t> mountOf(const std::string& path)
{
    struct statx status = {};
    if (::statx(AT_FDCWD, path.c_str(), 0, STATX_MNT_ID, &status) != 0) return std::nullopt;
    return status.stx_mnt_id;
}

/// Leaves out hidden folders and the trash: "Trash" of the desktop, "$RECYCLE.BIN" of Windows on a volume.
bool isSearched(std::string_view name)
{
    return !name.starts_with('.') && name != "Trash" && name != "$RECYCLE.BIN";
}

class Search
{
public:
    Search(std::map<QByteArray, LostFolder>& lost, const MountTable& mounts) : m_mounts(mounts)
    {
        for (auto& [bookmark, folder] : lost)
            if (folder.identity.hasBirthTime() || folder.identity.hasHandle())
                m_wanted.insert({folder.identity.inode, &folder});
    }

    void searchParents()
    {
        std::set<std::string> parents;
        for (const auto& [inode, folder] : m_wanted)
            parents.insert(parentOf(folder->path));
        for (const std::string& parent : parents) {
            const std::optional<Root> root = openRoot(parent);
            if (root) list(*root, ".", parent, [](const Entry&) {});
        }
    }

    void searchAncestors(const SearchBounds& bounds)
    {
        m_bounds = bounds;
        for (const auto& [inode, folder] : m_wanted)
            addAncestors(folder->path);
        for (const std::string& ancestor : m_ancestors)
            searchBelow(ancestor);
    }

private:
    void addAncestors(const std::string& path)
    {
        std::optional<uint64_t> mount;
        for (std::string folder = parentOf(path); folder != "/"; folder = parentOf(folder)) {
            if (const auto mountHere = mountOf(folder)) {
                if (mountHere != mount.value_or(*mountHere)) return;
                mount = mountHere;
                m_ancestors.insert(folder);
            }
            if (folder == m_home) return;
        }
    }

    void searchBelow(const std::string& ancestor)
    {
        const std::optional<Root> root = openRoot(ancestor);
        if (!root) return;
        std::deque<std::string> waiting{ancestor};
        for (; !waiting.empty() && m_bounds.folders > 0 && !isOver(); waiting.pop_front()) {
            --m_bounds.folders;
            const std::string& path = waiting.front();
            const char* relative = path == ancestor ? "." : path.c_str() + ancestor.size() + 1;
            list(*root, relative, path, [&](const Entry& entry) {
                if (!isSearched(entry.name) || waiting.size() > m_bounds.folders) return;
                std::string inside = join(path, entry.name);
                // An ancestor inside of this one was searched before.
                if (!m_ancestors.contains(inside)) waiting.push_back(std::move(inside));
            });
        }
    }

    /// Lists the folder `relative` below `root`, and records the wanted folders in it. `path` is its whole
    /// path. Calls `visit` for each entry that can be a folder.
    void list(const Root& root, const char* relative, const std::string& path,
              const std::function<void(const Entry&)>& visit)
    {
        FileDescriptor folder = openBelow(root.folder.get(), relative, O_RDONLY);
        if (!folder) return;
        const int descriptor = folder.get();
        auto listing = DirectoryListing::of(std::move(folder));
        if (!listing) return;
        const std::string place = relative == std::string_view(".") ? root.place : join(root.place, relative);
        int entries = 0;
        // A listing that fails is searched as far as it goes.
        (void)listing->forEachEntry([&](const Entry& entry) {
            // Opening an automount point would mount it, even for a call that refuses mount points.
            if (entry.canBeFolder && !m_mounts.isRemoteMount(join(place, entry.name))) {
                if (m_wanted.contains(entry.inode)) recordIfWanted(descriptor, path, entry);
                visit(entry);
            }
            constexpr int entriesBetweenLooksAtTheClock = 1000;
            return ++entries % entriesBetweenLooksAtTheClock != 0 || !isOver();
        });
    }

    void recordIfWanted(int parent, const std::string& parentPath, const Entry& entry)
    {
        const FileDescriptor folder = openBelow(parent, std::string(entry.name).c_str(), O_PATH);
        if (!folder) return;
        const auto identity = identityOfFolder(folder.get());
        if (!identity) return;
        // Bookmarks with different paths can be of the same folder.
        std::erase_if(m_wanted, [&](const auto& wanted) {
            if (compare(*identity, wanted.second->identity) != Likeness::same) return false;
            wanted.second->foundAt = join(parentPath, entry.name);
            return true;
        });
    }

    bool isOver() const { return m_wanted.empty() || std::chrono::steady_clock::now() >= m_bounds.deadline; }

    const MountTable& m_mounts;
    const std::string m_home = FileUrl::fromPath(qgetenv("HOME").toStdString()).path();
    /// What is left of them. The parents are searched without bounds.
    SearchBounds m_bounds{.deadline = std::chrono::steady_clock::time_point::max(),
                          .folders = std::numeric_limits<size_t>::max()};
    /// By inode number.
    std::unordered_multimap<quint64, LostFolder*> m_wanted;
    /// Where the search begins. In this order a folder comes before its parent.
    std::set<std::string, std::greater<>> m_ancestors;
};

} // namespace

void findLostFolders(std::map<QByteArray, LostFolder>& lost, const MountTable& mounts,
                     const SearchBounds& bounds)
{
    Search search(lost, mounts);
    search.searchParents();
    search.searchAncestors(bounds);
}

} // namespace harbex
