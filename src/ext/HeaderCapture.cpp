// Follows the response's header lines while the capture runs, so that a
// stored page carries the lines its client got.

#include "RequestPath.h"

#include "ModuleState.h"
#include "PageTags.h"
#include "RequestState.h"
#include "host/vesk_host.h"

#include "VHeaderLines.h"

namespace {

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

void logEncoding(const QByteArray& line)
{
    if (!VHeaderLines::hasName(line, "Content-Encoding"))
        return;
    const VDebug::StreamId log = moduleState.logStream;
    if (VHeaderLines::isGzipEncoding(line))
        VLOG(log, 4) << "Current response is gzip compressed";
    else
        VLOG(log, 4) << "Current response compression header:" << line;
}

// Follows every header operation of the response, so that the stored
// lines are the ones its client got. The rule's tags header is taken out.
bool captureHeaderLine(VeskHeaderOp op, const char* text, size_t length)
{
    RequestState& r = requestState;
    if ((op == VeskHeaderOp::Add || op == VeskHeaderOp::Replace) && takeTagsHeader(text, length))
        return false;
    if (!r.buffering || r.sayingVerdict)
        return true;
    const VDebug::StreamId log = moduleState.logStream;
    if (op == VeskHeaderOp::Delete || op == VeskHeaderOp::DeleteAll) {
        if (r.captureEndedByScript)
            return true;
        VHeaderLines::apply(r.storedHeaders,
                            op == VeskHeaderOp::Delete ? VHeaderLines::Op::Delete : VHeaderLines::Op::DeleteAll,
                            QByteArray(text, int(length)));
        noteResponseLines();
        return true;
    }
    const QByteArray line(text, int(length));
    r.seenHeaders.append(line);
    logEncoding(line);
    // Once the script ended the capture, the page's lines went out with
    // it; what the levels below add later (an engine's compression) is
    // the transport's, not the page's. The response rules still see it.
    if (r.captureEndedByScript)
        return true;
    // The visitor's own session cookie never goes into a stored page.
    if (r.inSessionStartup && VHeaderLines::hasName(line, "Set-Cookie")) {
        VLOG(log, 4) << "Ignoring header for storing (during session startup):" << line;
        return true;
    }
    VLOG(log, 4) << "Buffering header for storing:" << line;
    VHeaderLines::apply(r.storedHeaders, op == VeskHeaderOp::Add ? VHeaderLines::Op::Add : VHeaderLines::Op::Replace,
                        line);
    noteResponseLines();
    return true;
}

} // namespace

void installRequestHooks()
{
    vesk_install_header_hook(captureHeaderLine);
    vesk_install_flush_forwarder();
}
