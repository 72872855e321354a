#pragma once

#include "base/FileDescriptor.h"
#include "base/FileIdentity.h"
#include "base/Outcome.h"

#include <cstddef>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>

namespace harbex
{

/// One pass over the entries of a folder. The folder is open only while this lives, so that nothing keeps its
/// volume from being unmounted. Used by one thread.
class DirectoryListing
{
public:
    /// Opens the folder at `path` (raw bytes).
    [[nodiscard]] static Outcome<DirectoryListing> open(const std::string& path);

    /// The same for a folder that is open already, with a position of its own: `folder` is not moved on.
    [[nodiscard]] static Outcome<DirectoryListing> openAgain(int folder);

    /// Which folder was opened.
    [[nodiscard]] const FileIdentity& identity() const { return m_identity; }

    /// A path to the opened folder itself, whatever stands at the path it was opened by. Valid as long as
    /// this.
    [[nodiscard]] std::string descriptorPath() const
    {
        return "/proc/self/fd/" + std::to_string(m_directory.get());
    }

    /// When an entry was last added, removed or renamed.
    [[nodiscard]] Outcome<timespec> modificationTime() const;

    /// Calls `name` with the name of every entry, hidden ones included, "." and ".." left out, in the order
    /// in which the file system gives them. Reads no attributes. On failure some names may have been given.
    template <class Name>
    [[nodiscard]] Outcome<void> forEachName(Name&& name);

private:
    /// A record of getdents64(2), up to its name.
    struct Record {
        static constexpr size_t lengthOffset = 16;
        static constexpr size_t nameOffset = 19;
    };

    DirectoryListing(FileDescriptor directory, FileIdentity identity)
        : m_directory(std::move(directory)), m_identity(identity)
    {
    }

    /// Fills the buffer with the next records and gives their size, 0 at the end.
    Outcome<size_t> readRecords(char* buffer, size_t size);

    FileDescriptor m_directory;
    FileIdentity m_identity;
};

template <class Name>
Outcome<void> DirectoryListing::forEachName(Name&& name)
{
    // getdents64 instead of readdir: names come without a copy and without a lock for each.
    alignas(8) char buffer[64 * 1024];
    for (;;) {
        const Outcome<size_t> size = readRecords(buffer, sizeof buffer);
        if (!size) return size.error();
        if (*size == 0) return {};
        for (size_t offset = 0; offset < *size;) {
            const char* record = buffer + offset;
            offset += *reinterpret_cast<const unsigned short*>(record + Record::lengthOffset);
            const std::string_view entry(record + Record::nameOffset);
            if (entry != "." && entry != "..") name(entry);
        }
    }
}

} // namespace harbex
