#pragma once

#include "base/FileDescriptor.h"
#include "base/FileIdentity.h"
#include "base/Outcome.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>

namespace harbex
{

/// One pass over the entries of a folder. The object keeps the folder open, which prevents an unmount of its
/// volume: destroy it after use. Functions fail with the errno of the failed system call and may block on a
/// disk or server. Use from one thread at a time.
class DirectoryListing
{
public:
    /// Opens the folder at `path` (raw bytes).
    [[nodiscard]] static Outcome<DirectoryListing> open(const std::string& path);

    /// Takes the folder that is open for reading as `directory`. Lists nothing yet.
    [[nodiscard]] static Outcome<DirectoryListing> of(FileDescriptor directory);

    /// Opens once more the folder that is open as `folder`. The read position of `folder` does not change.
    [[nodiscard]] static Outcome<DirectoryListing> openAgain(int folder);

    /// Returns the identity of the opened folder.
    [[nodiscard]] const FileIdentity& identity() const { return m_identity; }

    /// Returns a path to the opened folder, even if another entry is at its original path. Valid during the
    /// lifetime of this object.
    [[nodiscard]] std::string descriptorPath() const
    {
        return "/proc/self/fd/" + std::to_string(m_directory.get());
    }

    /// Returns the time when an entry was last added, removed or renamed. Asks the server of a remote volume.
    [[nodiscard]] Outcome<timespec> modificationTime() const;

    /// Calls `name` with the name of each entry except "." and "..", in the order of the file system.
    /// Includes hidden entries. Each std::string_view is valid during its call only. May fail after some
    /// calls.
    template <class Name>
    [[nodiscard]] Outcome<void> forEachName(Name&& name);

    /// What a listing tells about an entry.
    struct Entry {
        std::string_view name;
        /// For a mount point, the number of the folder that the mount covers.
        uint64_t inode = 0;
        /// Also true if the file system does not tell the type.
        bool canBeFolder = false;
    };

    /// Like forEachName(), with an Entry. Ends when `visit` returns false.
    template <class Visit>
    [[nodiscard]] Outcome<void> forEachEntry(Visit&& visit);

private:
    /// Field offsets in a record of getdents64(2), and values of the type.
    struct Record {
        static constexpr size_t inodeOffset = 0;
        static constexpr size_t lengthOffset = 16;
        static constexpr size_t typeOffset = 18;
        static constexpr size_t nameOffset = 19;
        static constexpr unsigned char unknownType = 0;
        static constexpr unsigned char folderType = 4;
    };

    DirectoryListing(FileDescriptor directory, FileIdentity identity)
        : m_directory(std::move(directory)), m_identity(identity)
    {
    }

    /// Fills the buffer with the next records. Returns their size in bytes, 0 at the end.
    Outcome<size_t> readRecords(char* buffer, size_t size);

    FileDescriptor m_directory;
    FileIdentity m_identity;
};

template <class Name>
Outcome<void> DirectoryListing::forEachName(Name&& name)
{
    return forEachEntry([&name](const Entry& entry) {
        name(entry.name);
        return true;
    });
}

template <class Visit>
Outcome<void> DirectoryListing::forEachEntry(Visit&& visit)
{
    // getdents64() instead of readdir(): no copy and no lock for each name.
    alignas(8) char buffer[64 * 1024];
    for (;;) {
        const Outcome<size_t> size = readRecords(buffer, sizeof buffer);
        if (!size) return size.error();
        if (*size == 0) return {};
        for (size_t offset = 0; offset < *size;) {
            const char* record = buffer + offset;
            offset += *reinterpret_cast<const unsigned short*>(record + Record::lengthOffset);
            const std::string_view name(record + Record::nameOffset);
            if (name == "." || name == "..") continue;
            const auto type = static_cast<unsigned char>(record[Record::typeOffset]);
            const Entry entry{.name = name,
                              .inode = *reinterpret_cast<const uint64_t*>(record + Record::inodeOffset),
                              .canBeFolder = type == Record::folderType || type == Record::unknownType};
            if (!visit(entry)) return {};
        }
    }
}

} // namespace harbex
