#include "TKDTaskInserter.h"

#include "VException.h"
#include "VeskDB.h"

#include <QDateTime>
#include <QThread>

namespace {

const char connectionName[] = "TKDTaskInserter::addTask";

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
