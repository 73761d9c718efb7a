#include "PageCachePulse.h"
#include "VException.h"
#include "VPageCacheStatsMessage.h"
#include "VSocket.h"
#include "VStatsdClient.h"

#include <QDataStream>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <tuple>

namespace {

QSharedPointer<VPageCacheStatsMessage> message(qint32 type, qint64 value, qint64 rule = 7, const char* key = "k")
{
    QSharedPointer<VPageCacheStatsMessage> m(new VPageCacheStatsMessage);
    m->counterType = type;
    m->counterValue = value;
    m->ruleId = rule;
    m->key = key;
    m->ruleName = "Home page";
    m->appId = 2;
    m->serverNumber = 3;
    m->timestamp = 1700000000;
    return m;
}

VPageCacheStatsMessage decode(const QByteArray& payload)
{
    QDataStream stream(payload);
    stream.setVersion(VSocketBase::QDataStreamVersion);
    stream.setByteOrder(QDataStream::BigEndian);
    qint32 kind = 0;
    stream >> kind;
    EXPECT_EQ(VPageCacheStatsMessage::Kind, kind);
    VPageCacheStatsMessage m;
    m.readFrom(stream);
    EXPECT_EQ(QDataStream::Ok, stream.status());
    EXPECT_TRUE(stream.atEnd());
    return m;
}

TEST(VPageCacheStatsMessage, WireFormKeyMergeAndText)
{
    const QSharedPointer<VPageCacheStatsMessage> m = message(3, 120);
    const QByteArray frame = VSocketBase::frame(*m);
    // Length, kind, then the fields in their order.
    EXPECT_EQ(QByteArray::fromHex("0000003a" "00000001" "00000002" "00000003" "00000003" "0000000000000078"
                                  "00000009") + "Home page" + QByteArray::fromHex("0000000000000007" "00000001")
                  + "k" + QByteArray::fromHex("000000006553f100"),
              frame);
    const VPageCacheStatsMessage back = decode(frame.mid(4));
    EXPECT_EQ(QStringLiteral("3.7.k.2"), back.aggregationKey());
    EXPECT_EQ(m->toString(), back.toString());
    EXPECT_EQ(1700000000, back.timestamp);

    QSharedPointer<VPageCacheStatsMessage> a = message(1, 1), b = message(1, 1);
    a->merge(b);
    EXPECT_EQ(2, a->counterValue);
    EXPECT_EQ(1, b->counterValue);

    EXPECT_EQ(QStringLiteral("Page Cache Message: {CounterType: -1, CounterValue: 0, RuleName: , Key: , AppID: -1}"),
              VPageCacheStatsMessage().toString());

    VPageCacheStatsMessage copy;
    copy.assignFrom(m);
    EXPECT_EQ(m->toString(), copy.toString());
    EXPECT_EQ(7, copy.ruleId);
}

class StatsdClientTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        connection = QStringLiteral("unix:%1").arg(dir.filePath(QStringLiteral("statsd.sock")));
        client.setConnectionString(connection);
    }
    QTemporaryDir dir;
    QString connection;
    VStatsdClient client;
    VStatsdeAggregatorBase aggregator;
    VeskServerInfo info;
};

TEST_F(StatsdClientTest, NothingToSendOpensNoSocket)
{
    client.flush(aggregator, info, VDebug::DEVNULL);
    EXPECT_FALSE(client.isConnected());
}

TEST_F(StatsdClientTest, ADaemonThatNeverReadsIsNotWaitedFor)
{
    // Accepts nothing and reads nothing: the kernel's buffers fill up.
    VSocketServer silent(connection);
    VSocketClient socket;
    socket.connect(connection, VDebug::DEVNULL);
    VMessageList batch;
    QSharedPointer<VPageCacheStatsMessage> big = message(0, 1, 7, "");
    big->ruleName = QByteArray(64 * 1024, 'r');
    batch.assign(16, big); // 1 MiB, beyond what the kernel holds for a socket
    QElapsedTimer timer;
    timer.start();
    EXPECT_THROW(socket.writeMessages(batch), VException);
    // The write gives up once the buffers are full instead of waiting for
    // the daemon. The bound only catches a write that hangs, and holds on a
    // loaded machine; test_pulse catches a wait per request.
    EXPECT_LT(timer.elapsed(), 10 * VSocketBase::TimeoutMs);
}

TEST(VSocketClient, ConnectionStrings)
{
    VSocketClient socket;
    EXPECT_THROW(socket.connect(QString(), VDebug::DEVNULL), VException);
    EXPECT_THROW(socket.connect(QStringLiteral("udp://127.0.0.1:1"), VDebug::DEVNULL), VException);
    EXPECT_THROW(socket.connect(QStringLiteral("tcp://127.0.0.1"), VDebug::DEVNULL), VException);
    EXPECT_THROW(socket.connect(QStringLiteral("unix:/nonexistent/statsd.sock"), VDebug::DEVNULL), VException);

    EXPECT_EQ(0, VSocketServer(QStringLiteral("tcp://127.0.0.1:0")).connectionCount());
}

TEST(PageCachePulse, FactsOfARequest)
{
    QTemporaryDir dir;
    PageCachePulse* pulse = PageCachePulse::instance();
    // Before start-up nothing is gathered, nor when no daemon is configured.
    pulse->addPossible(1, QStringLiteral("r"));
    EXPECT_TRUE(pulse->statsdClient().messages().empty());
    VeskServerInfo info(QFile::encodeName(dir.path()).constData(), "nginx");
    pulse->initialize(info, QString());
    pulse->addPossible(1, QStringLiteral("r"));
    EXPECT_TRUE(pulse->statsdClient().messages().empty());

    pulse->initialize(info, QStringLiteral("unix:VESK_PREFIX/statsd.sock"));
    EXPECT_EQ(QStringLiteral("unix:%1/statsd.sock").arg(dir.path()), pulse->statsdClient().connectionString());
    pulse->reset(9);
    pulse->addTimeSaved(1, QStringLiteral("r"), QStringLiteral("key"));
    const auto saved = pulse->statsdClient().messages().at(0).staticCast<VPageCacheStatsMessage>();
    // A fast request saves under a millisecond.
    EXPECT_EQ(std::make_tuple(9, qint64(0), QByteArray("key")), std::make_tuple(saved->appId, saved->counterValue, saved->key));
    // An internal request keeps its facts to itself (what others send is seen end to end).
    pulse->sendMessages(true, nullptr);
    EXPECT_TRUE(pulse->statsdClient().messages().empty());
}

} // namespace
