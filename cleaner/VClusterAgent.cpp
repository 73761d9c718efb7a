#include "VClusterAgent.h"

#include "PageCacheLogStream.h"
#include "VCacheRemoval.h"
#include "VDiskStorage.h"
#include "VException.h"
#include "VHTMLCache.h"

#include <QFileInfo>

#include <unistd.h>

VClusterAgent::VClusterAgent(const QByteArray& queueUrl, qint64 nodeId, const Store& store)
    : store(store), nodeId(nodeId)
{
    // An object of its own, not the process's: the cleaner keeps the store
    // of the cache it was forked with, and a reload here must not take it.
    loadNewerRules();
    m_group = groupName(nodeId, cache->store()->root());
    consumer.reset(new TKDTaskConsumer(queueUrl, m_group));
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    identity = QByteArray(host) + ':' + cache->store()->root();
}

VClusterAgent::~VClusterAgent()
{
    delete cache;
}

void VClusterAgent::loadNewerRules()
{
    const QDateTime date = QFileInfo(QString::fromLocal8Bit(store.rulesFile)).lastModified();
    if (cache && date == rulesDate)
        return;
    rulesDate = date;
    delete cache;
    cache = new VHTMLCache;
    if (!cache->load(store.savePath.constData(), store.dirDepth, store.rulesFile.constData(), 100, false))
        VLOG(PageCacheLogStream, 0) << "Cluster agent:" << cache->lastError();
}

QByteArray VClusterAgent::groupName(qint64 nodeId, const QByteArray& storeRoot)
{
    return "node-" + QByteArray::number(nodeId) + ':' + storeRoot;
}

// Said once when the queue goes away and once when it is back, so that a
// Redis that is down doesn't fill the log.
bool VClusterAgent::reachQueue()
{
    const VDebug::StreamId log = PageCacheLogStream;
    if (consumer->connected())
        return true;
    try {
        consumer->connect();
        catchUpWithTheStream();
    } catch (const VException& e) {
        if (!unreachableLogged)
            VLOG(log, 0) << "Cluster agent cannot reach the task queue:" << e.what();
        unreachableLogged = true;
        return false;
    }
    unreachableLogged = false;
    VLOG(log, 3) << "Cluster agent reads the task queue as group" << m_group;
    return true;
}

// A node away longer than the stream keeps tasks can't know which pages
// the tasks it missed removed: it removes them all, then goes on from the
// newest task, which that removal covers. So does a node whose group had
// to be made anew: whatever Redis lost with it (a restart without its
// data, a flush, an eviction), nothing tells which tasks came meanwhile.
// The group is made before the removal, so no task falls between the two.
void VClusterAgent::catchUpWithTheStream()
{
    const TKDQueuePosition& joined = consumer->joinedAt();
    if (consumer->groupMade()) {
        VLOG(PageCacheLogStream, 1) << "Cluster agent found no consumer group" << m_group
                                    << "(new node, or Redis lost it): removing every page";
        storeOwed = true;
        removeWhatIsOwed();
        return;
    }
    if (!joined.missedTasks())
        return;
    VLOG(PageCacheLogStream, 0) << "Cluster agent missed tasks the queue no longer holds: removing every page";
    loadNewerRules();
    if (VCacheRemoval::all().carryOut(*cache))
        consumer->skipTo(joined);
}

// Two nodes given one id would each pass over the tasks the other made for
// the other nodes: each node says who it is at every round, and hears who
// said so before it. Nodes of one machine and one store are one node.
void VClusterAgent::checkNodeIdIsOurs()
{
    const QByteArray other = consumer->claimNodeId(nodeId, identity, 60);
    if (other.isEmpty() || other == identity || duplicateLogged)
        return;
    duplicateLogged = true;
    VLOG(PageCacheLogStream, 0) << "Cluster agent: node id" << nodeId << "is used by another node too:" << other
                                << "besides" << identity << "(each node needs a vesk.node_id of its own)";
}

// The removal of every page that a new group calls for, until it is done:
// no task is read before it.
bool VClusterAgent::removeWhatIsOwed()
{
    if (!storeOwed)
        return true;
    loadNewerRules();
    storeOwed = !VCacheRemoval::all().carryOut(*cache);
    return !storeOwed;
}

bool VClusterAgent::waitForTasks(int ms)
{
    if (!reachQueue() || !removeWhatIsOwed())
        return false;
    try {
        checkNodeIdIsOurs();
        for (const TKDTask& task : consumer->next(ms)) {
            carryOut(task);
            consumer->acknowledge(task.id);
        }
    } catch (const VException& e) {
        // What wasn't acknowledged comes again after the next connect,
        // which also makes the group again if Redis lost it (a refused read).
        consumer->disconnect();
        VLOG(PageCacheLogStream, 0) << "Cluster agent lost the task queue:" << e.what();
        unreachableLogged = true;
        return false;
    }
    return true;
}

void VClusterAgent::carryOut(const TKDTask& task)
{
    const VDebug::StreamId log = PageCacheLogStream;
    if (task.otherNodesOnly && task.node == nodeId) {
        VLOG(log, 5) << "Cluster task" << task.id << "was made here for the other nodes";
        return;
    }
    if (task.deliveries > MaxDeliveries) {
        // Handed out this often, it has ended its agent each time.
        VLOG(log, 0) << "Cluster task" << task.id << "given up after" << MaxDeliveries << "attempts:" << task.payload;
        return;
    }
    VCacheRemoval removal;
    QString error;
    if (!VCacheRemoval::fromPayload(task.payload, &removal, &error)) {
        VLOG(log, 0) << "Cluster task" << task.id << "can't be carried out:" << error << task.payload;
        return;
    }
    loadNewerRules();
    if (!removal.carryOut(*cache)) {
        VLOG(log, 0) << "Cluster task" << task.id << "failed:" << task.payload;
        return;
    }
    VLOG(log, 5) << "Cluster task" << task.id << "carried out:" << task.payload;
}
