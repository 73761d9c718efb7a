#include "VRedisConnection.h"

#include "VException.h"

#include <QUrl>
#include <arpa/inet.h>
#include <hiredis/hiredis.h>
#include <netdb.h>
#include <sys/time.h>
#include <vector>

namespace {

struct timeval milliseconds(int ms)
{
    return {ms / 1000, (ms % 1000) * 1000};
}

VRedisReply copyOf(const redisReply* reply)
{
    VRedisReply copy;
    switch (reply->type) {
    case REDIS_REPLY_STATUS:
        copy.type = VRedisReply::Status;
        break;
    case REDIS_REPLY_ERROR:
        copy.type = VRedisReply::Error;
        break;
    case REDIS_REPLY_INTEGER:
        copy.type = VRedisReply::Integer;
        copy.integer = reply->integer;
        return copy;
    case REDIS_REPLY_STRING:
        copy.type = VRedisReply::String;
        break;
    case REDIS_REPLY_ARRAY:
        copy.type = VRedisReply::Array;
        for (size_t i = 0; i < reply->elements; ++i)
            copy.elements << copyOf(reply->element[i]);
        return copy;
    default:
        return copy;
    }
    copy.text = QByteArray(reply->str, int(reply->len));
    return copy;
}

// The numeric address of `host`, looked up within `ms`: hiredis looks a
// name up with a call that no timeout bounds, and a worker connects on the
// request that queues a removal. Empty, with the reason in `error`, when
// the lookup fails or takes longer.
QByteArray numericHost(const QByteArray& host, int ms, QByteArray* error)
{
    unsigned char scratch[sizeof(struct in6_addr)];
    if (inet_pton(AF_INET, host.constData(), scratch) == 1 || inet_pton(AF_INET6, host.constData(), scratch) == 1)
        return host;
    // Lives as long as the lookup: one that can't be cancelled in time
    // still writes into it, so it is left to it then.
    struct Lookup
    {
        QByteArray name;
        struct addrinfo hints;
        struct gaicb request;
    };
    Lookup* lookup = new Lookup{host, {}, {}};
    lookup->hints.ai_socktype = SOCK_STREAM;
    lookup->request.ar_name = lookup->name.constData();
    lookup->request.ar_request = &lookup->hints;
    struct gaicb* list[] = {&lookup->request};
    int status = getaddrinfo_a(GAI_NOWAIT, list, 1, nullptr);
    if (status == 0) {
        const struct timespec limit = {ms / 1000, long(ms % 1000) * 1000000};
        gai_suspend(list, 1, &limit);
        status = gai_error(&lookup->request);
        if (status == EAI_INPROGRESS && gai_cancel(&lookup->request) != EAI_CANCELED) {
            *error = "looking up " + host + " took longer than " + QByteArray::number(ms) + " ms";
            return QByteArray();
        }
    }
    char text[INET6_ADDRSTRLEN] = {};
    struct addrinfo* found = status == 0 ? lookup->request.ar_result : nullptr;
    if (!found || getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) != 0)
        *error = "cannot look up " + host + ": " + (status == EAI_INPROGRESS ? QByteArray("too slow") : QByteArray(gai_strerror(status)));
    if (found)
        freeaddrinfo(found);
    delete lookup;
    return error->isEmpty() ? QByteArray(text) : QByteArray();
}

} // namespace

bool VRedisAddress::parse(const QByteArray& url, VRedisAddress* address, QString* error)
{
    const QUrl parsed(QString::fromUtf8(url), QUrl::StrictMode);
    if (!parsed.isValid() || parsed.scheme() != QLatin1String("redis") || parsed.host().isEmpty()) {
        *error = QStringLiteral("not a redis://host:port/db URL: %1").arg(QString::fromUtf8(url));
        return false;
    }
    address->host = parsed.host().toUtf8();
    address->port = parsed.port(6379);
    address->password = parsed.password().toUtf8();
    const QString db = parsed.path().mid(1);
    bool ok = true;
    address->db = db.isEmpty() ? 0 : db.toInt(&ok);
    if (!ok || address->db < 0) {
        *error = QStringLiteral("not a database number in %1").arg(QString::fromUtf8(url));
        return false;
    }
    return true;
}

const VRedisReply& VRedisReply::at(int i) const
{
    static const VRedisReply nil;
    return i >= 0 && i < elements.size() ? elements.at(i) : nil;
}

VRedisConnection::VRedisConnection(const VRedisAddress& address, int connectMs, int commandMs)
    : m_where(address.host + ':' + QByteArray::number(address.port))
{
    // A constructor that throws gets no destructor: the context goes here.
    try {
        open(address, connectMs, commandMs);
    } catch (...) {
        if (m_context)
            redisFree(m_context);
        m_context = nullptr;
        throw;
    }
}

void VRedisConnection::open(const VRedisAddress& address, int connectMs, int commandMs)
{
    QByteArray error;
    const QByteArray numeric = numericHost(address.host, connectMs, &error);
    if (numeric.isEmpty())
        fail(error);
    m_context = redisConnectWithTimeout(numeric.constData(), address.port, milliseconds(connectMs));
    if (!m_context || m_context->err)
        fail("cannot connect");
    setCommandTimeout(commandMs);
    if (!address.password.isEmpty()) {
        const VRedisReply reply = command({"AUTH", address.password});
        if (reply.isError())
            fail(QByteArray("AUTH refused: ") + reply.text);
    }
    if (address.db != 0) {
        const VRedisReply reply = command({"SELECT", QByteArray::number(address.db)});
        if (reply.isError())
            fail(QByteArray("SELECT refused: ") + reply.text);
    }
}

VRedisConnection::~VRedisConnection()
{
    if (m_context)
        redisFree(m_context);
}

void VRedisConnection::setCommandTimeout(int ms)
{
    if (redisSetTimeout(m_context, milliseconds(ms)) != REDIS_OK)
        fail("cannot set a timeout");
}

void VRedisConnection::fail(const QByteArray& what)
{
    m_broken = true;
    QByteArray reason = what;
    if (m_context && m_context->err)
        reason += ": " + QByteArray(m_context->errstr);
    throw VException(QStringLiteral("Redis at %1: %2").arg(QString::fromUtf8(m_where), QString::fromUtf8(reason)));
}

VRedisReply VRedisConnection::command(const QList<QByteArray>& args)
{
    if (m_broken)
        fail("connection lost before");
    std::vector<const char*> argv;
    std::vector<size_t> lengths;
    for (const QByteArray& arg : args) {
        argv.push_back(arg.constData());
        lengths.push_back(size_t(arg.size()));
    }
    redisReply* reply = static_cast<redisReply*>(
        redisCommandArgv(m_context, int(argv.size()), argv.data(), lengths.data()));
    if (!reply)
        fail(args.value(0) + " failed");
    const VRedisReply copy = copyOf(reply);
    freeReplyObject(reply);
    return copy;
}
