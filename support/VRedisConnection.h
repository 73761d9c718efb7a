#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

struct redisContext;
struct redisReply;

// Where the farm's Redis is: "redis://[:password@]host[:port][/db]".
struct VRedisAddress
{
    QByteArray host;
    int port = 6379;
    int db = 0;
    QByteArray password;

    // False, with the reason in `error`, for anything but such a URL.
    static bool parse(const QByteArray& url, VRedisAddress* address, QString* error);
};

// One reply, copied out of hiredis so that no caller sees its types.
struct VRedisReply
{
    enum Type { Nil, Status, Error, Integer, String, Array };
    Type type = Nil;
    qint64 integer = 0;
    QByteArray text;
    QList<VRedisReply> elements;

    bool isError() const { return type == Error; }
    // The element at `i`, or a nil reply when there is none.
    const VRedisReply& at(int i) const;
};

// A connection to Redis on which every wait is bounded: the connect by
// `connectMs`, each command's reply by the command timeout. Failures throw
// VException; a reply of type Error is an answer, not a failure.
class VRedisConnection
{
public:
    VRedisConnection(const VRedisAddress& address, int connectMs, int commandMs);
    ~VRedisConnection();
    VRedisConnection(const VRedisConnection&) = delete;
    VRedisConnection& operator=(const VRedisConnection&) = delete;

    VRedisReply command(const QList<QByteArray>& args);
    // For a blocking read that waits longer than ordinary commands.
    void setCommandTimeout(int ms);
    // After a failure the connection can't be used again.
    bool broken() const { return m_broken; }

private:
    void open(const VRedisAddress& address, int connectMs, int commandMs);
    [[noreturn]] void fail(const QByteArray& what);

    redisContext* m_context = nullptr;
    QByteArray m_where;
    bool m_broken = false;
};
