// What the page cache did with a covered request, told to whoever looks at
// the response: "X-PageCache: hit", "stale" (a page past its lifetime,
// served within its rule's grace), "miss" (the page was stored), or
// "pass (reason)". Only with vesk_pagecache.enable_qa_info, as the line
// tells visitors how the site is cached.

#include "RequestPath.h"

#include "PageCacheConfig.h"
#include "RequestState.h"
#include "host/vesk_host.h"

void sayVerdict(const char* verdict, const char* reason)
{
    RequestState& r = requestState;
    if (!pageCacheConfig.enable_qa_info || r.verdictSaid || vesk_headers_sent())
        return;
    QByteArray line = QByteArrayLiteral("X-PageCache: ") + verdict;
    if (reason)
        line += QByteArrayLiteral(" (") + reason + ')';
    r.verdictSaid = true;
    // The line tells of this response only: never part of a stored page.
    r.sayingVerdict = true;
    vesk_add_header(line.constData(), size_t(line.size()), true);
    r.sayingVerdict = false;
}

void sayPass(const char* reason)
{
    sayVerdict("pass", reason ? reason : requestState.passReason);
}

void notePass(const char* reason)
{
    if (!requestState.passReason)
        requestState.passReason = reason;
}
