#pragma once

#include <QtGlobal>

// A stopwatch on the monotonic clock, in microseconds.
class VTime
{
public:
    VTime();
    void start();
    qint64 elapsed() const;
    static qint64 nowMicroseconds();

private:
    qint64 m_start;
};
