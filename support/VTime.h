#pragma once

#include <QtGlobal>

// A stopwatch on the monotonic clock, in microseconds.
class VTime
{
public:
    VTime();
    void start();
    // Stops the watch; elapsed() is 0 until the next start().
    void reset();
    bool isRunning() const { return m_running; }
    qint64 elapsed() const;
    static qint64 nowMicroseconds();

private:
    qint64 m_start;
    bool m_running = true;
};
