#pragma once

#include "VStatsdClient.h"
#include "VTime.h"
#include "VeskServerInfo.h"

#include <QByteArray>
#include <QList>
#include <QString>

// One fact for the host's own statistics function.
struct PageCacheStatRecord
{
    qint32 recordType = 0;
    qint32 recordSubType = -1;
    double counterValue = 1.0;
    qint64 appId = -1;
    qint64 reserved = 0;
    const char* userNamespace = nullptr;
    const char* extraData = nullptr;

    enum { Hit = 15, Miss = 16 };
};

// What the page cache did with each request: consulted (possible), served
// (hit), built (miss), and what building cost (time saved). Facts gather in
// memory and go to the statistics daemon once, at request end; adding them
// up is the daemon's job.
class PageCachePulse
{
public:
    static PageCachePulse* instance();
    virtual ~PageCachePulse();

    // Once per process. `connectionString` may name the product's prefix as
    // the word VESK_PREFIX.
    void initialize(const VeskServerInfo& serverInfo, const QString& connectionString);
    static bool isInitialized();
    // A new request of the given application; the stopwatch stops.
    void reset(qint64 appId);

    void addPossible(qint64 ruleId, const QString& ruleName);
    void addHit(qint64 ruleId, const QString& ruleName, const QString& key);
    void addMiss(qint64 ruleId, const QString& ruleName);
    void addTimeSaved(qint64 ruleId, const QString& ruleName, const QString& key);
    // Beside addHit, for a page served past its lifetime within its grace.
    void addStale(qint64 ruleId, const QString& ruleName, const QString& key);
    // The time a request waited for another worker to build its page.
    void addWait(qint64 ruleId, const QString& ruleName, qint64 waitedMs);
    // A removal by tag that ended `pages` pages; `tags` goes as the key.
    void addTagRemoval(qint64 pages, const QString& tags);
    void clear();
    // Sends what the request gathered, unless it came in on an internal port.
    void sendMessages(bool internalRequest, const char* currentUrl);

    VStatsdClient& statsdClient() { return client; }

private:
    PageCachePulse() = default;
    void add(qint32 counterType, qint64 counterValue, qint64 ruleId, const QString& ruleName,
             const QString& key, bool withServerNumber);
    VDebug::StreamId log() const { return serverInfo.logStream(); }

    VStatsdClient client;
    VeskServerInfo serverInfo;
    VTime stopwatch;
    qint64 appId = -1;
};
