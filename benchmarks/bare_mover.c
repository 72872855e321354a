// Baseline for Harbex: the smallest program that moves the new entries of one folder.
//   harbex_bare_mover IN OUT
// It renames each entry into OUT 0.30 s after it appeared in IN, with one system call. It reads no size,
// tries no rule, searches no free name and logs nothing. It stops itself with SIGSTOP when it watches IN.

#define _GNU_SOURCE

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <time.h>
#include <unistd.h>

enum { capacity = 16384 };
static const int64_t second = 1000000000;
static const int64_t wait = 300000000;

// Ring buffer of waiting entries. The oldest is at `first`. Both counters only grow.
static struct {
    int64_t due;
    char name[NAME_MAX + 1];
} waiting[capacity];
static unsigned first, last;

static int64_t now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * second + time.tv_nsec;
}

int main(int argc, char** argv)
{
    const int in = argc == 3 ? open(argv[1], O_RDONLY | O_DIRECTORY) : -1;
    const int out = argc == 3 ? open(argv[2], O_RDONLY | O_DIRECTORY) : -1;
    struct pollfd events = {.fd = inotify_init1(IN_NONBLOCK), .events = POLLIN};
    if (in < 0 || out < 0 || inotify_add_watch(events.fd, argv[1], IN_CREATE | IN_MOVED_TO) < 0) return 1;
    raise(SIGSTOP);
    for (;;) {
        for (; first != last && waiting[first % capacity].due <= now(); ++first) {
            const char* name = waiting[first % capacity].name;
            if (renameat(in, name, out, name) != 0) return 1;
        }
        const int64_t left = first == last ? 0 : waiting[first % capacity].due - now();
        const struct timespec timeout = {left > 0 ? left / second : 0, left > 0 ? left % second : 0};
        ppoll(&events, 1, first == last ? NULL : &timeout, NULL);

        _Alignas(struct inotify_event) char buffer[64 * 1024];
        const ssize_t size = read(events.fd, buffer, sizeof buffer);
        for (ssize_t at = 0; at < size;) {
            const struct inotify_event* event = (const struct inotify_event*)(buffer + at);
            at += (ssize_t)(sizeof *event + event->len);
            if ((event->mask & IN_Q_OVERFLOW) || last - first == capacity) return 1;
            waiting[last % capacity].due = now() + wait;
            strcpy(waiting[last++ % capacity].name, event->name);
        }
    }
}
