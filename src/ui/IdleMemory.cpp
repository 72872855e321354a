#include "ui/IdleMemory.h"

#include <QPixmapCache>

#include <malloc.h>

namespace harbex
{

void releaseIdleMemory()
{
    QPixmapCache::clear();
    ::malloc_trim(0);
}

} // namespace harbex
