#pragma once

#include <QVector>
#include <QtGlobal>

#include <sys/types.h>

// What a process can learn of others and of itself from /proc. status() and
// running() only open, read and close a file, so a signal handler may call them.
class VProcess
{
public:
    struct Status
    {
        char state = 0;
        pid_t parent = 0;
        pid_t session = 0;
        // Clock ticks after boot: with the pid, it names one process for good.
        quint64 startTime = 0;
    };

    // False when there is no process `pid`.
    static bool status(pid_t pid, Status* status);
    // Whether `pid` is still the process that started at `startTime` and has
    // not ended; a zombie has ended.
    static bool running(pid_t pid, quint64 startTime);
    // The start time of `pid`, or 0 when there is no such process.
    static quint64 startTime(pid_t pid);
    // The processes whose parent is `parent` and that have not ended.
    static QVector<pid_t> children(pid_t parent);

    // Cuts a forked child loose from what it inherited: standard input,
    // output and error read and write /dev/null, every other descriptor but
    // those in `keep` is closed.
    static void dropInheritedDescriptors(const QVector<int>& keep);
};
