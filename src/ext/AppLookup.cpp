#include "AppLookup.h"

#include "GlobalDirectives.h"
#include "HostProbes.h"
#include "ModuleState.h"

#include "VDeploymentInfo.h"

namespace {

VeskServerInfo lookupServerInfo()
{
    return VeskServerInfo(installDir(), webserverType(), moduleState.logStream);
}

// One deployment view per way of looking, made at its first use.
VDeploymentInfo& deploymentByPath()
{
    static VDeploymentInfo deployment(lookupServerInfo(), moduleState.logStream,
                                      QStringLiteral("DeplInf_app_id_for_path"));
    return deployment;
}

VDeploymentInfo& deploymentByUrl()
{
    static VDeploymentInfo deployment(lookupServerInfo(), moduleState.logStream,
                                      QStringLiteral("DeplInf_app_id_for_url"));
    return deployment;
}

// A request that carries a debugger connection belongs to no application;
// its parameter is looked for in the body only for a look-up by URL.
qint32 appIdFor(const char* text, bool byUrl)
{
    if (!text || !*text)
        return -1;
    VDeploymentInfo& deployment = byUrl ? deploymentByUrl() : deploymentByPath();
    deployment.refresh();
    // With nothing deployed the answer is -1 whatever the request carries.
    if (!deployment.hasApplications() || requestCarries("debugger_connect", byUrl))
        return -1;
    const QString key = QString::fromUtf8(text);
    return (byUrl ? deployment.applicationForUrl(key) : deployment.applicationForPath(key)).id;
}

} // namespace

qint32 currentAppId(const QByteArray& url)
{
    const VDebug::StreamId log = moduleState.logStream;
    qint32 id = -1;
    // The path goes to the lookup as it came: its separators are this
    // system's own, and the lookup reads it as UTF-8 itself.
    if (const char* script = scriptFilename()) {
        VLOG(log, 4) << "current script path is:" << script;
        id = appIdFor(script, false);
        VLOG(log, 4) << "vesk_get_app_id_for_current_path found app id:" << VHex{quint32(id)};
    }
    if (id != -1)
        return id;
    VLOG(log, 4) << "current script url is:" << url.constData();
    return appIdFor(url.constData(), true);
}
