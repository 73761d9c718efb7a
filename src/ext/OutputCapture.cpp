#include "RequestPath.h"
#include "RequestPrivacy.h"

#include "GlobalDirectives.h"
#include "HostProbes.h"
#include "ModuleState.h"
#include "PageCacheConfig.h"
#include "RequestState.h"
#include "host/vesk_host.h"

#include "CacheRule.h"
#include "PageCachePulse.h"
#include "VHTMLCache.h"
#include "VHeaderLines.h"

#include <QDateTime>
#include <cstring>
#include <ctime>

namespace {

// A flush of the capture's level sends part of the page on ahead: that
// part is kept, so the page stored is still the whole of what was sent.
void keepFlushed(const char* output, size_t length, const VeskOutputPass& pass)
{
    RequestState& r = requestState;
    if (pass.flush && !pass.clean && r.buffering && r.cacheable && output)
        r.flushedOutput.append(output, int(length));
}

// What the script did to the capture's own level that leaves it without
// the whole page: threw output away, or ended the level while it runs on.
bool captureBroken(const VeskOutputPass& pass)
{
    if (!pass.clean && !pass.byScript)
        return false;
    VLOG(moduleState.logStream, 3) << "The script ended the page cache's output buffer. Output will not be cached.";
    return true;
}

// After a flush reached the client its headers are gone: the page is
// then stored with the lines the client got, and no line of ours.
void addLastModified()
{
    if (requestState.lastModifiedSent) {
        VLOG(moduleState.logStream, 3) << "Not generating Last-Modified header - already sent";
    } else if (!vesk_headers_sent()) {
        static QDateTime now;
        now = QDateTime::fromSecsSinceEpoch(qint64(time(nullptr)), Qt::UTC);
        sendHeader("Last-Modified: " + now.toString(QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'")).toLatin1());
    }
}

// A script may end the capture's level with a flush: applications end
// every level at shutdown so that their page goes out at once. What the
// level held is on its way to the client then, and it is the whole page
// if nothing follows it; whether anything does is known at request end.
bool holdEndedCapture(const char* output, size_t length, const VeskOutputPass& pass)
{
    RequestState& r = requestState;
    if (pass.clean || !pass.byScript || !vesk_output_watch_rest(length))
        return false;
    r.flushedOutput.append(output ? output : "", int(length));
    r.captureEndedByScript = true;
    // The lines below hold the page back yet; later they may have gone out.
    addLastModified();
    // Told now, while it can be: stored unless something follows.
    sayVerdict("miss");
    return true;
}

// The page won't be stored: the client hears why, and the capture stops.
void refuse(const char* reason)
{
    sayPass(reason);
    requestState.buffering = false;
}

// What a rule that publishes needs to publish the page: the Content-Type
// the client got, which is the engine's default when the script set none.
PublishTarget publishTarget()
{
    const RequestState& r = requestState;
    PublishTarget target;
    target.url = r.url.whole();
    target.contentType = VHeaderLines::value(r.storedHeaders, "Content-Type");
    if (target.contentType.isNull())
        target.contentType = engineContentType();
    target.ruleDescription = VHTMLCache::publishDescription(*r.rule->d);
    const quint32 lifetime = r.rule->d->lifetime;
    target.expiresAt = lifetime == 0 ? 0 : qint64(time(nullptr)) + lifetime;
    return target;
}

// The page passed every test: its output joined to what was flushed ahead,
// stored under the request's key.
void storeWhole(const char* output, size_t length, int responseCode)
{
    RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
    VHTMLCache* cache = VHTMLCache::instance();
    if (!r.flushedOutput.isEmpty()) {
        r.flushedOutput.append(output ? output : "", int(length));
        output = r.flushedOutput.constData();
        length = size_t(r.flushedOutput.size());
    }
    if (r.responseCompressed && !r.responseIsGzip) {
        VLOG(log, 3) << "Unsupported compression format of response. Output will not be cached.";
        refuse("encoding");
        return;
    }
    if (output && length == 0) {
        VLOG(log, 3) << "Empty output to store. Output will not be cached.";
        refuse("empty");
        return;
    }
    addLastModified();
    const PageLifetime lifetime(r.rule->d->storedLifetime(), r.rule->d->freshLifetime());
    // Where an output handler of the engine compresses every response, a
    // hit goes out through it too: a gzip copy would be compressed twice.
    const bool compress = VHTMLCache::compressionWanted(qint64(length), r.compressionAllowed,
                                                        iniFromEngine("tidy.clean_output", strlen("tidy.clean_output")))
                          && !vesk_output_compressing();
    const bool publish = pagePublishable();
    const PublishTarget target = publish ? publishTarget() : PublishTarget();
    if (!cache->storeOutput(r.namespaceKey, r.matchKey, r.url.whole(), output, qint64(length), responseCode,
                            r.storedHeaders, lifetime, compress, r.responseCompressed, publish ? &target : nullptr)) {
        VLOG(log, 0) << "Storing entry failed";
        sayPass("store error");
        return;
    }
    sayVerdict("miss");
    if (pageCacheConfig.pulse_enable)
        PageCachePulse::instance()->addTimeSaved(r.rule->id, r.rule->name, QString::fromLatin1(r.matchKey));
    if (r.responseCompressed)
        VLOG(log, 5) << "Stored compressed entry with size" << quint64(length) << "for" << r.requestUrl
                     << "with matched rule" << r.ruleUrl << "and specific match key" << r.matchKey;
    else
        VLOG(log, 5) << "Stored entry" << QByteArray(output ? output : "", int(length)).constData() << "for"
                     << r.requestUrl << "with matched rule" << r.ruleUrl << "and specific match key" << r.matchKey;
    r.buffering = false;
    r.flushedOutput.clear();
}

void storeToCache(const char* output, size_t length, const VeskOutputPass& pass)
{
    RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
    VHTMLCache* cache = VHTMLCache::instance();
    if (!pass.final) {
        // A clean only drops what no client will see.
        keepFlushed(output, length, pass);
        return;
    }
    VLOG(log, 5) << "storeToCache handler called with output size of" << quint64(length);
    if (!r.buffering || !r.cacheable) {
        VLOG(log, 5) << "Current request is not cached";
        refuse(r.passReason ? r.passReason : "disabled");
        r.flushedOutput.clear();
        return;
    }
    if (!r.storeRefusal.isNull()) {
        refuse(r.storeRefusal.constData());
        return;
    }
    if (holdEndedCapture(output, length, pass))
        return;
    if (!cache->areHeadersCacheable(r.seenHeaders, r.appId)) {
        disableCaching();
        refuse("header rule");
        return;
    }
    const int exitStatus = vesk_exit_status();
    VLOG(log, 5) << "Current request status is" << exitStatus;
    const int responseCode = vesk_response_code();
    if (!cache->isStatusCacheable(responseCode, r.appId)) {
        disableCaching();
        // A fatal error is why the engine made the status 500.
        refuse(exitStatus == 255 ? "fatal error" : "status rule");
        return;
    }
    if (exitStatus == 255) {
        VLOG(log, 3) << "A PHP error has occurred during the request. Output will not be cached.";
        refuse("fatal error");
        return;
    }
    if (captureBroken(pass)) {
        refuse("buffer");
        return;
    }
    storeWhole(output, length, responseCode);
}
} // namespace

void startOutputCapture()
{
    requestState.flushedOutput.clear();
    vesk_start_output_capture(storeToCache);
}

void finishEndedCapture()
{
    RequestState& r = requestState;
    r.captureEndedByScript = false;
    const bool whole = vesk_output_rest_as_expected();
    QByteArray page;
    page.swap(r.flushedOutput);
    if (!whole) {
        VLOG(moduleState.logStream, 3) << "The script wrote more after ending the page cache's output buffer. "
                                          "Output will not be cached.";
    } else if (r.buffering) {
        storeToCache(page.constData(), size_t(page.size()), VeskOutputPass{false, false, true, false});
    }
    r.buffering = false;
}

void disableCaching()
{
    VLOG(moduleState.logStream, 5) << "Disabling caching for current script";
    requestState.cacheable = false;
    // From inside the handler itself the capture only learns it is off;
    // an output handler can't end its own level. Only a level of this
    // request's own capture is ever ended, never one of the script's.
    if (requestState.buffering && !vesk_output_handler_running() && vesk_output_capture_on_top()) {
        vesk_output_end();
        vesk_sapi_flush();
    }
    requestState.buffering = false;
}
