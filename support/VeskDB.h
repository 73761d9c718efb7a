#pragma once

#include "VDebug.h"
#include "VeskServerInfo.h"

#include <QSharedPointer>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QVariant>

// The product's SQLite databases, by number.
enum DB_NAME {
    DB_DEPLOYMENT = 0,
    DB_TKD = 4,
    DB_PAGECACHE = 12,
};

// Where each database lives and how a connection to it is opened. Files sit
// in the server's data directory; a database that is opened for the first
// time gets its file, its directory and its tables.
class VeskDB
{
public:
    // The file's bare name, such as "pagecache.db".
    static QString getSqliteDbFileName(DB_NAME db);
    // Its full path under the server's data directory; empty without one.
    static QString getSqliteDbFileName(DB_NAME db, const VeskServerInfo& serverInfo);
    // An open connection under `connectionName`, which the caller removes
    // with QSqlDatabase::removeDatabase when done. Throws VException.
    static QSqlDatabase get(DB_NAME db, const QString& connectionName,
                            const VeskServerInfo& serverInfo);

    // How long a statement waits for another process's lock before it fails
    // and the caller's own retries take over.
    static const int BusyTimeoutMs = 200;
};

// The description of one SQLite database, from which connections are made.
class VeskDbSQliteInfo
{
public:
    static VeskDbSQliteInfo get(DB_NAME db, const VeskServerInfo& serverInfo);
    // `daemonType` names the component asking; every component shares the file.
    QSqlDatabase connection(int daemonType, const QString& connectionName) const;
    QString fileName() const { return m_fileName; }

private:
    DB_NAME m_db = DB_DEPLOYMENT;
    VeskServerInfo m_serverInfo;
    QString m_fileName;
};

// A transaction's life on one connection. Failures to begin or commit throw
// VException; a rollback is best effort.
class VDbConnection
{
public:
    explicit VDbConnection(const QSqlDatabase& db);
    // Whether a transaction is already open on this connection, as SQLite
    // itself says.
    bool isTransactionStarted() const;
    void beginTransaction();
    void commit();
    void rollback();
    QSqlDatabase database() const { return m_db; }

private:
    QSqlDatabase m_db;
};
typedef QSharedPointer<VDbConnection> VDbConnectionPtr;

// A query that reports a failed prepare or exec by throwing VException with
// the statement and SQLite's own text.
class VSafeSqlQuery
{
public:
    VSafeSqlQuery(const QSqlDatabase& db, bool throwOnError);

    bool prepare(const QString& text);
    bool exec();
    bool exec(const QString& text);
    // Runs the prepared statement, trying again while the database is locked
    // by another process, `retries` times at most, 100 ms apart.
    bool execWithRetries(VDebug::StreamId logStream, int retries);
    void bindValue(const QString& placeholder, const QVariant& value);
    bool next() { return m_query.next(); }
    QVariant value(int index) const { return m_query.value(index); }
    QVariant lastInsertId() const { return m_query.lastInsertId(); }
    QSqlQuery& query() { return m_query; }

private:
    bool check(bool ok, const char* what);

    QSqlQuery m_query;
    bool m_throw;
    QString m_text;
};
