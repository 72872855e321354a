#include "base/StandardOutput.h"

#include "base/Mutex.h"

#include <cerrno>
#include <string>
#include <unistd.h>

namespace harbex
{

void printLine(std::string_view line)
{
    static Mutex mutex;
    std::string text;
    text.reserve(line.size() + 1);
    text.append(line).push_back('\n');

    const MutexLock lock(mutex);
    std::string_view rest = text;
    while (!rest.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, rest.data(), rest.size());
        if (written < 0 && errno == EINTR) continue;
        // Nobody reads the diagnostics any more; moving files goes on without them.
        if (written <= 0) return;
        rest.remove_prefix(static_cast<size_t>(written));
    }
}

} // namespace harbex
