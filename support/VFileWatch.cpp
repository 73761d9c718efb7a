#include "VFileWatch.h"

#include <QVarLengthArray>

#include <pthread.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

// Everything that can change what stat() answers for a file of the directory,
// or take the directory itself away.
const uint32_t Changes = IN_ATTRIB | IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM
                         | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;
// Above a folder of kept files: what takes a folder away.
const uint32_t FolderChanges = IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// Each watch pins its folder's inode in the kernel (about 1 KB) and counts
// against the user's fs.inotify.max_user_watches, shared by all workers.
const size_t MaxWatches = 1024;
const time_t FullLookSeconds = 1;

// Who asked for a watch: the dates (for good), and kept files' folders.
struct Watch
{
    int dates = 0;
    int files = 0;
    int folders = 0;
};

struct State
{
    // -1 before the first settle() of the process; -2 where inotify is refused.
    int fd = -1;
    time_t lastFullLook = 0;
    std::vector<std::pair<QByteArray, QDateTime>> dates;
    std::unordered_map<int, Watch> watches;
};

State state;
// Outside State: a new process's epochs must differ from every one its
// parent's copies were checked under.
quint64 fileEpochNow = 1;
quint64 folderEpochNow = 1;

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
    ++fileEpochNow;
    ++folderEpochNow;
}

// Moves the epochs as the report says; true when it concerns a date.
bool take(const struct inotify_event& event)
{
    if (event.mask & IN_Q_OVERFLOW) {
        ++fileEpochNow;
        ++folderEpochNow;
        return true;
    }
    const auto found = state.watches.find(event.wd);
    if (found == state.watches.end())
        return false;
    const Watch watch = found->second;
    if (event.mask & IN_IGNORED)
        state.watches.erase(found);
    if (watch.files || watch.folders) {
        if (event.mask & (IN_IGNORED | IN_ISDIR | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT))
            ++folderEpochNow;
        else if (watch.files)
            ++fileEpochNow;
    }
    return watch.dates > 0;
}

// True when the descriptor held any report about a date, or overflowed.
bool drained()
{
    bool dates = false;
    alignas(struct inotify_event) char buffer[4096];
    for (;;) {
        const ssize_t got = read(state.fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            // EAGAIN: nothing (more) to read. Anything else: trust nothing.
            if (got < 0 && errno != EAGAIN) {
                ++fileEpochNow;
                ++folderEpochNow;
                return true;
            }
            return dates;
        }
        for (const char* at = buffer; at < buffer + got;) {
            const auto* event = reinterpret_cast<const struct inotify_event*>(at);
            dates |= take(*event);
            at += sizeof(struct inotify_event) + event->len;
        }
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
    const bool changed = drained();
    if (changed || now - state.lastFullLook >= FullLookSeconds)
        state.dates.clear();
    if (now - state.lastFullLook >= FullLookSeconds) {
        ++fileEpochNow;
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
    int watch;
    while ((watch = inotify_add_watch(state.fd, dir.constData(), Changes | IN_MASK_ADD)) < 0) {
        if (errno != ENOENT || dir == "/" || dir == ".")
            return;
        dir = parentOf(dir);
    }
    state.watches[watch].dates = 1;
    state.dates.emplace_back(QByteArray(path), date);
}

void reset()
{
    forgetInChild();
}

quint64 fileEpoch()
{
    return fileEpochNow;
}

quint64 folderEpoch()
{
    return folderEpochNow;
}

int watchFolder(const char* dir, bool files)
{
    if (state.fd < 0 || state.watches.size() >= MaxWatches)
        return -1;
    const int watch = inotify_add_watch(state.fd, dir, (files ? Changes : FolderChanges) | IN_MASK_ADD);
    if (watch < 0)
        return -1;
    Watch& counts = state.watches[watch];
    ++(files ? counts.files : counts.folders);
    return watch;
}

void unwatchFolder(int watch, bool files)
{
    const auto found = state.watches.find(watch);
    if (found == state.watches.end())
        return;
    Watch& counts = found->second;
    int& uses = files ? counts.files : counts.folders;
    if (uses > 0)
        --uses;
    if (counts.dates || counts.files || counts.folders)
        return;
    inotify_rm_watch(state.fd, watch);
    state.watches.erase(found);
}

int watchCount()
{
    return int(state.watches.size());
}

} // namespace VFileWatch
