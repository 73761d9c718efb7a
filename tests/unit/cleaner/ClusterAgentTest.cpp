// The removals as tasks: their payloads, and a node's agent carrying them
// out from a real redis-server's stream on its own store.

#include "../rules/RulesTestSupport.h"
#include "../support/RedisTestSupport.h"

#include "TKDTaskInserter.h"
#include "VCacheRemoval.h"
#include "VClusterAgent.h"
#include "VDiskStorage.h"
#include "VHTMLCache.h"
#include "VMD5.h"

namespace {

TEST(CacheRemovalPayload, TheFunctionsNameThenItsArgumentsInJson)
{
    const std::pair<VCacheRemoval, const char*> cases[] = {
        {VCacheRemoval::byPattern("http://h/(a|b)"), R"j(["page_cache_remove_cached_contents","http://h/(a|b)"])j"},
        {VCacheRemoval::byUri("Home", "/p?x=1"), R"j(["page_cache_remove_cached_contents_by_uri","Home","/p?x=1"])j"},
        {VCacheRemoval::byRuleIds({1, 12}), R"j(["page_cache_remove_cached_contents_by_rules_ids",1,12])j"},
        {VCacheRemoval::byRuleIds({}), R"j(["page_cache_remove_cached_contents_by_rules_ids"])j"},
        {VCacheRemoval::all(), R"j(["page_cache_remove_all_cached_contents"])j"}};
    for (const auto& c : cases)
        EXPECT_EQ(QString::fromUtf8(c.second), c.first.payload());
}

TEST(CacheRemovalPayload, AQuoteInAnArgumentStaysInsideIt)
{
    const VCacheRemoval sent = VCacheRemoval::byUri("Pagès", "/p?a=\"],[\"x\\");
    VCacheRemoval read;
    QString error;
    ASSERT_TRUE(VCacheRemoval::fromPayload(sent.payload().toUtf8(), &read, &error)) << error.toStdString();
    EXPECT_EQ(VCacheRemoval::ByUri, read.kind());
    EXPECT_EQ(sent.payload(), read.payload());
}

TEST(CacheRemovalPayload, AnythingButARemovalIsRefused)
{
    VCacheRemoval read;
    QString error;
    for (const char* payload : {"", "[", "{}", "[]", "[\"system\",\"rm\"]", "[\"page_cache_remove_cached_contents\"]",
                                "[\"page_cache_remove_cached_contents_by_rules_ids\",\"7\"]",
                                "[\"page_cache_remove_cached_contents_by_rules_ids\",0]",
                                "[\"page_cache_purge\",\"x\"]"}) {
        EXPECT_FALSE(VCacheRemoval::fromPayload(payload, &read, &error)) << payload;
        EXPECT_FALSE(error.isEmpty());
    }
}

const QByteArray Rules = R"xml(
  <url schema="http" host="h" path="one" id="1"><name>first</name>
    <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by></url>
  <url schema="http" host="h" path="(a|b)" id="2" match_type="regex_match"><name>second</name>
    <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by></url>)xml";

class ClusterAgent : public RulesFixture
{
protected:
    void SetUp() override
    {
        RulesFixture::SetUp();
        ASSERT_TRUE(redis.start());
        const QString rules = writeRulesFile(Rules);
        where.savePath = QFile::encodeName(dir.filePath(QStringLiteral("store")));
        where.dirDepth = 1;
        where.rulesFile = QFile::encodeName(rules);
        VHTMLCache::destroyInstance();
        cache = VHTMLCache::instance();
        ASSERT_TRUE(cache->load(where.savePath.constData(), 1, where.rulesFile.constData(), 100));
        TKDTaskInserter::setClusterQueue(redis.url());
        agent.reset(new VClusterAgent(redis.url(), 2, where));
        // The group starts at the stream's end: joined before any task.
        ASSERT_TRUE(agent->waitForTasks(0));
    }
    void TearDown() override
    {
        agent.reset();
        TKDTaskInserter::setClusterQueue(QByteArray());
        cache->shutdown();
        VHTMLCache::destroyInstance();
        RulesFixture::TearDown();
    }

    // A page of the rule with URL pattern `pattern`, requested as `uri`.
    void store(const QByteArray& pattern, const QByteArray& uri)
    {
        QLinkedList<QByteArray> headers;
        ASSERT_TRUE(cache->storeOutput(VMD5::hash("http://h/" + pattern), VMD5::hash("_SERVER" + uri),
                                       "http://h:80" + uri, "body", 4, 200, headers, 300, false, false));
    }
    bool stored(const QByteArray& pattern, const QByteArray& uri)
    {
        return cache->entryExists(VMD5::hash("http://h/" + pattern), VMD5::hash("_SERVER" + uri), false);
    }
    void queue(const VCacheRemoval& removal, qint64 fromNode = 1, bool otherNodesOnly = true)
    {
        VeskServerInfo info;
        info.setServerNumber(int(fromNode));
        TKDTaskInserter::addTask(removal.taskType(), otherNodesOnly, info, removal.payload(), VDebug::DEVNULL);
    }
    TKDQueuePosition position()
    {
        return TKDTaskConsumer::position(redis.url(), agent->group());
    }

    RedisServer redis;
    VClusterAgent::Store where;
    VHTMLCache* cache = nullptr;
    std::unique_ptr<VClusterAgent> agent;
};

} // namespace

TEST_F(ClusterAgent, EachRemovalOfAnotherNodeIsCarriedOutHere)
{
    const QList<VCacheRemoval> removals = {
        VCacheRemoval::byPattern("http://h/(a|b)"), VCacheRemoval::byUri("second", "/a"),
        VCacheRemoval::byRule("second"),            VCacheRemoval::byRuleIds({1, 2}),
        VCacheRemoval::all(),
    };
    for (const VCacheRemoval& removal : removals) {
        SCOPED_TRACE(removal.payload().toStdString());
        store("(?:a|b)", "/a");
        store("one", "/one");
        queue(removal);
        ASSERT_TRUE(agent->waitForTasks(1000));
        EXPECT_FALSE(stored("(?:a|b)", "/a"));
        // Only the pattern, the rule and the URI named go.
        EXPECT_EQ(removal.kind() == VCacheRemoval::ByRuleIds || removal.kind() == VCacheRemoval::All,
                  !stored("one", "/one"));
    }
    EXPECT_EQ(0, position().pending);
    EXPECT_EQ(0, position().lag);
}

TEST_F(ClusterAgent, ThisNodesTasksForTheOthersArePassedOver)
{
    store("one", "/one");
    queue(VCacheRemoval::all(), 2, true);
    ASSERT_TRUE(agent->waitForTasks(1000));
    EXPECT_TRUE(stored("one", "/one"));
    queue(VCacheRemoval::all(), 2, false);
    ASSERT_TRUE(agent->waitForTasks(1000));
    EXPECT_FALSE(stored("one", "/one"));
    EXPECT_EQ(0, position().pending);
}

TEST_F(ClusterAgent, ATaskThatCantBeCarriedOutIsLoggedAndDone)
{
    store("one", "/one");
    VeskServerInfo info;
    TKDTaskInserter::addTask(tkd::PAGECACHE_REMOVE_ALL, true, info, QStringLiteral("[\"page_cache_remove"),
                             VDebug::DEVNULL);
    queue(VCacheRemoval::byRule("first"));
    ASSERT_TRUE(agent->waitForTasks(1000));
    EXPECT_TRUE(log().contains("can't be carried out"));
    EXPECT_FALSE(stored("one", "/one"));
    EXPECT_EQ(0, position().pending);
}

TEST_F(ClusterAgent, AnAgentThatEndedMidwayCarriesOutWhatItLeft)
{
    store("one", "/one");
    queue(VCacheRemoval::byRule("first"));
    // Handed out, never acknowledged: the agent ended before.
    TKDTaskConsumer ended(redis.url(), agent->group());
    ended.connect();
    ASSERT_EQ(1, ended.next(0).size());
    EXPECT_EQ(1, position().pending);
    agent.reset(new VClusterAgent(redis.url(), 2, where));
    ASSERT_TRUE(agent->waitForTasks(100));
    EXPECT_FALSE(stored("one", "/one"));
    EXPECT_EQ(0, position().pending);
}

TEST_F(ClusterAgent, APurgeRemovesThePagesOfItsUrlOrOlderThanItsTime)
{
    store("one", "/one");
    store("(?:a|b)", "/a");
    store("(?:a|b)", "/b");
    // The default port is the same URL.
    queue(VCacheRemoval::purge(QStringLiteral("http://h/a"), QDateTime(), QString()), 1, false);
    ASSERT_TRUE(agent->waitForTasks(1000));
    EXPECT_FALSE(stored("(?:a|b)", "/a"));
    EXPECT_TRUE(stored("(?:a|b)", "/b"));
    queue(VCacheRemoval::purge(QString(), QDateTime::currentDateTimeUtc().addSecs(-3600), QString()), 1, false);
    ASSERT_TRUE(agent->waitForTasks(1000));
    EXPECT_TRUE(stored("(?:a|b)", "/b"));
    queue(VCacheRemoval::purge(QString(), QDateTime::currentDateTimeUtc().addSecs(5), QString()), 1, false);
    ASSERT_TRUE(agent->waitForTasks(1000));
    EXPECT_FALSE(stored("(?:a|b)", "/b"));
    EXPECT_FALSE(stored("one", "/one"));
}

TEST_F(ClusterAgent, WithoutRedisTheAgentSaysSoOnceAndComesBack)
{
    const int port = redis.port;
    redis.stop();
    EXPECT_FALSE(agent->waitForTasks(100));
    EXPECT_FALSE(agent->waitForTasks(100));
    EXPECT_EQ(1, log().count("cannot reach the task queue") + log().count("lost the task queue"));
    ASSERT_TRUE(redis.start(port));
    EXPECT_TRUE(agent->waitForTasks(0));
    store("one", "/one");
    queue(VCacheRemoval::all());
    ASSERT_TRUE(agent->waitForTasks(1000));
    EXPECT_FALSE(stored("one", "/one"));
}

TEST_F(ClusterAgent, ARuleAddedSinceTheAgentStartedIsKnownToIt)
{
    QFile file(QString::fromLocal8Bit(where.rulesFile));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(rulesXml(Rules + R"xml(
      <url schema="http" host="h" path="three" id="3"><name>third</name>
        <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by></url>)xml"));
    file.close();
    // A date the old file's can't have, whatever the file system's grain.
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    ASSERT_TRUE(file.setFileTime(QDateTime::currentDateTime().addSecs(10), QFileDevice::FileModificationTime));
    file.close();
    store("three", "/three");
    queue(VCacheRemoval::byRule("third"));
    ASSERT_TRUE(agent->waitForTasks(1000));
    EXPECT_FALSE(stored("three", "/three"));
}

TEST_F(ClusterAgent, ATaskThatKeepsEndingItsAgentIsGivenUp)
{
    store("one", "/one");
    queue(VCacheRemoval::byRule("first"));
    // Three agents in turn are handed the task and end before they finish.
    for (int run = 1; run <= VClusterAgent::MaxDeliveries; ++run) {
        TKDTaskConsumer ended(redis.url(), agent->group());
        ended.connect();
        const QList<TKDTask> tasks = ended.next(0);
        ASSERT_EQ(1, tasks.size());
        EXPECT_EQ(run, tasks[0].deliveries);
    }
    agent.reset(new VClusterAgent(redis.url(), 2, where));
    ASSERT_TRUE(agent->waitForTasks(100));
    EXPECT_TRUE(log().contains("given up after 3 attempts"));
    EXPECT_TRUE(stored("one", "/one"));
    EXPECT_EQ(0, position().pending);
}

TEST_F(ClusterAgent, ANodeAwayLongerThanTheStreamKeepsTasksRemovesEveryPage)
{
    store("one", "/one");
    agent.reset();
    // More tasks than the stream keeps, none of which touches the page: the
    // first ones leave the stream unread by this node.
    for (int i = 0; i < TKDTaskStream::MaxLength + 300; ++i)
        queue(VCacheRemoval::byRule("nobody"));
    agent.reset(new VClusterAgent(redis.url(), 2, where));
    ASSERT_TRUE(agent->waitForTasks(0));
    EXPECT_TRUE(log().contains("missed tasks the queue no longer holds"));
    EXPECT_FALSE(stored("one", "/one"));
    EXPECT_EQ(0, position().lag);
    EXPECT_FALSE(position().missedTasks());
    // Back in step, the agent carries out what comes as before.
    store("one", "/one");
    queue(VCacheRemoval::byRule("second"));
    ASSERT_TRUE(agent->waitForTasks(1000));
    EXPECT_TRUE(stored("one", "/one"));
}

TEST_F(ClusterAgent, ANodeAwayForLessThanTheStreamKeepsMissesNothing)
{
    store("one", "/one");
    agent.reset();
    for (int i = 0; i < 300; ++i)
        queue(VCacheRemoval::byRule("nobody"));
    agent.reset(new VClusterAgent(redis.url(), 2, where));
    ASSERT_TRUE(agent->waitForTasks(0));
    EXPECT_FALSE(log().contains("missed tasks"));
    EXPECT_TRUE(stored("one", "/one"));
}
