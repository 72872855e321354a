#include "files/EntryRemoval.h"

#include <unistd.h>

namespace harbex
{

namespace
{

class Removal
{
public:
    explicit Removal(const MayRemove& mayRemove) : m_mayRemove(mayRemove) {}

    Outcome<void> remove(const EntryPlace& place, const std::string& path, size_t depth)
    {
        const Outcome<EntryStatus> status = EntryStatus::of(place);
        if (!status) return status.error();
        if (!m_mayRemove(path, *status)) return SystemError{EBUSY};
        if (status->isFolder()) {
            const Outcome<void> emptied = empty(place, *status, path, depth);
            if (!emptied) return emptied;
        }
        if (::unlinkat(place.folder, place.name.c_str(), status->isFolder() ? AT_REMOVEDIR : 0) != 0)
            return SystemError::last();
        return {};
    }

private:
    Outcome<void> empty(const EntryPlace& place, const EntryStatus& status, const std::string& path,
                        size_t depth)
    {
        if (depth == maximumTreeDepth) return SystemError{EMFILE};
        const Outcome<FileDescriptor> folder = openSubfolder(place, status);
        if (!folder) return folder.error();
        const Outcome<std::vector<std::string>> names = namesIn(folder->get());
        if (!names) return names.error();
        const std::string prefix = path + '/';
        for (const std::string& name : *names) {
            const Outcome<void> removed = remove({folder->get(), name}, prefix + name, depth + 1);
            if (!removed) return removed;
        }
        return {};
    }

    const MayRemove& m_mayRemove;
};

} // namespace

Outcome<void> removeEntry(const EntryPlace& place, const MayRemove& mayRemove)
{
    return Removal(mayRemove).remove(place, {}, 0);
}

} // namespace harbex
