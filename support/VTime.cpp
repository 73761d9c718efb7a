#include "VTime.h"

#include <time.h>

VTime::VTime() : m_start(nowMicroseconds())
{
}

void VTime::start()
{
    m_start = nowMicroseconds();
    m_running = true;
}

void VTime::reset()
{
    m_running = false;
}

qint64 VTime::elapsed() const
{
    return m_running ? nowMicroseconds() - m_start : 0;
}

qint64 VTime::nowMicroseconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return qint64(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}
