// The stored page's answer for a request: its key, conditional requests, the
// purge and response rules, the copy the client gets; the pieces that send
// a stored page; and whether a page may be published.

#include "RequestPath.h"

#include "GlobalDirectives.h"
#include "ModuleState.h"
#include "PageCacheConfig.h"
#include "RequestPrivacy.h"
#include "RequestState.h"
#include "StatisticsRecords.h"
#include "host/vesk_host.h"

#include "CacheRule.h"
#include "PageCachePurgeRules.h"
#include "VDiskStorage.h"
#include "VHTMLCache.h"
#include "VHeaderLines.h"
#include "VMD5.h"

#include <cstring>
#include <strings.h>

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

QByteArray engineContentType()
{
    const char* type = iniFromEngine("default_mimetype", strlen("default_mimetype"));
    const char* charset = iniFromEngine("default_charset", strlen("default_charset"));
    QByteArray contentType = type ? type : "";
    if (charset && *charset && contentType.startsWith("text/"))
        contentType += QByteArray("; charset=") + charset;
    return contentType;
}

bool pagePublishable()
{
    if (!requestState.rule->d->publish || !VHTMLCache::published())
        return false;
    // A rule that stores pages built for credentials never publishes them:
    // the web server sends a published file to whoever asks.
    if (hasCredentials()) {
        VLOG(moduleState.logStream, 3) << "Not publishing a page built for a request with credentials";
        return false;
    }
    return true;
}

namespace {

// The Last-Modified a client of this page was sent: the line stored with
// it (the script's own, or the one made when it was stored), else the
// moment it was stored.
QDateTime lastModifiedSent(const CacheEntry& entry, qint64 created)
{
    const QByteArray line = VHeaderLines::value(entry.headers(), "Last-Modified");
    if (!line.isEmpty()) {
        QDateTime sent = VHTMLCache::parseHttpDate(line.constData());
        if (sent.isValid()) {
            sent.setTimeSpec(Qt::UTC);
            return sent;
        }
    }
    return QDateTime::fromSecsSinceEpoch(created, Qt::UTC);
}

} // namespace

bool belongsToNotModified(const QByteArray& line)
{
    // The page's date as well, which a client without an ETag keeps.
    for (const char* name : {"Cache-Control", "Expires", "Vary", "ETag", "Content-Location", "Last-Modified"}) {
        if (VHeaderLines::hasName(line, name))
            return true;
    }
    // And the page's own line of a name the engine sends by itself
    // (X-Powered-By): the engine's must not stand in for it.
    for (const QByteArray& engine : requestState.engineLines) {
        const int colon = engine.indexOf(':');
        if (VHeaderLines::hasName(line, engine.left(colon < 0 ? engine.size() : colon).constData()))
            return true;
    }
    return false;
}

namespace {

// Whether `earlier` is a line of the name that `line` has in its first
// `length` bytes.
bool sameName(const QByteArray& earlier, const QByteArray& line, int length)
{
    return earlier.size() >= length && (earlier.size() == length || earlier.at(length) == ':')
           && strncasecmp(earlier.constData(), line.constData(), size_t(length)) == 0;
}

} // namespace

// The first line of a name replaces what the engine already holds under
// it, later lines of that name (Set-Cookie, Link) join it. A page has a
// handful of lines: comparing each with those before it builds nothing.
void replayHeaders(const QLinkedList<QByteArray>& lines, bool (*wanted)(const QByteArray&))
{
    for (auto line = lines.begin(); line != lines.end(); ++line) {
        if (wanted && !wanted(*line))
            continue;
        const int colon = line->indexOf(':');
        const int length = colon < 0 ? line->size() : colon;
        bool first = true;
        for (auto earlier = lines.begin(); first && earlier != line; ++earlier)
            first = (wanted && !wanted(*earlier)) || !sameName(*earlier, *line, length);
        sendHeader(*line, first);
    }
}

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
    const qint64 lifetime = r.rule->d->storedLifetime();
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

// The rules' questions about a stored page; each answers whether they
// refuse it for this request.
bool creationPurged(const CacheEntry& entry)
{
    PageCachePurgeRules* purge = moduleState.purgeRules;
    return purge && purge->isCreationTimePurged(entry.created(), requestState.appId);
}

bool statusRefused(const CacheEntry& entry)
{
    return !VHTMLCache::instance()->isStatusCacheable(entry.status(), requestState.appId);
}

bool headersRefused(const CacheEntry& entry)
{
    return !VHTMLCache::instance()->areHeadersCacheable(entry.headers(), requestState.appId);
}

// A page the rules refuse for good is dropped, so the next request
// stores a new one.
void dropPage(const char* reason)
{
    VLOG(moduleState.logStream, 3) << reason;
    VHTMLCache::instance()->removeEntry(requestState.namespaceKey, requestState.matchKey);
}

// Before an empty 304 stands for the stored page, the page itself must
// still be one this request could be served.
bool notModifiedUsable(const CacheEntry& entry)
{
    const VDebug::StreamId log = moduleState.logStream;
    bool valid = entry.formatTag() != 0;
    if (!valid)
        VLOG(log, 3) << "Cache entry is not valid";
    if (creationPurged(entry)) {
        VLOG(log, 3) << "Cache entry has a purge rule for creation time";
        valid = false;
    }
    if (statusRefused(entry)) {
        dropPage("Cache entry can't be used because of status rule");
        return false;
    }
    if (!valid)
        return false;
    if (headersRefused(entry)) {
        dropPage("Cache entry can't be used because of response headers");
        return false;
    }
    return true;
}

// Whether the page passed, when it was stored, the very response rules in
// force now, for this request's application: they would answer the same.
bool passedSameRules(const CacheEntry& entry)
{
    return entry.readyHeaders().passed(VHTMLCache::instance()->responseRulesDigest(), requestState.appId);
}

// Whether purge and response rules still let the page read go out; a page
// they refuse by creation time or status is dropped.
bool stillServable(const CacheEntry& entry)
{
    if (creationPurged(entry)) {
        dropPage("Will not use cached output because of a purged creation time");
        notePass("purge");
        return false;
    }
    if (passedSameRules(entry))
        return true;
    if (statusRefused(entry)) {
        dropPage("Will not use cached output because of response code rule");
        notePass("status rule");
        return false;
    }
    if (headersRefused(entry)) {
        notePass("header rule");
        return false;
    }
    return true;
}

// A purge by URL holds for the page stored before it. Only for a URL a
// rule names is the stored page read to learn its date.
bool urlPurged()
{
    const RequestState& r = requestState;
    PageCachePurgeRules* purge = moduleState.purgeRules;
    if (!purge || !purge->holdsRules())
        return false;
    const QString url = QString::fromLatin1(r.url.whole());
    if (!purge->isUrlPurged(url, r.appId))
        return false;
    CacheEntry stored;
    VHTMLCache::instance()->readEntry(r.namespaceKey, r.matchKey, stored);
    if (stored.formatTag() == 0)
        VHTMLCache::instance()->readCompressedEntry(r.namespaceKey, r.matchKey, stored);
    return stored.formatTag() == 0 || purge->isUrlPurged(url, r.appId, stored.created());
}

// A purged URL goes the miss path, so that this request's page replaces
// the stored one; a 304 must still stand for a page that could be served.
bool pageUsable(int status, const CacheEntry& conditional)
{
    if (urlPurged())
        return false;
    return status != 304 || notModifiedUsable(conditional);
}

// Reads the copy this client gets: the gzip one where it takes gzip and no
// output handler of the engine compresses the response again. Answers
// whether it is the gzip copy, or -1 when no copy could be read.
int readServedCopy(CacheEntry& entry, qint64 ruleId, const QString& ruleName)
{
    const RequestState& r = requestState;
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

bool pageIsStale()
{
    const RequestState& r = requestState;
    // The record says when it turns stale, whatever grace its rule has now:
    // a page stored with grace stays stale past its lifetime after the
    // grace is lowered. The store answers from the header it has just
    // read for entryExists, so no hit reads it twice.
    const qint64 staleFrom = VHTMLCache::instance()->entryStaleFrom(r.namespaceKey, r.matchKey);
    return staleFrom != 0 && QDateTime::currentSecsSinceEpoch() >= staleFrom;
}

// A page past its lifetime but in its grace is rebuilt by the one worker
// that takes its lock; every other request is served the stale copy at
// once. Without the lock nothing tells one rebuilder from the next, so a
// stale page is rebuilt by each request, as an expired one.
bool rebuildsStalePage()
{
    RequestState& r = requestState;
    const qint64 limit = pageCacheConfig.lock_timeout;
    VDiskStorage* store = VHTMLCache::instance()->store();
    if (limit <= 0 || !store)
        return true;
    if (!store->tryLock(r.namespaceKey, r.matchKey, limit))
        return false;
    VLOG(moduleState.logStream, 3) << "Rebuilding the stale page of" << r.requestUrl;
    r.holdsPageLock = true;
    return true;
}

// Where the server can end a response early, the rebuilder of a stale
// page sends the stale copy first and builds after, so that no client
// waits for the build. Elsewhere, and once a script runs (a rule that
// waited for the session), it builds while its client waits.
bool rebuildsAfterResponse()
{
    const RequestState& r = requestState;
    return r.holdsPageLock && !r.waitingForSession && !vesk_output_compressing() && vesk_can_finish_response_early();
}

// A page whose files went (a restart, a change of the rules) is published
// again at its next hit; any other hit pays one existence test, and only
// under a rule that publishes.
void republishIfMissing()
{
    const RequestState& r = requestState;
    VPublishedPages* pages = VHTMLCache::published();
    if (!r.rule->d->publish || !pages || pages->hasEntry(r.namespaceKey, r.matchKey) || !pagePublishable())
        return;
    VHTMLCache::instance()->republish(r.namespaceKey, r.matchKey, *r.rule->d, engineContentType());
}

} // namespace

CacheAnswer lookUp(CacheLookup& lookup, const QString& ruleName, qint64 ruleId)
{
    RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
    r.buffering = false;
    QByteArray split;
    if (!faithfulSplitKey(r.rule->d->splitBlock, r.requestUrl, split, r.site)) {
        notePass("key");
        return CacheAnswer::Pass;
    }
    VLOG(log, 5) << "Split by key is" << split;
    static VLastMD5 matchKeys;
    r.matchKey = matchKeys.of(split);
    const int status = conditionalStatus(lookup.conditional);
    const bool usable = pageUsable(status, lookup.conditional);
    r.compressionAllowed = r.compressionAllowed && pageCacheConfig.compression_enable && r.rule->d->compress;
    if (!usable || !VHTMLCache::instance()->entryExists(r.namespaceKey, r.matchKey, false))
        return CacheAnswer::Miss;
    lookup.stale = !r.holdsPageLock && pageIsStale();
    // Only a request whose page may be stored rebuilds a stale one.
    if (lookup.stale && r.storeRefusal.isNull() && rebuildsStalePage()) {
        if (!rebuildsAfterResponse())
            return CacheAnswer::Miss;
        lookup.rebuildAfter = true;
    }
    VLOG(log, 3) << "Cache entry found for url:" << r.requestUrl << ", rule name:" << ruleName
                 << ", specific match key:" << r.matchKey;
    lookup.status = status;
    lookup.previousCode = setResponseCode(status);
    if (status != 200)
        return CacheAnswer::NotModified;
    lookup.compressedHit = readServedCopy(lookup.served, ruleId, ruleName);
    if (lookup.compressedHit < 0)
        return CacheAnswer::Empty;
    if (!stillServable(lookup.served))
        return CacheAnswer::Pass;
    republishIfMissing();
    return CacheAnswer::Serve;
}
