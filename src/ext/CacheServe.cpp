#include "RequestPath.h"

#include "7.0/htmlcache_ext.h"
#include "HostProbes.h"
#include "ModuleState.h"
#include "PageCacheConfig.h"
#include "RequestState.h"
#include "StatisticsRecords.h"
#include "host/vesk_host.h"

#include "CacheRule.h"
#include "PageCachePurgeRules.h"
#include "VHTMLCache.h"
#include "VHeaderLines.h"
#include "VMD5.h"

#include <cstdlib>

bool isGzipAccepted()
{
    if (!vesk_sapi_has_getenv())
        return false;
    const char* accepted = vesk_sapi_getenv("HTTP_ACCEPT_ENCODING");
    // Quality values aren't looked at: "gzip;q=0" still counts.
    return accepted && strstr(accepted, "gzip");
}

int setResponseCode(int code)
{
    if (code == 0)
        return 0;
    const int previous = vesk_response_code();
    if (code == previous)
        return previous;
    vesk_set_response_code(code);
    return previous;
}

void sendHeader(const QByteArray& line, bool replace)
{
    VLOG(moduleState.logStream, 5) << "Sending header:" << line;
    vesk_add_header(line.constData(), size_t(line.size()), replace);
}

namespace {

// The Last-Modified a client of this page was sent: the line stored with
// it (the script's own, or the one made when it was stored), else the
// moment it was stored.
QDateTime lastModifiedSent(const CacheEntry& entry, qint64 created)
{
    const QByteArray line = VHeaderLines::value(entry.m_headers, "Last-Modified");
    if (!line.isEmpty()) {
        QDateTime sent = VHTMLCache::parseHttpDate(line.constData());
        if (sent.isValid()) {
            sent.setTimeSpec(Qt::UTC);
            return sent;
        }
    }
    return QDateTime::fromSecsSinceEpoch(created, Qt::UTC);
}

// The lines a 304 must repeat from the page it stands for.
bool belongsToNotModified(const QByteArray& line)
{
    for (const char* name : {"Cache-Control", "Expires", "Vary", "ETag", "Content-Location"}) {
        if (VHeaderLines::hasName(line, name))
            return true;
    }
    return false;
}

// Sends stored lines so that the response holds exactly them: the first
// line of a name replaces what the engine already holds under it, later
// lines of that name (Set-Cookie, Link) join it.
void replayHeaders(const QLinkedList<QByteArray>& lines, bool (*wanted)(const QByteArray&) = nullptr)
{
    QList<QByteArray> names;
    for (const QByteArray& line : lines) {
        if (wanted && !wanted(line))
            continue;
        const QByteArray name = line.left(line.indexOf(':')).toLower();
        const bool first = !names.contains(name);
        if (first)
            names.append(name);
        sendHeader(line, first);
    }
}

} // namespace

int conditionalStatus(CacheEntry& entry)
{
    const VDebug::StreamId log = moduleState.logStream;
    if (!vesk_sapi_has_getenv())
        return 200;
    bool unmodifiedCase = true;
    const char* value = vesk_sapi_getenv("HTTP_IF_UNMODIFIED_SINCE");
    if (value) {
        VLOG(log, 3) << "If-Unmodified-Since header received:" << value;
    } else {
        value = vesk_sapi_getenv("HTTP_IF_MODIFIED_SINCE");
        if (!value)
            return 200;
        VLOG(log, 3) << "If-Modified-Since header received:" << value;
        unmodifiedCase = false;
    }
    QDateTime reference = VHTMLCache::parseHttpDate(value);
    if (!reference.isValid()) {
        VLOG(log, 1) << "Invalid reference time in modified-since header";
        return 200;
    }
    reference.setTimeSpec(Qt::UTC);
    const RequestState& r = requestState;
    const qint64 lifetime = r.rule->d->lifetime;
    VHTMLCache* cache = VHTMLCache::instance();
    const qint64 expires = cache->entryLastModified(r.namespaceKey, r.matchKey);
    // The store answers 0 for a page it doesn't hold; that is no date to
    // compare with either.
    if (expires == lifetime || expires == 0) {
        VLOG(log, 3) << "Cache entry doesn't exist yet";
        return 200;
    }
    // Compared with the date the client was given, a validator it echoes
    // back matches exactly.
    cache->readEntry(r.namespaceKey, r.matchKey, entry);
    const qint64 sent = lastModifiedSent(entry, expires - lifetime).toSecsSinceEpoch();
    const qint64 asked = reference.toSecsSinceEpoch();
    if (!unmodifiedCase && asked >= sent) {
        VLOG(log, 5) << "file hasn't been updated since the time specified in If-Modified-Since header";
        return 304;
    }
    if (unmodifiedCase && asked < sent) {
        VLOG(log, 5) << "file has been updated since the time specified in If-Unmodified-Since header. returning 412";
        return 412;
    }
    return 200;
}

namespace {

void miss(qint64 ruleId, const QString& ruleName)
{
    RequestState& r = requestState;
    VLOG(moduleState.logStream, 3) << "Cache entry NOT found for :" << r.requestUrl << "rule" << ruleName
                                   << ", specific match key:" << r.matchKey << "buffering output from current request";
    startOutputCapture();
    r.buffering = true;
    if (isRecordChannelOn())
        queueStatisticsRecord(PageCacheStatRecord::Miss);
    if (pageCacheConfig.pulse_enable)
        PageCachePulse::instance()->addMiss(ruleId, ruleName);
}

void empty(int previousCode, qint64 ruleId, const QString& ruleName)
{
    RequestState& r = requestState;
    VLOG(moduleState.logStream, 3) << "Cache entry is empty at NS" << r.namespaceKey << "and key" << r.matchKey
                                   << ". Will be replaced with the output of this request.";
    if (isRecordChannelOn())
        queueStatisticsRecord(PageCacheStatRecord::Miss);
    if (pageCacheConfig.pulse_enable)
        PageCachePulse::instance()->addMiss(ruleId, ruleName);
    startOutputCapture();
    r.buffering = true;
    setResponseCode(previousCode);
}

// Before an empty 304 stands for the stored page, the page itself must
// still be one this request could be served.
bool notModifiedUsable(const CacheEntry& entry)
{
    RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
    VHTMLCache* cache = VHTMLCache::instance();
    PageCachePurgeRules* purge = moduleState.purgeRules;
    bool valid = entry.formatTag() != 0;
    if (!valid)
        VLOG(log, 3) << "Cache entry is not valid";
    if (purge && purge->isCreationTimePurged(entry.created(), r.appId)) {
        VLOG(log, 3) << "Cache entry has a purge rule for creation time";
        valid = false;
    }
    if (!cache->isStatusCacheable(entry.status(), r.appId)) {
        VLOG(log, 3) << "Cache entry can't be used because of status rule";
        cache->removeEntry(r.namespaceKey, r.matchKey);
        return false;
    }
    if (!valid)
        return false;
    if (!cache->areHeadersCacheable(entry.headers(), r.appId)) {
        VLOG(log, 3) << "Cache entry can't be used because of response headers";
        cache->removeEntry(r.namespaceKey, r.matchKey);
        return false;
    }
    return true;
}

// Reads the copy this client gets: the gzip one where it takes gzip and no
// output handler of the engine compresses the response again. Answers
// whether it is the gzip copy, or -1 when no copy could be read.
int readServedCopy(CacheEntry& entry, qint64 ruleId, const QString& ruleName)
{
    RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
    VHTMLCache* cache = VHTMLCache::instance();
    PageCachePulse* pulse = pageCacheConfig.pulse_enable ? PageCachePulse::instance() : nullptr;
    if (r.compressionAllowed && isGzipAccepted() && !vesk_output_compressing()) {
        cache->readCompressedEntry(r.namespaceKey, r.matchKey, entry);
        if (entry.formatTag() != 0) {
            // The body where it lies: a log item must cost nothing when its statement is off.
            VLOG(log, 5) << "using compressed output" << QByteArray::fromRawData(entry.bodyData(), entry.bodySize())
                         << "for :" << r.requestUrl;
            if (pulse)
                pulse->addHit(ruleId, ruleName, QString::fromLatin1(r.matchKey));
            return 1;
        }
    }
    cache->readEntry(r.namespaceKey, r.matchKey, entry);
    if (entry.formatTag() == 0)
        return -1;
    // Only a clear body served makes a record.
    if (isRecordChannelOn())
        queueStatisticsRecord(PageCacheStatRecord::Hit);
    if (pulse)
        pulse->addHit(ruleId, ruleName, QString::fromLatin1(r.matchKey));
    VLOG(log, 5) << "using cached output for :" << r.requestUrl;
    return 0;
}

// Whether purge and response rules still let the page read go out; a page
// they refuse by creation time or status is dropped.
bool stillServable(const CacheEntry& entry)
{
    RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
    VHTMLCache* cache = VHTMLCache::instance();
    PageCachePurgeRules* purge = moduleState.purgeRules;
    if (purge && purge->isCreationTimePurged(entry.created(), r.appId)) {
        VLOG(log, 3) << "Will not use cached output because of a purged creation time";
        cache->removeEntry(r.namespaceKey, r.matchKey);
        return false;
    }
    if (!cache->isStatusCacheable(entry.status(), r.appId)) {
        VLOG(log, 3) << "Will not use cached output because of response code rule";
        cache->removeEntry(r.namespaceKey, r.matchKey);
        return false;
    }
    return cache->areHeadersCacheable(entry.headers(), r.appId);
}

// Sends the stored page. False when it can't be read (the capture is then
// started) or may not be used (the script runs uncaptured).
bool servePage(int previousCode, qint64 ruleId, const QString& ruleName)
{
    RequestState& r = requestState;
    CacheEntry entry;
    const int compressedHit = readServedCopy(entry, ruleId, ruleName);
    if (compressedHit < 0) {
        empty(previousCode, ruleId, ruleName);
        return false;
    }
    if (!stillServable(entry))
        return false;
    r.buffering = false;
    // The stored status goes first: a Location line sent under a 200 would
    // make the engine turn a stored 301 into a 302.
    if (entry.status() > 0)
        setResponseCode(entry.status());
    QLinkedList<QByteArray> headers = entry.headers();
    if (pageCacheConfig.enable_qa_info)
        headers.append("X-PageCache-Compression: " + QByteArray::number(compressedHit));
    replayHeaders(headers);
    VLOG(moduleState.logStream, 5) << "Writing php body from cache. Data size is" << entry.bodySize();
    vesk_output_write(entry.bodyData(), size_t(entry.bodySize()));
    return true;
}

// Serves the stored page or starts the capture. True when the request is
// answered (a page, a 304 or a 412) and the script must not run on. Every
// value it made is gone when it returns, so the caller may unwind the
// script without leaking them.
bool serveOrCapture(const QString& ruleName, qint64 ruleId)
{
    RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
    VHTMLCache* cache = VHTMLCache::instance();
    PageCachePulse* pulse = pageCacheConfig.pulse_enable ? PageCachePulse::instance() : nullptr;
    if (pulse)
        pulse->addPossible(ruleId, ruleName);
    r.buffering = false;
    QByteArray split;
    if (!faithfulSplitKey(r.rule->d->splitBlock, r.requestUrl, split))
        return false;
    VLOG(log, 5) << "Split by key is" << split;
    r.matchKey = VMD5::hash(split);
    CacheEntry conditionalEntry;
    const int status = conditionalStatus(conditionalEntry);
    PageCachePurgeRules* purge = moduleState.purgeRules;
    // A purged URL goes the miss path, so that this request's page replaces the stored one.
    bool usable = !(purge && purge->holdsRules() && purge->isUrlPurged(QString::fromLatin1(currentUrl()), r.appId));
    if (status == 304 && usable)
        usable = notModifiedUsable(conditionalEntry);
    r.compressionAllowed = r.compressionAllowed && pageCacheConfig.compression_enable && r.rule->d->compress;
    if (!usable || !cache->entryExists(r.namespaceKey, r.matchKey, false)) {
        miss(ruleId, ruleName);
        return false;
    }
    VLOG(log, 3) << "Cache entry found for url:" << r.requestUrl << ", rule name:" << ruleName
                 << ", specific match key:" << r.matchKey;
    const int previousCode = setResponseCode(status);
    if (status == 200)
        return servePage(previousCode, ruleId, ruleName);
    // A 304 is a hit without a body, with the validators and caching lines
    // of the page it stands for; a 412 counts for nothing.
    if (status == 304) {
        if (pulse)
            pulse->addHit(ruleId, ruleName, QString::fromLatin1(r.matchKey));
        replayHeaders(conditionalEntry.m_headers, belongsToNotModified);
    }
    return true;
}

} // namespace

void decideFromCache(const QString& ruleName, qint64 ruleId)
{
    if (!serveOrCapture(ruleName, ruleId))
        return;
    if (requestState.waitingForSession) {
        // The script is running already: it ends here.
        VLOG(moduleState.logStream, 5) << "Calling vesk_bailout";
        vesk_bailout("src/ext/7.0/htmlcache_ext", 1375);
    }
    requestState.buffering = false;
    vesk_arm_compile_stub();
}
