#include "ui/IdleMemory.h"

#include <QPixmapCache>

#include <link.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

namespace harbex
{

namespace
{

int releaseReadOnlySegments(dl_phdr_info* object, size_t /*size*/, void* /*data*/)
{
    const auto pageSize = static_cast<ElfW(Addr)>(::sysconf(_SC_PAGESIZE));
    for (ElfW(Half) i = 0; i < object->dlpi_phnum; ++i) {
        const ElfW(Phdr)& segment = object->dlpi_phdr[i];
        // Pages that were never written hold what the file holds. Those of writable segments do not.
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W)) continue;
        const ElfW(Addr) begin = (object->dlpi_addr + segment.p_vaddr) & ~(pageSize - 1);
        const ElfW(Addr) end = object->dlpi_addr + segment.p_vaddr + segment.p_memsz;
        // The kernel's own page of code refuses, which costs nothing.
        (void)::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_DONTNEED);
    }
    return 0;
}

} // namespace

void releaseIdleMemory()
{
    QPixmapCache::clear();
    ::malloc_trim(0);
    ::dl_iterate_phdr(&releaseReadOnlySegments, nullptr);
}

} // namespace harbex
