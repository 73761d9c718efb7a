#include "VProcess.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

// "/proc/<pid>/stat" without the C library's formatting, which a signal
// handler must not use.
void statPath(pid_t pid, char* out)
{
    char digits[16];
    int n = 0;
    unsigned long value = (unsigned long)pid;
    do {
        digits[n++] = char('0' + value % 10);
        value /= 10;
    } while (value && n < int(sizeof digits));
    memcpy(out, "/proc/", 6);
    out += 6;
    while (n > 0)
        *out++ = digits[--n];
    memcpy(out, "/stat", 6);
}

quint64 number(const char*& at)
{
    while (*at == ' ')
        ++at;
    const bool negative = *at == '-';
    if (negative)
        ++at;
    quint64 value = 0;
    while (*at >= '0' && *at <= '9')
        value = value * 10 + quint64(*at++ - '0');
    return negative ? 0 : value;
}

void skipField(const char*& at)
{
    while (*at == ' ')
        ++at;
    while (*at && *at != ' ')
        ++at;
}

} // namespace

bool VProcess::status(pid_t pid, Status* status)
{
    if (pid <= 0)
        return false;
    char path[32];
    statPath(pid, path);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char text[1024];
    ssize_t size;
    do {
        size = read(fd, text, sizeof text - 1);
    } while (size < 0 && errno == EINTR);
    close(fd);
    if (size <= 0)
        return false;
    text[size] = '\0';
    // The command name may hold blanks and parentheses; the fields follow
    // its last closing parenthesis.
    const char* at = strrchr(text, ')');
    if (!at)
        return false;
    ++at;
    while (*at == ' ')
        ++at;
    status->state = *at++;
    status->parent = pid_t(number(at));
    skipField(at); // process group
    status->session = pid_t(number(at));
    // tty_nr to itrealvalue, then the start time (field 22).
    for (int field = 7; field < 22; ++field)
        skipField(at);
    status->startTime = number(at);
    return true;
}

bool VProcess::running(pid_t pid, quint64 startTime)
{
    Status s;
    return status(pid, &s) && s.state != 'Z' && s.state != 'X' && s.startTime == startTime;
}

quint64 VProcess::startTime(pid_t pid)
{
    Status s;
    return status(pid, &s) ? s.startTime : 0;
}

QVector<pid_t> VProcess::children(pid_t parent)
{
    QVector<pid_t> found;
    DIR* proc = opendir("/proc");
    if (!proc)
        return found;
    while (const struct dirent* entry = readdir(proc)) {
        char* end = nullptr;
        const long pid = strtol(entry->d_name, &end, 10);
        if (pid <= 0 || *end != '\0')
            continue;
        Status s;
        if (status(pid_t(pid), &s) && s.parent == parent && s.state != 'Z' && s.state != 'X')
            found.append(pid_t(pid));
    }
    closedir(proc);
    return found;
}

void VProcess::dropInheritedDescriptors(const QVector<int>& keep)
{
    const int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
        for (int fd = 0; fd <= 2; ++fd) {
            if (fd != null)
                dup2(null, fd);
        }
        if (null > 2)
            close(null);
    }
    QVector<int> kept;
    for (int fd : keep) {
        if (fd > 2)
            kept.append(fd);
    }
    std::sort(kept.begin(), kept.end());
    unsigned int from = 3;
    kept.append(INT_MAX);
    for (int fd : kept) {
        const unsigned int last = fd == INT_MAX ? ~0u : unsigned(fd) - 1;
        if (from <= last && close_range(from, last, 0) != 0) {
            // Kernels before 5.9: one by one, as /proc lists them.
            DIR* dir = opendir("/proc/self/fd");
            const int own = dir ? dirfd(dir) : -1;
            while (const struct dirent* entry = dir ? readdir(dir) : nullptr) {
                const long open = strtol(entry->d_name, nullptr, 10);
                if (entry->d_name[0] != '.' && open != own && open >= long(from) && open <= long(last))
                    close(int(open));
            }
            if (dir)
                closedir(dir);
        }
        if (fd != INT_MAX)
            from = unsigned(fd) + 1;
    }
}
