#include "VCleanerWatch.h"

#include "VProcess.h"

#include <new>
#include <sys/mman.h>
#include <unistd.h>

static_assert(std::atomic<quint64>::is_always_lock_free, "the watch is read in a signal handler");

VCleanerWatch* VCleanerWatch::create()
{
    void* page = mmap(nullptr, sizeof(VCleanerWatch), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        return nullptr;
    VCleanerWatch* watch = new (page) VCleanerWatch;
    watch->m_master = identity(getpid());
    return watch;
}

void VCleanerWatch::release()
{
    munmap(this, sizeof(VCleanerWatch));
}

quint64 VCleanerWatch::identity(pid_t pid)
{
    return (VProcess::startTime(pid) << 22) | (quint64(pid) & PidMask);
}

pid_t VCleanerWatch::master() const
{
    return pidOf(m_master);
}

void VCleanerWatch::handOver(pid_t newMaster)
{
    m_master = identity(newMaster);
}

bool VCleanerWatch::running(quint64 id)
{
    return pidOf(id) > 0 && VProcess::running(pidOf(id), id >> 22);
}
