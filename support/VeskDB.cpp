#include "VeskDB.h"

#include "VException.h"
#include "VFileMode.h"
#include "VeskSchemas.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSqlDriver>
#include <QSqlError>
#include <QStringList>
#include <QThread>

#include <sqlite3.h>
#include <sys/stat.h>

namespace {

const char* schemaOf(DB_NAME db)
{
    switch (db) {
    case DB_DEPLOYMENT:
        return deploymentSchemaSql;
    case DB_TKD:
        return tkdSchemaSql;
    case DB_PAGECACHE:
        return pagecacheSchemaSql;
    }
    return "";
}

// The script's statements, without its comment lines.
QStringList statementsOf(const char* script)
{
    QStringList lines;
    for (const QString& line : QString::fromUtf8(script).split('\n')) {
        if (!line.trimmed().startsWith(QLatin1String("--")))
            lines << line;
    }
    QStringList statements;
    for (const QString& statement : lines.join('\n').split(';')) {
        if (!statement.trimmed().isEmpty())
            statements << statement.trimmed();
    }
    return statements;
}

sqlite3* handleOf(const QSqlDatabase& db)
{
    QVariant handle = db.driver() ? db.driver()->handle() : QVariant();
    if (!handle.isValid() || qstrcmp(handle.typeName(), "sqlite3*") != 0)
        return nullptr;
    return *static_cast<sqlite3* const*>(handle.data());
}

// Creates what is missing. Reading the schema first keeps a database that
// another process holds for writing usable for this one's reads.
void ensureTables(QSqlDatabase& db, DB_NAME which, const QString& path)
{
    const QStringList statements = statementsOf(schemaOf(which));
    QStringList wanted;
    for (const QString& statement : statements) {
        QString name = statement.section(QLatin1String("EXISTS"), 1).section('(', 0, 0).trimmed();
        if (!name.isEmpty())
            wanted << name;
    }
    const QStringList present = db.tables();
    bool complete = true;
    for (const QString& name : wanted)
        complete = complete && present.contains(name);
    if (complete)
        return;
    for (const QString& statement : statements) {
        QSqlQuery query(db);
        if (!query.exec(statement))
            throw VException(QStringLiteral("Cannot create the tables of %1: %2")
                                 .arg(path, query.lastError().text()));
    }
}

} // namespace

QString VeskDB::getSqliteDbFileName(DB_NAME db)
{
    switch (db) {
    case DB_DEPLOYMENT:
        return QStringLiteral("deployment.db");
    case DB_TKD:
        return QStringLiteral("tkd.db");
    case DB_PAGECACHE:
        return QStringLiteral("pagecache.db");
    }
    return QString();
}

QString VeskDB::getSqliteDbFileName(DB_NAME db, const VeskServerInfo& serverInfo)
{
    const QByteArray dir = serverInfo.dataDir();
    if (dir.isEmpty())
        return QString();
    return QStringLiteral("%1%2%3").arg(QString::fromLocal8Bit(dir), QDir::separator(),
                                        getSqliteDbFileName(db));
}

QSqlDatabase VeskDB::get(DB_NAME which, const QString& connectionName,
                         const VeskServerInfo& serverInfo)
{
    const QString path = getSqliteDbFileName(which, serverInfo);
    if (path.isEmpty())
        throw VException(QStringLiteral("No data directory for %1: vesk.install_dir is not set")
                             .arg(getSqliteDbFileName(which)));
    QDir().mkpath(QFileInfo(path).absolutePath());

    QSqlDatabase db = QSqlDatabase::contains(connectionName)
                          ? QSqlDatabase::database(connectionName, false)
                          : QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connectionName);
    if (!db.isValid())
        throw VException(QStringLiteral("The SQLite driver of Qt is missing"));
    if (!db.isOpen()) {
        const bool made = !QFileInfo::exists(path);
        db.setDatabaseName(path);
        db.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=%1").arg(BusyTimeoutMs));
        if (!db.open())
            throw VException(QStringLiteral("Cannot open database %1: %2")
                                 .arg(path, db.lastError().text()));
        // SQLite makes the file as the umask says, and its journals after
        // the file's own mode: the workers' user and group only.
        if (made)
            chmod(QFile::encodeName(path).constData(), VFileMode::files());
    }
    ensureTables(db, which, path);
    return db;
}

VeskDbSQliteInfo VeskDbSQliteInfo::get(DB_NAME db, const VeskServerInfo& serverInfo)
{
    VeskDbSQliteInfo info;
    info.m_db = db;
    info.m_serverInfo = serverInfo;
    info.m_fileName = VeskDB::getSqliteDbFileName(db, serverInfo);
    return info;
}

QSqlDatabase VeskDbSQliteInfo::connection(int daemonType, const QString& connectionName) const
{
    (void)daemonType;
    return VeskDB::get(m_db, connectionName, m_serverInfo);
}

VDbConnection::VDbConnection(const QSqlDatabase& db) : m_db(db)
{
}

bool VDbConnection::isTransactionStarted() const
{
    sqlite3* handle = handleOf(m_db);
    return handle && !sqlite3_get_autocommit(handle);
}

void VDbConnection::beginTransaction()
{
    if (!m_db.transaction())
        throw VException(QStringLiteral("Cannot begin a transaction: %1")
                             .arg(m_db.lastError().text()));
}

void VDbConnection::commit()
{
    if (!m_db.commit())
        throw VException(QStringLiteral("Cannot commit: %1").arg(m_db.lastError().text()));
}

void VDbConnection::rollback()
{
    // Qt refuses a rollback it didn't begin; the SQL form ends any open
    // transaction, and ending none is harmless.
    if (!m_db.rollback() && isTransactionStarted())
        QSqlQuery(m_db).exec(QStringLiteral("ROLLBACK"));
}

VSafeSqlQuery::VSafeSqlQuery(const QSqlDatabase& db, bool throwOnError)
    : m_query(db), m_throw(throwOnError)
{
}

bool VSafeSqlQuery::check(bool ok, const char* what)
{
    if (!ok && m_throw)
        throw VException(QStringLiteral("%1 failed: %2 [%3]")
                             .arg(QLatin1String(what), m_query.lastError().text(), m_text));
    return ok;
}

bool VSafeSqlQuery::prepare(const QString& text)
{
    m_text = text;
    return check(m_query.prepare(text), "prepare");
}

bool VSafeSqlQuery::exec()
{
    return check(m_query.exec(), "exec");
}

bool VSafeSqlQuery::exec(const QString& text)
{
    m_text = text;
    return check(m_query.exec(text), "exec");
}

bool VSafeSqlQuery::execWithRetries(VDebug::StreamId logStream, int retries)
{
    for (int attempt = 0;; ++attempt) {
        if (m_query.exec())
            return true;
        const QString code = m_query.lastError().nativeErrorCode();
        const bool locked = code == QString::number(SQLITE_BUSY)
                            || code == QString::number(SQLITE_LOCKED);
        if (!locked || attempt >= retries)
            return check(false, "exec");
        VLOG(logStream, 3) << "Database is locked, retrying:" << m_text;
        QThread::msleep(100);
    }
}

void VSafeSqlQuery::bindValue(const QString& placeholder, const QVariant& value)
{
    m_query.bindValue(placeholder, value);
}
