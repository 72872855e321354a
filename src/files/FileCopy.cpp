#include "files/FileCopy.h"

#include "files/EntryAttributes.h"

#include <algorithm>
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
    struct Range {
        uint64_t begin;
        uint64_t end;
    };

    /// The next piece of the source from `from` on that is no hole; empty at the end when there is none.
    Outcome<Range> nextData(uint64_t from) const;
    Outcome<void> copy(Range range);
    void startWriteBack(uint64_t end);
    /// Copies at most `length` bytes and gives how many.
    Outcome<uint64_t> copySome(uint64_t at, uint64_t length);
    Outcome<uint64_t> readAndWrite(uint64_t at, uint64_t length);
    Outcome<uint64_t> read(uint64_t at, uint64_t length);
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
        const Outcome<Range> data = nextData(at);
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

Outcome<ContentCopy::Range> ContentCopy::nextData(uint64_t from) const
{
    const off_t begin = ::lseek(m_source, static_cast<off_t>(from), SEEK_DATA);
    if (begin < 0) {
        if (errno == ENXIO) return Range{m_size, m_size};
        // This file system does not tell its holes.
        if (errno == EINVAL || errno == EOPNOTSUPP) return Range{from, m_size};
        return SystemError::last();
    }
    const off_t end = ::lseek(m_source, begin, SEEK_HOLE);
    if (end < 0) {
        if (errno == ENXIO) return SystemError{EBUSY};
        return SystemError::last();
    }
    return Range{std::min(static_cast<uint64_t>(begin), m_size),
                 std::min(static_cast<uint64_t>(end), m_size)};
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
    const Outcome<uint64_t> size = read(at, std::min(length, bufferSize));
    if (!size) return size;
    // The file has been cut.
    if (*size == 0) return SystemError{EBUSY};
    const Outcome<void> written = write(at, *size);
    if (!written) return written.error();
    return size;
}

Outcome<uint64_t> ContentCopy::read(uint64_t at, uint64_t length)
{
    for (;;) {
        const ssize_t size = ::pread(m_source, m_buffer.get(), length, static_cast<off_t>(at));
        if (size >= 0) return static_cast<uint64_t>(size);
        if (errno != EINTR) return SystemError::last();
    }
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
    for (;;) {
        const ssize_t size = ::pread(m_source, &beyond, 1, static_cast<off_t>(m_size));
        if (size == 0) return {};
        if (size > 0) return SystemError{EBUSY};
        if (errno != EINTR) return SystemError::last();
    }
}

} // namespace

Outcome<void> copyFile(const EntryPlace& source, const EntryStatus& seen, int target,
                       const std::stop_token& stop)
{
    // O_NONBLOCK: what stands there now may be a pipe, and opening one waits for a writer.
    const FileDescriptor file(::openat(source.folder, source.name.c_str(),
                                       O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file) return SystemError::last();
    const Outcome<EntryStatus> opened = EntryStatus::ofOpen(file.get());
    if (!opened) return opened.error();
    if (!opened->isSameEntry(seen) || !opened->isUnchanged(seen)) return SystemError{EBUSY};

    const Outcome<void> copied = ContentCopy(file.get(), target, seen.size, stop).run();
    if (!copied) return copied;
    return copyAttributes(file.get(), seen, target);
}

} // namespace harbex
