#pragma once

#include <QString>
#include <QThread>

class VDiskStorage;

// Drops expired pages at a fixed period. It runs in a process of its own,
// forked at module start; run() is called directly on that process's one
// thread, and the process ends by SIGTERM or SIGHUP.
class VCacheCleaner : public QThread
{
public:
    VCacheCleaner(int frequency, VDiskStorage* storage, const QString& productDir);
    ~VCacheCleaner() override;

    void run() override;

    bool stopRequested = false;
    bool running = false;

private:
    VDiskStorage* storage;
    int frequency;
    QString productDir;
};
