// The farm's task queue on a real redis-server: tasks go on the stream,
// every wait is bounded, and a consumer gets again what it never
// acknowledged.

#include "RedisTestSupport.h"

#include "TKDTaskInserter.h"
#include "TKDTaskStream.h"
#include "VException.h"

#include <QElapsedTimer>

namespace {

// The milliseconds addTask takes to give up on `url`; it must throw.
qint64 failureTime(const QByteArray& url)
{
    TKDTaskInserter::setClusterQueue(url);
    VeskServerInfo info;
    QElapsedTimer clock;
    clock.start();
    EXPECT_THROW(TKDTaskInserter::addTask(tkd::PAGECACHE_REMOVE_ALL, true, info, QStringLiteral("[]"),
                                          VDebug::DEVNULL),
                 VException);
    return clock.elapsed();
}

class ClusterQueue : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(redis.start());
        TKDTaskInserter::setClusterQueue(redis.url());
        info.setServerNumber(3);
    }
    void TearDown() override { TKDTaskInserter::setClusterQueue(QByteArray()); }

    void add(const QString& payload, bool otherNodesOnly = true)
    {
        TKDTaskInserter::addTask(tkd::PAGECACHE_REMOVE_BY_RULE, otherNodesOnly, info, payload, VDebug::DEVNULL);
    }

    VRedisReply command(const QList<QByteArray>& args)
    {
        VRedisConnection connection(redis.address(), 1000, 1000);
        return connection.command(args);
    }

    RedisServer redis;
    VeskServerInfo info;
};

} // namespace

TEST_F(ClusterQueue, ATaskIsOneEntryOfTheStream)
{
    add(QStringLiteral("[\"page_cache_remove_cached_contents_by_rule\",\"Pagès\"]"));
    const VRedisReply entries = command({"XRANGE", TKDTaskStream::Key, "-", "+"});
    ASSERT_EQ(1, entries.elements.size());
    TKDTaskConsumer consumer(redis.url(), "node-1");
    consumer.connect();
    // A new group starts at the stream's end: the task above is not its.
    EXPECT_TRUE(consumer.next(0).isEmpty());
    add(QStringLiteral("[\"page_cache_remove_cached_contents_by_rule\",\"Pagès\"]"), false);
    const QList<TKDTask> tasks = consumer.next(0);
    ASSERT_EQ(1, tasks.size());
    EXPECT_EQ(int(tkd::PAGECACHE_REMOVE_BY_RULE), tasks[0].type);
    EXPECT_EQ(QByteArray("[\"page_cache_remove_cached_contents_by_rule\",\"Pagès\"]"), tasks[0].payload);
    EXPECT_EQ(3, tasks[0].node);
    EXPECT_FALSE(tasks[0].otherNodesOnly);
    EXPECT_NEAR(QDateTime::currentSecsSinceEpoch(), tasks[0].time, 5);
}

TEST_F(ClusterQueue, TheStreamKeepsABoundedNumberOfTasks)
{
    for (int i = 0; i < TKDTaskStream::MaxLength + 500; ++i)
        add(QStringLiteral("[\"page_cache_remove_all_cached_contents\"]"));
    const qint64 length = command({"XLEN", TKDTaskStream::Key}).integer;
    // Trimming is approximate: Redis drops whole nodes of up to 100 entries.
    EXPECT_LE(length, TKDTaskStream::MaxLength + 100);
    EXPECT_GE(length, TKDTaskStream::MaxLength);
}

TEST_F(ClusterQueue, ARestartedRedisIsReachedAgainByTheNextTask)
{
    add(QStringLiteral("[]"));
    const int port = redis.port;
    // A connection kept from before a restart is replaced by the same task.
    redis.stop();
    ASSERT_TRUE(redis.start(port));
    QElapsedTimer clock;
    clock.start();
    add(QStringLiteral("[]"));
    EXPECT_LT(clock.elapsed(), TKDTaskInserter::TimeoutMs);
    EXPECT_EQ(1, command({"XLEN", TKDTaskStream::Key}).integer);
    // While Redis is away a task fails; once back, the next one goes.
    redis.stop();
    EXPECT_THROW(add(QStringLiteral("[]")), VException);
    ASSERT_TRUE(redis.start(port));
    add(QStringLiteral("[]"));
    EXPECT_EQ(1, command({"XLEN", TKDTaskStream::Key}).integer);
}

TEST(ClusterQueueDown, NothingListeningThrowsAtOnce)
{
    EXPECT_LT(failureTime("redis://127.0.0.1:" + QByteArray::number(freePort()) + "/0"),
              TKDTaskInserter::TimeoutMs);
    TKDTaskInserter::setClusterQueue(QByteArray());
}

TEST(ClusterQueueDown, AServerThatNeverAnswersThrowsWithinTheLimit)
{
    // A listening socket that nobody accepts from: the kernel completes the
    // connect, and no reply ever comes.
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, listen(fd, 16));
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    const qint64 elapsed = failureTime("redis://127.0.0.1:" + QByteArray::number(ntohs(address.sin_port)) + "/0");
    close(fd);
    TKDTaskInserter::setClusterQueue(QByteArray());
    EXPECT_GE(elapsed, TKDTaskInserter::TimeoutMs - 10);
    EXPECT_LT(elapsed, TKDTaskInserter::TimeoutMs + 50);
}

TEST_F(ClusterQueue, WhatWasNeverAcknowledgedComesAgainFirst)
{
    TKDTaskConsumer consumer(redis.url(), "node-2");
    consumer.connect();
    add(QStringLiteral("[\"one\"]"));
    add(QStringLiteral("[\"two\"]"));
    QList<TKDTask> tasks = consumer.next(0);
    ASSERT_EQ(2, tasks.size());
    consumer.acknowledge(tasks[0].id);
    // The consumer ends before the second is done; its successor gets it.
    TKDTaskConsumer successor(redis.url(), "node-2");
    successor.connect();
    add(QStringLiteral("[\"three\"]"));
    tasks = successor.next(0);
    ASSERT_EQ(1, tasks.size());
    EXPECT_EQ(QByteArray("[\"two\"]"), tasks[0].payload);
    successor.acknowledge(tasks[0].id);
    tasks = successor.next(100);
    ASSERT_EQ(1, tasks.size());
    EXPECT_EQ(QByteArray("[\"three\"]"), tasks[0].payload);
    successor.acknowledge(tasks[0].id);
    const TKDQueuePosition position = TKDTaskConsumer::position(redis.url(), "node-2");
    EXPECT_TRUE(position.groupExists);
    EXPECT_EQ(0, position.pending);
    EXPECT_EQ(0, position.lag);
    EXPECT_EQ(tasks[0].id, position.lastDelivered);
    EXPECT_EQ(3, position.length);
}

TEST_F(ClusterQueue, ABlockingReadEndsAsSoonAsATaskComes)
{
    TKDTaskConsumer consumer(redis.url(), "node-4");
    consumer.connect();
    EXPECT_TRUE(consumer.next(0).isEmpty());
    pid_t child = fork();
    if (child == 0) {
        QThread::msleep(200);
        VRedisConnection connection(redis.address(), 1000, 1000);
        connection.command({"XADD", TKDTaskStream::Key, "*", "type", "76", "payload", "[]"});
        _exit(0);
    }
    QElapsedTimer clock;
    clock.start();
    const QList<TKDTask> tasks = consumer.next(5000);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(1, tasks.size());
    EXPECT_LT(clock.elapsed(), 2000);
}
