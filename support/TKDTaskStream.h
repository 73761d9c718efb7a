#pragma once

#include "VRedisConnection.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <memory>

// The farm's tasks on Redis: one stream, each entry a task with the fields
// type, payload, node (the node that made it), others ("1": the other
// nodes only) and time (Unix seconds). The stream keeps the last MaxLength
// tasks, about: a node away for longer misses the oldest of what it missed.
namespace TKDTaskStream {
extern const char Key[];
constexpr int MaxLength = 10000;
// Why the farm can't be kept on the server: a Redis older than 7.0, whose
// streams can't tell a node what it missed; empty when it can. Throws
// VException when the server doesn't answer.
QString unsupportedServer(VRedisConnection& connection);
} // namespace TKDTaskStream

struct TKDTask
{
    QByteArray id; // the stream's entry id
    int type = 0;
    QByteArray payload;
    qint64 node = 0;
    bool otherNodesOnly = false;
    qint64 time = 0;
    int deliveries = 1; // how often the stream has handed it to this group
};

// Where one consumer group stands on the stream.
struct TKDQueuePosition
{
    QByteArray lastDelivered; // the id of the last task handed to the group
    qint64 pending = 0;       // handed out, not acknowledged
    qint64 lag = -1;          // tasks not yet handed out; -1 when Redis can't tell
    qint64 length = 0;        // tasks in the stream
    bool groupExists = false;
    qint64 entriesRead = -1;  // tasks the group has read since it began; -1 unknown
    qint64 entriesAdded = 0;  // tasks the stream has held since it began
    QByteArray lastAdded;     // the id of the newest task
    QByteArray firstKept;     // the id of the oldest task the stream still holds

    // Whether tasks the group never read have left the stream: a node away
    // longer than the stream keeps them.
    bool missedTasks() const;
};

// A node's reading of the stream, in a consumer group of its own: every
// group sees every task once, in order. What this consumer was handed and
// didn't acknowledge (it ended midway) comes again first after a connect.
class TKDTaskConsumer
{
public:
    TKDTaskConsumer(const QByteArray& url, const QByteArray& group);
    ~TKDTaskConsumer();

    // Connects and joins the group, which starts at the stream's end when
    // new. Throws VException, also for a Redis older than 7.0 (whose
    // streams can't tell a node what it missed); calling it again retries.
    void connect();
    bool connected() const;
    // Lets the connection go: the next connect() joins the group anew, and
    // makes it again if Redis has lost it meanwhile.
    void disconnect() { connection.reset(); }
    // Whether the last connect() found a server the farm can't be kept on
    // (unsupportedServer), rather than none.
    bool refusedServer() const { return serverRefused; }
    // Whether the last connect() made the group: either the node is new to
    // the queue, or Redis lost the group (restarted without its data,
    // flushed, the stream evicted) and with it what the node had read.
    bool groupMade() const { return madeGroup; }
    // Tells Redis that this node's id is used by `identity`, for `seconds`,
    // and answers who said so before: another identity means that two
    // nodes were given the same id.
    QByteArray claimNodeId(qint64 nodeId, const QByteArray& identity, int seconds);
    // The next tasks: first those handed before and never acknowledged,
    // then new ones, waiting up to `blockMs` for one. Throws VException
    // when the connection fails; connect() again then.
    QList<TKDTask> next(int blockMs);
    void acknowledge(const QByteArray& id);
    // Where the group stood when this consumer joined it.
    const TKDQueuePosition& joinedAt() const { return joined; }
    // Moves the group on to `position`, past every task up to it.
    void skipTo(const TKDQueuePosition& position);

    // The group's position, read on a connection of its own. Throws.
    static TKDQueuePosition position(const QByteArray& url, const QByteArray& group);

    static constexpr int ConnectTimeoutMs = 100;
    static const char Consumer[];

private:
    QList<TKDTask> read(const QByteArray& from, int blockMs);
    QList<TKDTask> readPending();

    VRedisAddress address;
    QByteArray group;
    std::unique_ptr<VRedisConnection> connection;
    bool readingPending = true;
    bool madeGroup = false;
    bool serverRefused = false;
    TKDQueuePosition joined;
};
