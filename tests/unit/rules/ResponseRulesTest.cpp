#include "RulesTestSupport.h"

namespace {

using Headers = QLinkedList<QByteArray>;

class ResponseRulesTest : public RulesFixture
{
};

TEST_F(ResponseRulesTest, WithoutARuleOnly200IsGood)
{
    ParsedRules rules(rulesXml(""));
    EXPECT_TRUE(rules.isStatusCacheable(200, -1));
    EXPECT_TRUE(log().contains("Rule not found - considering status 200 as OK"));
    EXPECT_FALSE(rules.isStatusCacheable(404, 5));
    EXPECT_FALSE(rules.isStatusCacheable(301, -1));
    EXPECT_FALSE(rules.isStatusCacheable(0, -1));
    EXPECT_TRUE(log().contains("Rule not found - considering status 0 as rejection"));
    EXPECT_TRUE(rules.areHeadersCacheable(Headers{"Set-Cookie: a=1"}, -1));

    // Before any load there is no table at all.
    VRuleMatcher unloaded;
    EXPECT_TRUE(unloaded.isStatusCacheable(200, 3));
    EXPECT_TRUE(unloaded.areHeadersCacheable(Headers{"X: 1"}, 3));
}

TEST_F(ResponseRulesTest, CodeLists)
{
    ParsedRules rules(rulesXml(R"(
      <response_rule app_id="1" response_codes="200, 404"/>
      <response_rule app_id="2" response_codes="2XX"/>
      <response_rule app_id="3" response_codes=",,"/>
      <response_rule app_id="4" response_codes="30x"/>)"));
    EXPECT_TRUE(rules.isStatusCacheable(200, 1));
    EXPECT_TRUE(rules.isStatusCacheable(404, 1));
    EXPECT_FALSE(rules.isStatusCacheable(301, 1));
    EXPECT_TRUE(log().contains("Rejected for cache - by response code rule"));
    EXPECT_TRUE(log().contains("Checking if the request with response code 301 should be cached. App id 1"));
    EXPECT_TRUE(rules.isStatusCacheable(201, 2));
    EXPECT_FALSE(rules.isStatusCacheable(201, 3));
    EXPECT_TRUE(rules.isStatusCacheable(200, 3));
    EXPECT_TRUE(rules.isStatusCacheable(309, 4));
    EXPECT_FALSE(rules.isStatusCacheable(310, 4));
    // The global rule counts only for application -1.
    EXPECT_FALSE(rules.isStatusCacheable(404, 9));
}

TEST_F(ResponseRulesTest, HeaderChecks)
{
    ParsedRules rules(rulesXml(R"(
      <response_rule app_id="1" response_codes="200"><response_headers>
        <header name=" Set-Cookie " match_type="exists"/></response_headers></response_rule>
      <response_rule app_id="2" response_codes=""><response_headers>
        <header name="Set-Cookie" match_type="exists"/></response_headers></response_rule>
      <response_rule app_id="3" response_codes="200"><response_headers>
        <header name="Content-Type" match_type="not_equals" value=" text/html "/></response_headers></response_rule>
      <response_rule app_id="4" response_codes="200"><response_headers>
        <header name="Cache-Control" match_type="regex_match" value="no-(store|cache).*"/>
        <header name="X-Required" match_type="not_exists"/></response_headers></response_rule>)"));
    EXPECT_FALSE(rules.areHeadersCacheable(Headers{"Content-Type: text/html", "Set-Cookie: a=1"}, 1));
    EXPECT_TRUE(log().contains("Header check: Set-Cookie exists in response headers"));
    EXPECT_TRUE(log().contains("Cache REJECTED by app response headers rules"));
    // The start of the line is compared byte for byte.
    EXPECT_TRUE(rules.areHeadersCacheable(Headers{"set-cookie: a=1"}, 1));
    // Without a code list the checks never run.
    EXPECT_TRUE(rules.areHeadersCacheable(Headers{"Set-Cookie: a=1"}, 2));

    EXPECT_TRUE(rules.areHeadersCacheable(Headers{"X-Other: 1"}, 3));
    EXPECT_TRUE(rules.areHeadersCacheable(Headers{"Content-Type:  text/html "}, 3));
    EXPECT_FALSE(rules.areHeadersCacheable(Headers{"Content-Type: text/html", "Content-Type: text/plain"}, 3));
    EXPECT_TRUE(log().contains("Header check: Content-Type condition matches for value  text/plain"));
    EXPECT_TRUE(rules.areHeadersCacheable(Headers{"content-type: text/plain"}, 3));

    EXPECT_FALSE(rules.areHeadersCacheable(Headers{"X-Required: 1", "Cache-Control: no-store, private"}, 4));
    EXPECT_FALSE(rules.areHeadersCacheable(Headers{"Cache-Control: max-age=60"}, 4));
    EXPECT_TRUE(log().contains("Header check: X-Required does not exist in response headers"));
    EXPECT_TRUE(rules.areHeadersCacheable(Headers{"X-Required-Too: 1", "Cache-Control: max-age=60"}, 4));
    EXPECT_TRUE(log().contains("Header checks: OK for cache!"));
}

TEST_F(ResponseRulesTest, GlobalHeaderChecksApplyToApplications)
{
    ParsedRules rules(rulesXml(R"(
      <response_rule app_id="-1" response_codes="200"><response_headers>
        <header name="Set-Cookie" match_type="exists"/></response_headers></response_rule>
      <response_rule app_id="5" response_codes="200"/>
      <response_rule app_id="5" response_codes="200,301"/>)"));
    // The second rule of application 5 replaced the first.
    EXPECT_TRUE(rules.isStatusCacheable(301, 5));
    EXPECT_FALSE(rules.areHeadersCacheable(Headers{"Set-Cookie: s=1"}, 5));
    EXPECT_TRUE(log().contains("Cache REJECTED by global response headers rules"));
    EXPECT_FALSE(rules.areHeadersCacheable(Headers{"Set-Cookie: s=1"}, -1));
    // An application without a rule of its own isn't checked at all.
    EXPECT_TRUE(rules.areHeadersCacheable(Headers{"Set-Cookie: s=1"}, 6));
}

} // namespace
