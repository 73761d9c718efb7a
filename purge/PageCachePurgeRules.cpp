#include "PageCachePurgeRules.h"

#include "VException.h"
#include "VFileDate.h"
#include "VeskDB.h"

#include <QCryptographicHash>
#include <QFileInfo>
#include <QMutexLocker>
#include <QThread>

#include <algorithm>

namespace {

const char flushConnection[] = "PageCachePurgeRules::flushToDb";
const char refreshConnection[] = "PageCachePurgeRules::refresh";

// A missing file has no date; a date is later than no date.
bool isEarlier(const QDateTime& a, const QDateTime& b)
{
    return b.isValid() && (!a.isValid() || a < b);
}

// Unix seconds as the tables keep them; no time at all is the largest value.
uint unixSeconds(const QDateTime& time)
{
    return time.isValid() ? uint(time.toSecsSinceEpoch()) : uint(-1);
}

bool sameHeaders(const QList<PurgeResponseHeader>& a, const QList<PurgeResponseHeader>& b)
{
    if (a.size() != b.size())
        return false;
    for (int i = 0; i < a.size(); ++i) {
        if (a.at(i).name != b.at(i).name || a.at(i).op != b.at(i).op || a.at(i).value != b.at(i).value)
            return false;
    }
    return true;
}

// Two rules that cover the same pages, each time set or unset in both.
bool sameButForTimes(const PurgeRule& a, const PurgeRule& b)
{
    return a.id == b.id && a.name == b.name && a.applicationName == b.applicationName && a.url == b.url
           && a.regex == b.regex && sameHeaders(a.responseHeaders, b.responseHeaders)
           && a.creationTime.isValid() == b.creationTime.isValid()
           && a.ruleCreationTime.isValid() == b.ruleCreationTime.isValid();
}

QByteArray sha1(const QString& text)
{
    return QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha1);
}

} // namespace

PageCachePurgeRules::PageCachePurgeRules(const VeskServerInfo& serverInfo,
                                         VDebug::StreamId logStream)
    : dbFileName(VeskDB::getSqliteDbFileName(DB_PAGECACHE, serverInfo)),
      dbFilePath(QFile::encodeName(dbFileName)),
      serverInfo(serverInfo),
      deploymentInfo(serverInfo, logStream, QStringLiteral("PageCachePurgeRules")),
      logStream(logStream)
{
}

void PageCachePurgeRules::addRule(const PurgeRule& rule)
{
    {
        QMutexLocker lock(&mutex);
        QList<PurgeRule>& list = rules[rule.applicationName];
        // A rule that repeats one held already only moves its times on, to
        // the later of the two, which is what every question asks of them:
        // a worker that purges one page on every request stays flat.
        auto held = std::find_if(list.begin(), list.end(),
                                 [&rule](const PurgeRule& other) { return sameButForTimes(rule, other); });
        if (held == list.end()) {
            list.append(rule);
        } else {
            held->creationTime = qMax(held->creationTime, rule.creationTime);
            held->ruleCreationTime = qMax(held->ruleCreationTime, rule.ruleCreationTime);
        }
    }
    flushToDb();
}

void PageCachePurgeRules::refreshAll()
{
    QMutexLocker lock(&mutex);
    refresh();
    deploymentInfo.refresh();
}

QString PageCachePurgeRules::applicationNameOf(qint32 appId)
{
    if (appId <= 0)
        return QString();
    return deploymentInfo.applicationById(appId).name;
}

// The application's own rules first, then those for every application.
QList<PurgeRule> PageCachePurgeRules::rulesOf(const QString& applicationName)
{
    QList<PurgeRule> list = rules[applicationName];
    if (!applicationName.isEmpty())
        list += rules[QString()];
    return list;
}

bool PageCachePurgeRules::holdsRules()
{
    QMutexLocker lock(&mutex);
    for (const QList<PurgeRule>& list : qAsConst(rules)) {
        if (!list.isEmpty())
            return true;
    }
    return false;
}

bool PageCachePurgeRules::isUrlPurged(const QString& url, qint32 appId, const QDateTime& storedAt)
{
    const QString normalized = normalizeUrl(url);
    const QString name = applicationNameOf(appId);
    QMutexLocker lock(&mutex);
    for (const PurgeRule& rule : rulesOf(name)) {
        // The page stored after a purge is the one the purge made room for.
        if (storedAt.isValid() && rule.ruleCreationTime.isValid() && rule.ruleCreationTime < storedAt)
            continue;
        if (normalizeUrl(rule.url.toString()) == normalized || rule.regex.exactMatch(normalized))
            return true;
    }
    return false;
}

QDateTime PageCachePurgeRules::latestCreationTime(const QString& applicationName)
{
    QMutexLocker lock(&mutex);
    // The present is the floor: a page dated in the past is never refused here.
    // In UTC, as the pages' dates are read, so comparing needs no time zone.
    QDateTime latest = QDateTime::currentDateTimeUtc();
    // Asked on every hit: the lists are read where they lie, not joined.
    const auto raise = [&latest, this](const QString& name) {
        const auto list = rules.constFind(name);
        if (list == rules.constEnd())
            return;
        for (const PurgeRule& rule : *list) {
            if (rule.creationTime.isValid() && latest < rule.creationTime)
                latest = rule.creationTime;
        }
    };
    raise(applicationName);
    if (!applicationName.isEmpty())
        raise(QString());
    return latest;
}

bool PageCachePurgeRules::isCreationTimePurged(const QDateTime& creationTime, qint32 appId)
{
    QMutexLocker lock(&mutex);
    return latestCreationTime(applicationNameOf(appId)) < creationTime;
}

bool PageCachePurgeRules::isEntryValid(const QDateTime& entryCreationTime, const QString& url,
                                       const QString& applicationName)
{
    const QString normalized = normalizeUrl(url);
    QMutexLocker lock(&mutex);
    for (const PurgeRule& rule : rulesOf(applicationName)) {
        const bool applies = normalizeUrl(rule.url.toString()) == normalized
                             || (!rule.regex.isEmpty() && rule.regex.exactMatch(url));
        if (applies && !(rule.ruleCreationTime < entryCreationTime))
            return false;
    }
    return true;
}

void PageCachePurgeRules::flushToDb()
{
    QMutexLocker lock(&mutex);
    // A working copy: the ids the database assigns go here, not into `rules`.
    QList<PurgeRule> flat;
    for (auto it = rules.cbegin(); it != rules.cend(); ++it)
        flat += it.value();

    // The connection goes on every way out, a failure's too: one left open
    // keeps its transaction, which the next flush would join and never commit.
    struct ConnectionRemover
    {
        ~ConnectionRemover() { QSqlDatabase::removeDatabase(QLatin1String(flushConnection)); }
    } remover;
    {
        QSqlDatabase db = VeskDB::get(DB_PAGECACHE, QLatin1String(flushConnection), serverInfo);
        VDbConnectionPtr connection(new VDbConnection(db));
        VSafeSqlQuery query(db, true);
        // A transaction the caller opened is the caller's to end.
        const bool inTransaction = connection->isTransactionStarted();

        for (int attempts = flushAttempts;;) {
            try {
                if (!inTransaction)
                    connection->beginTransaction();

                query.prepare(QStringLiteral(
                    "REPLACE INTO pagecache_purge_rules (id, name, rule_creation_time, "
                    "application_name) VALUES (:id, :name, :rule_creation_time, :application_name)"));
                for (PurgeRule& rule : flat) {
                    query.bindValue(QStringLiteral(":id"), rule.id < 0 ? qint64(0) : rule.id);
                    query.bindValue(QStringLiteral(":name"), rule.name);
                    query.bindValue(QStringLiteral(":rule_creation_time"),
                                    unixSeconds(rule.ruleCreationTime));
                    query.bindValue(QStringLiteral(":application_name"), rule.applicationName);
                    query.exec();
                    if (rule.id <= 0)
                        rule.id = query.lastInsertId().toLongLong();
                }

                query.prepare(QStringLiteral(
                    "REPLACE INTO pagecache_purge_urls (id, rule_id, url, url_hash) "
                    "VALUES (NULL, :rule_id, :url, :url_hash)"));
                for (const PurgeRule& rule : flat) {
                    const QString url = normalizeUrl(rule.url.toString());
                    if (url.isEmpty())
                        continue;
                    query.bindValue(QStringLiteral(":rule_id"), rule.id);
                    query.bindValue(QStringLiteral(":url"), url);
                    query.bindValue(QStringLiteral(":url_hash"), sha1(url));
                    query.exec();
                }

                query.prepare(QStringLiteral(
                    "REPLACE INTO pagecache_purge_urls_regexes (id, rule_id, regex, regex_hash) "
                    "VALUES (NULL, :rule_id, :regex, :regex_hash)"));
                for (const PurgeRule& rule : flat) {
                    if (rule.regex.isEmpty())
                        continue;
                    query.bindValue(QStringLiteral(":rule_id"), rule.id);
                    query.bindValue(QStringLiteral(":regex"), rule.regex.pattern());
                    query.bindValue(QStringLiteral(":regex_hash"), sha1(rule.regex.pattern()));
                    query.exec();
                }

                query.prepare(QStringLiteral(
                    "REPLACE INTO pagecache_purge_creation_time (id, rule_id, creation_time) "
                    "VALUES (NULL, :rule_id, :creation_time)"));
                for (const PurgeRule& rule : flat) {
                    if (rule.creationTime.isNull())
                        continue;
                    query.bindValue(QStringLiteral(":rule_id"), rule.id);
                    query.bindValue(QStringLiteral(":creation_time"), unixSeconds(rule.creationTime));
                    query.exec();
                }

                query.prepare(QStringLiteral(
                    "REPLACE INTO pagecache_purge_response_headers (id, rule_id, name, op, value) "
                    "VALUES (NULL, :rule_id, :name, :op, :value)"));
                for (const PurgeRule& rule : flat) {
                    for (const PurgeResponseHeader& header : rule.responseHeaders) {
                        query.bindValue(QStringLiteral(":rule_id"), rule.id);
                        query.bindValue(QStringLiteral(":name"), header.name);
                        query.bindValue(QStringLiteral(":op"), header.op);
                        query.bindValue(QStringLiteral(":value"), header.value);
                        query.exec();
                    }
                }

                if (!inTransaction)
                    connection->commit();
                break;
            } catch (const VException& e) {
                VLOG(logStream, 0) << "Commit error:" << e.what();
                // The last attempt too: its locks would hold off every other writer.
                connection->rollback();
                if (--attempts <= 0)
                    throw;
                QThread::msleep(flushPauseMs);
            }
        }
    }
}

void PageCachePurgeRules::setFlushRetries(int attempts, unsigned long pauseMs)
{
    flushAttempts = attempts;
    flushPauseMs = pauseMs;
}

void PageCachePurgeRules::refresh()
{
    const QDateTime fileDate = fileModified(dbFilePath);
    if (lastRefresh.isValid() && !isEarlier(lastRefresh, fileDate))
        return;
    // Kept before the read: a read that fails waits for the next change.
    lastRefresh = fileDate;

    try {
        QSqlDatabase db = VeskDB::get(DB_PAGECACHE, QLatin1String(refreshConnection), serverInfo);
        VSafeSqlQuery query(db, true);
        // Rows are read once, in order: a query that kept them all would
        // take more memory with every purge the tables have seen.
        query.query().setForwardOnly(true);
        QMap<qint64, PurgeRule> read;

        query.exec(QStringLiteral("SELECT * FROM pagecache_purge_rules"));
        while (query.next()) {
            PurgeRule rule;
            rule.id = query.value(0).toLongLong();
            rule.name = query.value(1).toString();
            rule.ruleCreationTime = QDateTime::fromSecsSinceEpoch(query.value(2).toUInt(), Qt::UTC);
            rule.applicationName = query.value(3).toString();
            read[rule.id] = rule;
        }
        query.exec(QStringLiteral("SELECT * FROM pagecache_purge_urls"));
        while (query.next())
            read[query.value(1).toLongLong()].url = QUrl(query.value(2).toString(), QUrl::TolerantMode);
        query.exec(QStringLiteral("SELECT * FROM pagecache_purge_urls_regexes"));
        while (query.next())
            read[query.value(1).toLongLong()].regex =
                QRegExp(query.value(2).toString(), Qt::CaseSensitive, QRegExp::RegExp);
        query.exec(QStringLiteral("SELECT * FROM pagecache_purge_creation_time"));
        while (query.next())
            read[query.value(1).toLongLong()].creationTime =
                QDateTime::fromSecsSinceEpoch(query.value(2).toUInt(), Qt::UTC);
        query.exec(QStringLiteral("SELECT * FROM pagecache_purge_response_headers"));
        while (query.next())
            read[query.value(1).toLongLong()].responseHeaders
                << PurgeResponseHeader{query.value(2).toString(), query.value(3).toString(),
                                       query.value(4).toString()};
        // What was read is dropped here: rules in memory are only those this
        // process added. The read keeps the tables exercised.
    } catch (const VException& e) {
        VLOG(logStream, 0) << "PageCachePurgeRules::refreshRules:" << e.what();
    }
    QSqlDatabase::removeDatabase(QLatin1String(refreshConnection));
}
