#include "VStatsdClient.h"

#include "VException.h"

VStatsdeAggregatorBase::~VStatsdeAggregatorBase() = default;

void VStatsdeAggregatorBase::aggregate(VMessageList& messages, VDebug::StreamId logStream)
{
    (void)messages;
    (void)logStream;
}

VStatsdClient::VStatsdClient()
{
    VSocketBase::initialize();
}

// The socket is left to process exit, like the connection it holds.
VStatsdClient::~VStatsdClient() = default;

void VStatsdClient::dropSocket()
{
    delete m_socket;
    m_socket = nullptr;
}

bool VStatsdClient::connect(VDebug::StreamId logStream)
{
    if (m_socket)
        return true;
    VLOG(logStream, 3) << "Establishing connection to statsd daemon...";
    // Without a daemon configured every request with facts ends here; the
    // answer is the socket layer's, without the cost of an exception.
    if (m_connectionString.isEmpty()) {
        VLOG(logStream, 3) << "Failed to connect to:" << m_connectionString << "." << "Unknown connection string: \"\"";
        return false;
    }
    try {
        m_socket = new VSocketClient;
        m_socket->connect(m_connectionString, logStream);
        VLOG(logStream, 3) << "Connection established successfully!";
        return true;
    } catch (const VException& e) {
        VLOG(logStream, 3) << "Failed to connect to:" << m_connectionString << "." << e.what();
        dropSocket();
        return false;
    }
}

void VStatsdClient::writeAll(VStatsdeAggregatorBase& aggregator, const VeskServerInfo& serverInfo,
                             VDebug::StreamId logStream)
{
    (void)serverInfo;
    VLOG(logStream, 4) << "Aggregating" << qint64(m_messages.size()) << "messages";
    aggregator.aggregate(m_messages, logStream);
    VLOG(logStream, 4) << "After aggregation, we now have" << qint64(m_messages.size()) << "messages";
    VLOG(logStream, 3) << "Sending" << qint64(m_messages.size()) << "messages to statsd server...";
    for (const QSharedPointer<VMessageBase>& message : m_messages)
        VLOG(logStream, 5) << "Sending:" << message->toString();
    m_socket->writeMessages(m_messages);
    VLOG(logStream, 3) << "Messages sent successfully!";
}

void VStatsdClient::flush(VStatsdeAggregatorBase& aggregator, const VeskServerInfo& serverInfo,
                          VDebug::StreamId logStream)
{
    if (m_messages.empty() || !connect(logStream))
        return;
    try {
        writeAll(aggregator, serverInfo, logStream);
    } catch (const VException& e) {
        VLOG(logStream, 3) << "Failed to write message." << e.what();
        dropSocket();
        VLOG(logStream, 3) << "Attempting to reconnect...";
        if (!connect(logStream))
            return;
        try {
            writeAll(aggregator, serverInfo, logStream);
        } catch (const VException& second) {
            VLOG(logStream, 1) << "Failed to write message (#2)." << second.what();
            dropSocket();
        }
    }
    m_messages.clear();
}

void VStatsdClient::clear(VDebug::StreamId logStream)
{
    VLOG(logStream, 4) << "Clearing aggregated messages";
    m_messages.clear();
}
