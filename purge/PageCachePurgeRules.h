#pragma once

#include "PurgeRule.h"
#include "VNormalizedUrl.h"

#include "VDebug.h"
#include "VDeploymentInfo.h"
#include "VeskServerInfo.h"

#include <QMap>
#include <QMutex>


// The purge rules of this worker process. A purge never touches the disk
// cache: the hit path asks here whether a stored page may still be used.
// Rules are kept in memory and written to the page cache's database.
class PageCachePurgeRules
{
public:
    PageCachePurgeRules(const VeskServerInfo& serverInfo, VDebug::StreamId logStream);

    // Keeps the rule (a repeat of one held only moves its times on) and
    // writes all rules out. Throws VException when the
    // database refuses every attempt; the rule stays in memory all the same.
    void addRule(const PurgeRule& rule);
    // Re-reads the database and the deployed applications when their files
    // have changed.
    void refreshAll();
    // Whether this process holds any rule at all: without one, nothing is
    // purged, and a caller needn't even build the URL to ask.
    bool holdsRules();
    // Whether a rule covers the URL; given the time its page was stored,
    // only a rule made at or after that time does.
    bool isUrlPurged(const QString& url, qint32 appId, const QDateTime& storedAt = QDateTime());
    bool isCreationTimePurged(const QDateTime& creationTime, qint32 appId);
    // Whether a page created at `entryCreationTime` for `url` outlives every
    // rule of the application that covers it.
    bool isEntryValid(const QDateTime& entryCreationTime, const QString& url,
                      const QString& applicationName);

    // Writes every rule held in memory, in one transaction, up to
    // FlushAttempts times a second apart. Throws VException after the last;
    // no attempt leaves its transaction open.
    void flushToDb();
    // For tests: fewer attempts, shorter pauses.
    void setFlushRetries(int attempts, unsigned long pauseMs);
    // Reads the tables when the database file's date has moved.
    void refresh();

    QDateTime lastRefreshTime() const { return lastRefresh; }
    QString databaseFileName() const { return dbFileName; }

    static const int FlushAttempts = 10;

private:
    QString applicationNameOf(qint32 appId);
    QList<PurgeRule> rulesOf(const QString& applicationName);
    QDateTime latestCreationTime(const QString& applicationName);

    QMap<QString, QList<PurgeRule>> rules;
    QString dbFileName;
    QByteArray dbFilePath; // the same, as the file system names it
    QDateTime lastRefresh;
    VeskServerInfo serverInfo;
    QRecursiveMutex mutex;
    VDeploymentInfo deploymentInfo;
    VDebug::StreamId logStream;
    int flushAttempts = FlushAttempts;
    unsigned long flushPauseMs = 1000;
};
