#include "RequestPath.h"
#include "RequestPrivacy.h"

#include "GlobalDirectives.h"
#include "HostProbes.h"
#include "ModuleState.h"
#include "PageCacheConfig.h"
#include "QueryLearning.h"
#include "RequestState.h"
#include "host/vesk_host.h"

#include "CacheRule.h"
#include "PageCachePulse.h"
#include "VHTMLCache.h"
#include "VHeaderLines.h"

#include <QDateTime>
#include <cstring>
#include <ctime>
#include <limits>

namespace {

// The page won't be stored: the client hears why, and the capture stops.
void refuse(const char* reason)
{
    sayPass(reason);
    requestState.buffering = false;
}

// Whether the request, the response rules and the script's end still let
// the page be stored. Asked before the page's lines go out, so that a page they refuse
// is never told as stored nor dated.
bool responseAccepted()
{
    const RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
    VHTMLCache* cache = VHTMLCache::instance();
    if (!r.storeRefusal.isNull()) {
        refuse(r.storeRefusal.constData());
        return false;
    }
    if (!r.tagsRefusal.isNull()) {
        refuse(r.tagsRefusal.constData());
        return false;
    }
    if (!cache->areHeadersCacheable(r.seenHeaders, r.appId)) {
        disableCaching();
        refuse("header rule");
        return false;
    }
    const int exitStatus = vesk_exit_status();
    VLOG(log, 5) << "Current request status is" << exitStatus;
    if (!cache->isStatusCacheable(vesk_response_code(), r.appId)) {
        disableCaching();
        // A fatal error is why the engine made the status 500.
        refuse(exitStatus == 255 ? "fatal error" : "status rule");
        return false;
    }
    if (exitStatus == 255) {
        VLOG(log, 3) << "A PHP error has occurred during the request. Output will not be cached.";
        refuse("fatal error");
        return false;
    }
    return true;
}

// Whether a page of `length` bytes gets a gzip copy beside the clear one.
// Where an output handler of the engine compresses every response, a hit
// goes out through it too: a gzip copy would be compressed twice.
bool gzipCopyWanted(qint64 length)
{
    const RequestState& r = requestState;
    return r.responseCompressed
           || (VHTMLCache::compressionWanted(length, r.compressionAllowed,
                                             iniFromEngine("tidy.clean_output", strlen("tidy.clean_output")))
               && !vesk_output_compressing());
}

// What a stored page goes out with beyond the script's own lines, on its
// miss and, stored with it, on each hit and 304: the date conditional
// requests compare with; a Cache-Control that has browsers and shared
// caches ask again every time, as a stored page changes without notice,
// unless the application chose its own; and Vary where a gzip copy may
// go out instead.
void addPageLines(QLinkedList<QByteArray>& lines, bool gzipCopy)
{
    if (!VHeaderLines::value(lines, "Last-Modified").isNull()) {
        VLOG(moduleState.logStream, 3) << "Not generating Last-Modified header - already sent";
    } else {
        static QDateTime now;
        now = QDateTime::fromSecsSinceEpoch(qint64(time(nullptr)), Qt::UTC);
        lines.append("Last-Modified: " + now.toString(QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'")).toLatin1());
    }
    if (VHeaderLines::value(lines, "Cache-Control").isNull() && VHeaderLines::value(lines, "Expires").isNull())
        lines.append("Cache-Control: no-cache");
    if (gzipCopy)
        VHeaderLines::addVary(lines, "Accept-Encoding");
}

// Sends every line of each name whose lines `lines` changed, so that the
// response holds them as `lines` does.
void sendPageLines(const QLinkedList<QByteArray>& lines)
{
    QList<QByteArray> changed;
    for (const QByteArray& line : lines) {
        if (!requestState.storedHeaders.contains(line))
            changed.append(line.left(line.indexOf(':')).toLower());
    }
    QLinkedList<QByteArray> going;
    for (const QByteArray& line : lines) {
        if (changed.contains(line.left(line.indexOf(':')).toLower()))
            going.append(line);
    }
    replayHeaders(going);
}

// The page's lines go out now, ahead of its first part: from here on
// they are the ones it is stored with.
void sendPageLinesNow(bool gzipCopy)
{
    RequestState& r = requestState;
    if (r.pageLinesSent || vesk_headers_sent())
        return;
    QLinkedList<QByteArray> lines = r.storedHeaders;
    addPageLines(lines, gzipCopy);
    sendPageLines(lines);
    r.pageLinesSent = true;
}

// A flush of the capture's level sends part of the page on ahead: that
// part is kept, so the page stored is still the whole of what was sent.
// The response's lines go with the first part, so the page is judged
// then; it is stored unless the script fails or breaks the capture after.
void keepFlushed(const char* output, size_t length, const VeskOutputPass& pass)
{
    RequestState& r = requestState;
    if (!pass.flush || pass.clean || !r.buffering || !r.cacheable || !output || length == 0)
        return;
    if (!r.pageLinesSent && !vesk_headers_sent()) {
        if (!responseAccepted())
            return;
        sendPageLinesNow(gzipCopyWanted(std::numeric_limits<qint64>::max()));
        sayVerdict("miss", "flushed");
    }
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

// How many tags the stored page holds, for the verdict; null for none.
QByteArray tagsCount()
{
    const int count = requestState.pageTags.size();
    if (count == 0)
        return QByteArray();
    QByteArray said = QByteArray::number(count) + (count == 1 ? " tag" : " tags");
    // How many of them the database's reads gave, for an operator who
    // checks what the page learned.
    const int learned = learnedTagCount();
    return learned > 0 ? said + ", " + QByteArray::number(learned) + " learned" : said;
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
    // The lines below hold the page back yet; later they may have gone out.
    sendPageLinesNow(gzipCopyWanted(r.flushedOutput.size()));
    r.captureEndedByScript = true;
    // Told now, while it can be: stored unless something follows.
    const QByteArray counted = tagsCount();
    sayVerdict("miss", counted.isNull() ? nullptr : counted.constData());
    return true;
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

// The lines the page is stored with: its own and, while they can still go
// out, those every stored page goes out with. Null when the page went out
// undated, as a stored page never is.
QLinkedList<QByteArray> storedLines(qint64 length)
{
    RequestState& r = requestState;
    QLinkedList<QByteArray> lines = r.storedHeaders;
    if (!vesk_headers_sent())
        addPageLines(lines, gzipCopyWanted(length));
    else if (VHeaderLines::value(lines, "Last-Modified").isNull())
        lines.clear();
    return lines;
}

// How long the page is kept: as its rule says, or, for a redirect under a
// rule that keeps redirects a time of their own, that time; such a
// redirect is stored only when no cookie came with the request (false).
bool lifetimeOfPage(bool redirect, PageLifetime* lifetime)
{
    const CacheRuleData& rule = *requestState.rule->d;
    *lifetime = PageLifetime(rule.storedLifetime(), rule.freshLifetime());
    if (!redirect || rule.redirectLifetime == 0)
        return true;
    const QByteArray cookie = anyCookie();
    if (!cookie.isNull()) {
        VLOG(moduleState.logStream, 3) << "A redirect is stored only from a request without cookies:" << cookie;
        refuse(cookie.constData());
        return false;
    }
    *lifetime = PageLifetime(rule.redirectLifetime);
    return true;
}

void logStored(const char* output, size_t length)
{
    const RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
    if (r.responseCompressed)
        VLOG(log, 5) << "Stored compressed entry with size" << quint64(length) << "for" << r.requestUrl
                     << "with matched rule" << r.ruleUrl << "and specific match key" << r.matchKey;
    else
        VLOG(log, 5) << "Stored entry" << QByteArray(output ? output : "", int(length)).constData() << "for"
                     << r.requestUrl << "with matched rule" << r.ruleUrl << "and specific match key" << r.matchKey;
}

// The page passed every test: its output joined to what was flushed ahead,
// stored under the request's key. Its lines go out once it is stored.
void storeWhole(const char* output, size_t length, int responseCode)
{
    RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
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
    // A redirect has nothing to say but its Location line.
    const bool redirect = responseCode / 100 == 3 && !VHeaderLines::value(r.storedHeaders, "Location").isNull();
    PageLifetime lifetime(0);
    if (!lifetimeOfPage(redirect, &lifetime))
        return;
    if (output && length == 0 && !redirect) {
        VLOG(log, 3) << "Empty output to store. Output will not be cached.";
        refuse("empty");
        return;
    }
    const QLinkedList<QByteArray> lines = storedLines(qint64(length));
    if (lines.isEmpty()) {
        VLOG(log, 3) << "The page went out without a Last-Modified header. Output will not be cached.";
        refuse("flushed");
        return;
    }
    const bool compress = !r.responseCompressed && gzipCopyWanted(qint64(length));
    const bool publish = pagePublishable();
    const PublishTarget target = publish ? publishTarget() : PublishTarget();
    PageTags tags;
    tags.tags = r.pageTags;
    tags.sinceMs = r.buildStartMs;
    VHTMLCache* cache = VHTMLCache::instance();
    if (!cache->storeOutput(r.namespaceKey, r.matchKey, r.url.whole(), output, qint64(length), responseCode, lines,
                            lifetime, compress, r.responseCompressed, publish ? &target : nullptr, &tags, r.appId)) {
        // A tag removed while the page was built: the page is out of date.
        if (!cache->tagRefusal().isNull()) {
            refuse("tag removed");
            return;
        }
        VLOG(log, 0) << "Storing entry failed";
        sayPass("store error");
        return;
    }
    if (!vesk_headers_sent())
        sendPageLines(lines);
    const QByteArray counted = tagsCount();
    sayVerdict("miss", counted.isNull() ? nullptr : counted.constData());
    if (pageCacheConfig.pulse_enable)
        PageCachePulse::instance()->addTimeSaved(r.rule->id, r.rule->name, QString::fromLatin1(r.matchKey));
    logStored(output, length);
    r.buffering = false;
    r.flushedOutput.clear();
}

void storeToCache(const char* output, size_t length, const VeskOutputPass& pass)
{
    RequestState& r = requestState;
    if (!pass.final) {
        // A clean only drops what no client will see.
        keepFlushed(output, length, pass);
        return;
    }
    VLOG(moduleState.logStream, 5) << "storeToCache handler called with output size of" << quint64(length);
    if (!r.buffering || !r.cacheable) {
        VLOG(moduleState.logStream, 5) << "Current request is not cached";
        refuse(r.passReason ? r.passReason : "disabled");
        r.flushedOutput.clear();
        return;
    }
    if (!responseAccepted() || holdEndedCapture(output, length, pass))
        return;
    if (captureBroken(pass)) {
        refuse("buffer");
        return;
    }
    storeWhole(output, length, vesk_response_code());
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
