#include "VFileWatch.h"

#include <QVarLengthArray>

#include <pthread.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

namespace {

// Everything that can change what stat() answers for a file of the directory,
// or take the directory itself away.
const uint32_t Changes = IN_ATTRIB | IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM
                         | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;
const time_t FullLookSeconds = 1;

struct State
{
    // -1 before the first settle() of the process; -2 where inotify is refused.
    int fd = -1;
    time_t lastFullLook = 0;
    std::vector<std::pair<QByteArray, QDateTime>> dates;
};

State state;

time_t coarseSeconds()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

// A forked child shares the parent's descriptor, whose reports only one of
// them would read: it starts afresh.
void forgetInChild()
{
    if (state.fd >= 0)
        close(state.fd);
    state = State();
}

// True when the descriptor held any report, or overflowed.
bool drained()
{
    bool any = false;
    alignas(struct inotify_event) char buffer[4096];
    for (;;) {
        const ssize_t got = read(state.fd, buffer, sizeof buffer);
        if (got > 0) {
            any = true;
            continue;
        }
        if (got < 0 && errno == EINTR)
            continue;
        // EAGAIN: nothing (more) to read. Anything else: ask stat() again.
        return any || (got < 0 && errno != EAGAIN);
    }
}

QByteArray parentOf(const QByteArray& path)
{
    const int slash = path.lastIndexOf('/');
    return slash < 0 ? QByteArray(".") : slash == 0 ? QByteArray("/") : path.left(slash);
}

} // namespace

namespace VFileWatch {

void settle()
{
    if (state.fd == -1) {
        static const bool registered = pthread_atfork(nullptr, nullptr, forgetInChild) == 0;
        state.fd = registered ? inotify_init1(IN_NONBLOCK | IN_CLOEXEC) : -1;
        if (state.fd < 0)
            state.fd = -2;
        state.lastFullLook = coarseSeconds();
        return;
    }
    if (state.fd < 0)
        return;
    const time_t now = coarseSeconds();
    if (drained() || now - state.lastFullLook >= FullLookSeconds) {
        state.dates.clear();
        state.lastFullLook = now;
    }
}

bool known(const char* path, QDateTime* date)
{
    for (const auto& kept : state.dates) {
        if (strcmp(kept.first.constData(), path) == 0) {
            *date = kept.second;
            return true;
        }
    }
    return false;
}

void remember(const char* path, const QDateTime& date)
{
    if (state.fd < 0 || state.dates.size() >= 16)
        return;
    struct stat link;
    if (lstat(path, &link) == 0 && S_ISLNK(link.st_mode))
        return;
    if (!strchr(path, '/'))
        return;
    // A file whose folder doesn't exist (yet) is watched through the
    // nearest folder above it that does: the creation of the missing one is
    // reported there, and the next request looks again. Watching a
    // directory twice answers the same watch: no harm.
    QByteArray dir = parentOf(QByteArray(path));
    while (inotify_add_watch(state.fd, dir.constData(), Changes) < 0) {
        if (errno != ENOENT || dir == "/" || dir == ".")
            return;
        dir = parentOf(dir);
    }
    state.dates.emplace_back(QByteArray(path), date);
}

void reset()
{
    forgetInChild();
}

} // namespace VFileWatch
