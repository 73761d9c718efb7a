#include "AppLookup.h"

#include "GlobalDirectives.h"
#include "HostProbes.h"
#include "ModuleState.h"

#include "VDeploymentInfo.h"
#include "host/vesk_host.h"

namespace {

VeskServerInfo lookupServerInfo()
{
    return VeskServerInfo(installDir(), webserverType(), moduleState.logStream);
}

// A request that carries a debugger connection belongs to no application.
bool debuggerAttached(int readBody)
{
    char* value = requestParameter("debugger_connect", 16, readBody);
    if (!value)
        return false;
    vesk_efree(value);
    return true;
}

} // namespace

qint32 appIdForUrl(const char* url)
{
    if (!url || !*url)
        return -1;
    static VDeploymentInfo deployment(lookupServerInfo(), moduleState.logStream,
                                      QStringLiteral("DeplInf_app_id_for_url"));
    deployment.refresh();
    // With nothing deployed the answer is -1 whatever the request carries.
    if (!deployment.hasApplications() || debuggerAttached(1))
        return -1;
    return deployment.applicationForUrl(QString::fromUtf8(url)).id;
}

qint32 appIdForPath(const char* path)
{
    if (!path || !*path)
        return -1;
    static VDeploymentInfo deployment(lookupServerInfo(), moduleState.logStream,
                                      QStringLiteral("DeplInf_app_id_for_path"));
    deployment.refresh();
    if (!deployment.hasApplications() || debuggerAttached(0))
        return -1;
    return deployment.applicationForPath(QString::fromUtf8(path)).id;
}

qint32 currentAppId()
{
    const VDebug::StreamId log = moduleState.logStream;
    qint32 id = -1;
    // The path goes to the lookup as it came: its separators are this
    // system's own, and the lookup reads it as UTF-8 itself.
    if (const char* script = scriptFilename()) {
        VLOG(log, 4) << "current script path is:" << script;
        id = appIdForPath(script);
        VLOG(log, 4) << "vesk_get_app_id_for_current_path found app id:" << VHex{quint32(id)};
    }
    if (id != -1)
        return id;
    const QByteArray url = currentUrl();
    VLOG(log, 4) << "current script url is:" << url.constData();
    return appIdForUrl(url.constData());
}
