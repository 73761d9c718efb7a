// What the stored page answers for a request, decided without the engine:
// the request comes from the fake host, the page from a real store.

#include "FakeHost.h"

#include "../rules/RulesTestSupport.h"

#include "ModuleState.h"
#include "PageCacheConfig.h"
#include "RequestPath.h"
#include "RequestState.h"

#include "CacheRule.h"
#include "VHTMLCache.h"
#include "VMD5.h"

#include <QDateTime>

namespace {

class RequestDecisionTest : public RulesFixture
{
protected:
    void SetUp() override
    {
        RulesFixture::SetUp();
        FakeHost::instance().reset();
        const QString rules = writeRulesFile(R"xml(
          <url schema="http" host="h" path="page" id="7" lifetime="600"><name> page </name>
            <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by></url>)xml");
        VHTMLCache::destroyInstance();
        cache = VHTMLCache::instance();
        ASSERT_TRUE(cache->load(QFile::encodeName(dir.filePath(QStringLiteral("store"))).constData(), 1,
                                QFile::encodeName(rules).constData(), 300, false, 100, false));
        moduleState.logStream = PageCacheLogStream;
        pageCacheConfig.pulse_enable = false;
        pageCacheConfig.compression_enable = true;
        host().serverVariables = {{"HTTP_HOST", "h"}, {"SERVER_PORT", "80"}, {"REQUEST_URI", "/page?x=1"}};
        source.present.insert("_SERVER");
        source.values["_SERVER[REQUEST_URI]"] = "/page?x=1";
        enterRequest();
    }
    void TearDown() override
    {
        requestState.rule = nullptr;
        VHTMLCache::destroyInstance();
        moduleState.logStream = 0;
        RulesFixture::TearDown();
    }
    FakeHost& host() { return FakeHost::instance(); }

    // The state the gate leaves for a request its rule allows.
    void enterRequest()
    {
        RequestState& r = requestState;
        r.url = RequestUrl::read();
        r.requestUrl = r.url.ruleUrl();
        r.rule = cache->getOrderedMatchingRuleForUrl(r.requestUrl);
        ASSERT_NE(nullptr, r.rule);
        r.ruleUrl = r.rule->url.toString();
        r.namespaceKey = VMD5::hash(r.ruleUrl);
        r.compressionAllowed = true;
        r.appId = -1;
    }
    void storePage(const QByteArray& body, int status = 200)
    {
        const RequestState& r = requestState;
        const QByteArray key = VMD5::hash(splitKey(r.rule->d->splitBlock));
        ASSERT_TRUE(cache->storeOutput(r.namespaceKey, key, "http://h:80/page?x=1", body.constData(), body.size(),
                                       status, QLinkedList<QByteArray>{"X-Page: stored"}, 600, true, false));
    }
    static QByteArray httpDate(const QDateTime& moment)
    {
        return moment.toUTC().toString(QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'")).toLatin1();
    }
    CacheAnswer decide(CacheLookup& lookup) { return lookUp(lookup, QStringLiteral("page"), 7); }

    VHTMLCache* cache = nullptr;
};

TEST_F(RequestDecisionTest, NoStoredPageIsAMiss)
{
    CacheLookup lookup;
    EXPECT_EQ(CacheAnswer::Miss, decide(lookup));
    EXPECT_EQ(VMD5::hash(splitKey(requestState.rule->d->splitBlock)), requestState.matchKey);
    EXPECT_EQ(200, host().responseCode);
}

TEST_F(RequestDecisionTest, StoredPageIsServedClearWithoutGzipFromTheClient)
{
    storePage(QByteArray(2000, 'c'));
    CacheLookup lookup;
    ASSERT_EQ(CacheAnswer::Serve, decide(lookup));
    EXPECT_EQ(0, lookup.compressedHit);
    EXPECT_EQ(QByteArray(2000, 'c'), QByteArray(lookup.served.bodyData(), int(lookup.served.bodySize())));
    EXPECT_TRUE(lookup.served.headers().contains("X-Page: stored"));
}

TEST_F(RequestDecisionTest, GzipCopyGoesToAClientThatTakesIt)
{
    storePage(QByteArray(2000, 'c'));
    host().serverVariables["HTTP_ACCEPT_ENCODING"] = "gzip, deflate";
    CacheLookup lookup;
    ASSERT_EQ(CacheAnswer::Serve, decide(lookup));
    EXPECT_EQ(1, lookup.compressedHit);

    // Not where an output handler of the engine compresses again.
    host().outputCompressing = true;
    CacheLookup again;
    ASSERT_EQ(CacheAnswer::Serve, decide(again));
    EXPECT_EQ(0, again.compressedHit);
}

TEST_F(RequestDecisionTest, ConditionalRequestsAnswerWithoutABody)
{
    storePage("page");
    const QDateTime later = QDateTime::currentDateTimeUtc().addSecs(60);
    host().serverVariables["HTTP_IF_MODIFIED_SINCE"] = httpDate(later).toStdString();
    CacheLookup notModified;
    EXPECT_EQ(CacheAnswer::NotModified, decide(notModified));
    EXPECT_EQ(304, notModified.status);
    EXPECT_EQ(304, host().responseCode);
    EXPECT_EQ(200, notModified.previousCode);

    host().responseCode = 200;
    const QDateTime earlier = QDateTime::currentDateTimeUtc().addSecs(-3600);
    host().serverVariables["HTTP_IF_UNMODIFIED_SINCE"] = httpDate(earlier).toStdString();
    CacheLookup failed;
    EXPECT_EQ(CacheAnswer::NotModified, decide(failed));
    EXPECT_EQ(412, failed.status);
}

} // namespace
