#pragma once

#include <QString>
#include <QThread>

class VCleanerWatch;
class VClusterAgent;
class VDiskStorage;
class VPublishedPages;

// Drops expired pages at a fixed period. It runs in a process of its own,
// forked at module start; run() is called directly on that process's one
// thread, and the process ends by SIGTERM or SIGHUP, or with its master.
class VCacheCleaner : public QThread
{
public:
    VCacheCleaner(int frequency, VDiskStorage* storage, const QString& productDir);
    ~VCacheCleaner() override;

    // Ends the cleaner once the master that `watch` names has ended: at once
    // when that is the parent, within a second otherwise, even mid-cleaning.
    // Call it first thing in the forked process.
    void watchMaster(VCleanerWatch* watch);
    // What each cleaning leaves at most, in bytes; 0 for no bound.
    void setMaxStoreSize(qint64 bytes) { maxStoreSize = bytes; }
    // The farm's agent, which this cleaner owns and runs between cleanings.
    void setAgent(VClusterAgent* agent);
    // The published files that end with their pages at each cleaning.
    void setPublished(VPublishedPages* pages) { published = pages; }
    // A file whose change ends every published file at the next cleaning:
    // the purge rules' database, which any process may write.
    void setPurgeDatabase(const QByteArray& path) { purgeDatabase = path; }

    void run() override;

    // The handler of SIGTERM and SIGHUP in the cleaner's process.
    static void stopBySignal(int);

    bool stopRequested = false;
    bool running = false;

private:
    void clean();
    void waitOneSecond();
    // Whether the purge database changed since the last cleaning asked.
    bool purgeDatabaseChanged();

    VDiskStorage* storage;
    int frequency;
    QString productDir;
    qint64 maxStoreSize = 0;
    VClusterAgent* agent = nullptr;
    VPublishedPages* published = nullptr;
    QByteArray purgeDatabase;
    qint64 purgeDatabaseDate = -1;
};
