#include "RulesTestSupport.h"

#include "CacheRule.h"
#include "VException.h"

#include <QSet>

#include <memory>
#include <vector>

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
    source.values["_SERVER[REQUEST_URI]"] = "/p?x";
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

// A block of split conditions over `names`, and the globals it reads.
class SplitBlock
{
public:
    explicit SplitBlock(const QList<QByteArray>& names)
    {
        for (const QByteArray& name : names) {
            globals.emplace_back(parseGlobal(QString::fromLatin1(name)));
            block.conditions.append(QSharedPointer<VCondition>(
                ConditionFactory::instance()->create(QStringLiteral("exists"), globals.back().get(), QString())));
        }
    }
    ConditionsBlock block;

private:
    std::vector<std::unique_ptr<VPHPGlobal>> globals;
};

// Reads a key back into its values, knowing the names: where a value that
// went in as it is ends is found without looking at the values.
QList<QByteArray> readSplitKey(const QList<QByteArray>& names, const QByteArray& key)
{
    QList<QByteArray> values;
    int at = 0;
    for (int i = 0; i < names.size(); ++i) {
        if (key.mid(at, names.at(i).size()) != names.at(i))
            return {"bad name"};
        at += names.at(i).size();
        const QByteArray next = i + 1 < names.size() ? names.at(i + 1) : QByteArray();
        if (at < key.size() && key.at(at) == '\0') {
            const int colon = key.indexOf(':', at);
            const int length = key.mid(at + 1, colon - at - 1).toInt();
            values << key.mid(colon + 1, length);
            at = colon + 1 + length;
        } else if (next.isEmpty()) {
            values << key.mid(at);
            at = key.size();
        } else {
            const int end = key.indexOf(next, at);
            values << key.mid(at, end - at);
            at = end;
        }
    }
    return at == key.size() ? values : QList<QByteArray>{"left over"};
}

TEST_F(ConditionsTest, SplitKeyKeepsTodaysKeysForOrdinaryValues)
{
    source.present = {"_GET", "_SERVER", "_COOKIE"};
    const struct
    {
        QList<QByteArray> names;
        QList<QByteArray> values;
        QByteArray key;
    } table[] = {
        {{"_GET[page]"}, {"2"}, "_GET2"},
        {{"_GET[page]"}, {""}, "_GET"},
        {{"_GET[page]"}, {"_GET_GET"}, "_GET_GET_GET"},
        {{"_GET[a]", "_GET[b]"}, {"1", "2"}, "_GET1_GET2"},
        {{"_GET[a]", "_COOKIE[b]"}, {"x_GET", "y"}, "_GETx_GET_COOKIEy"},
        {{"_SERVER[HTTP_HOST]", "_SERVER[HTTPS]", "_SERVER[REQUEST_URI]"},
         {"a.test:8080", "on", "/p?q=_SERVER"},
         "_SERVERa.test:8080_SERVERon_SERVER/p?q=_SERVER"},
        {{"_SERVER[HTTP_HOST]", "_SERVER[HTTPS]", "_SERVER[REQUEST_URI]"}, {"a.test", "", "/"}, "_SERVERa.test_SERVER_SERVER/"},
    };
    for (const auto& row : table) {
        SplitBlock split(row.names);
        for (int i = 0; i < row.names.size(); ++i)
            source.values[row.names.at(i)] = row.values.at(i);
        EXPECT_EQ(row.key, splitKey(split.block)) << row.key.constData();
    }
}

TEST_F(ConditionsTest, SplitByHostReadsTheSiteTheServerAnsweredFor)
{
    source.present = {"_SERVER"};
    source.values["_SERVER[HTTP_HOST]"] = "a.test:1234";
    QByteArray key;
    ASSERT_TRUE(faithfulSplitKey(SplitBlock({"_SERVER[HTTP_HOST]"}).block, "u", key, "a.test:80"));
    EXPECT_EQ("_SERVERa.test:80", key);
    const struct
    {
        QByteArray host, port, site;
        bool conflict;
    } table[] = {{"A.test", "8090", "a.test:8090", false},    {"a.test:8090", "8090", "a.test:8090", false},
                 {"a.test:1234", "8090", "a.test:8090", true}, {"[::1]:8090", "8090", "[::1]:8090", false},
                 {"a.test:1234", "", "a.test:1234", false},    {"a.test", "", "a.test", false},
                 {"a.test:80", "8090", "a.test:8090", false},  {"a.test:443", "8090", "a.test:8090", true}};
    for (const auto& row : table) {
        bool conflict = !row.conflict;
        EXPECT_EQ(row.site, requestSite(row.host, row.port, false, &conflict)) << row.host.constData();
        EXPECT_EQ(row.conflict, conflict) << row.host.constData();
    }
}

TEST_F(ConditionsTest, SplitKeyGivesEveryTupleItsOwnKey)
{
    source.present = {"_GET", "_SERVER"};
    const QList<QByteArray> pieces = {"",     "1",       "_GET",  "x_GET", "_GE",
                                      "T",    QByteArray("\0", 1), "1:",    QByteArray("\0001:x", 4),
                                      "_SERVER", "0:", "_GET_SERVER"};
    const QList<QList<QByteArray>> shapes = {
        {"_GET[a]"}, {"_GET[a]", "_GET[b]"}, {"_GET[a]", "_SERVER[b]", "_GET[c]"}, {"_SERVER[a]", "_SERVER[b]"}};
    for (const QList<QByteArray>& names : shapes) {
        QList<QByteArray> bases;
        for (const QByteArray& name : names)
            bases << name.left(name.indexOf('['));
        SplitBlock split(names);
        QSet<QByteArray> keys;
        int tuples = 1;
        for (int i = 0; i < names.size(); ++i)
            tuples *= pieces.size();
        for (int n = 0; n < tuples; ++n) {
            QList<QByteArray> values;
            for (int i = 0, rest = n; i < names.size(); ++i, rest /= pieces.size()) {
                values << pieces.at(rest % pieces.size());
                source.values[names.at(i)] = values.last();
            }
            const QByteArray key = splitKey(split.block);
            ASSERT_EQ(values, readSplitKey(bases, key)) << key.toHex().constData();
            keys.insert(key);
        }
        EXPECT_EQ(tuples, keys.size());
    }
}

TEST_F(ConditionsTest, NulInAValueOrTheUrlKeepsTheRequestFromTheStore)
{
    source.present = {"_GET"};
    SplitBlock split({"_GET[page]", "_GET[q]"});
    source.values["_GET[page]"] = "2";
    QByteArray key;
    EXPECT_TRUE(faithfulSplitKey(split.block, "http://h/p?page=2", key));
    EXPECT_EQ(QByteArray("_GET2_GET"), key);

    source.values["_GET[page]"] = QByteArray("2\0x", 3);
    EXPECT_FALSE(faithfulSplitKey(split.block, "http://h/p?page=2%00x", key));
    EXPECT_TRUE(key.isEmpty());
    EXPECT_TRUE(log().contains("INFO] Not using the cache: a split value of _GET holds a NUL byte"));
    EXPECT_NE(QByteArray("_GET2_GET"), splitKey(split.block));

    source.values["_GET[page]"] = "2";
    EXPECT_FALSE(faithfulSplitKey(split.block, QByteArray("http://h\0x/p", 12), key));
    EXPECT_TRUE(log().contains("INFO] Not using the cache: the URL holds a NUL byte"));
    EXPECT_FALSE(faithfulSplitKey(SplitBlock({}).block, QByteArray("http://h\0", 9), key));
    EXPECT_TRUE(faithfulSplitKey(SplitBlock({}).block, "http://h/", key));
    EXPECT_EQ(QByteArray(), key);
}

TEST(VUrlText, MadeOnceFromTheParts)
{
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
