#include "VSocket.h"

#include "VException.h"

#include <QDataStream>
#include <QIODevice>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

VMessageBase::~VMessageBase() = default;

namespace {

qint64 nowMs()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return qint64(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

QString systemError(const char* what)
{
    return QStringLiteral("%1: %2").arg(QLatin1String(what), QString::fromLocal8Bit(strerror(errno)));
}

// An address to connect to or listen on.
struct Endpoint
{
    int family = AF_UNSPEC;
    sockaddr_storage address{};
    socklen_t length = 0;
    QString unixPath;
};

Endpoint parse(const QString& connectionString)
{
    Endpoint endpoint;
    if (connectionString.startsWith(QLatin1String("unix:"))) {
        QString path = connectionString.mid(5);
        if (path.startsWith(QLatin1String("//")))
            path = path.mid(2);
        const QByteArray bytes = path.toLocal8Bit();
        sockaddr_un* address = reinterpret_cast<sockaddr_un*>(&endpoint.address);
        if (bytes.isEmpty() || size_t(bytes.size()) >= sizeof address->sun_path)
            throw VException(QStringLiteral("Bad socket path in connection string: %1").arg(connectionString));
        address->sun_family = AF_UNIX;
        memcpy(address->sun_path, bytes.constData(), size_t(bytes.size()) + 1);
        endpoint.family = AF_UNIX;
        endpoint.length = socklen_t(offsetof(sockaddr_un, sun_path) + size_t(bytes.size()) + 1);
        endpoint.unixPath = path;
        return endpoint;
    }
    if (connectionString.startsWith(QLatin1String("tcp://"))) {
        const QString rest = connectionString.mid(6);
        const int colon = rest.lastIndexOf(':');
        const QByteArray host = rest.left(colon).remove('[').remove(']').toLatin1();
        const QByteArray port = rest.mid(colon + 1).toLatin1();
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = AI_NUMERICSERV;
        addrinfo* found = nullptr;
        if (colon <= 0 || port.isEmpty()
            || getaddrinfo(host.constData(), port.constData(), &hints, &found) != 0 || !found)
            throw VException(QStringLiteral("Bad host or port in connection string: %1").arg(connectionString));
        memcpy(&endpoint.address, found->ai_addr, found->ai_addrlen);
        endpoint.length = found->ai_addrlen;
        endpoint.family = found->ai_family;
        freeaddrinfo(found);
        return endpoint;
    }
    throw VException(QStringLiteral("Unknown connection string: \"%1\"").arg(connectionString));
}

bool waitFor(int fd, short events, int timeoutMs)
{
    pollfd p{fd, events, 0};
    int result;
    do {
        result = ::poll(&p, 1, timeoutMs);
    } while (result < 0 && errno == EINTR);
    return result > 0;
}

} // namespace

VSocketBase::~VSocketBase() = default;

void VSocketBase::initialize()
{
    // Writes use MSG_NOSIGNAL; nothing process-wide needs changing.
}

QByteArray VSocketBase::frame(const VMessageBase& message)
{
    QByteArray payload;
    {
        QDataStream stream(&payload, QIODevice::WriteOnly);
        stream.setVersion(QDataStreamVersion);
        stream.setByteOrder(QDataStream::BigEndian);
        stream << qint32(message.kind());
        message.writeTo(stream);
    }
    QByteArray result;
    QDataStream header(&result, QIODevice::WriteOnly);
    header.setByteOrder(QDataStream::BigEndian);
    header << quint32(payload.size());
    return result + payload;
}

void VSocketBase::writeMessages(const std::vector<QSharedPointer<VMessageBase>>& messages) const
{
    if (m_fd < 0)
        throw VException(QStringLiteral("Not connected"));
    // A daemon that went away since the last write leaves the socket
    // readable at its end; writing into it would seem to succeed and lose
    // the batch.
    pollfd p{m_fd, short(POLLIN | POLLRDHUP), 0};
    if (::poll(&p, 1, 0) > 0) {
        char byte;
        if ((p.revents & (POLLHUP | POLLERR | POLLRDHUP))
            || recv(m_fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0)
            throw VException(QStringLiteral("Connection closed by the daemon"));
    }

    QByteArray bytes;
    for (const QSharedPointer<VMessageBase>& message : messages)
        bytes += frame(*message);
    const qint64 deadline = nowMs() + TimeoutMs;
    qint64 sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = send(m_fd, bytes.constData() + sent, size_t(bytes.size() - sent),
                               MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            sent += n;
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            throw VException(systemError("Cannot write to the daemon"));
        const qint64 left = deadline - nowMs();
        if (left <= 0 || !waitFor(m_fd, POLLOUT, int(left)))
            throw VException(QStringLiteral("Writing to the daemon timed out after %1 ms").arg(TimeoutMs));
    }
}

VSocketClient::~VSocketClient()
{
    if (m_fd >= 0)
        close(m_fd);
}

void VSocketClient::connect(const QString& connectionString, VDebug::StreamId logStream)
{
    const Endpoint endpoint = parse(connectionString);
    const int fd = socket(endpoint.family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        throw VException(systemError("Cannot create a socket"));
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&endpoint.address), endpoint.length) != 0) {
        if (errno != EINPROGRESS && errno != EAGAIN) {
            const VException failure(systemError("Cannot connect"));
            close(fd);
            throw failure;
        }
        int error = 0;
        socklen_t length = sizeof error;
        if (!waitFor(fd, POLLOUT, TimeoutMs)) {
            close(fd);
            throw VException(QStringLiteral("Connecting timed out after %1 ms").arg(TimeoutMs));
        }
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
            errno = error;
            const VException failure(systemError("Cannot connect"));
            close(fd);
            throw failure;
        }
    }
    if (m_fd >= 0)
        close(m_fd);
    m_fd = fd;
    VLOG(logStream, 5) << "Connected to" << connectionString;
}

VSocketServer::VSocketServer(const QString& connectionString)
{
    const Endpoint endpoint = parse(connectionString);
    m_fd = socket(endpoint.family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0)
        throw VException(systemError("Cannot create a socket"));
    const int on = 1;
    setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (!endpoint.unixPath.isEmpty()) {
        unlink(endpoint.unixPath.toLocal8Bit().constData());
        m_unixPath = endpoint.unixPath;
    }
    if (bind(m_fd, reinterpret_cast<const sockaddr*>(&endpoint.address), endpoint.length) != 0
        || listen(m_fd, 64) != 0) {
        const VException failure(systemError("Cannot listen"));
        close(m_fd);
        m_fd = -1;
        throw failure;
    }
}

VSocketServer::~VSocketServer()
{
    for (const Client& client : m_clients)
        close(client.fd);
    if (m_fd >= 0)
        close(m_fd);
    if (!m_unixPath.isEmpty())
        unlink(m_unixPath.toLocal8Bit().constData());
}

std::vector<QByteArray> VSocketServer::poll(int timeoutMs)
{
    std::vector<pollfd> fds{{m_fd, POLLIN, 0}};
    for (const Client& client : m_clients)
        fds.push_back({client.fd, POLLIN, 0});
    std::vector<QByteArray> frames;
    if (::poll(fds.data(), nfds_t(fds.size()), timeoutMs) <= 0)
        return frames;

    std::vector<Client> kept;
    for (size_t i = 1; i < fds.size(); ++i) {
        Client client = m_clients[i - 1];
        bool open = true;
        if (fds[i].revents) {
            char buffer[65536];
            const ssize_t n = read(client.fd, buffer, sizeof buffer);
            if (n > 0)
                client.pending.append(buffer, int(n));
            else if (n == 0 || (errno != EAGAIN && errno != EINTR))
                open = false;
        }
        while (client.pending.size() >= 4) {
            const quint32 length = (quint32(quint8(client.pending[0])) << 24)
                                   | (quint32(quint8(client.pending[1])) << 16)
                                   | (quint32(quint8(client.pending[2])) << 8)
                                   | quint32(quint8(client.pending[3]));
            // No message comes near this; a sender that claims it is broken.
            if (length > MaxFrameBytes) {
                open = false;
                client.pending.clear();
                break;
            }
            if (quint32(client.pending.size() - 4) < length)
                break;
            frames.push_back(client.pending.mid(4, int(length)));
            client.pending.remove(0, int(length) + 4);
        }
        if (open)
            kept.push_back(client);
        else
            close(client.fd);
    }
    m_clients = kept;
    if (fds[0].revents & POLLIN) {
        const int fd = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0)
            m_clients.push_back({fd, QByteArray()});
    }
    return frames;
}
