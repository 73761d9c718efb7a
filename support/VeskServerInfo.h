#pragma once

#include "VDebug.h"

#include <QByteArray>

// What the components know of the server they run beside: where the product
// is installed, which web server it serves, and which node of a cluster this is.
class VeskServerInfo
{
public:
    VeskServerInfo() = default;
    VeskServerInfo(const char* installDir, const char* webserverType,
                   VDebug::StreamId logStream = VDebug::DEVNULL);

    QByteArray installDir() const { return m_installDir; }
    QByteArray webserverType() const { return m_webserverType; }
    VDebug::StreamId logStream() const { return m_logStream; }
    // The prefix that connection strings and paths of the product are built on.
    QByteArray installationPrefix() const { return m_installDir; }
    // Where the product keeps its databases and marker files.
    QByteArray dataDir() const;
    int serverNumber() const { return m_serverNumber; }
    void setServerNumber(int number) { m_serverNumber = number; }

private:
    QByteArray m_installDir;
    QByteArray m_webserverType;
    VDebug::StreamId m_logStream = VDebug::DEVNULL;
    int m_serverNumber = 0;
};
