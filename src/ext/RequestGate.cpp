#include "RequestPath.h"

#include "7.0/htmlcache_ext.h"
#include "HostProbes.h"
#include "AppLookup.h"
#include "ModuleState.h"
#include "PageCachePurgeRules.h"
#include "PageCacheConfig.h"
#include "RequestState.h"
#include "StatisticsRecords.h"
#include "host/vesk_host.h"

#include "VDeploymentInfo.h"
#include "VDevBar.h"
#include "VException.h"
#include "VFileDate.h"
#include "VHTMLCache.h"
#include "VHeaderLines.h"
#include "VMD5.h"

#include <QFileInfo>
#include <strings.h>


namespace {

void captureHeaderLine(VeskHeaderOp op, const char* line, size_t length);

void installRequestHooks()
{
    vesk_install_header_hook(captureHeaderLine);
    vesk_install_flush_forwarder();
}

// The flags the capture keeps of the response follow its lines, whatever
// the script added and took back.
void noteResponseLines()
{
    RequestState& r = requestState;
    const QByteArray encoding = VHeaderLines::value(r.storedHeaders, "Content-Encoding");
    r.responseCompressed = !encoding.isNull();
    r.responseIsGzip = false;
    for (const QByteArray& line : r.storedHeaders)
        r.responseIsGzip = r.responseIsGzip || VHeaderLines::isGzipEncoding(line);
    r.lastModifiedSent = !VHeaderLines::value(r.storedHeaders, "Last-Modified").isNull();
}

// Follows every header operation of the response, so that the stored
// lines are the ones its client got.
void captureHeaderLine(VeskHeaderOp op, const char* text, size_t length)
{
    RequestState& r = requestState;
    if (!r.buffering)
        return;
    const VDebug::StreamId log = moduleState.logStream;
    if (op == VeskHeaderOp::Delete || op == VeskHeaderOp::DeleteAll) {
        VHeaderLines::apply(r.storedHeaders,
                            op == VeskHeaderOp::Delete ? VHeaderLines::Op::Delete : VHeaderLines::Op::DeleteAll,
                            QByteArray(text, int(length)));
        noteResponseLines();
        return;
    }
    const QByteArray line(text, int(length));
    r.seenHeaders.append(line);
    if (VHeaderLines::hasName(line, "Content-Encoding")) {
        if (VHeaderLines::isGzipEncoding(line))
            VLOG(log, 4) << "Current response is gzip compressed";
        else
            VLOG(log, 4) << "Current response compression header:" << line;
    }
    // The visitor's own session cookie never goes into a stored page.
    if (r.inSessionStartup && VHeaderLines::hasName(line, "Set-Cookie")) {
        VLOG(log, 4) << "Ignoring header for storing (during session startup):" << line;
        return;
    }
    VLOG(log, 4) << "Buffering header for storing:" << line;
    VHeaderLines::apply(r.storedHeaders, op == VeskHeaderOp::Add ? VHeaderLines::Op::Add : VHeaderLines::Op::Replace,
                        line);
    noteResponseLines();
}

// A rule's pages are stored under the MD5 of its URL. A worker mostly
// serves the same few rules, so the last one's is kept.
QByteArray namespaceKeyFor(const QByteArray& ruleUrl)
{
    static QByteArray lastUrl;
    static QByteArray lastKey;
    if (lastKey.isEmpty() || ruleUrl != lastUrl) {
        lastUrl = ruleUrl;
        lastKey = VMD5::hash(ruleUrl);
    }
    return lastKey;
}

// Pages are kept for URLs of ordinary length; a longer one is no page
// worth a record, and only a client sending it would ever ask for it.
bool uriTooLong()
{
    const char* uri = vesk_sapi_getenv("REQUEST_URI");
    return uri && strlen(uri) > 8192;
}

bool isCacheableMethod(const char* method)
{
    return method && (strcasecmp(method, "GET") == 0 || strcasecmp(method, "HEAD") == 0);
}

} // namespace

QByteArray currentRequestUrl(QByteArray* withPort)
{
    if (withPort)
        withPort->clear();
    if (!vesk_sapi_has_getenv())
        return QByteArray();
    const char* host = vesk_sapi_getenv("HTTP_HOST");
    if (!host || !*host)
        return QByteArray();
    QByteArray url = isHttpsOn(vesk_sapi_getenv("HTTPS")) ? "https://" : "http://";
    url += host;
    const int hostEnd = url.size();
    const char* port = withPort && !strchr(host, ':') ? vesk_sapi_getenv("SERVER_PORT") : nullptr;
    const char* uri = vesk_sapi_getenv("REQUEST_URI");
    if (!uri) {
        if (withPort)
            *withPort = port ? url + ':' + port : url;
        return url;
    }
    // Up to the query (one that starts the URI stays), each run of slashes
    // folded into one: what the pattern "/+" would do, on every request
    // without a regular expression.
    const char* query = strchr(uri, '?');
    const size_t length = query && query > uri ? size_t(query - uri) : strlen(uri);
    QByteArray path(uri, int(length));
    // Bytes beyond ASCII go through the text form, which turns what isn't
    // UTF-8 into replacement characters.
    for (const char c : path) {
        if (quint8(c) >= 0x80) {
            path = QString::fromUtf8(path).toUtf8();
            break;
        }
    }
    const int start = url.size();
    url.resize(start + path.size());
    char* out = url.data() + start;
    const char* in = path.constData();
    for (int i = 0; i < path.size(); ++i) {
        if (in[i] != '/' || i == 0 || in[i - 1] != '/')
            *out++ = in[i];
    }
    url.resize(int(out - url.constData()));
    if (withPort)
        *withPort = port ? QByteArray(url).insert(hostEnd, ':' + QByteArray(port)) : url;
    return url;
}

int requestStartup()
{
    if (isDaemonMode())
        return 0;
    RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
    VDeploymentInfo::beginRequest();
    r.internalRequest = -1;
    r.appId = 0;
    r.seenHeaders.clear();
    if (!moduleState.enabled) {
        VLOG(log, 5) << "Cache is not active";
        return 0;
    }
    if (!VDevBar::instance()->collectionStarted().isNull()) {
        VLOG(log, 5) << "Cache is not active when Ocula is active";
        return 0;
    }
    // Each worker picks up a newer rules file by itself, at its next request.
    if (moduleState.rulesFileDate.isNull()
        || moduleState.rulesFileDate < fileModified(moduleState.resolvedRulesFile)) {
        try {
            reloadRules(false);
        } catch (const VException& e) {
            VLOG(log, 0) << e.what();
        }
    }
    // The pulse counts for this request's application, whether it is on or not.
    const qint32 appId = currentAppId();
    PageCachePulse::instance()->reset(appId);
    if (!r.cleanRequest) {
        VLOG(log, 3) << "Unclean request state detected. Page Cache will not be active for this request.";
        return 0;
    }
    r.cleanRequest = false;

    const int debugger = vesk_extension_resource_number("Vesk Debugger", "Vesk Technologies");
    if (debugger != -1 && vesk_reserved_word_set(debugger)) {
        VLOG(log, 5) << "Cache is not active since debug session is in progress";
        return 0;
    }
    r.internalRequest = isInternalRequest();
    if (r.internalRequest) {
        VLOG(log, 5) << "Cache is not active since internal request is in progress";
        return 0;
    }
    r.statisticsQueue.clear();
    r.responseCompressed = false;
    r.responseIsGzip = false;
    r.lastModifiedSent = false;
    r.inSessionStartup = false;
    // A long-lived worker keeps the exit status of an earlier request that
    // died; this request's own errors are what the capture must judge.
    vesk_reset_exit_status();
    vesk_set_modules_activated();

    const char* method = vesk_request_method();
    if (!isCacheableMethod(method)) {
        const char* uri = vesk_sapi_getenv("REQUEST_URI");
        const char* envMethod = vesk_sapi_getenv("REQUEST_METHOD");
        if (uri && envMethod)
            VLOG(log, 5) << "Uncacheable request method - " << envMethod << uri;
        else
            VLOG(log, 5) << "Uncacheable request method";
        return 0;
    }
    r.appId = appId;
    if (uriTooLong()) {
        VLOG(log, 3) << "Request URI too long for the page cache; the request runs uncached";
        return 0;
    }

    QByteArray urlWithPort;
    r.requestUrl = currentRequestUrl(&urlWithPort);
    VHTMLCache* cache = VHTMLCache::instance();
    // Without a host there is no URL, and no rule may cover it: a pattern
    // rule for any host would otherwise fit the empty text.
    r.rule = r.requestUrl.isEmpty() ? nullptr : cache->getOrderedMatchingRuleForUrl(r.requestUrl);
    if (!r.rule && urlWithPort != r.requestUrl)
        r.rule = cache->getOrderedMatchingRuleForUrl(urlWithPort);
    if (!r.rule) {
        VLOG(log, 5) << r.requestUrl << "should not be cached";
        return 0;
    }
    if (moduleState.purgeRules)
        moduleState.purgeRules->refreshAll();

    r.ruleUrl = r.rule->url.toString();
    r.buffering = false;
    r.cacheable = false;
    r.ruleActive = true;
    r.compressionAllowed = pageCacheConfig.compression_enable;
    r.namespaceKey = namespaceKeyFor(r.ruleUrl);
    if (r.rule->d->splitNeedsSession) {
        r.waitingForSession = true;
    } else if (r.rule->conditionsHoldWithoutSession()) {
        r.cacheable = true;
    } else {
        r.waitingForSession = r.rule->d->conditionsNeedSession;
    }
    vesk_restore_request_hooks();
    installRequestHooks();
    if (r.waitingForSession) {
        VLOG(log, 3) << "waiting for session data before deciding whether to use cached data";
        startOutputCapture();
        r.buffering = true;
        return 0;
    }
    if (!r.cacheable)
        r.cacheable = r.rule->conditionsHold();
    if (!r.cacheable) {
        VLOG(log, 3) << "Request for :" << r.requestUrl << "is NOT cacheable";
        return 0;
    }
    decideFromCache(r.rule->name.trimmed(), r.rule->id);
    return 0;
}

int requestShutdown()
{
    if (isDaemonMode())
        return 0;
    RequestState& r = requestState;
    if (r.captureEndedByScript)
        finishEndedCapture();
    if (r.buffering) {
        // The engine has ended its output stack by now, unless a failed store
        // left ours standing; ending an empty stack would only raise a notice.
        if (vesk_output_get_level() > 0)
            vesk_output_end();
        pageCacheConfig.outputHandlerLevel = -1;
    }
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
        const bool internal = r.internalRequest >= 0 ? r.internalRequest != 0 : isInternalRequest() != 0;
        // The URL only goes into the log line of an internal request.
        PageCachePulse::instance()->sendMessages(internal, internal ? currentUrl().constData() : nullptr);
    }
    VDeploymentInfo::endRequest();
    return 0;
}
