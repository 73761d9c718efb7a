#pragma once

#include "VDebug.h"
#include "VeskServerInfo.h"

#include <QString>

namespace tkd {
// The tasks the page cache hands to the task daemon.
enum TaskType {
    PAGECACHE_REMOVE_ALL = 76,
    PAGECACHE_REMOVE_BY_URI = 77,
    PAGECACHE_REMOVE_BY_RULE = 79,
    PAGECACHE_REMOVE_BY_RULES_IDS = 80,
    PAGECACHE_REMOVE_CACHED_CONTENTS = 81,
};
} // namespace tkd

// Queues a task for the task daemon: one row of the tkd_tasks table in the
// server's data directory.
class TKDTaskInserter
{
public:
    // `otherNodesOnly` says that this node has already done its part. Tries
    // again while another process holds the database; throws VException
    // when the row can't be written.
    static void addTask(tkd::TaskType type, bool otherNodesOnly, const VeskServerInfo& serverInfo,
                        const QString& payload, VDebug::StreamId logStream);

    static const int Attempts = 5;
};
