#include "RulesTestSupport.h"

#include "CacheRule.h"
#include "VException.h"

#include <memory>

namespace {

class ConditionsTest : public RulesFixture
{
protected:
    bool holds(const char* word, const char* global, const QString& value)
    {
        std::unique_ptr<VCondition> condition(
            ConditionFactory::instance()->create(QLatin1String(word), parseGlobal(QLatin1String(global)), value));
        return condition->match();
    }
};

TEST_F(ConditionsTest, NamesBecomeGlobalsOrElements)
{
    std::unique_ptr<VPHPGlobal> whole(parseGlobal(QStringLiteral("_GET")));
    EXPECT_EQ(nullptr, dynamic_cast<VPHPGlobalElement*>(whole.get()));
    EXPECT_EQ(QByteArray("_GET"), whole->name());

    std::unique_ptr<VPHPGlobal> element(parseGlobal(QStringLiteral("_COOKIE[a][ b ]x[c]")));
    auto* e = dynamic_cast<VPHPGlobalElement*>(element.get());
    ASSERT_NE(nullptr, e);
    EXPECT_EQ(PHP_COOKIE, e->type());
    EXPECT_EQ((QList<QByteArray>{"a", " b ", "c"}), e->key().keys);
    EXPECT_EQ(QByteArray("_COOKIE"), e->name());

    for (const char* bad : {"[a]", "_FILES", "_FILES[a]", "GET"}) {
        try {
            delete parseGlobal(QLatin1String(bad));
            ADD_FAILURE() << bad;
        } catch (const VException& ex) {
            const QByteArray base = QByteArray(bad).startsWith('[') ? QByteArray(bad) : QByteArray(bad).split('[').first();
            EXPECT_EQ("Unknown Global variable: " + base, QByteArray(ex.what()));
        }
    }
}

TEST_F(ConditionsTest, EachMatchWord)
{
    source.present = {"_GET"};
    source.values["_GET[a]"] = "xaby";
    EXPECT_TRUE(holds("equals", "_GET[a]", QStringLiteral("xaby")));
    EXPECT_FALSE(holds("not_equals", "_GET[a]", QStringLiteral("xaby")));
    // The whole value must fit; nothing is searched for inside it.
    EXPECT_FALSE(holds("regex_match", "_GET[a]", QStringLiteral("ab")));
    EXPECT_TRUE(holds("regex_match", "_GET[a]", QStringLiteral("x.*")));
    EXPECT_TRUE(holds("regex_not_match", "_GET[a]", QStringLiteral("ab")));
    source.values["_GET[a]"] = "ab";
    EXPECT_TRUE(holds("regex_match_i", "_GET[a]", QStringLiteral("AB")));
    EXPECT_FALSE(holds("regex_match", "_GET[a]", QStringLiteral("AB")));
    EXPECT_FALSE(holds("regex_not_match_i", "_GET[a]", QStringLiteral("AB")));
    EXPECT_TRUE(holds("exists", "_GET[a]", QString()));
    EXPECT_TRUE(holds("not_exists", "_GET[b]", QString()));
    // A missing value reads as the empty text.
    EXPECT_TRUE(holds("equals", "_GET[b]", QString()));
    EXPECT_TRUE(holds("not_equals", "_GET[b]", QStringLiteral("x")));
    // Values count up to their first NUL byte.
    source.values["_GET[a]"] = QByteArray("ab\0cd", 5);
    EXPECT_TRUE(holds("equals", "_GET[a]", QStringLiteral("ab")));
    EXPECT_EQ(nullptr, ConditionFactory::instance()->create(QStringLiteral("like"), nullptr, QString()));
}

TEST_F(ConditionsTest, BlocksAndTheTwoPasses)
{
    source.present = {"_GET", "_SESSION"};
    source.values["_GET[a]"] = "1";
    ParsedRules rules(rulesXml(R"(
      <url schema="http" host="h" path="none"/>
      <url schema="http" host="h" path="empty"><conditions_OR_block><conditions_AND_block/></conditions_OR_block></url>
      <url schema="http" host="h" path="session"><conditions_OR_block><conditions_AND_block>
        <condition global="_SESSION[user]" type="not_exists"/></conditions_AND_block></conditions_OR_block></url>
      <url schema="http" host="h" path="two"><conditions_OR_block>
        <conditions_AND_block><condition global="_GET[a]" type="equals" value="2"/></conditions_AND_block>
        <conditions_AND_block><condition global="_GET[a]" type="equals" value="1"/></conditions_AND_block>
      </conditions_OR_block></url>)"));
    const CacheRule none = rules.rule("http://h/none");
    EXPECT_TRUE(none.conditionsHold());
    EXPECT_TRUE(none.conditionsHoldWithoutSession());
    const CacheRule empty = rules.rule("http://h/empty");
    EXPECT_TRUE(empty.conditionsHold());
    EXPECT_TRUE(empty.conditionsHoldWithoutSession());
    const CacheRule session = rules.rule("http://h/session");
    EXPECT_TRUE(session.d->conditionsNeedSession);
    EXPECT_FALSE(session.d->splitNeedsSession);
    EXPECT_FALSE(session.conditionsHoldWithoutSession());
    EXPECT_TRUE(session.conditionsHold());
    EXPECT_TRUE(rules.rule("http://h/two").conditionsHold());
}

TEST_F(ConditionsTest, SplitKeyUsesBaseNamesAndValues)
{
    source.present = {"_GET", "_SERVER", "_SESSION"};
    source.values["_GET[a]"] = "1";
    source.values["_SERVER[REQUEST_URI]"] = QByteArray("/p?x\0tail", 9);
    ParsedRules rules(rulesXml(R"(
      <url schema="http" host="h" path="p"><split_by>
        <split_condition global="_GET[a]" value="ignored"/>
        <split_condition global="_SERVER[REQUEST_URI]"/>
      </split_by></url>
      <url schema="http" host="h" path="q"><split_by/></url>
      <url schema="http" host="h" path="s"><split_by><split_condition global="_SESSION[id]"/></split_by></url>)"));
    EXPECT_EQ(QByteArray("_GET1_SERVER/p?x"), splitKey(rules.rule("http://h/p").d->splitBlock));
    EXPECT_EQ(QByteArray(), splitKey(rules.rule("http://h/q").d->splitBlock));
    EXPECT_TRUE(rules.rule("http://h/s").d->splitNeedsSession);
    EXPECT_FALSE(rules.rule("http://h/s").d->conditionsNeedSession);
}

TEST(CacheRuleModel, DefaultsAndUrlText)
{
    const CacheRule rule;
    EXPECT_EQ(-1, rule.d->appId);
    EXPECT_EQ(0u, rule.d->lifetime);
    EXPECT_FALSE(rule.d->dontCache);
    EXPECT_TRUE(rule.d->compress);
    EXPECT_TRUE(rule.d->enable);
    EXPECT_TRUE(rule.regex.pattern().isEmpty());

    EXPECT_EQ(QByteArray(":///"), VUrl().toString());
    VUrl url;
    url.setSchema("http");
    url.setHost(QByteArray("a.test\0b", 8));
    url.setPath("p");
    EXPECT_EQ(QByteArray("http://a.test/p"), url.toString());
    EXPECT_EQ(8, url.host().size());
    // The text stays as first made.
    url.setHost("other");
    EXPECT_EQ(QByteArray("http://a.test/p"), url.toString());
}

} // namespace
