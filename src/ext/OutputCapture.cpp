#include "RequestPath.h"

#include "GlobalDirectives.h"
#include "HostProbes.h"
#include "ModuleState.h"
#include "PageCacheConfig.h"
#include "RequestState.h"
#include "host/vesk_host.h"

#include "CacheRule.h"
#include "PageCachePulse.h"
#include "VHTMLCache.h"

#include <QDateTime>
#include <cstring>
#include <ctime>

namespace {

void storeToCache(const char* output, size_t length)
{
    RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
    VHTMLCache* cache = VHTMLCache::instance();
    VLOG(log, 5) << "storeToCache handler called with output size of" << quint64(length);
    if (!r.buffering || !r.cacheable) {
        VLOG(log, 5) << "Current request is not cached";
        r.buffering = false;
        return;
    }
    if (!cache->areHeadersCacheable(r.seenHeaders, r.appId)) {
        disableCaching();
        r.buffering = false;
        return;
    }
    const int exitStatus = vesk_exit_status();
    VLOG(log, 5) << "Current request status is" << exitStatus;
    const int responseCode = vesk_response_code();
    if (!cache->isStatusCacheable(responseCode, r.appId)) {
        disableCaching();
        r.buffering = false;
        return;
    }
    if (exitStatus == 255) {
        VLOG(log, 3) << "A PHP error has occurred during the request. Output will not be cached.";
        r.buffering = false;
        return;
    }
    if (r.responseCompressed && !r.responseIsGzip) {
        VLOG(log, 3) << "Unsupported compression format of response. Output will not be cached.";
        r.buffering = false;
        return;
    }
    if (output && length == 0) {
        VLOG(log, 3) << "Empty output to store. Output will not be cached.";
        r.buffering = false;
        return;
    }
    if (r.lastModifiedSent) {
        VLOG(log, 3) << "Not generating Last-Modified header - already sent";
    } else {
        static QDateTime now;
        now = QDateTime::fromSecsSinceEpoch(qint64(time(nullptr)), Qt::UTC);
        sendHeader("Last-Modified: " + now.toString(QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'")).toLatin1());
    }
    const quint32 lifetime = r.rule->d->lifetime;
    const bool compress = VHTMLCache::compressionWanted(qint64(length), r.compressionAllowed,
                                                        iniFromEngine("tidy.clean_output", strlen("tidy.clean_output")));
    if (!cache->storeOutput(r.namespaceKey, r.matchKey, currentUrl(), output, qint64(length), responseCode,
                            r.storedHeaders, lifetime, compress, r.responseCompressed)) {
        VLOG(log, 0) << "Storing entry failed";
        return;
    }
    if (pageCacheConfig.pulse_enable)
        PageCachePulse::instance()->addTimeSaved(r.rule->id, r.rule->name, QString::fromLatin1(r.matchKey));
    if (r.responseCompressed)
        VLOG(log, 5) << "Stored compressed entry with size" << quint64(length) << "for" << r.requestUrl
                     << "with matched rule" << r.ruleUrl << "and specific match key" << r.matchKey;
    else
        VLOG(log, 5) << "Stored entry" << QByteArray(output ? output : "", int(length)).constData() << "for"
                     << r.requestUrl << "with matched rule" << r.ruleUrl << "and specific match key" << r.matchKey;
    r.buffering = false;
}

} // namespace

void startOutputCapture(int flags)
{
    const int level = vesk_start_output_capture(flags, storeToCache);
    if (level >= 0)
        pageCacheConfig.outputHandlerLevel = level;
}

void disableCaching()
{
    VLOG(moduleState.logStream, 5) << "Disabling caching for current script";
    requestState.cacheable = false;
    // From inside the handler itself the capture only learns it is off;
    // an output handler can't end its own level.
    if (!vesk_output_handler_running() && pageCacheConfig.outputHandlerLevel == vesk_output_get_level()) {
        vesk_output_end();
        vesk_sapi_flush();
    }
    requestState.buffering = false;
}
