#include "VStatsdClient.h"

#include "VException.h"
#include "VTime.h"

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
    if (m_socket && m_socket->established())
        return true;
    // A daemon that let the last attempts wait isn't asked again for a
    // while: until then a request pays nothing for it.
    if (!m_socket && VTime::nowMicroseconds() / 1000 < m_retryAtMs) {
        VLOG(logStream, 5) << "Not connecting to statsd daemon before" << m_retryAtMs << "ms";
        return false;
    }
    if (!m_socket)
        VLOG(logStream, 3) << "Establishing connection to statsd daemon...";
    // Without a daemon configured every request with facts ends here; the
    // answer is the socket layer's, without the cost of an exception.
    if (m_connectionString.isEmpty()) {
        VLOG(logStream, 3) << "Failed to connect to:" << m_connectionString << "." << "Unknown connection string: \"\"";
        return false;
    }
    try {
        if (!m_socket) {
            m_socket = new VSocketClient;
            m_socket->begin(m_connectionString);
        }
        // A connection still being made is looked at by the next request.
        if (!m_socket->established()) {
            VLOG(logStream, 5) << "Connection to statsd daemon still in progress";
            return false;
        }
        VLOG(logStream, 3) << "Connection established successfully!";
        m_backoffMs = 0;
        return true;
    } catch (const VException& e) {
        VLOG(logStream, 3) << "Failed to connect to:" << m_connectionString << "." << e.what();
        if (m_socket->timedOut())
            backOff(logStream);
        dropSocket();
        return false;
    }
}

void VStatsdClient::backOff(VDebug::StreamId logStream)
{
    m_backoffMs = qBound(qint64(MinBackoffMs), m_backoffMs * 2, qint64(MaxBackoffMs));
    m_retryAtMs = VTime::nowMicroseconds() / 1000 + m_backoffMs;
    VLOG(logStream, 3) << "Not trying the statsd daemon again for" << m_backoffMs << "ms";
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
            backOff(logStream);
        }
    }
    m_messages.clear();
}

void VStatsdClient::clear(VDebug::StreamId logStream)
{
    VLOG(logStream, 4) << "Clearing aggregated messages";
    m_messages.clear();
}
