#pragma once

#include "TKDTaskStream.h"
#include "VDebug.h"

#include <QByteArray>

class VHTMLCache;

// A node's agent in a farm: reads the farm's task stream and carries out
// each removal on this node's store, as the removal function with the
// cluster flag off would. It lives in the cleaner's process, which owns
// the store already, and reads between cleanings.
class VClusterAgent
{
public:
    VClusterAgent(const QByteArray& queueUrl, qint64 nodeId, const QByteArray& storeRoot, VHTMLCache& cache);

    // Waits up to `ms` for tasks and carries out those that come, the ones
    // left over from an earlier run first. False when Redis can't be
    // reached: the caller waits by itself then, and the next call tries
    // again.
    bool waitForTasks(int ms);
    // One task: tasks this node made for the other nodes only are passed
    // over; one that can't be read or carried out is logged. Either way it
    // counts as done.
    void carryOut(const TKDTask& task);

    // The consumer group of a node's store: each node and store reads
    // every task once.
    static QByteArray groupName(qint64 nodeId, const QByteArray& storeRoot);

private:
    bool reachQueue();

    TKDTaskConsumer consumer;
    qint64 nodeId;
    QByteArray group;
    VHTMLCache& cache;
    bool unreachableLogged = false;
};
