#pragma once

#include "VDebug.h"
#include "VeskServerInfo.h"

#include <QString>

namespace tkd {
// The tasks the page cache hands to the task daemon.
enum TaskType {
    PAGECACHE_REMOVE_ALL = 76,
    PAGECACHE_REMOVE_BY_URI = 77,
    PAGECACHE_PURGE = 78,
    PAGECACHE_REMOVE_BY_RULE = 79,
    PAGECACHE_REMOVE_BY_RULES_IDS = 80,
    PAGECACHE_REMOVE_CACHED_CONTENTS = 81,
    PAGECACHE_REMOVE_BY_TAGS = 82,
};
} // namespace tkd

// Queues a task for the nodes of a farm. With a cluster queue set, the task
// goes to the farm's Redis stream (see TKDTaskStream.h), which every node's
// agent reads; without one, it is a row of the tkd_tasks table in the
// server's data directory.
class TKDTaskInserter
{
public:
    // `otherNodesOnly` says that this node has already done its part. Throws
    // VException when the task can't be queued: on Redis, when no answer
    // came within TimeoutMs; on the table, after Attempts tries.
    static void addTask(tkd::TaskType type, bool otherNodesOnly, const VeskServerInfo& serverInfo,
                        const QString& payload, VDebug::StreamId logStream);

    // The farm's queue, "redis://host:port/db"; empty for the local table.
    static void setClusterQueue(const QByteArray& url);
    static QByteArray clusterQueue();

    static constexpr int Attempts = 5;
    // The most a request waits on Redis, connect and reply together.
    static constexpr int TimeoutMs = 100;
};
