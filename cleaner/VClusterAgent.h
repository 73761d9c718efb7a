#pragma once

#include "TKDTaskStream.h"
#include "VDebug.h"

#include <QByteArray>
#include <QDateTime>
#include <memory>

class VHTMLCache;

// A node's agent in a farm: reads the farm's task stream and carries out
// each removal on this node's store, as the removal function with the
// cluster flag off would. It lives in the cleaner's process, which owns
// the store already, and reads between cleanings.
class VClusterAgent
{
public:
    // The store and the rules file as the workers open them.
    struct Store
    {
        QByteArray savePath;
        qint64 dirDepth = 2;
        QByteArray rulesFile;
    };

    VClusterAgent(const QByteArray& queueUrl, qint64 nodeId, const Store& store);
    ~VClusterAgent();
    VClusterAgent(const VClusterAgent&) = delete;
    VClusterAgent& operator=(const VClusterAgent&) = delete;

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
    QByteArray group() const { return m_group; }

    // A task whose carrying out has ended the agent this often is passed
    // over, so that one task can't keep a node's agent down.
    static constexpr int MaxDeliveries = 3;

private:
    bool reachQueue();
    void catchUpWithTheStream();
    void checkNodeIdIsOurs();
    bool removeWhatIsOwed();
    // The rules a removal names are those the workers have: a newer rules
    // file is read again before a task is carried out, as a worker reads
    // it before a request.
    void loadNewerRules();

    Store store;
    VHTMLCache* cache = nullptr;
    QDateTime rulesDate;
    std::unique_ptr<TKDTaskConsumer> consumer;
    qint64 nodeId;
    QByteArray m_group;
    bool unreachableLogged = false;
    // This machine and store, as the node's heartbeat names them.
    QByteArray identity;
    bool duplicateLogged = false;
    // Every page must go before a task is read (see catchUpWithTheStream).
    bool storeOwed = false;
};
