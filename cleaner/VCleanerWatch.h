#pragma once

#include <QtGlobal>

#include <atomic>
#include <sys/types.h>
#include <unistd.h>

// Who the cleaner belongs to, kept in one page of memory shared by the
// process that forked it (the master), every process the master forks later
// and the cleaner itself. The cleaner ends when its master ends. A master
// that daemonizes, forking the process that goes on as master and then
// exiting, hands the cleaner over to that process first.
// Workers can write the page: it names the master for the cleaner's sake
// only. The master keeps the cleaner's identity in its own memory (see
// identity()), and signals nothing the page names.
class VCleanerWatch
{
public:
    // Names the calling process as master. Null when no page can be mapped.
    static VCleanerWatch* create();
    // Unmaps the page in this process; others keep theirs.
    void release();

    pid_t master() const;
    bool isMaster() const { return master() == getpid(); }
    void handOver(pid_t newMaster);

    // Answers from /proc alone, so the cleaner's signal handler may ask.
    bool masterRunning() const { return running(m_master); }

    // A pid and its start time in one word, so that a reader never sees the
    // pid of one process with the start time of another, and a pid taken
    // over by a later process is not taken for the one it named. Pids are
    // below 2^22 on Linux.
    static quint64 identity(pid_t pid);
    static bool running(quint64 identity);
    static pid_t pidOf(quint64 identity) { return pid_t(identity & PidMask); }

private:
    VCleanerWatch() = default;
    static const quint64 PidMask = (1u << 22) - 1;

    std::atomic<quint64> m_master{0};
};
