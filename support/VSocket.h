#pragma once

#include "VDebug.h"
#include "VMessageBase.h"

#include <QByteArray>
#include <QSharedPointer>
#include <QString>

#include <vector>

// The product's message stream over a stream socket. Connection strings are
// "tcp://HOST:PORT" and "unix:PATH". Every message travels as one frame: a
// 32-bit big-endian length, then that many bytes of QDataStream (Qt 5.12,
// big-endian) holding the message's kind as qint32 and its own fields.
//
// The sending side never waits long: connecting and writing each give up
// after TimeoutMs, so a daemon that hangs costs a request no more than that.
class VSocketBase
{
public:
    virtual ~VSocketBase();

    // Process-wide preparation, once before any socket is used.
    static void initialize();

    // Writes every message as a frame. Throws VException on failure,
    // including a connection the other side has closed since the last write.
    void writeMessages(const std::vector<QSharedPointer<VMessageBase>>& messages) const;

    // The frame of one message.
    static QByteArray frame(const VMessageBase& message);

    static constexpr int TimeoutMs = 250;
    static constexpr int QDataStreamVersion = QDataStream::Qt_5_12;

protected:
    int m_fd = -1;
};

class VSocketClient : public VSocketBase
{
public:
    VSocketClient() = default;
    // Closes the connection.
    ~VSocketClient() override;

    // Throws VException when the string can't be read or the daemon can't
    // be reached within the timeout.
    void connect(const QString& connectionString, VDebug::StreamId logStream);
};

// The receiving side: listens on a connection string and hands out whole
// frames. Used by the statistics tools, never by a worker.
class VSocketServer
{
public:
    // Throws VException when it can't listen there.
    explicit VSocketServer(const QString& connectionString);
    ~VSocketServer();

    // Waits up to `timeoutMs` (-1 for ever) for something to happen:
    // accepts new connections and reads what they sent. Answers the
    // payloads of the frames completed, in arrival order.
    std::vector<QByteArray> poll(int timeoutMs);
    int connectionCount() const { return int(m_clients.size()); }

    static constexpr quint32 MaxFrameBytes = 16 * 1024 * 1024;

private:
    struct Client
    {
        int fd;
        QByteArray pending;
    };
    int m_fd = -1;
    QString m_unixPath;
    std::vector<Client> m_clients;
};
