#include "TKDTaskStream.h"

#include "VException.h"

const char TKDTaskStream::Key[] = "vesk:pagecache:tasks";
const char TKDTaskConsumer::Consumer[] = "agent";

namespace {

VRedisAddress addressOf(const QByteArray& url)
{
    VRedisAddress address;
    QString error;
    if (!VRedisAddress::parse(url, &address, &error))
        throw VException(error);
    return address;
}

// An entry as the stream holds it: its id, then its fields and values in
// turn. An entry trimmed away while it was pending comes with no fields.
TKDTask taskOf(const VRedisReply& entry)
{
    TKDTask task;
    task.id = entry.at(0).text;
    const VRedisReply& fields = entry.at(1);
    for (int i = 0; i + 1 < fields.elements.size(); i += 2) {
        const QByteArray& name = fields.elements.at(i).text;
        const QByteArray& value = fields.elements.at(i + 1).text;
        if (name == "type")
            task.type = value.toInt();
        else if (name == "payload")
            task.payload = value;
        else if (name == "node")
            task.node = value.toLongLong();
        else if (name == "others")
            task.otherNodesOnly = value == "1";
        else if (name == "time")
            task.time = value.toLongLong();
    }
    return task;
}

void refused(const char* what, const VRedisReply& reply)
{
    if (reply.isError())
        throw VException(QStringLiteral("Redis refused %1: %2").arg(QLatin1String(what), QString::fromUtf8(reply.text)));
}

} // namespace

TKDTaskConsumer::TKDTaskConsumer(const QByteArray& url, const QByteArray& group)
    : address(addressOf(url)), group(group)
{
}

TKDTaskConsumer::~TKDTaskConsumer() = default;

void TKDTaskConsumer::connect()
{
    connection.reset();
    std::unique_ptr<VRedisConnection> fresh(new VRedisConnection(address, ConnectTimeoutMs, 1000));
    const VRedisReply reply = fresh->command({"XGROUP", "CREATE", TKDTaskStream::Key, group, "$", "MKSTREAM"});
    if (reply.isError() && !reply.text.startsWith("BUSYGROUP"))
        refused("the consumer group", reply);
    connection = std::move(fresh);
    readingPending = true;
}

bool TKDTaskConsumer::connected() const
{
    return connection && !connection->broken();
}

QList<TKDTask> TKDTaskConsumer::read(const QByteArray& from, int blockMs)
{
    QList<QByteArray> args = {"XREADGROUP", "GROUP", group, Consumer, "COUNT", "64"};
    if (blockMs > 0)
        args << "BLOCK" << QByteArray::number(blockMs);
    args << "STREAMS" << TKDTaskStream::Key << from;
    // The reply of a blocking read comes when the block ends at the latest.
    connection->setCommandTimeout(blockMs + 1000);
    const VRedisReply reply = connection->command(args);
    refused("the read", reply);
    QList<TKDTask> tasks;
    for (const VRedisReply& entry : reply.at(0).at(1).elements)
        tasks << taskOf(entry);
    return tasks;
}

// The tasks handed to this consumer before and never acknowledged, each
// claimed again, which counts one delivery more. An entry the stream
// trimmed meanwhile comes without fields.
QList<TKDTask> TKDTaskConsumer::readPending()
{
    connection->setCommandTimeout(1000);
    const VRedisReply pending = connection->command({"XPENDING", TKDTaskStream::Key, group, "-", "+", "64", Consumer});
    refused("the pending tasks", pending);
    QList<TKDTask> tasks;
    for (const VRedisReply& entry : pending.elements) {
        const QByteArray id = entry.at(0).text;
        const VRedisReply claimed =
            connection->command({"XCLAIM", TKDTaskStream::Key, group, Consumer, "0", id});
        refused("the claim", claimed);
        TKDTask task = claimed.at(0).type == VRedisReply::Array ? taskOf(claimed.at(0)) : TKDTask();
        task.id = id;
        task.deliveries = int(entry.at(3).integer) + 1;
        tasks << task;
    }
    return tasks;
}

QList<TKDTask> TKDTaskConsumer::next(int blockMs)
{
    if (!connected())
        throw VException(QStringLiteral("not connected to the cluster queue"));
    if (readingPending) {
        const QList<TKDTask> pending = readPending();
        if (!pending.isEmpty())
            return pending;
        readingPending = false;
    }
    return read(">", blockMs);
}

void TKDTaskConsumer::acknowledge(const QByteArray& id)
{
    refused("the acknowledgement", connection->command({"XACK", TKDTaskStream::Key, group, id}));
}

TKDQueuePosition TKDTaskConsumer::position(const QByteArray& url, const QByteArray& group)
{
    VRedisConnection connection(addressOf(url), ConnectTimeoutMs, 1000);
    TKDQueuePosition position;
    const VRedisReply length = connection.command({"XLEN", TKDTaskStream::Key});
    refused("XLEN", length);
    position.length = length.integer;
    const VRedisReply groups = connection.command({"XINFO", "GROUPS", TKDTaskStream::Key});
    if (groups.isError())
        return position; // no stream yet, so no group either
    for (const VRedisReply& info : groups.elements) {
        TKDQueuePosition found = position;
        bool ours = false;
        for (int i = 0; i + 1 < info.elements.size(); i += 2) {
            const QByteArray& name = info.elements.at(i).text;
            const VRedisReply& value = info.elements.at(i + 1);
            if (name == "name")
                ours = value.text == group;
            else if (name == "pending")
                found.pending = value.integer;
            else if (name == "last-delivered-id")
                found.lastDelivered = value.text;
            else if (name == "lag")
                found.lag = value.type == VRedisReply::Integer ? value.integer : -1;
        }
        if (ours) {
            found.groupExists = true;
            return found;
        }
    }
    return position;
}
