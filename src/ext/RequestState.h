#pragma once

#include <QByteArray>
#include <QLinkedList>
#include <QString>

#include "PageCachePulse.h"
#include "RequestUrl.h"

class CacheRule;

// What lives for one request. A worker serves one request at a time, so
// there is one instance per process. Fields that a request doesn't reach
// keep their last value; the flags say what applies.
struct RequestState
{
    // False between the gate and request end: still false at the gate means
    // the previous request never reached its end.
    bool cleanRequest = true;
    // The gate's answer to whether this is an internal request, -1 when the
    // gate didn't get as far as asking; request end takes it over, as the
    // address it rests on is the request's own.
    int internalRequest = -1;
    qint32 appId = -1;
    // The request's URL as the gate read it; not read yet before the gate
    // gets that far.
    RequestUrl url;
    // The URL the rules are matched against, and the one log lines show.
    QByteArray requestUrl;
    // Owned by the cache object; valid for the length of the request.
    CacheRule* rule = nullptr;
    QByteArray ruleUrl;
    // The rule's name as the decision after a session start reports it;
    // kept here, as a hit there unwinds the script past every local value.
    QString ruleName;
    QByteArray namespaceKey;
    QByteArray matchKey;
    // Header lines of a captured response that go into the stored page.
    QLinkedList<QByteArray> storedHeaders;
    // What the script flushed through the capture ahead of its end.
    QByteArray flushedOutput;
    // The lines the engine put in the response before any script ran
    // (X-Powered-By): a stored page starts with them, and a hit drops those
    // its page no longer had.
    QLinkedList<QByteArray> engineLines;
    // Every header line of this response, for the response rules.
    QLinkedList<QByteArray> seenHeaders;
    bool ruleActive = false;
    bool waitingForSession = false;
    bool cacheable = false;
    bool compressionAllowed = false;
    bool buffering = false;
    bool inSessionStartup = false;
    bool lastModifiedSent = false;
    bool responseIsGzip = false;
    bool responseCompressed = false;
    // The script ended the capture's level with a flush; the page is
    // stored at request end if nothing followed it.
    bool captureEndedByScript = false;
    // The lines a stored page goes out with beyond the script's own were
    // sent ahead of a flush: the page's lines are settled.
    bool pageLinesSent = false;
    // This request builds its page under the page's lock in the store,
    // which request end gives up, stored or not.
    bool holdsPageLock = false;
    // The client has been told what became of the request, and why not
    // stored when it wasn't; the line being told is not the page's.
    bool verdictSaid = false;
    bool sayingVerdict = false;
    const char* passReason = nullptr;
    // The site the page is for (host and the server's port), which the
    // split by host reads, whatever the Host header said.
    QByteArray site;
    // Why no page is stored from this request though one may be served to
    // it ("cookie NAME"), null when nothing keeps it from the store.
    QByteArray storeRefusal;
    // The tags of the page being built, and when its build began (ms since
    // 1970): a removal of one of them since keeps the page out of the store.
    QList<QByteArray> pageTags;
    qint64 buildStartMs = 0;
    // Why the page's tags keep it from the store ("tags": past the bound);
    // null when they don't.
    QByteArray tagsRefusal;
    // Facts for the host's statistics function, reported at request end.
    QList<PageCacheStatRecord> statisticsQueue;
};

extern RequestState requestState;
