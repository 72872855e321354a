#include "fs/FileCopy.h"

#include "fs/EntryAttributes.h"

#include <algorithm>
#include <cstring>
#include <linux/fs.h>
#include <memory>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

namespace harbex
{

namespace
{

/// Bytes for each read. Larger buffers are slower: the page cache then searches for contiguous memory.
constexpr uint64_t bufferSize = 128U << 10U;
/// Bytes for each copy_file_range() call. Small, because a call cannot be interrupted by a stop request.
constexpr uint64_t copyRangeChunk = 8U << 20U;
/// Bytes after which the kernel is told to start writing to disk.
constexpr uint64_t writeBackChunk = 8U << 20U;

struct Range {
    uint64_t begin;
    uint64_t end;
};

/// Returns the next data range at or after `from`, or an empty range at `size` when only a hole follows.
Outcome<Range> nextData(int file, uint64_t from, uint64_t size)
{
    const off_t begin = ::lseek(file, static_cast<off_t>(from), SEEK_DATA);
    if (begin < 0) {
        if (errno == ENXIO) return Range{size, size};
        // This file system does not report holes.
        if (errno == EINVAL || errno == EOPNOTSUPP) return Range{from, size};
        return SystemError::last();
    }
    const off_t end = ::lseek(file, begin, SEEK_HOLE);
    if (end < 0) {
        // The file has been truncated.
        if (errno == ENXIO) return SystemError{EBUSY};
        return SystemError::last();
    }
    return Range{std::min(static_cast<uint64_t>(begin), size), std::min(static_cast<uint64_t>(end), size)};
}

/// Reads at most `length` bytes at offset `at`. Returns the number of bytes, 0 at the end of the file.
Outcome<uint64_t> readSome(int file, char* bytes, uint64_t length, uint64_t at)
{
    for (;;) {
        const ssize_t size = ::pread(file, bytes, length, static_cast<off_t>(at));
        if (size >= 0) return static_cast<uint64_t>(size);
        if (errno != EINTR) return SystemError::last();
    }
}

/// Copies the content of one open file into another.
class ContentCopy
{
public:
    ContentCopy(int source, int target, uint64_t size, const std::stop_token& stop)
        : m_source(source), m_target(target), m_size(size), m_stop(stop)
    {
    }

    Outcome<void> run();

private:
    Outcome<void> copy(Range range);
    void startWriteBack(uint64_t end);
    /// Copies at most `length` bytes at offset `at`. Returns the number of bytes.
    Outcome<uint64_t> copySome(uint64_t at, uint64_t length);
    Outcome<uint64_t> readAndWrite(uint64_t at, uint64_t length);
    Outcome<void> write(uint64_t at, uint64_t length);
    Outcome<void> expectSourceEnd();

    const int m_source;
    const int m_target;
    const uint64_t m_size;
    const std::stop_token& m_stop;
    /// Offset in the target up to which write-back was started.
    uint64_t m_writeBackBegin = 0;
    bool m_useCopyFileRange = true;
    std::unique_ptr<char[]> m_buffer;
};

Outcome<void> ContentCopy::run()
{
    // A reflink shares the blocks of the source. It needs both files on one file system with reflinks.
    if (::ioctl(m_target, FICLONE, m_source) == 0) {
        const Outcome<EntryStatus> cloned = EntryStatus::ofOpen(m_target);
        if (!cloned) return cloned.error();
        if (cloned->size != m_size) return SystemError{EBUSY};
        return {};
    }

    uint64_t written = 0;
    for (uint64_t at = 0; at < m_size;) {
        const Outcome<Range> data = nextData(m_source, at, m_size);
        if (!data) return data.error();
        const Outcome<void> copied = copy(*data);
        if (!copied) return copied;
        if (data->begin < data->end) written = data->end;
        at = data->end;
    }
    // The file ends in a hole.
    if (written < m_size && ::ftruncate(m_target, static_cast<off_t>(m_size)) != 0)
        return SystemError::last();
    return expectSourceEnd();
}

Outcome<void> ContentCopy::copy(Range range)
{
    while (range.begin < range.end) {
        if (m_stop.stop_requested()) return SystemError{ECANCELED};
        const Outcome<uint64_t> copied = copySome(range.begin, range.end - range.begin);
        if (!copied) return copied.error();
        range.begin += *copied;
        startWriteBack(range.begin);
    }
    return {};
}

// Shortens the final synchronization, which a stop request cannot interrupt.
void ContentCopy::startWriteBack(uint64_t end)
{
    if (end - m_writeBackBegin < writeBackChunk) return;
    // Ignores failures: the final synchronization reports write errors.
    ::sync_file_range(m_target, static_cast<off_t>(m_writeBackBegin),
                      static_cast<off_t>(end - m_writeBackBegin), SYNC_FILE_RANGE_WRITE);
    m_writeBackBegin = end;
}

Outcome<uint64_t> ContentCopy::copySome(uint64_t at, uint64_t length)
{
    if (m_useCopyFileRange) {
        off_t in = static_cast<off_t>(at);
        off_t out = in;
        const ssize_t copied =
            ::copy_file_range(m_source, &in, m_target, &out, std::min(length, copyRangeChunk), 0);
        if (copied > 0) return static_cast<uint64_t>(copied);
        // The call is unsupported for these files, reports a wrong end of file, or fails. Reading and writing
        // works for all files and reports the actual error.
        m_useCopyFileRange = false;
    }
    return readAndWrite(at, length);
}

Outcome<uint64_t> ContentCopy::readAndWrite(uint64_t at, uint64_t length)
{
    if (!m_buffer) m_buffer = std::make_unique_for_overwrite<char[]>(std::min(m_size, bufferSize));
    const Outcome<uint64_t> size = readSome(m_source, m_buffer.get(), std::min(length, bufferSize), at);
    if (!size) return size;
    // The file has been truncated.
    if (*size == 0) return SystemError{EBUSY};
    const Outcome<void> written = write(at, *size);
    if (!written) return written.error();
    return size;
}

Outcome<void> ContentCopy::write(uint64_t at, uint64_t length)
{
    for (uint64_t done = 0; done < length;) {
        const ssize_t size =
            ::pwrite(m_target, m_buffer.get() + done, length - done, static_cast<off_t>(at + done));
        if (size > 0)
            done += static_cast<uint64_t>(size);
        else if (size == 0)
            return SystemError{EIO};
        else if (errno != EINTR)
            return SystemError::last();
    }
    return {};
}

// Some file systems report a size that is smaller than the readable content.
Outcome<void> ContentCopy::expectSourceEnd()
{
    char beyond = 0;
    const Outcome<uint64_t> size = readSome(m_source, &beyond, 1, m_size);
    if (!size) return size.error();
    if (*size > 0) return SystemError{EBUSY};
    return {};
}

Outcome<void> readExactly(int file, char* bytes, uint64_t length, uint64_t at)
{
    for (uint64_t done = 0; done < length;) {
        const Outcome<uint64_t> size = readSome(file, bytes + done, length - done, at + done);
        if (!size) return size.error();
        if (*size == 0) return SystemError{EBUSY};
        done += *size;
    }
    return {};
}

Outcome<void> expectSameContent(int source, int copy, uint64_t size, const std::stop_token& stop)
{
    const auto bytes = std::make_unique_for_overwrite<char[]>(bufferSize);
    const auto bytesOfCopy = std::make_unique_for_overwrite<char[]>(bufferSize);
    for (uint64_t at = 0; at < size;) {
        const Outcome<Range> inSource = nextData(source, at, size);
        if (!inSource) return inSource.error();
        const Outcome<Range> inCopy = nextData(copy, at, size);
        if (!inCopy) return inCopy.error();
        // Both files have a hole before this range.
        const Range data = inSource->begin < inCopy->begin ? *inSource : *inCopy;
        for (at = data.begin; at < data.end;) {
            if (stop.stop_requested()) return SystemError{ECANCELED};
            const uint64_t length = std::min(bufferSize, data.end - at);
            Outcome<void> read = readExactly(source, bytes.get(), length, at);
            if (read) read = readExactly(copy, bytesOfCopy.get(), length, at);
            if (!read) return read;
            if (std::memcmp(bytes.get(), bytesOfCopy.get(), length) != 0) return SystemError{EBUSY};
            at += length;
        }
    }
    return {};
}

/// Opens the file for reading. Does not follow a symbolic link.
Outcome<FileDescriptor> openToRead(const DirEntry& source)
{
    // O_NONBLOCK: a pipe may have replaced the file, and opening a pipe waits for a writer.
    constexpr int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    FileDescriptor file(::openat(source.folder, source.name.c_str(), flags | O_NOFOLLOW));
    if (file) return file;
    const SystemError error = SystemError::last();
    if (error.code != ELOOP) return error;

    // The document portal before version 1.18 fails with ELOOP for every file. It is not asked when the file
    // is opened with O_PATH, and does not see O_NOFOLLOW when that descriptor is opened again.
    const FileDescriptor place(::openat(source.folder, source.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!place) return SystemError::last();
    FileDescriptor again(::open(("/proc/self/fd/" + std::to_string(place.get())).c_str(), flags));
    if (!again) return SystemError::last();
    return again;
}

Outcome<FileDescriptor> openSource(const DirEntry& source, const EntryStatus& seen)
{
    Outcome<FileDescriptor> file = openToRead(source);
    if (!file) return file;
    const Outcome<EntryStatus> opened = EntryStatus::ofOpen(file->get());
    if (!opened) return opened.error();
    if (!opened->isSameEntry(seen) || !opened->hasSameContent(seen)) return SystemError{EBUSY};
    return file;
}

} // namespace

Outcome<void> copyFile(const DirEntry& source, const EntryStatus& seen, int target,
                       const std::stop_token& stop)
{
    const Outcome<FileDescriptor> file = openSource(source, seen);
    if (!file) return file.error();
    const Outcome<void> copied = ContentCopy(file->get(), target, seen.size, stop).run();
    if (!copied) return copied;
    return copyAttributes(file->get(), seen, target);
}

Outcome<void> refreshFileCopy(const DirEntry& source, const EntryStatus& seen, int copy,
                              const std::stop_token& stop)
{
    const Outcome<FileDescriptor> file = openSource(source, seen);
    if (!file) return file.error();
    const Outcome<void> same = expectSameContent(file->get(), copy, seen.size, stop);
    if (!same) return same;
    return refreshAttributes(file->get(), seen, copy);
}

} // namespace harbex
