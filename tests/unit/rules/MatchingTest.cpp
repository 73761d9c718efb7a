#include "RulesTestSupport.h"

namespace {

class MatchingTest : public RulesFixture
{
protected:
    QString nameFor(ParsedRules& rules, const QByteArray& url)
    {
        const CacheRule* rule = rules.getOrderedMatchingRuleForUrl(url);
        return rule ? rule->name : QStringLiteral("<none>");
    }
};

TEST_F(MatchingTest, NoRulesRemembersTheNegativeAnswer)
{
    ParsedRules rules(rulesXml(""));
    EXPECT_EQ(nullptr, rules.getOrderedMatchingRuleForUrl("http://h/a"));
    EXPECT_TRUE(log().contains("Explicit \"don't cache\" rule set for: http://h/a \n"));
    EXPECT_EQ(1, rules.cachedRules());
    clearLog();
    EXPECT_EQ(nullptr, rules.getOrderedMatchingRuleForUrl("http://h/a"));
    EXPECT_TRUE(log().contains("rule from rules cache found for: http://h/a \n"));
    EXPECT_FALSE(log().contains("Explicit"));
}

TEST_F(MatchingTest, BlacklistWinsAndDisabledRulesNeverFit)
{
    ParsedRules rules(rulesXml(R"(
      <url schema="http" host="h" path="a"><name>a</name></url>
      <url schema="http" host="h" path="off" enable="false"><name>off</name></url>
      <url schema="http" host="h" path="o.*" enable="0" match_type="regex_match"><name>pattern off</name></url>)",
                               R"(<url path="http://h/a"/>)"));
    EXPECT_EQ(QStringLiteral("<none>"), nameFor(rules, "http://h/a"));
    EXPECT_TRUE(log().contains("http://h/a is in caching blacklist"));
    EXPECT_TRUE(log().contains("explicit don't cache rule set for: http://h/a"));
    EXPECT_EQ(QStringLiteral("<none>"), nameFor(rules, "http://h/off"));
    EXPECT_EQ(QStringLiteral("<none>"), nameFor(rules, "http://h/other"));
    // Two lookups, each passing over both disabled rules.
    EXPECT_EQ(4, log().count("rule disable"));
    EXPECT_FALSE(log().contains("Pattern match"));
}

TEST_F(MatchingTest, PortsAndDefaultServer)
{
    ParsedRules rules(rulesXml(R"(
      <url schema="http" host="example.test:8080" path="a"><name>8080</name></url>
      <url schema="http" host="example.test" path="b"><name>any port</name></url>
      <url schema="https" host="example.test:443" path="c"><name>443</name></url>
      <url schema="http" host="&amp;lt;default-server&amp;gt;" path="d/e"><name>default</name></url>)"));
    EXPECT_EQ(QStringLiteral("8080"), nameFor(rules, "http://example.test:8080/a"));
    EXPECT_EQ(QStringLiteral("<none>"), nameFor(rules, "http://example.test/a"));
    EXPECT_EQ(QStringLiteral("any port"), nameFor(rules, "http://example.test/b"));
    EXPECT_EQ(QStringLiteral("any port"), nameFor(rules, "http://example.test:8080/b?x=1"));
    // The port defaults to 80 whatever the scheme.
    EXPECT_EQ(QStringLiteral("<none>"), nameFor(rules, "https://example.test/c"));
    EXPECT_EQ(QStringLiteral("443"), nameFor(rules, "https://example.test:443/c"));
    clearLog();
    EXPECT_EQ(QStringLiteral("default"), nameFor(rules, "http://anything.test:81/d/e"));
    EXPECT_TRUE(log().contains("Exact match rule found for: http://anything.test:81/d/e"));
    // The schema of a rule plays no part.
    EXPECT_EQ(QStringLiteral("default"), nameFor(rules, "https://other/d/e"));
}

TEST_F(MatchingTest, PatternsTestHostFromTheStartAndTheWholePath)
{
    ParsedRules rules(rulesXml(R"(
      <url schema="http" host="foo" path="a/[0-9]+" match_type="regex_match"><name>foo</name></url>
      <url schema="http" host="&amp;lt;default-server&amp;gt;" path="shop/.*" match_type="regex_match_i"><name>shop</name></url>
      <url schema="http" host="x.*" path="http://x.*" match_type="regex_match"><name>no slash</name></url>)"));
    EXPECT_EQ(QStringLiteral("foo"), nameFor(rules, "http://foobar/a/12"));
    EXPECT_EQ(QStringLiteral("<none>"), nameFor(rules, "http://barfoo/a/12"));
    // The raw path with its query must fit whole.
    EXPECT_EQ(QStringLiteral("<none>"), nameFor(rules, "http://foo/a/12?x"));
    clearLog();
    EXPECT_EQ(QStringLiteral("shop"), nameFor(rules, "http://any.test:9/SHOP/item?id=4"));
    EXPECT_TRUE(log().contains("Host is default-server. Will discard host in comparison"));
    EXPECT_TRUE(log().contains("Pattern match rule shop with pattern http://<default-server>/shop/.* found for: "
                               "http://any.test:9/SHOP/item?id=4"));
    // Without a "/" after the host, the path part is the whole URL.
    EXPECT_EQ(QStringLiteral("no slash"), nameFor(rules, "http://xyz"));
}

TEST_F(MatchingTest, ApplicationThenPriorityDecides)
{
    ParsedRules rules(rulesXml(R"(
      <url schema="http" host="h" path="p.*" match_type="regex_match" priority="100"><name>global high</name></url>
      <url schema="http" host="h" path="pa.*" match_type="regex_match" app_id="3" priority="1"><name>app 3</name></url>
      <url schema="http" host="h" path="pag.*" match_type="regex_match" app_id="3" priority="2"><name>app 3 high</name></url>
      <url schema="http" host="h" path="page" app_id="2" priority="50"><name>app 2 exact</name></url>)"));
    const QList<CacheRule>& ordered = rules.rules();
    ASSERT_EQ(4, ordered.size());
    EXPECT_EQ(QStringLiteral("app 3 high"), ordered[0].name);
    EXPECT_EQ(QStringLiteral("app 3"), ordered[1].name);
    EXPECT_EQ(QStringLiteral("app 2 exact"), ordered[2].name);
    EXPECT_EQ(QStringLiteral("global high"), ordered[3].name);
    // A pattern rule in front beats an exact rule behind it.
    EXPECT_EQ(QStringLiteral("app 3 high"), nameFor(rules, "http://h/page"));
    EXPECT_EQ(QStringLiteral("app 3"), nameFor(rules, "http://h/pa"));
    EXPECT_EQ(QStringLiteral("global high"), nameFor(rules, "http://h/p"));
}

TEST_F(MatchingTest, RulesEqualInApplicationAndPriorityStandByIdThenUrlInEveryProcess)
{
    const QByteArray xml = rulesXml(R"(
      <url schema="http" host="h" path="p.*" match_type="regex_match" id="2"><name>2</name></url>
      <url schema="http" host="h" path="page.*" match_type="regex_match" id="3"><name>3 page</name></url>
      <url schema="http" host="h" path="pag.*" match_type="regex_match" id="3"><name>3 pag</name></url>
      <url schema="http" host="h" path="pa.*" match_type="regex_match" id="1"><name>1</name></url>)");
    // A new random hash seed each time, as each process has its own.
    for (int process = 0; process < 8; ++process) {
        qSetGlobalQHashSeed(-1);
        ParsedRules rules(xml);
        QStringList names;
        for (const CacheRule& rule : rules.rules())
            names << rule.name;
        EXPECT_EQ(QStringList({"1", "2", "3 pag", "3 page"}), names);
    }
}

TEST_F(MatchingTest, RuleCacheEvictsTheLeastRecentlyUsed)
{
    ParsedRules rules(rulesXml(R"(<url schema="http" host="h" path=".*" match_type="regex_match"><name>all</name></url>)"));
    rules.setMaxCachedRules(2);
    rules.getOrderedMatchingRuleForUrl("http://h/1");
    rules.getOrderedMatchingRuleForUrl("http://h/2");
    rules.getOrderedMatchingRuleForUrl("http://h/1");
    rules.getOrderedMatchingRuleForUrl("http://h/3"); // evicts /2
    EXPECT_EQ(2, rules.cachedRules());
    clearLog();
    rules.getOrderedMatchingRuleForUrl("http://h/1");
    EXPECT_TRUE(log().contains("rule from rules cache found for: http://h/1"));
    clearLog();
    rules.getOrderedMatchingRuleForUrl("http://h/2");
    EXPECT_FALSE(log().contains("rule from rules cache"));
}

TEST_F(MatchingTest, CacheOfSizeZeroStillAnswersWithALiveRule)
{
    ParsedRules rules(rulesXml(R"(<url schema="http" host="h" path="a" lifetime="9"><name>a</name></url>)"));
    rules.setMaxCachedRules(0);
    const CacheRule* first = rules.getOrderedMatchingRuleForUrl("http://h/a");
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(9u, first->d->lifetime);
    EXPECT_EQ(QStringLiteral("a"), first->name);
    EXPECT_EQ(0, rules.cachedRules());
    EXPECT_EQ(nullptr, rules.getOrderedMatchingRuleForUrl("http://h/b"));
}

TEST_F(MatchingTest, PatternListCheck)
{
    ParsedRules rules(rulesXml(R"(
      <url schema="http" host="h" path="a.*" match_type="regex_match"/>
      <url schema="http" host="h" path="b.*" match_type="regex_match"/>)"));
    const QList<QRegExp> found = rules.matchingPatterns("http://h/abc");
    ASSERT_EQ(1, found.size());
    EXPECT_EQ(QStringLiteral("http://h/a.*"), found[0].pattern());
    EXPECT_TRUE(log().contains("Checking match of http://h/abc with patterns list. Matched candidate http://h/a.*"));
    EXPECT_TRUE(log().contains("Checking match of http://h/abc with patterns list. No match with http://h/b.*"));
}

} // namespace
