#include "VeskServerInfo.h"

VeskServerInfo::VeskServerInfo(const char* installDir, const char* webserverType,
                               VDebug::StreamId logStream)
    : m_installDir(installDir), m_webserverType(webserverType), m_logStream(logStream)
{
}

QByteArray VeskServerInfo::dataDir() const
{
    return m_installDir.isEmpty() ? QByteArray() : m_installDir + "/var/db";
}
