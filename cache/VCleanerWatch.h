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
class VCleanerWatch
{
public:
    // Names the calling process as master. Null when no page can be mapped.
    static VCleanerWatch* create();
    // Unmaps the page in this process; others keep theirs.
    void release();

    void setCleaner(pid_t pid);
    pid_t cleaner() const;
    pid_t master() const;
    bool isMaster() const { return master() == getpid(); }
    void handOver(pid_t newMaster);

    // Both answer from /proc alone, so the cleaner's signal handler may ask.
    bool masterRunning() const { return running(m_master); }
    bool cleanerRunning() const { return running(m_cleaner); }

private:
    VCleanerWatch() = default;
    // A pid and its start time in one word, so that a reader never sees the
    // pid of one process with the start time of another. Pids are below
    // 2^22 on Linux.
    static quint64 identity(pid_t pid);
    static bool running(const std::atomic<quint64>& who);
    static pid_t pidOf(quint64 identity) { return pid_t(identity & PidMask); }
    static const quint64 PidMask = (1u << 22) - 1;

    std::atomic<quint64> m_master{0};
    std::atomic<quint64> m_cleaner{0};
};
