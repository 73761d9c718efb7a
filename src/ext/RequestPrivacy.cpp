#include "RequestPrivacy.h"

#include "GlobalDirectives.h"
#include "ModuleState.h"
#include "RequestPath.h"
#include "RequestState.h"
#include "host/vesk_host.h"

#include "CacheRule.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

// Names a cookie in a header line and a log line: only unreserved bytes
// stay as they are, and a long name is cut.
const int LongestCookieName = 64;

// The request's cookie names as PHP keys them; the first name of the
// header when PHP keeps no cookie list (variables_order without "C").
QList<QByteArray> cookieNames()
{
    std::vector<std::string> names;
    vesk_cookie_names(&names);
    QList<QByteArray> result;
    for (const std::string& name : names)
        result.append(QByteArray(name.data(), int(name.size())));
    const char* raw = vesk_request_cookie_data();
    if (result.isEmpty() && raw && strchr(raw, '='))
        result.append(QByteArray(raw, int(strcspn(raw, "="))).trimmed());
    return result;
}

} // namespace

// The server's authentication of the request, or the client's: either way
// the page may show what only these credentials open.
bool hasCredentials()
{
    if (vesk_request_has_credentials())
        return true;
    // nginx's fastcgi_params pass REMOTE_USER empty for every request.
    for (const char* name : {"HTTP_AUTHORIZATION", "REMOTE_USER", "PHP_AUTH_USER"}) {
        const char* value = vesk_sapi_getenv(name);
        if (value && *value)
            return true;
    }
    return false;
}

bool keptPrivate(const CacheRule& rule)
{
    RequestState& r = requestState;
    bool portConflict = false;
    r.site = r.url.site(&portConflict);
    const char* why = nullptr;
    if (portConflict)
        why = "host port";
    else if (!rule.d->storeCredentials && hasCredentials())
        why = "credentials";
    if (!why)
        return false;
    VLOG(moduleState.logStream, 3) << "Request for :" << r.requestUrl << "is NOT cacheable:" << why;
    sayPass(why);
    return true;
}

namespace {

QByteArray shownCookie(const QByteArray& name)
{
    if (name.isNull())
        return QByteArray();
    QByteArray shown = name.left(LongestCookieName).toPercentEncoding();
    if (name.size() > LongestCookieName)
        shown += "...";
    return "cookie " + shown;
}

} // namespace

QByteArray unaccountedCookie(const CacheRule& rule)
{
    if (rule.d->storeAnyCookie || rule.d->readsAllCookies)
        return QByteArray();
    const char* session = iniFromEngine("session.name", strlen("session.name"));
    return shownCookie(rule.unaccountedCookie(cookieNames(), session ? QByteArray(session) : QByteArray()));
}

QByteArray anyCookie()
{
    return shownCookie(cookieNames().value(0));
}
