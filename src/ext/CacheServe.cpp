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

void sendHeader(const QByteArray& line)
{
    VLOG(moduleState.logStream, 5) << "Sending header:" << line;
    vesk_add_header(line.constData(), size_t(line.size()));
}

int conditionalStatus()
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
    const quint32 referenceTime = quint32(reference.toLocalTime().toTime_t());
    const RequestState& r = requestState;
    const quint32 lifetime = r.rule->d->lifetime;
    const quint32 lastModified = quint32(VHTMLCache::instance()->entryLastModified(r.namespaceKey, r.matchKey));
    // The store answers 0 for a page it doesn't hold; that is no date to
    // compare with either.
    if (lastModified == lifetime || lastModified == 0) {
        VLOG(log, 3) << "Cache entry doesn't exist yet";
        return 200;
    }
    const quint32 created = lastModified - lifetime;
    if (!unmodifiedCase && referenceTime >= created) {
        VLOG(log, 5) << "file hasn't been updated since the time specified in If-Modified-Since header";
        return 304;
    }
    if (unmodifiedCase && referenceTime <= created) {
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
    startOutputCapture(0);
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
    startOutputCapture(0);
    r.buffering = true;
    setResponseCode(previousCode);
}

} // namespace

namespace {

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
    const int status = conditionalStatus();
    PageCachePurgeRules* purge = moduleState.purgeRules;
    // A purged URL goes the miss path, so that this request's page replaces the stored one.
    bool usable = !(purge && purge->holdsRules() && purge->isUrlPurged(QString::fromLatin1(currentUrl()), r.appId));

    if (status == 304 && usable) {
        CacheEntry entry;
        cache->readEntry(r.namespaceKey, r.matchKey, entry);
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
            usable = false;
        } else if (!valid) {
            usable = false;
        } else if (!cache->areHeadersCacheable(entry.headers(), r.appId)) {
            VLOG(log, 3) << "Cache entry can't be used because of response headers";
            cache->removeEntry(r.namespaceKey, r.matchKey);
            usable = false;
        }
    }
    r.compressionAllowed = r.compressionAllowed && pageCacheConfig.compression_enable && r.rule->d->compress;
    if (!usable || !cache->entryExists(r.namespaceKey, r.matchKey, false)) {
        miss(ruleId, ruleName);
        return false;
    }
    VLOG(log, 3) << "Cache entry found for url:" << r.requestUrl << ", rule name:" << ruleName
                 << ", specific match key:" << r.matchKey;
    const int previousCode = setResponseCode(status);

    // A 304 is a hit without a body; a 412 counts for nothing.
    if (status == 304 && pulse)
        pulse->addHit(ruleId, ruleName, QString::fromLatin1(r.matchKey));
    if (status == 200) {
        CacheEntry entry;
        int compressedHit = 0;
        if (r.compressionAllowed && isGzipAccepted()) {
            cache->readCompressedEntry(r.namespaceKey, r.matchKey, entry);
            if (entry.formatTag() != 0) {
                compressedHit = 1;
                // The body where it lies: a log item must cost nothing when its statement is off.
                VLOG(log, 5) << "using compressed output" << QByteArray::fromRawData(entry.bodyData(), entry.bodySize())
                             << "for :" << r.requestUrl;
                if (pulse)
                    pulse->addHit(ruleId, ruleName, QString::fromLatin1(r.matchKey));
            }
        }
        if (compressedHit == 0) {
            cache->readEntry(r.namespaceKey, r.matchKey, entry);
            if (entry.formatTag() == 0) {
                empty(previousCode, ruleId, ruleName);
                return false;
            }
            // Only a clear body served makes a record.
            if (isRecordChannelOn())
                queueStatisticsRecord(PageCacheStatRecord::Hit);
            if (pulse)
                pulse->addHit(ruleId, ruleName, QString::fromLatin1(r.matchKey));
            VLOG(log, 5) << "using cached output for :" << r.requestUrl;
        }
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
        QLinkedList<QByteArray> headers = entry.headers();
        if (!cache->areHeadersCacheable(headers, r.appId))
            return false;
        r.buffering = false;
        if (pageCacheConfig.enable_qa_info)
            headers.append("X-PageCache-Compression: " + QByteArray::number(compressedHit));
        while (!headers.isEmpty())
            sendHeader(headers.takeFirst());
        VLOG(log, 5) << "Writing php body from cache. Data size is" << entry.bodySize();
        vesk_output_write(entry.bodyData(), size_t(entry.bodySize()));
    }
    return true;
}

} // namespace

void decideFromCache(const char* preSessionData, const QString& ruleName, qint64 ruleId)
{
    if (!serveOrCapture(ruleName, ruleId))
        return;
    if (requestState.waitingForSession) {
        // The script is running already: it ends here.
        VLOG(moduleState.logStream, 5) << "Calling vesk_bailout";
        free(const_cast<char*>(preSessionData));
        vesk_bailout("src/ext/7.0/htmlcache_ext", 1375);
    }
    requestState.buffering = false;
    vesk_arm_compile_stub();
}
