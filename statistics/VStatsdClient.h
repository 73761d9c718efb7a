#pragma once

#include "VDebug.h"
#include "VMessageBase.h"
#include "VSocket.h"
#include "VeskServerInfo.h"

#include <QSharedPointer>
#include <QString>

#include <vector>

typedef std::vector<QSharedPointer<VMessageBase>> VMessageList;

// Folds a batch before it is sent. This one leaves it as it is; a subclass
// may group messages by aggregationKey() and merge each group.
class VStatsdeAggregatorBase
{
public:
    virtual ~VStatsdeAggregatorBase();
    virtual void aggregate(VMessageList& messages, VDebug::StreamId logStream);
};

// Gathers messages during a request and writes them to the statistics
// daemon at its end. The connection stays open between requests while
// writes succeed.
class VStatsdClient
{
public:
    VStatsdClient();
    virtual ~VStatsdClient();

    void setConnectionString(const QString& connectionString) { m_connectionString = connectionString; }
    QString connectionString() const { return m_connectionString; }
    void add(const QSharedPointer<VMessageBase>& message) { m_messages.push_back(message); }
    const VMessageList& messages() const { return m_messages; }
    bool isConnected() const { return m_socket && m_socket->isConnected(); }

    bool connect(VDebug::StreamId logStream);
    // Sends the batch, with one reconnect after a failed write; a batch
    // that fails twice is dropped. Never waits for the daemon: a connection
    // that takes too long or a batch that fails twice keeps the client away
    // from it for MinBackoffMs, doubled at each further failure up to
    // MaxBackoffMs. Never throws.
    void flush(VStatsdeAggregatorBase& aggregator, const VeskServerInfo& serverInfo, VDebug::StreamId logStream);
    void writeAll(VStatsdeAggregatorBase& aggregator, const VeskServerInfo& serverInfo, VDebug::StreamId logStream);
    void clear(VDebug::StreamId logStream);

    static constexpr qint64 MinBackoffMs = 1000;
    static constexpr qint64 MaxBackoffMs = 60000;

private:
    void dropSocket();
    void backOff(VDebug::StreamId logStream);

    VMessageList m_messages;
    // Kept for the daemon protocol; nothing here reads it.
    [[maybe_unused]] qint32 m_period = 60;
    QString m_connectionString;
    VSocketClient* m_socket = nullptr;
    qint64 m_backoffMs = 0;
    qint64 m_retryAtMs = 0;
};
