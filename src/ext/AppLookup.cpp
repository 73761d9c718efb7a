#include "AppLookup.h"

#include "GlobalDirectives.h"
#include "HostProbes.h"
#include "ModuleState.h"

#include "VDeploymentInfo.h"
#include "host/vesk_host.h"

#include <QDir>

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
    if (debuggerAttached(1) || !url || !*url)
        return -1;
    static VDeploymentInfo deployment(lookupServerInfo(), moduleState.logStream,
                                      QStringLiteral("DeplInf_app_id_for_url"));
    deployment.refresh();
    return deployment.applicationForUrl(QString::fromUtf8(url)).id;
}

qint32 appIdForPath(const char* path)
{
    if (debuggerAttached(0) || !path || !*path)
        return -1;
    static VDeploymentInfo deployment(lookupServerInfo(), moduleState.logStream,
                                      QStringLiteral("DeplInf_app_id_for_path"));
    deployment.refresh();
    return deployment.applicationForPath(QString::fromUtf8(path)).id;
}

qint32 currentAppId()
{
    const VDebug::StreamId log = moduleState.logStream;
    qint32 id = -1;
    if (const char* script = scriptFilename()) {
        const QByteArray path = QDir::toNativeSeparators(QString::fromUtf8(script)).toUtf8();
        VLOG(log, 4) << "current script path is:" << path;
        id = appIdForPath(path.constData());
        VLOG(log, 4) << "vesk_get_app_id_for_current_path found app id:"
                     << "0x" + QByteArray::number(id, 16);
    }
    if (id != -1)
        return id;
    const char* url = currentUrl();
    VLOG(log, 4) << "current script url is:" << url;
    return appIdForUrl(url);
}
