// The way of a request through the page cache, in the order it takes.
//
// The engine calls requestStartup() before it compiles anything. The gate
// (gateOpen, requestQualifies) runs the cheap tests every request pays for
// and reads the request's URL once into RequestState::url; matchRule() finds
// the URL rule and setUpRule() puts the request's hooks in. evaluate() then
// either waits for the script's session (SessionHooks.cpp comes back to
// decideFromCache() once it has started), gives up, or decides at once.
// decideFromCache() asks lookUp() (CacheServe.cpp) what the stored page
// answers, and acts on it: a miss starts the capture (OutputCapture.cpp,
// the page is stored when the script's output ends), a hit replays the
// stored lines and body and arms the compile stub, which ends the request
// before the first line of the script runs. requestShutdown() undoes the
// request's hooks and sends its statistics.

#include "RequestPath.h"

#include "7.0/htmlcache_ext.h"
#include "AppLookup.h"
#include "GlobalDirectives.h"
#include "KeptBehaviour.h"
#include "ModuleState.h"
#include "PageCacheConfig.h"
#include "PageCachePurgeRules.h"
#include "RequestPrivacy.h"
#include "QueryLearning.h"
#include "RequestState.h"
#include "StatisticsRecords.h"
#include "host/vesk_host.h"

#include "VDeploymentInfo.h"
#include "VDiskStorage.h"
#include "VException.h"
#include "VFileDate.h"
#include "VFileWatch.h"
#include "VHTMLCache.h"
#include "VHeaderLines.h"
#include "VMD5.h"

#include <strings.h>
#include <time.h>

namespace {

// Pages are kept for URLs of ordinary length; a longer one is no page
// worth a record, and only a client sending it would ever ask for it.
const int LongestCachedUri = 8192;

// How often a request waiting for another worker's page looks for it: a
// failed open and a read of the small lock file each time.
const long LockPollMs = 15;

// What the gate resets whether or not the request gets further.
void beginRequest()
{
    RequestState& r = requestState;
    // The dates of the rules file, the purge database and the deployment
    // marker are asked again only when something changed beside them.
    VFileWatch::settle();
    VDeploymentInfo::beginRequest();
    r.internalRequest = -1;
    r.appId = 0;
    r.url = RequestUrl();
    r.seenHeaders.clear();
    r.verdictSaid = false;
    r.passReason = nullptr;
    r.storeRefusal = QByteArray();
}

// Each worker picks up a newer rules file by itself, at its next request.
void reloadNewerRules()
{
    if (!moduleState.rulesFileDate.isNull()
        && !(moduleState.rulesFileDate < fileModified(moduleState.resolvedRulesFile)))
        return;
    try {
        reloadRules(false);
    } catch (const VException& e) {
        VLOG(moduleState.logStream, 0) << e.what();
    }
}

// The tests before the request counts as one of the page cache's. Answers
// the request's application, or nothing when the cache stays out of it.
bool gateOpen(qint32& appId)
{
    RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
    if (!moduleState.enabled) {
        VLOG(log, 5) << "Cache is not active";
        return false;
    }
    if (kept::toolbarCollecting()) {
        VLOG(log, 5) << "Cache is not active when Ocula is active";
        return false;
    }
    reloadNewerRules();
    r.url = RequestUrl::read();
    // The pulse counts for this request's application, whether it is on or not.
    appId = currentAppId(r.url.whole());
    PageCachePulse::instance()->reset(appId);
    if (!r.cleanRequest) {
        VLOG(log, 3) << "Unclean request state detected. Page Cache will not be active for this request.";
        return false;
    }
    r.cleanRequest = false;
    return true;
}

// A new request's own state, before anything of it is judged.
void resetResponseState()
{
    RequestState& r = requestState;
    r.statisticsQueue.clear();
    r.responseCompressed = false;
    r.responseIsGzip = false;
    r.lastModifiedSent = false;
    r.pageLinesSent = false;
    r.inSessionStartup = false;
    // A long-lived worker keeps the exit status of an earlier request that
    // died; this request's own errors are what the capture must judge.
    vesk_reset_exit_status();
    vesk_set_modules_activated();
}

bool cacheableMethod()
{
    const char* method = vesk_request_method();
    if (method && (strcasecmp(method, "GET") == 0 || strcasecmp(method, "HEAD") == 0))
        return true;
    const VDebug::StreamId log = moduleState.logStream;
    const char* uri = vesk_sapi_getenv("REQUEST_URI");
    const char* envMethod = vesk_sapi_getenv("REQUEST_METHOD");
    if (uri && envMethod)
        VLOG(log, 5) << "Uncacheable request method - " << envMethod << uri;
    else
        VLOG(log, 5) << "Uncacheable request method";
    return false;
}

// Debug sessions, internal requests, methods and URIs the cache has no
// page for.
bool requestQualifies(qint32 appId)
{
    RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
    if (kept::debuggerSessionRunning()) {
        VLOG(log, 5) << "Cache is not active since debug session is in progress";
        return false;
    }
    r.internalRequest = r.url.onPort(internalPorts()) ? 1 : 0;
    if (r.internalRequest) {
        VLOG(log, 5) << "Cache is not active since internal request is in progress";
        return false;
    }
    if (isFpmOwnPage()) {
        VLOG(log, 5) << "Cache is not active for a status or ping page of php-fpm";
        return false;
    }
    resetResponseState();
    if (!cacheableMethod()) {
        notePass("method");
        return false;
    }
    r.appId = appId;
    if (r.url.uriLength() > LongestCachedUri) {
        VLOG(log, 3) << "Request URI too long for the page cache; the request runs uncached";
        notePass("long uri");
        return false;
    }
    return true;
}

// A rule written without a port is tried first, the form with the
// server's port second. Without a host there is no URL, and no rule may
// cover it: a pattern rule for any host would otherwise fit the empty text.
bool matchRule()
{
    RequestState& r = requestState;
    r.requestUrl = r.url.ruleUrl();
    r.rule = nullptr;
    if (!r.requestUrl.isEmpty()) {
        VHTMLCache* cache = VHTMLCache::instance();
        r.rule = cache->getOrderedMatchingRuleForUrl(r.requestUrl);
        if (r.url.hasAddedPort()) {
            // <dont_cache> holds for either form of the URL.
            const QByteArray withPort = r.url.ruleUrl(true);
            if (cache->isBlacklisted(r.requestUrl) || cache->isBlacklisted(withPort))
                r.rule = nullptr;
            else if (!r.rule)
                r.rule = cache->getOrderedMatchingRuleForUrl(withPort);
        }
    }
    if (!r.rule) {
        VLOG(moduleState.logStream, 5) << r.requestUrl << "should not be cached";
        return false;
    }
    return true;
}

// The matched rule takes over the request: its keys, what its session has
// to do with it, and the hooks that follow the response.
void setUpRule()
{
    RequestState& r = requestState;
    if (moduleState.purgeRules)
        moduleState.purgeRules->refreshAll();
    r.ruleUrl = r.rule->url.toString();
    r.buffering = false;
    r.cacheable = false;
    r.ruleActive = true;
    r.compressionAllowed = pageCacheConfig.compression_enable;
    // A rule's pages are stored under the MD5 of its URL.
    static VLastMD5 namespaceKeys;
    r.namespaceKey = namespaceKeys.of(r.ruleUrl);
    r.engineLines.clear();
    for (const std::string& line : vesk_header_lines())
        r.engineLines.append(QByteArray(line.data(), int(line.size())));
    r.storedHeaders = r.engineLines;
    r.storeRefusal = unaccountedCookie(*r.rule);
    r.pageTags.clear();
    r.tagsRefusal = QByteArray();
    r.buildStartMs = QDateTime::currentMSecsSinceEpoch();
    if (r.rule->d->splitNeedsSession) {
        r.waitingForSession = true;
    } else if (r.rule->conditionsHoldWithoutSession()) {
        r.cacheable = true;
    } else {
        r.waitingForSession = r.rule->d->conditionsNeedSession;
    }
    vesk_restore_request_hooks();
    installRequestHooks();
}

// Waits for the session, gives up, or decides now.
void evaluate()
{
    RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
    if (r.waitingForSession) {
        VLOG(log, 3) << "waiting for session data before deciding whether to use cached data";
        startOutputCapture();
        r.buffering = true;
        return;
    }
    if (!r.cacheable)
        r.cacheable = r.rule->conditionsHold();
    if (!r.cacheable) {
        VLOG(log, 3) << "Request for :" << r.requestUrl << "is NOT cacheable";
        sayPass("conditions");
        return;
    }
    decideFromCache(r.rule->name.trimmed(), r.rule->id);
}

void startCapture()
{
    startOutputCapture();
    requestState.buffering = true;
}

void countMiss(qint64 ruleId, const QString& ruleName)
{
    if (isRecordChannelOn())
        queueStatisticsRecord(PageCacheStatRecord::Miss);
    if (pageCacheConfig.pulse_enable)
        PageCachePulse::instance()->addMiss(ruleId, ruleName);
}

void miss(qint64 ruleId, const QString& ruleName)
{
    const RequestState& r = requestState;
    VLOG(moduleState.logStream, 3) << "Cache entry NOT found for :" << r.requestUrl << "rule" << ruleName
                                   << ", specific match key:" << r.matchKey << "buffering output from current request";
    startCapture();
    countMiss(ruleId, ruleName);
}

// The store holds the page but it can't be read: this request's output
// replaces it, under the code the request had.
void empty(int previousCode, qint64 ruleId, const QString& ruleName)
{
    const RequestState& r = requestState;
    VLOG(moduleState.logStream, 3) << "Cache entry is empty at NS" << r.namespaceKey << "and key" << r.matchKey
                                   << ". Will be replaced with the output of this request.";
    countMiss(ruleId, ruleName);
    startCapture();
    setResponseCode(previousCode);
}

// A stored page goes out with its own lines alone: a line the engine put
// in before any script (X-Powered-By) that the page's script removed
// stays removed on its hits.
void dropEngineLines(const VReadyHeaders& page)
{
    for (const QByteArray& line : requestState.engineLines) {
        const int colon = line.indexOf(':');
        const int length = colon < 0 ? line.size() : colon;
        if (!page.hasName(line.constData(), length))
            vesk_remove_header(line.constData(), size_t(length));
    }
}

// Sends the stored page. The stored status goes first: a Location line
// sent under a 200 would make the engine turn a stored 301 into a 302.
// The lines go out as they were prepared when the page was stored.
void serve(CacheLookup& lookup)
{
    CacheEntry& entry = lookup.served;
    const VReadyHeaders& lines = entry.readyHeaders();
    requestState.buffering = false;
    if (entry.status() > 0)
        setResponseCode(entry.status());
    dropEngineLines(lines);
    sayVerdict(lookup.stale ? "stale" : "hit");
    VReadyHeaders::Line line;
    for (int at = 0; lines.next(at, line);) {
        VLOG(moduleState.logStream, 5) << "Sending header:" << QByteArray::fromRawData(line.text, line.length);
        vesk_add_stored_header(line.text, size_t(line.length), line.replaces);
    }
    if (pageCacheConfig.enable_qa_info)
        sendHeader(lookup.compressedHit ? QByteArrayLiteral("X-PageCache-Compression: 1")
                                        : QByteArrayLiteral("X-PageCache-Compression: 0"));
    VLOG(moduleState.logStream, 5) << "Writing php body from cache. Data size is" << entry.bodySize();
    // A length beside a page's own framing would let the two disagree.
    vesk_output_write(entry.bodyData(), size_t(entry.bodySize()), !lines.hasName("Transfer-Encoding", 17));
}

qint64 monotonicMs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void noteWait(qint64 start, qint64 ruleId, const QString& ruleName)
{
    if (pageCacheConfig.pulse_enable)
        PageCachePulse::instance()->addWait(ruleId, ruleName, monotonicMs() - start);
}

// A stale page counts as a hit, and as stale beside it.
void noteStale(const CacheLookup& lookup, qint64 ruleId, const QString& ruleName)
{
    if (lookup.stale && pageCacheConfig.pulse_enable)
        PageCachePulse::instance()->addStale(ruleId, ruleName, QString::fromLatin1(requestState.matchKey));
}

// Whether the page appeared, or the lock is this request's now or gone.
enum class Waited { Page, Build, Wait };

// `awaited` keeps the words of the lock this request waits on. Another
// lock in its place, while the one who took it lives, means that it went
// without a page and the next builder took the page's lock before this
// request looked again; a dead one's lock was taken over, and the new
// holder's page is worth the wait as well.
Waited lookAgain(VDiskStorage* store, qint64 limit, QByteArray& awaited)
{
    RequestState& r = requestState;
    QByteArray holder;
    // The lock first: its holder stores the page before it lets go.
    const VDiskStorage::LockState state = store->lockState(r.namespaceKey, r.matchKey, limit, &holder);
    if (VHTMLCache::instance()->entryExists(r.namespaceKey, r.matchKey, false))
        return Waited::Page;
    if (state == VDiskStorage::LockState::Free)
        return Waited::Build;
    if (state == VDiskStorage::LockState::Stale && store->tryLock(r.namespaceKey, r.matchKey, limit)) {
        r.holdsPageLock = true;
        return Waited::Build;
    }
    // Words not written yet tell nothing.
    if (holder.isEmpty() || holder == awaited)
        return Waited::Wait;
    if (awaited.isEmpty() || !VDiskStorage::lockHolderAlive(awaited)) {
        awaited = holder;
        return Waited::Wait;
    }
    return Waited::Build;
}

// On a miss, one worker builds the page under its lock while the others
// wait for it, up to vesk_pagecache.lock_timeout milliseconds: a page that
// appears is answered as a hit; a lock let go without a page (the page was
// refused) leaves each to build its own; past the limit the script runs
// uncaptured. A dead or old lock is taken over.
CacheAnswer awaitPage(CacheLookup& lookup, const QString& ruleName, qint64 ruleId)
{
    RequestState& r = requestState;
    VDiskStorage* store = VHTMLCache::instance()->store();
    const qint64 limit = pageCacheConfig.lock_timeout;
    if (!store)
        return CacheAnswer::Miss;
    if (store->tryLock(r.namespaceKey, r.matchKey, limit)) {
        r.holdsPageLock = true;
        return CacheAnswer::Miss;
    }
    VLOG(moduleState.logStream, 3) << "Waiting for another worker to store" << r.requestUrl;
    const qint64 start = monotonicMs();
    QByteArray awaited;
    while (monotonicMs() < start + limit) {
        const struct timespec pause = {0, LockPollMs * 1000000};
        nanosleep(&pause, nullptr);
        switch (lookAgain(store, limit, awaited)) {
        case Waited::Page:
            noteWait(start, ruleId, ruleName);
            lookup = CacheLookup();
            return lookUp(lookup, ruleName, ruleId);
        case Waited::Build:
            noteWait(start, ruleId, ruleName);
            return CacheAnswer::Miss;
        case Waited::Wait:
            break;
        }
    }
    noteWait(start, ruleId, ruleName);
    VLOG(moduleState.logStream, 3) << "No page stored within the lock timeout for" << r.requestUrl;
    notePass("lock timeout");
    return CacheAnswer::Pass;
}

void giveUpPageLock()
{
    RequestState& r = requestState;
    if (!r.holdsPageLock)
        return;
    r.holdsPageLock = false;
    if (VDiskStorage* store = VHTMLCache::instance()->store())
        store->unlock();
}

// The client of a stale page's rebuilder has its stale copy: the response
// ends for it, and the script runs on to store the new page. True when the
// script is to run.
bool rebuildAfterResponse(const CacheLookup& lookup, qint64 ruleId, const QString& ruleName)
{
    if (!lookup.rebuildAfter)
        return false;
    const RequestState& r = requestState;
    if (!vesk_finish_response_early(lookup.previousCode > 0 ? lookup.previousCode : 200)) {
        // The lock goes at request end; the next stale request rebuilds.
        VLOG(moduleState.logStream, 1) << "Could not end the response early to rebuild" << r.requestUrl;
        return false;
    }
    VLOG(moduleState.logStream, 3) << "Stale page sent; rebuilding" << r.requestUrl;
    miss(ruleId, ruleName);
    return true;
}

// A request whose page is not to be stored goes without one where the
// store holds none for it: it neither builds nor waits for a build.
CacheAnswer unlessRefused(CacheAnswer answer, const CacheLookup& lookup)
{
    RequestState& r = requestState;
    if (r.storeRefusal.isNull())
        return answer;
    if (answer == CacheAnswer::Empty)
        setResponseCode(lookup.previousCode);
    VLOG(moduleState.logStream, 3) << "Page of" << r.requestUrl << "not stored from this request:" << r.storeRefusal;
    notePass(r.storeRefusal.constData());
    return CacheAnswer::Pass;
}

// Acts on the stored page's answer. True when the request is answered (a
// page, a 304 or a 412) and the script must not run on. Every value it
// made is gone when it returns, so the caller may unwind the script
// without leaking them.
bool answerFromCache(const QString& ruleName, qint64 ruleId)
{
    CacheLookup lookup;
    if (pageCacheConfig.pulse_enable)
        PageCachePulse::instance()->addPossible(ruleId, ruleName);
    CacheAnswer answer = lookUp(lookup, ruleName, ruleId);
    if (answer == CacheAnswer::Miss || answer == CacheAnswer::Empty)
        answer = unlessRefused(answer, lookup);
    if (answer == CacheAnswer::Miss && pageCacheConfig.lock_timeout > 0 && !requestState.holdsPageLock)
        answer = awaitPage(lookup, ruleName, ruleId);
    switch (answer) {
    case CacheAnswer::Pass:
        sayPass();
        return false;
    case CacheAnswer::Miss:
        miss(ruleId, ruleName);
        return false;
    case CacheAnswer::Empty:
        empty(lookup.previousCode, ruleId, ruleName);
        return false;
    case CacheAnswer::Serve:
        serve(lookup);
        noteStale(lookup, ruleId, ruleName);
        return !rebuildAfterResponse(lookup, ruleId, ruleName);
    case CacheAnswer::NotModified:
        break;
    }
    dropEngineLines(lookup.conditional.readyHeaders());
    sayVerdict(lookup.stale ? "stale" : "hit");
    // A 304 is a hit without a body, with the validators and caching lines
    // of the page it stands for; a 412 counts for nothing.
    if (lookup.status == 304) {
        if (pageCacheConfig.pulse_enable)
            PageCachePulse::instance()->addHit(ruleId, ruleName, QString::fromLatin1(requestState.matchKey));
        noteStale(lookup, ruleId, ruleName);
        replayHeaders(lookup.conditional.headers(), belongsToNotModified);
    }
    return !rebuildAfterResponse(lookup, ruleId, ruleName);
}

} // namespace

int requestStartup()
{
    if (kept::daemonMode)
        return 0;
    beginRequest();
    qint32 appId = 0;
    if (!gateOpen(appId))
        return 0;
    if (!requestQualifies(appId)) {
        // Only to say why a covered request passed: the rule is looked for
        // then and no other time.
        if (pageCacheConfig.enable_qa_info && requestState.passReason && matchRule())
            sayPass();
        return 0;
    }
    if (!matchRule() || keptPrivate(*requestState.rule))
        return 0;
    setUpRule();
    evaluate();
    return 0;
}

void decideFromCache(const QString& ruleName, qint64 ruleId)
{
    if (!answerFromCache(ruleName, ruleId))
        return;
    if (requestState.waitingForSession) {
        // The script is running already: it ends here.
        VLOG(moduleState.logStream, 5) << "Calling vesk_bailout";
        vesk_bailout(kept::BailoutFile, kept::SessionHitBailoutLine);
    }
    requestState.buffering = false;
    vesk_arm_compile_stub(kept::BailoutFile, kept::CompileStubBailoutLine);
}

int requestShutdown()
{
    if (kept::daemonMode)
        return 0;
    RequestState& r = requestState;
    queryLearningRequestEnds();
    if (r.captureEndedByScript)
        finishEndedCapture();
    // Stored or not, the others waiting for the page go on now.
    giveUpPageLock();
    // The engine has ended its output stack by now, unless a failed store
    // left ours standing; ending an empty stack would only raise a notice.
    if (r.buffering && vesk_output_get_level() > 0)
        vesk_output_end();
    if (r.ruleActive) {
        r.waitingForSession = false;
        vesk_restore_request_hooks();
        r.storedHeaders.clear();
        r.flushedOutput.clear();
        r.ruleActive = false;
    }
    r.cleanRequest = true;
    if (isRecordChannelOn())
        reportStatisticsRecords();
    if (pageCacheConfig.pulse_enable) {
        // A request the gate stopped early hasn't been asked yet.
        const RequestUrl url = r.url.isRead() ? r.url : RequestUrl::read();
        const bool internal = r.internalRequest >= 0 ? r.internalRequest != 0 : url.onPort(internalPorts());
        // The URL only goes into the log line of an internal request.
        PageCachePulse::instance()->sendMessages(internal, internal ? url.whole().constData() : nullptr);
    }
    VDeploymentInfo::endRequest();
    return 0;
}
