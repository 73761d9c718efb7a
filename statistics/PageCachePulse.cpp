#include "PageCachePulse.h"

#include "VPageCacheStatsMessage.h"

#include <ctime>

namespace {
bool pulseInitialized = false;
}

PageCachePulse* PageCachePulse::instance()
{
    static PageCachePulse pulse;
    return &pulse;
}

PageCachePulse::~PageCachePulse() = default;

bool PageCachePulse::isInitialized()
{
    return pulseInitialized;
}

void PageCachePulse::initialize(const VeskServerInfo& info, const QString& connectionString)
{
    if (pulseInitialized)
        return;
    VLOG(info.logStream(), 3) << "Initialising PageCache Pulse.";
    QString connection = connectionString;
    connection.replace(QLatin1String("VESK_PREFIX"), QString::fromLocal8Bit(info.installationPrefix()));
    serverInfo = info;
    client.setConnectionString(connection);
    VLOG(log(), 3) << "Connection string set to:" << connection;
    // Without a daemon to send to, the pulse stays off: no message is made
    // and no connection is tried, so a request leaves no line about it.
    if (connection.isEmpty())
        return;
    pulseInitialized = true;
}

void PageCachePulse::reset(qint64 id)
{
    stopwatch.reset();
    appId = id;
}

void PageCachePulse::add(qint32 counterType, qint64 counterValue, qint64 ruleId, const QString& ruleName,
                         const QString& key, bool withServerNumber)
{
    QSharedPointer<VPageCacheStatsMessage> message(new VPageCacheStatsMessage);
    message->timestamp = time(nullptr);
    message->appId = qint32(appId);
    message->ruleId = ruleId;
    message->counterType = counterType;
    message->counterValue = counterValue;
    message->ruleName = ruleName.toLocal8Bit();
    message->key = key.toLocal8Bit();
    if (withServerNumber)
        message->serverNumber = serverInfo.serverNumber();
    if (pulseInitialized)
        client.add(message);
}

void PageCachePulse::addPossible(qint64 ruleId, const QString& ruleName)
{
    if (!pulseInitialized)
        return;
    VLOG(log(), 5) << "Adding POSSIBLE message";
    add(VPageCacheStatsMessage::Possible, 1, ruleId, ruleName, QString(), false);
}

void PageCachePulse::addHit(qint64 ruleId, const QString& ruleName, const QString& key)
{
    if (!pulseInitialized)
        return;
    VLOG(log(), 5) << "Adding PageCache-Hit message";
    add(VPageCacheStatsMessage::Hit, 1, ruleId, ruleName, key, true);
}

void PageCachePulse::addMiss(qint64 ruleId, const QString& ruleName)
{
    if (!pulseInitialized)
        return;
    VLOG(log(), 5) << "Adding PageCache-Miss message";
    // Building the page starts here; the store at request end stops it.
    if (!stopwatch.isRunning())
        stopwatch.start();
    add(VPageCacheStatsMessage::Miss, 1, ruleId, ruleName, QString(), true);
}

void PageCachePulse::addTimeSaved(qint64 ruleId, const QString& ruleName, const QString& key)
{
    if (!pulseInitialized)
        return;
    VLOG(log(), 5) << "Adding PageCache-Time-Saved entry for rule:" << ruleName << ":" << key;
    add(VPageCacheStatsMessage::TimeSaved, stopwatch.elapsed() / 1000, ruleId, ruleName, key, true);
}

void PageCachePulse::addStale(qint64 ruleId, const QString& ruleName, const QString& key)
{
    if (!pulseInitialized)
        return;
    VLOG(log(), 5) << "Adding PageCache-Stale message";
    add(VPageCacheStatsMessage::Stale, 1, ruleId, ruleName, key, true);
}

void PageCachePulse::addWait(qint64 ruleId, const QString& ruleName, qint64 waitedMs)
{
    if (!pulseInitialized)
        return;
    VLOG(log(), 5) << "Adding PageCache-Wait message:" << waitedMs << "ms";
    add(VPageCacheStatsMessage::Wait, waitedMs, ruleId, ruleName, QString(), true);
}

void PageCachePulse::addTagRemoval(qint64 pages, const QString& tags)
{
    if (!pulseInitialized)
        return;
    VLOG(log(), 5) << "Adding PageCache-TagRemoval message:" << pages << "pages";
    add(VPageCacheStatsMessage::TagRemoval, pages, 0, QString(), tags, true);
}

void PageCachePulse::clear()
{
    if (!pulseInitialized)
        return;
    VLOG(log(), 4) << "Clearing pulse data";
    client.clear(log());
}

void PageCachePulse::sendMessages(bool internalRequest, const char* currentUrl)
{
    if (!pulseInitialized)
        return;
    if (internalRequest) {
        VLOG(log(), 5) << "Page Cache Pulse is disabled for internal requests." << (currentUrl ? currentUrl : "(null)");
        client.clear(log());
        return;
    }
    if (client.messages().empty()) {
        VLOG(log(), 5) << "There are no messages to send to statsd";
        return;
    }
    VLOG(log(), 5) << "Sending messages to statsd...";
    VStatsdeAggregatorBase aggregator;
    client.flush(aggregator, serverInfo, log());
    client.clear(log());
    VLOG(log(), 5) << "Sending messages to statsd...done";
}
