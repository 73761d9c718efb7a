#pragma once

#include "VClusterAgent.h"

#include <QByteArray>
#include <QtGlobal>

class VHTMLCache;

// The node's cleaner process, which stands above the store it cleans: the
// server's master forks it at the module's start-up and stops it at its
// shutdown. Its jobs: expiry and eviction, the published pages' sweep, the
// farm's tasks, and watching its master.
class VCleanerProcess
{
public:
    VCleanerProcess() = delete;

    // Forks the process that drops expired pages of `cache`'s store every
    // `frequency` seconds, unless one of this master's runs already. The
    // farm's agent opens the store and rules file `where` names.
    static void launch(VHTMLCache& cache, const VClusterAgent::Store& where, int frequency);
    // Stops the cleaner, from its master; elsewhere it does nothing.
    static void stop();
    // Whether stop waits for the cleaner to be gone (under php-fpm).
    static void setWaitForCleaner(bool wait);
    // Whether a launcher that daemonizes (php-fpm's first process, which
    // forks the real master and exits) leaves the cleaner to that master.
    static void setHandOverCleaner(bool handOver);
    // What the cleaner leaves of the store at each cleaning, in bytes; 0 for
    // no bound.
    static void setMaxStoreSize(qint64 bytes);
    // The farm's task queue ("redis://host:port/db") whose tasks the
    // cleaner carries out on this store as node `nodeId`; empty for none.
    static void setClusterQueue(const QByteArray& url, qint64 nodeId);
    // The purge rules' database: the cleaner ends every published file when
    // it changes, whoever wrote it.
    static void setPurgeDatabase(const QByteArray& path);
};
