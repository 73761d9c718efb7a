#include "TKDTaskInserter.h"

#include "TKDTaskStream.h"
#include "VException.h"
#include "VRedisConnection.h"
#include "VeskDB.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QThread>
#include <memory>
#include <unistd.h>

namespace {

const char connectionName[] = "TKDTaskInserter::addTask";

QByteArray s_queueUrl;
// One connection per process, opened by the first task: a worker forked
// after it was opened must not share its socket.
std::unique_ptr<VRedisConnection> s_connection;
pid_t s_connectionPid = -1;

VRedisConnection& connection(int timeoutMs)
{
    if (!s_connection || s_connection->broken() || s_connectionPid != getpid()) {
        s_connection.reset();
        VRedisAddress address;
        QString error;
        if (!VRedisAddress::parse(s_queueUrl, &address, &error))
            throw VException(error);
        std::unique_ptr<VRedisConnection> fresh(new VRedisConnection(address, timeoutMs, timeoutMs));
        // Tasks on a server the nodes' agents refuse would reach no node.
        const QString unsupported = TKDTaskStream::unsupportedServer(*fresh);
        if (!unsupported.isEmpty())
            throw VException(unsupported);
        s_connection = std::move(fresh);
        s_connectionPid = getpid();
    } else {
        s_connection->setCommandTimeout(timeoutMs);
    }
    return *s_connection;
}

void appendToStream(tkd::TaskType type, bool otherNodesOnly, const VeskServerInfo& serverInfo,
                    const QString& payload, int timeoutMs)
{
    const VRedisReply reply = connection(timeoutMs).command(
        {"XADD", TKDTaskStream::Key, "MAXLEN", "~", QByteArray::number(TKDTaskStream::MaxLength), "*",
         "type", QByteArray::number(int(type)), "payload", payload.toUtf8(),
         "node", QByteArray::number(serverInfo.serverNumber()), "others", otherNodesOnly ? "1" : "0",
         "time", QByteArray::number(QDateTime::currentSecsSinceEpoch())});
    if (reply.isError())
        throw VException(QStringLiteral("Redis refused the task: %1").arg(QString::fromUtf8(reply.text)));
}

// A connection kept from an earlier task may have died with a restarted
// Redis: a second try on a new one, within what is left of the limit.
void addToRedis(tkd::TaskType type, bool otherNodesOnly, const VeskServerInfo& serverInfo,
                const QString& payload)
{
    QElapsedTimer clock;
    clock.start();
    const bool reused = s_connection && !s_connection->broken() && s_connectionPid == getpid();
    try {
        appendToStream(type, otherNodesOnly, serverInfo, payload, TKDTaskInserter::TimeoutMs);
    } catch (const VException&) {
        const int left = TKDTaskInserter::TimeoutMs - int(clock.elapsed());
        if (!reused || left < 5)
            throw;
        s_connection.reset();
        appendToStream(type, otherNodesOnly, serverInfo, payload, left);
    }
}

void insertRow(tkd::TaskType type, bool otherNodesOnly, const VeskServerInfo& serverInfo,
               const QString& payload)
{
    QSqlDatabase db = VeskDB::get(DB_TKD, QLatin1String(connectionName), serverInfo);
    VSafeSqlQuery query(db, true);
    query.prepare(QStringLiteral(
        "INSERT INTO tkd_tasks (type, payload, other_nodes_only, server, webserver, created) "
        "VALUES (:type, :payload, :other_nodes_only, :server, :webserver, :created)"));
    query.bindValue(QStringLiteral(":type"), int(type));
    query.bindValue(QStringLiteral(":payload"), payload);
    query.bindValue(QStringLiteral(":other_nodes_only"), otherNodesOnly ? 1 : 0);
    query.bindValue(QStringLiteral(":server"), serverInfo.serverNumber());
    query.bindValue(QStringLiteral(":webserver"), QString::fromLocal8Bit(serverInfo.webserverType()));
    query.bindValue(QStringLiteral(":created"), QDateTime::currentSecsSinceEpoch());
    query.exec();
}

} // namespace

void TKDTaskInserter::addTask(tkd::TaskType type, bool otherNodesOnly,
                              const VeskServerInfo& serverInfo, const QString& payload,
                              VDebug::StreamId logStream)
{
    if (!s_queueUrl.isEmpty()) {
        addToRedis(type, otherNodesOnly, serverInfo, payload);
        return;
    }
    for (int attempt = 1;; ++attempt) {
        try {
            insertRow(type, otherNodesOnly, serverInfo, payload);
            QSqlDatabase::removeDatabase(QLatin1String(connectionName));
            return;
        } catch (const VException& e) {
            QSqlDatabase::removeDatabase(QLatin1String(connectionName));
            if (attempt >= Attempts)
                throw;
            VLOG(logStream, 3) << "Task queue is busy, retrying:" << e.what();
            QThread::msleep(200);
        }
    }
}

void TKDTaskInserter::setClusterQueue(const QByteArray& url)
{
    if (url != s_queueUrl)
        s_connection.reset();
    s_queueUrl = url;
}

QByteArray TKDTaskInserter::clusterQueue()
{
    return s_queueUrl;
}
