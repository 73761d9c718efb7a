#pragma once

#include "VDebug.h"
#include "VMessageBase.h"

#include <QByteArray>
#include <QSharedPointer>
#include <QString>

#include <sys/types.h>
#include <vector>

// The product's message stream over a stream socket. Connection strings are
// "tcp://HOST:PORT" and "unix:PATH". Every message travels as one frame: a
// 32-bit big-endian length, then that many bytes of QDataStream (Qt 5.12,
// big-endian) holding the message's kind as qint32 and its own fields.
//
// The sending side never waits for the daemon: a write that would block
// fails at once, and a connection still being made is looked at again at
// the next use, given up TimeoutMs after it began.
class VSocketBase
{
public:
    virtual ~VSocketBase();

    // Process-wide preparation, once before any socket is used.
    static void initialize();

    // Writes every message as a frame, without waiting. Throws VException on
    // failure: a connection the other side has closed since the last write,
    // or a daemon that doesn't read (the stream is then unusable).
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

    // Connects, waiting up to TimeoutMs. Throws VException when the string
    // can't be read or the daemon can't be reached within the timeout.
    void connect(const QString& connectionString, VDebug::StreamId logStream);
    // Starts connecting without waiting; throws when the string can't be
    // read or the daemon refuses at once.
    void begin(const QString& connectionString);
    // Whether the connection begun is made, waiting up to `waitMs` for it.
    // Throws when it failed, or wasn't made within TimeoutMs of its start.
    bool established(int waitMs = 0);
    bool isConnected() const { return m_connected; }
    // Whether the last failure was a connection that took too long.
    bool timedOut() const { return m_timedOut; }

private:
    qint64 m_startedMs = 0;
    bool m_connected = false;
    bool m_timedOut = false;
};

// The receiving side: listens on a connection string and hands out whole
// frames. Used by the statistics tools, never by a worker. It listens on
// loopback only, makes its Unix socket 0660 for the workers' group, and
// bounds its clients and the bytes it holds for them.
class VSocketServer
{
public:
    // Throws VException when it can't listen there: a TCP address other
    // than loopback, a path that holds anything but a dead socket of this
    // user, or a group it can't give the socket to. `group` -1 is its own.
    explicit VSocketServer(const QString& connectionString, long group = -1);
    // Removes the Unix socket, when the path still holds the one it made.
    ~VSocketServer();

    // Waits up to `timeoutMs` (-1 for ever) for something to happen:
    // accepts new connections and reads what they sent. Answers the
    // payloads of the frames completed, in arrival order.
    std::vector<QByteArray> poll(int timeoutMs);
    int connectionCount() const { return int(m_clients.size()); }

    // A page cache message is a few hundred bytes: a frame that claims
    // more than this is a broken or hostile sender, and its connection goes.
    static constexpr quint32 MaxFrameBytes = 64 * 1024;
    static constexpr size_t MaxClients = 512;
    // Unfinished frames of all clients together; past it, the client that
    // holds the most is dropped.
    static constexpr qint64 MaxBufferedBytes = 8 * 1024 * 1024;
    // How long accepting rests when the process runs out of descriptors.
    static constexpr int AcceptPauseMs = 1000;

private:
    struct Client
    {
        int fd;
        QByteArray pending;
    };
    void listenOnPath(const QString& path, long group);
    bool readFrom(Client& client, std::vector<QByteArray>& frames);
    void dropGreediest();
    void acceptWaiting();

    int m_fd = -1;
    QString m_unixPath;
    dev_t m_socketDevice = 0;
    ino_t m_socketInode = 0;
    std::vector<Client> m_clients;
    qint64 m_buffered = 0;
    qint64 m_acceptPausedUntilMs = 0;
};
