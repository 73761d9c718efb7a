#include "TKDTaskStream.h"

#include "VException.h"

#include <QHash>

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

TKDQueuePosition positionOn(VRedisConnection& connection, const QByteArray& group);

void refused(const char* what, const VRedisReply& reply)
{
    if (reply.isError())
        throw VException(QStringLiteral("Redis refused %1: %2").arg(QLatin1String(what), QString::fromUtf8(reply.text)));
}

} // namespace

// Redis counts the tasks a group has read only from 7.0 on.
QString TKDTaskStream::unsupportedServer(VRedisConnection& connection)
{
    const VRedisReply info = connection.command({"INFO", "server"});
    refused("INFO", info);
    const int at = info.text.indexOf("redis_version:");
    const QByteArray version = info.text.mid(at + 14, info.text.indexOf('\r', at) - at - 14);
    if (at >= 0 && version.split('.').value(0).toInt() >= 7)
        return QString();
    return QStringLiteral("Redis %1 is older than 7.0, which the cluster queue needs")
        .arg(QString::fromLatin1(at < 0 ? QByteArray("of unknown version") : version));
}

TKDTaskConsumer::TKDTaskConsumer(const QByteArray& url, const QByteArray& group)
    : address(addressOf(url)), group(group)
{
}

TKDTaskConsumer::~TKDTaskConsumer() = default;

void TKDTaskConsumer::connect()
{
    connection.reset();
    serverRefused = false;
    std::unique_ptr<VRedisConnection> fresh(new VRedisConnection(address, ConnectTimeoutMs, 1000));
    const QString unsupported = TKDTaskStream::unsupportedServer(*fresh);
    if (!unsupported.isEmpty()) {
        serverRefused = true;
        throw VException(unsupported);
    }
    const VRedisReply reply = fresh->command({"XGROUP", "CREATE", TKDTaskStream::Key, group, "$", "MKSTREAM"});
    if (reply.isError() && !reply.text.startsWith("BUSYGROUP"))
        refused("the consumer group", reply);
    madeGroup = !reply.isError();
    connection = std::move(fresh);
    readingPending = true;
    joined = positionOn(*connection, group);
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

QByteArray TKDTaskConsumer::claimNodeId(qint64 nodeId, const QByteArray& identity, int seconds)
{
    const VRedisReply reply = connection->command({"SET", "vesk:pagecache:node:" + QByteArray::number(nodeId), identity,
                                                   "EX", QByteArray::number(seconds), "GET"});
    refused("the node's heartbeat", reply);
    return reply.text;
}

void TKDTaskConsumer::acknowledge(const QByteArray& id)
{
    refused("the acknowledgement", connection->command({"XACK", TKDTaskStream::Key, group, id}));
}

namespace {

// The fields of an XINFO reply, a flat list of names and values.
QHash<QByteArray, VRedisReply> fieldsOf(const VRedisReply& info)
{
    QHash<QByteArray, VRedisReply> fields;
    for (int i = 0; i + 1 < info.elements.size(); i += 2)
        fields.insert(info.elements.at(i).text, info.elements.at(i + 1));
    return fields;
}

// Stream ids are "milliseconds-sequence".
bool idBefore(const QByteArray& a, const QByteArray& b)
{
    const QList<QByteArray> x = a.split('-');
    const QList<QByteArray> y = b.split('-');
    const qint64 xMs = x.value(0).toLongLong(), yMs = y.value(0).toLongLong();
    return xMs < yMs || (xMs == yMs && x.value(1).toLongLong() < y.value(1).toLongLong());
}

qint64 integerOr(const VRedisReply& value, qint64 absent)
{
    return value.type == VRedisReply::Integer ? value.integer : absent;
}

TKDQueuePosition positionOn(VRedisConnection& connection, const QByteArray& group)
{
    TKDQueuePosition position;
    const VRedisReply stream = connection.command({"XINFO", "STREAM", TKDTaskStream::Key});
    if (stream.isError())
        return position; // no stream yet, so no group either
    const QHash<QByteArray, VRedisReply> streamFields = fieldsOf(stream);
    position.firstKept = streamFields.value("recorded-first-entry-id").text;
    position.length = integerOr(streamFields.value("length"), 0);
    position.entriesAdded = integerOr(streamFields.value("entries-added"), 0);
    position.lastAdded = streamFields.value("last-generated-id").text;
    const VRedisReply groups = connection.command({"XINFO", "GROUPS", TKDTaskStream::Key});
    refused("XINFO GROUPS", groups);
    for (const VRedisReply& info : groups.elements) {
        const QHash<QByteArray, VRedisReply> fields = fieldsOf(info);
        if (fields.value("name").text != group)
            continue;
        position.groupExists = true;
        position.pending = integerOr(fields.value("pending"), 0);
        position.lastDelivered = fields.value("last-delivered-id").text;
        position.lag = integerOr(fields.value("lag"), -1);
        position.entriesRead = integerOr(fields.value("entries-read"), -1);
    }
    return position;
}

} // namespace

TKDQueuePosition TKDTaskConsumer::position(const QByteArray& url, const QByteArray& group)
{
    VRedisConnection connection(addressOf(url), ConnectTimeoutMs, 1000);
    return positionOn(connection, group);
}

bool TKDQueuePosition::missedTasks() const
{
    // Redis counts what each group has read: a group that has read fewer
    // tasks than the stream dropped from its head never saw some of them.
    // Without a count (it can't always keep one) the lag tells the same.
    if (!groupExists)
        return false;
    if (entriesRead >= 0)
        return entriesRead < entriesAdded - length;
    // Without a count, a group whose last task lies before the oldest one
    // kept has lost what came between; at worst it thinks so wrongly once.
    return entriesAdded > length && idBefore(lastDelivered, firstKept);
}

void TKDTaskConsumer::skipTo(const TKDQueuePosition& position)
{
    refused("the new position",
            connection->command({"XGROUP", "SETID", TKDTaskStream::Key, group, position.lastAdded, "ENTRIESREAD",
                                 QByteArray::number(position.entriesAdded)}));
}
