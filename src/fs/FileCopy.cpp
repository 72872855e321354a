#include "fs/FileCopy.h"

#include "fs/EntryAttributes.h"

#include <algorithm>
#include <cstring>
#include <linux/fs.h>
#include <memory>
#include <sys/ioctl.h>
#include <unistd.h>

namespace harbex
{

namespace
{

/// Larger pieces are slower: the page cache then looks for large runs of free memory.
constexpr uint64_t bufferSize = 128U << 10U;
/// What the kernel copies in one call, few enough to hear of a stop soon.
constexpr uint64_t kernelChunk = 8U << 20U;
/// After so much the disk is set to work, while the copy goes on.
constexpr uint64_t writeBackChunk = 8U << 20U;

struct Range {
    uint64_t begin;
    uint64_t end;
};

/// The next piece of a file from `from` on that is no hole; empty at the end when there is none.
Outcome<Range> nextData(int file, uint64_t from, uint64_t size)
{
    const off_t begin = ::lseek(file, static_cast<off_t>(from), SEEK_DATA);
    if (begin < 0) {
        if (errno == ENXIO) return Range{size, size};
        // This file system does not tell its holes.
        if (errno == EINVAL || errno == EOPNOTSUPP) return Range{from, size};
        return SystemError::last();
    }
    const off_t end = ::lseek(file, begin, SEEK_HOLE);
    if (end < 0) {
        if (errno == ENXIO) return SystemError{EBUSY};
        return SystemError::last();
    }
    return Range{std::min(static_cast<uint64_t>(begin), size), std::min(static_cast<uint64_t>(end), size)};
}

/// Reads at most `length` bytes and gives how many; 0 at the end.
Outcome<uint64_t> readSome(int file, char* bytes, uint64_t length, uint64_t at)
{
    for (;;) {
        const ssize_t size = ::pread(file, bytes, length, static_cast<off_t>(at));
        if (size >= 0) return static_cast<uint64_t>(size);
        if (errno != EINTR) return SystemError::last();
    }
}

/// Copies the content of one open file into another one.
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
    /// Copies at most `length` bytes and gives how many.
    Outcome<uint64_t> copySome(uint64_t at, uint64_t length);
    Outcome<uint64_t> readAndWrite(uint64_t at, uint64_t length);
    Outcome<void> write(uint64_t at, uint64_t length);
    Outcome<void> expectSourceEnd();

    const int m_source;
    const int m_target;
    const uint64_t m_size;
    const std::stop_token& m_stop;
    /// Where the part of the target begins that the disk was not yet told to write.
    uint64_t m_notWrittenBack = 0;
    bool m_kernelCopies = true;
    std::unique_ptr<char[]> m_buffer;
};

Outcome<void> ContentCopy::run()
{
    // Where both share a file system that can, the copy shares the blocks of the source.
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

// The final synchronising is short then, and so is the time in which a stop is not heard.
void ContentCopy::startWriteBack(uint64_t end)
{
    if (end - m_notWrittenBack < writeBackChunk) return;
    // A failure to write is told by that final synchronising, and one to begin costs nothing but time.
    ::sync_file_range(m_target, static_cast<off_t>(m_notWrittenBack),
                      static_cast<off_t>(end - m_notWrittenBack), SYNC_FILE_RANGE_WRITE);
    m_notWrittenBack = end;
}

Outcome<uint64_t> ContentCopy::copySome(uint64_t at, uint64_t length)
{
    if (m_kernelCopies) {
        off_t in = static_cast<off_t>(at);
        off_t out = in;
        const ssize_t copied =
            ::copy_file_range(m_source, &in, m_target, &out, std::min(length, kernelChunk), 0);
        if (copied > 0) return static_cast<uint64_t>(copied);
        // It cannot for these two files, or found an end that may be none, or failed: reading and writing
        // can always, and tells the reason if not.
        m_kernelCopies = false;
    }
    return readAndWrite(at, length);
}

Outcome<uint64_t> ContentCopy::readAndWrite(uint64_t at, uint64_t length)
{
    if (!m_buffer) m_buffer = std::make_unique_for_overwrite<char[]>(std::min(m_size, bufferSize));
    const Outcome<uint64_t> size = readSome(m_source, m_buffer.get(), std::min(length, bufferSize), at);
    if (!size) return size;
    // The file has been cut.
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

// Some file systems tell a size that is not the one a reader finds.
Outcome<void> ContentCopy::expectSourceEnd()
{
    char beyond = 0;
    const Outcome<uint64_t> size = readSome(m_source, &beyond, 1, m_size);
    if (!size) return size.error();
    if (*size > 0) return SystemError{EBUSY};
    return {};
}

Outcome<void> readWhole(int file, char* bytes, uint64_t length, uint64_t at)
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
        // What comes before is a hole in both.
        const Range data = inSource->begin < inCopy->begin ? *inSource : *inCopy;
        for (at = data.begin; at < data.end;) {
            if (stop.stop_requested()) return SystemError{ECANCELED};
            const uint64_t length = std::min(bufferSize, data.end - at);
            Outcome<void> read = readWhole(source, bytes.get(), length, at);
            if (read) read = readWhole(copy, bytesOfCopy.get(), length, at);
            if (!read) return read;
            if (std::memcmp(bytes.get(), bytesOfCopy.get(), length) != 0) return SystemError{EBUSY};
            at += length;
        }
    }
    return {};
}

Outcome<FileDescriptor> openSource(const DirEntry& source, const EntryStatus& seen)
{
    // O_NONBLOCK: what stands there now may be a pipe, and opening one waits for a writer.
    FileDescriptor file(::openat(source.folder, source.name.c_str(),
                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file) return SystemError::last();
    const Outcome<EntryStatus> opened = EntryStatus::ofOpen(file.get());
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

Outcome<void> takeFileAgain(const DirEntry& source, const EntryStatus& seen, int copy,
                            const std::stop_token& stop)
{
    const Outcome<FileDescriptor> file = openSource(source, seen);
    if (!file) return file.error();
    const Outcome<void> same = expectSameContent(file->get(), copy, seen.size, stop);
    if (!same) return same;
    return takeAttributesAgain(file->get(), seen, copy);
}

} // namespace harbex
