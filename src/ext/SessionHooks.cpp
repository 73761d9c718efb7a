#include "SessionHooks.h"

#include "ModuleState.h"
#include "RequestPath.h"
#include "RequestState.h"
#include "host/vesk_host.h"

#include "CacheRule.h"


namespace {

const char* const wrappedFunctions[] = {"session_start", "session_regenerate_id", nullptr};
const int SessionActive = 2;

void requestStartupBegins()
{
    if (vesk_session_status() == SessionActive)
        sessionResolved();
    requestState.inSessionStartup = true;
}

void requestStartupEnds()
{
    requestState.inSessionStartup = false;
}

void functionBegins(const char* name)
{
    VLOG(moduleState.logStream, 3) << "Session function wrapper called for" << name;
    requestState.inSessionStartup = true;
}

void functionEnds(const char*, int before)
{
    requestState.inSessionStartup = false;
    if (before == SessionActive)
        return;
    if (vesk_session_status() == SessionActive)
        sessionResolved();
}

void handlerMissing(const char* name)
{
    VLOG(moduleState.logStream, 3) << "Cannot find saved handler for" << name;
}

const VeskSessionCallbacks sessionCallbacks = {requestStartupBegins, requestStartupEnds, functionBegins,
                                               functionEnds, handlerMissing};

} // namespace

bool installSessionHooks()
{
    const VDebug::StreamId log = moduleState.logStream;
    moduleState.sessionHooksInstalled = false;
    if (!vesk_find_session_module()) {
        VLOG(log, 3) << "Failed to init sessions";
        return false;
    }
    if (!vesk_find_session_globals()) {
        VLOG(log, 3) << "Failed to find symbol ps_globals";
        VLOG(log, 3) << "Failed to init sessions";
        return false;
    }
    for (const char* const* name = wrappedFunctions; *name; ++name) {
        if (!vesk_wrap_session_function(*name)) {
            VLOG(log, 3) << "Cannot find handler for:" << *name;
            return false;
        }
    }
    vesk_wrap_session_request_startup(&sessionCallbacks);
    moduleState.sessionHooksInstalled = true;
    return true;
}

void restoreSessionHooks()
{
    if (!moduleState.sessionHooksInstalled)
        return;
    vesk_restore_session_module();
    moduleState.sessionHooksInstalled = false;
}

void sessionResolved()
{
    RequestState& r = requestState;
    const VDebug::StreamId log = moduleState.logStream;
    if (!r.rule) {
        VLOG(log, 3) << "No cache rule found. continuing regular session handling";
        return;
    }
    VLOG(log, 3) << "Session has started for url" << r.requestUrl << "with matched rule:" << r.ruleUrl;
    if (!moduleState.sessionHooksInstalled || !r.waitingForSession)
        return;
    size_t preSessionLength = 0;
    if (r.buffering) {
        // A buffer the script opened above the waiting handler holds output
        // of its own: ending ours would end the script's first. The page is
        // then neither served nor stored, and the buffers stay the script's.
        if (!vesk_output_capture_on_top()) {
            VLOG(log, 3) << "URL:" << r.requestUrl << "is NOT cacheable: the script opened an output buffer before its session";
            r.cacheable = false;
            sayPass("buffer");
            return;
        }
        VLOG(log, 5) << "Storing pre-session data before deciding whether to use cache";
        // Ending the waiting handler passes what the script printed so far
        // on to the client: it is never part of a stored page.
        preSessionLength = vesk_output_end_top();
    }
    r.cacheable = r.rule->conditionsHold();
    VLOG(log, 3) << "session data resolved";
    if (!r.cacheable) {
        VLOG(log, 3) << "URL:" << r.requestUrl << "is NOT cacheable";
        sayPass("conditions");
        if (preSessionLength == 0)
            return;
        VLOG(log, 3) << "Non cacheable request, returning pre-session data to buffer";
        r.buffering = false;
        return;
    }
    r.ruleName = r.rule->name.trimmed();
    // On a hit this doesn't return: it ends the script.
    decideFromCache(r.ruleName, r.rule->id);
}
