#include "VSocket.h"

#include "VException.h"

#include <QDataStream>
#include <QIODevice>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
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
    qint64 sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = send(m_fd, bytes.constData() + sent, size_t(bytes.size() - sent),
                               MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            sent += n;
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        // A daemon that reads what it is sent never lets the buffer fill:
        // one that doesn't isn't waited for.
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            throw VException(QStringLiteral("The daemon isn't reading"));
        throw VException(systemError("Cannot write to the daemon"));
    }
}

VSocketClient::~VSocketClient()
{
    if (m_fd >= 0)
        close(m_fd);
}

void VSocketClient::connect(const QString& connectionString, VDebug::StreamId logStream)
{
    begin(connectionString);
    if (!established(TimeoutMs))
        throw VException(QStringLiteral("Connecting timed out after %1 ms").arg(TimeoutMs));
    VLOG(logStream, 5) << "Connected to" << connectionString;
}

void VSocketClient::begin(const QString& connectionString)
{
    const Endpoint endpoint = parse(connectionString);
    const int fd = socket(endpoint.family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        throw VException(systemError("Cannot create a socket"));
    bool connected = true;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&endpoint.address), endpoint.length) != 0) {
        // A Unix socket whose backlog is full answers EAGAIN: a refusal.
        if (errno != EINPROGRESS) {
            const VException failure(systemError("Cannot connect"));
            close(fd);
            throw failure;
        }
        connected = false;
    }
    if (m_fd >= 0)
        close(m_fd);
    m_fd = fd;
    m_connected = connected;
    m_timedOut = false;
    m_startedMs = nowMs();
}

bool VSocketClient::established(int waitMs)
{
    if (m_connected || m_fd < 0)
        return m_connected;
    const qint64 left = m_startedMs + TimeoutMs - nowMs();
    if (!waitFor(m_fd, POLLOUT, int(qBound(qint64(0), qMin(qint64(waitMs), left), qint64(TimeoutMs))))) {
        if (left > waitMs)
            return false;
        m_timedOut = true;
        throw VException(QStringLiteral("Connecting timed out after %1 ms").arg(TimeoutMs));
    }
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
        errno = error;
        throw VException(systemError("Cannot connect"));
    }
    m_connected = true;
    return true;
}

namespace {

bool isLoopback(const Endpoint& endpoint)
{
    if (endpoint.family == AF_INET) {
        const sockaddr_in* in = reinterpret_cast<const sockaddr_in*>(&endpoint.address);
        return (ntohl(in->sin_addr.s_addr) >> 24) == 127;
    }
    if (endpoint.family == AF_INET6) {
        const in6_addr& in6 = reinterpret_cast<const sockaddr_in6*>(&endpoint.address)->sin6_addr;
        return IN6_IS_ADDR_LOOPBACK(&in6);
    }
    return false;
}

// Whether something still listens on the Unix socket at `path`.
bool answers(const sockaddr* address, socklen_t length)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool answered = fd >= 0 && ::connect(fd, address, length) == 0;
    if (fd >= 0)
        close(fd);
    return answered;
}

// Clears the way for a new socket at `path`: nothing there, or a dead
// socket of this user, which an earlier run left when it was killed.
// Anything else stays as it is, and the listener doesn't start.
void clearSocketPath(const QByteArray& path, const Endpoint& endpoint)
{
    struct stat st;
    if (lstat(path.constData(), &st) != 0) {
        if (errno == ENOENT)
            return;
        throw VException(systemError("Cannot look at the socket's path"));
    }
    if (!S_ISSOCK(st.st_mode))
        throw VException(QStringLiteral("%1 is not a socket: not removing it").arg(QString::fromLocal8Bit(path)));
    if (st.st_uid != geteuid())
        throw VException(QStringLiteral("%1 belongs to another user: not removing it").arg(QString::fromLocal8Bit(path)));
    if (answers(reinterpret_cast<const sockaddr*>(&endpoint.address), endpoint.length))
        throw VException(QStringLiteral("Another listener is on %1").arg(QString::fromLocal8Bit(path)));
    unlink(path.constData());
}

} // namespace

VSocketServer::VSocketServer(const QString& connectionString, long group)
{
    const Endpoint endpoint = parse(connectionString);
    if (endpoint.family != AF_UNIX && !isLoopback(endpoint))
        throw VException(QStringLiteral("Statistics are taken on loopback only, not on %1").arg(connectionString));
    if (endpoint.family == AF_UNIX)
        clearSocketPath(endpoint.unixPath.toLocal8Bit(), endpoint);
    m_fd = socket(endpoint.family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_fd < 0)
        throw VException(systemError("Cannot create a socket"));
    const int on = 1;
    setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    // Made for the owner alone, then opened to the group: no moment in
    // which anyone else may connect.
    const mode_t umaskBefore = endpoint.family == AF_UNIX ? umask(0177) : 0;
    const bool bound = bind(m_fd, reinterpret_cast<const sockaddr*>(&endpoint.address), endpoint.length) == 0;
    if (endpoint.family == AF_UNIX)
        umask(umaskBefore);
    if (!bound || listen(m_fd, 64) != 0) {
        const VException failure(systemError("Cannot listen"));
        close(m_fd);
        m_fd = -1;
        throw failure;
    }
    if (endpoint.family == AF_UNIX)
        listenOnPath(endpoint.unixPath, group);
}

void VSocketServer::listenOnPath(const QString& path, long group)
{
    const QByteArray bytes = path.toLocal8Bit();
    struct stat st;
    if (lstat(bytes.constData(), &st) == 0) {
        m_unixPath = path;
        m_socketDevice = st.st_dev;
        m_socketInode = st.st_ino;
    }
    if ((group >= 0 && chown(bytes.constData(), uid_t(-1), gid_t(group)) != 0) || chmod(bytes.constData(), 0660) != 0) {
        const VException failure(systemError(group >= 0 ? "Cannot give the socket to the workers' group"
                                                         : "Cannot set the socket's mode"));
        close(m_fd);
        m_fd = -1;
        unlink(bytes.constData());
        throw failure;
    }
}

VSocketServer::~VSocketServer()
{
    for (const Client& client : m_clients)
        close(client.fd);
    if (m_fd >= 0)
        close(m_fd);
    // Only the socket made here: whatever took its place since is left.
    const QByteArray path = m_unixPath.toLocal8Bit();
    struct stat st;
    if (!m_unixPath.isEmpty() && lstat(path.constData(), &st) == 0 && S_ISSOCK(st.st_mode)
        && st.st_dev == m_socketDevice && st.st_ino == m_socketInode)
        unlink(path.constData());
}

// Reads what the client sent and cuts the whole frames out of it. False
// when the connection is to go: closed, failed, or a frame too large.
bool VSocketServer::readFrom(Client& client, std::vector<QByteArray>& frames)
{
    char buffer[65536];
    const ssize_t n = read(client.fd, buffer, sizeof buffer);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR))
        return false;
    if (n > 0) {
        client.pending.append(buffer, int(n));
        m_buffered += n;
    }
    int used = 0;
    while (client.pending.size() - used >= 4) {
        const uchar* head = reinterpret_cast<const uchar*>(client.pending.constData()) + used;
        const quint32 length = (quint32(head[0]) << 24) | (quint32(head[1]) << 16) | (quint32(head[2]) << 8) | head[3];
        if (length > MaxFrameBytes)
            return false;
        if (quint32(client.pending.size() - used - 4) < length)
            break;
        frames.push_back(client.pending.mid(used + 4, int(length)));
        used += int(length) + 4;
    }
    client.pending.remove(0, used);
    m_buffered -= used;
    return true;
}

void VSocketServer::dropGreediest()
{
    auto greediest = std::max_element(m_clients.begin(), m_clients.end(), [](const Client& a, const Client& b) {
        return a.pending.size() < b.pending.size();
    });
    m_buffered -= greediest->pending.size();
    close(greediest->fd);
    m_clients.erase(greediest);
}

void VSocketServer::acceptWaiting()
{
    while (m_clients.size() < MaxClients) {
        const int fd = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            m_clients.push_back({fd, QByteArray()});
            continue;
        }
        // Out of descriptors the waiting connection stays waiting, and the
        // socket keeps saying so: accepting rests instead of spinning.
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
            m_acceptPausedUntilMs = nowMs() + AcceptPauseMs;
        if (errno != EINTR)
            return;
    }
}

std::vector<QByteArray> VSocketServer::poll(int timeoutMs)
{
    const qint64 now = nowMs();
    const bool accepting = m_clients.size() < MaxClients && now >= m_acceptPausedUntilMs;
    if (!accepting && m_clients.size() < MaxClients && (timeoutMs < 0 || m_acceptPausedUntilMs - now < timeoutMs))
        timeoutMs = int(m_acceptPausedUntilMs - now);
    // Left out of the set while not accepting; -1 is passed over by poll.
    std::vector<pollfd> fds{{accepting ? m_fd : -1, POLLIN, 0}};
    for (const Client& client : m_clients)
        fds.push_back({client.fd, POLLIN, 0});
    std::vector<QByteArray> frames;
    if (::poll(fds.data(), nfds_t(fds.size()), timeoutMs) <= 0)
        return frames;

    size_t kept = 0;
    for (size_t i = 0; i < m_clients.size(); ++i) {
        Client& client = m_clients[i];
        if (fds[i + 1].revents && !readFrom(client, frames)) {
            m_buffered -= client.pending.size();
            close(client.fd);
            continue;
        }
        if (kept != i)
            m_clients[kept] = std::move(client);
        ++kept;
    }
    m_clients.resize(kept);
    while (m_buffered > MaxBufferedBytes && !m_clients.empty())
        dropGreediest();
    if (fds[0].revents & POLLIN)
        acceptWaiting();
    return frames;
}
