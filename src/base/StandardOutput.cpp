#include "base/StandardOutput.h"

#include "base/Mutex.h"

#include <cerrno>
#include <climits>
#include <poll.h>
#include <string>
#include <unistd.h>

namespace harbex
{

namespace
{

constexpr int patienceMilliseconds = 1000;

/// Writes lines one after the other.
class LineWriter
{
public:
    void write(std::string_view rest) EXCLUDES(m_mutex)
    {
        const MutexLock lock(m_mutex);
        while (!rest.empty() && isReady()) {
            // So much a pipe that is ready takes at once.
            const std::string_view piece = rest.substr(0, PIPE_BUF);
            const ssize_t written = ::write(STDOUT_FILENO, piece.data(), piece.size());
            if (written < 0 && errno == EINTR) continue;
            // Nobody reads the diagnostics any more; moving files goes on without them.
            if (written <= 0) return;
            rest.remove_prefix(static_cast<size_t>(written));
        }
    }

private:
    /// Whether a write would not wait. A reader that once kept us waiting for too long is waited for no more
    /// until it has made room.
    bool isReady() REQUIRES(m_mutex)
    {
        pollfd output{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
        int ready = 0;
        do {
            ready = ::poll(&output, 1, m_isStuck ? 0 : patienceMilliseconds);
        } while (ready < 0 && errno == EINTR);
        m_isStuck = ready == 0;
        return !m_isStuck;
    }

    Mutex m_mutex;
    bool m_isStuck GUARDED_BY(m_mutex) = false;
};

} // namespace

void printLine(std::string_view line)
{
    static LineWriter writer;
    std::string text;
    text.reserve(line.size() + 1);
    text.append(line).push_back('\n');
    writer.write(text);
}

} // namespace harbex
