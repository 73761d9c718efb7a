#include "RulesTestSupport.h"

#include "VException.h"
#include "VHTMLCache.h"

#include <QDir>

#include <array>
#include <tuple>

namespace {

QByteArray parseError(const QByteArray& xml)
{
    try {
        ParsedRules rules(xml);
    } catch (const VException& e) {
        return e.what();
    }
    return "<no error>";
}

TEST_F(RulesFixture, AttributeDefaults)
{
    ParsedRules rules(rulesXml(R"(
      <url schema="http" host="h" path="a" compress="no" enable="FALSE" app_id="" lifetime="x" id="4294967295" grace="-1"/>
      <url schema="http" host="h" path="b" compress="0" enable="false" app_id="abc" lifetime="60" id="7" priority="5" grace="30"
           publish="false"/>
      <url schema="http" host="h" path="c" compress="false" enable="0" app_id="12" priority="zz" publish="1"/>)"));
    const struct
    {
        const char* url;
        bool compress, enable;
        int appId;
        quint32 lifetime, grace;
        int id, priority; // an id past int is widened with its sign
        bool publish;
    } table[] = {
        {"http://h/a", true, true, -1, 0, 0, -1, 0, false},
        {"http://h/b", false, false, 0, 60, 30, 7, 5, false},
        {"http://h/c", false, false, 12, 0, 0, 0, 0, true},
    };
    for (const auto& row : table) {
        const CacheRule rule = rules.rule(row.url);
        const CacheRuleData& d = *rule.d;
        EXPECT_EQ(std::make_tuple(row.compress, row.enable, row.appId, row.lifetime, row.grace, row.priority, row.publish),
                  std::make_tuple(d.compress, d.enable, d.appId, d.lifetime, d.grace, rule.priority, d.publish))
            << row.url;
        EXPECT_TRUE(d.initialised);
        EXPECT_EQ(row.id, rule.id) << row.url;
    }
}

// The store keeps a page for its grace past its lifetime. Written in second
// 1000 with lifetime 60 and grace 30: fresh through second 1060, so for at
// least 60 s, then stale until the store drops it at 1091.
TEST(Grace, StoredAndFreshLifetimes)
{
    for (const auto& c : {std::array<quint32, 4>{60, 0, 60, 60}, {60, 30, 91, 61}, {0, 30, 0, 0}}) {
        CacheRuleData rule;
        rule.lifetime = c[0];
        rule.grace = c[1];
        EXPECT_EQ(c[2], rule.storedLifetime());
        EXPECT_EQ(c[3], rule.freshLifetime());
    }
}

TEST_F(RulesFixture, HostAndPathRewriting)
{
    ParsedRules rules(rulesXml(R"(
      <url schema="http" host="(a|b).test" path="(x|y)/z" match_type="regex_match"/>
      <url schema="http" host="(?i)x" path="(?=y)q"/>
      <url schema="http" host="&amp;lt;default-server&amp;gt;" path="&amp;lt;default-server&amp;gt;"/>)"));
    EXPECT_TRUE(rules.hasRule("http://(?i)x/(?=y)q"));
    EXPECT_TRUE(rules.hasRule("http://<default-server>/&lt;default-server&gt;"));
    const CacheRule pattern = rules.rule("http://(?:a|b).test/(?:x|y)/z");
    EXPECT_EQ(QStringLiteral("http://(?:a|b).test/(?:x|y)/z"), pattern.regex.pattern());
    EXPECT_TRUE(pattern.regex.isMinimal());
    EXPECT_EQ(1, rules.readPatterns().size());
}

TEST_F(RulesFixture, HttpsEitherExactStandsUnderBothSchemes)
{
    // "http" first: the expansion silently replaces it.
    ParsedRules rules(rulesXml(R"(
      <url schema="http" host="h" path="p" lifetime="1"><name>plain</name></url>
      <url schema="https?" host="h" path="p" match_type="exact" lifetime="2"><name>either</name>
        <conditions_OR_block><conditions_AND_block><condition global="_GET[a]" type="exists"/></conditions_AND_block></conditions_OR_block>
      </url>)"));
    EXPECT_EQ(2u, rules.rule("http://h/p").d->lifetime);
    EXPECT_EQ(2u, rules.rule("https://h/p").d->lifetime);
    // The name had no rule to go to; the condition made a default rule of its own.
    EXPECT_EQ(QString(), rules.rule("https://h/p").name);
    EXPECT_TRUE(rules.rule("http://h/p").d->conditionBlocks.isEmpty());
    ASSERT_TRUE(rules.hasRule("https?://h/p"));
    EXPECT_EQ(1, rules.rule("https?://h/p").d->conditionBlocks.size());
    EXPECT_EQ(0u, rules.rule("https?://h/p").d->lifetime);

    // The other order fails on the "http" key.
    EXPECT_EQ(QByteArray("Error while parsing cache configuration XML: Rule already exists for URL: http://h/p"),
              parseError(rulesXml(R"(
      <url schema="https?" host="h" path="p" match_type="exact"/>
      <url schema="http" host="h" path="p"/>)")));
}

struct FailureRow
{
    const char* name;
    const char* body;
    const char* error;
};

void PrintTo(const FailureRow& row, std::ostream* out)
{
    *out << row.name;
}

class ReaderFailures : public RulesFixture, public ::testing::WithParamInterface<FailureRow>
{
};

TEST_P(ReaderFailures, ExactTextAndNoRulesInForce)
{
    const FailureRow& row = GetParam();
    const QByteArray xml = rulesXml(row.body);
    EXPECT_EQ(QByteArray(row.error), parseError(xml));
    VRuleMatcher reader;
    reader.addData(xml);
    EXPECT_THROW(reader.parse(), VException);
    EXPECT_TRUE(reader.rules().isEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ReaderFailures,
    ::testing::Values(
        FailureRow{"duplicate", R"(<url schema="http" host="h" path="p"/><url schema="http" host="h" path="p" match_type="regex_match"/>)",
                   "Error while parsing cache configuration XML: Rule already exists for URL: http://h/p"},
        FailureRow{"invalidExpression", R"(<url schema="http" host="h" path="a[" match_type="regex_match"/>)",
                   "Error while parsing cache configuration XML: Invalid regular expression: http://h/a["},
        FailureRow{"unknownGlobal", R"(<url schema="http" host="h" path="p"><conditions_OR_block><conditions_AND_block>
                   <condition global="_FILES[a]" type="exists"/></conditions_AND_block></conditions_OR_block></url>)",
                   "Error while parsing cache configuration XML: Unknown Global variable: _FILES"},
        FailureRow{"unknownSplitGlobal", R"(<url schema="http" host="h" path="p"><split_by><split_condition global="_ENV[a]"/></split_by></url>)",
                   "Error while parsing cache configuration XML: Unknown Global variable: _ENV"},
        FailureRow{"unknownWord", R"(<url schema="http" host="h" path="p"><conditions_OR_block><conditions_AND_block>
                   <condition global="_GET[a]" type="like"/></conditions_AND_block></conditions_OR_block></url>)",
                   "Error while parsing cache configuration XML: Failed to create condition"},
        FailureRow{"syntax", R"(<url schema="http" host="h" path="p"></cache>)",
                   "Syntax error while parsing cache configuration XML: Opening and ending tag mismatch."}),
    [](const ::testing::TestParamInfo<FailureRow>& info) { return std::string(info.param.name); });

TEST_F(RulesFixture, EmptySectionsLoadWithoutRules)
{
    ParsedRules rules(rulesXml(""));
    EXPECT_TRUE(rules.rules().isEmpty());
    EXPECT_TRUE(rules.readBlacklist().isEmpty());
}

TEST_F(RulesFixture, RulesThatSharePagesAcrossRequestsAreNamed)
{
    const QByteArray host = R"(<split_condition global="_SERVER[HTTP_HOST]"/>)";
    const QByteArray https = R"(<split_condition global="_SERVER[HTTPS]"/>)";
    const QByteArray scheme = R"(<split_condition global="_SERVER[REQUEST_SCHEME]"/>)";
    const QByteArray uri = R"(<split_condition global="_SERVER[REQUEST_URI]"/>)";
    const QByteArray hosts = "shares its pages across hosts: add a split by _SERVER[HTTP_HOST]";
    const QByteArray schemes = "shares its pages across http and https: add a split by _SERVER[HTTPS]";
    const QByteArray paths = "shares its pages across paths: add a split by _SERVER[REQUEST_URI]";
    const QByteArray roots = "covers / of every host: give it the host and path of its own application";
    const struct
    {
        QByteArray url;
        QByteArray splits;
        QList<QByteArray> warnings;
    } table[] = {
        {R"(schema="http" host="h" path="p")", https, {}},
        {R"(schema="http" host="h" path="p")", scheme, {}},
        {R"(schema="http" host="h" path="p")", "", {schemes}},
        {R"(schema="http" host="h" path="p")", host + uri, {schemes}},
        {R"(schema="https?" host="h" path="p" match_type="exact")", "", {schemes}},
        {R"(schema="http" host="&amp;lt;default-server&amp;gt;" path="p")", https, {hosts}},
        {R"(schema="http" host="&amp;lt;default-server&amp;gt;" path="p")", host + https, {}},
        {R"(schema="http" host="h" path="p.*" match_type="regex_match")", "", {hosts, schemes, paths}},
        {R"(schema="http" host="h" path="p.*" match_type="regex_match_i")", uri + https + host, {}},
        {R"(schema="http" host="&amp;lt;default-server&amp;gt;" path="p.*" match_type="regex_match")", host + uri,
         {schemes}},
        {R"(schema="http" host="h" path="p.*" match_type="regex_match" enable="false")", "", {}},
        {R"(schema="http" host="&amp;lt;default-server&amp;gt;" path="")", host + https, {roots}},
        {R"(schema="http" host=".*" path="(index\.php)?" match_type="regex_match")", host + https + uri, {roots}},
        {R"(schema="http" host="h" path="p" match_type="regex_match")",
         R"(<split_condition global="_SERVER[HTTP_HOST][x]"/><split_condition global="_GET[HTTPS]"/>)" + uri,
         {hosts, schemes}},
    };
    for (const auto& row : table) {
        clearLog();
        ParsedRules rules(rulesXml("<url " + row.url + "><name>R</name><split_by>" + row.splits + "</split_by></url>"));
        QList<QByteArray> warnings;
        for (const QByteArray& line : log().split('\n')) {
            if (line.contains("WARNING]"))
                warnings << line.mid(line.indexOf(") ") + 2).trimmed();
        }
        EXPECT_EQ(row.warnings, warnings) << row.url.constData() << row.splits.constData();
    }
    clearLog();
    ParsedRules named(rulesXml(R"x(<url schema="http" host="&amp;lt;default-server&amp;gt;" path="(a|b)"
        match_type="regex_match"><name>Two pages</name><split_by>)x" + host + https + "</split_by></url>"));
    EXPECT_TRUE(log().contains("WARNING] Rule Two pages ( http://<default-server>/(?:a|b) ) " + paths + " \n"));
}

TEST_F(RulesFixture, PagesAreStoredFromTheCookiesTheRuleAccountsFor)
{
    const QByteArray rule = R"(<url schema="http" host="h" path="p" ignore_cookies="_ga utm_* *_pref" %1>
        <conditions_OR_block><conditions_AND_block><condition global="_COOKIE[a][x]" type="exists"/>
        <condition global="_SESSION[u]" type="exists"/><condition global="_COOKIE" type="exists"/>
        </conditions_AND_block></conditions_OR_block><split_by>%2</split_by></url>)";
    const struct
    {
        QByteArray attribute, split;
        QList<QByteArray> cookies;
        QByteArray unaccounted;
    } table[] = {
        {"", R"(<split_condition global="_COOKIE[b]"/>)", {"a", "b", "SID", "_ga", "utm_x", "my_pref"}, ""},
        {"", R"(<split_condition global="_COOKIE[b]"/>)", {"a", "login", "c"}, "login"},
        {"", R"(<split_condition global="_COOKIE[b]"/>)", {"_gax"}, "_gax"},
        {"", R"(<split_condition global="_SERVER[HTTP_COOKIE]"/>)", {"login"}, ""},
        {"", R"(<split_condition global="_COOKIE"/>)", {"login"}, ""},
        {R"(store_any_cookie="true")", "", {"login"}, ""},
    };
    for (const auto& row : table) {
        ParsedRules rules(rulesXml(QString::fromLatin1(rule).arg(row.attribute, row.split).toLatin1()));
        EXPECT_EQ(row.unaccounted, rules.rules().first().unaccountedCookie(row.cookies, "SID")) << row.split.constData();
    }
}

// The whole load: schema validation, then the reader.
class LoadTest : public RulesFixture
{
protected:
    void TearDown() override
    {
        VHTMLCache::destroyInstance();
        RulesFixture::TearDown();
    }
    QByteArray write(const QByteArray& xml, bool withSchema = true)
    {
        const QString path = dir.filePath(QStringLiteral("pagecache_rules.xml"));
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(xml);
        if (withSchema)
            QFile::copy(QStringLiteral(VESK_SOURCE_DIR "/conf/pagecache_rules_schema.xsd"),
                        dir.filePath(QStringLiteral("pagecache_rules_schema.xsd")));
        return QFile::encodeName(path);
    }
    bool load(const QByteArray& path)
    {
        VHTMLCache::destroyInstance();
        return VHTMLCache::instance()->load("store", 2, path.constData(), 100);
    }
};

// The shipped example and each recipe for an application load, and none of
// their rules shares pages across hosts, schemes or paths.
TEST_F(LoadTest, ExampleAndRecipesLoadWithoutWarnings)
{
    const QDir recipes(QStringLiteral(VESK_SOURCE_DIR "/conf/recipes"));
    const QStringList files = recipes.entryList({QStringLiteral("*.xml")}, QDir::Files, QDir::Name);
    EXPECT_EQ(QStringList({"drupal.xml", "laravel.xml", "mediawiki.xml", "wordpress.xml"}), files);
    for (const QString& name : files + QStringList{QStringLiteral("../pagecache_rules.xml")}) {
        clearLog();
        QFile recipe(recipes.filePath(name));
        ASSERT_TRUE(recipe.open(QIODevice::ReadOnly));
        ASSERT_TRUE(load(write(recipe.readAll()))) << name.toStdString() << ": "
                                                   << VHTMLCache::instance()->lastError().toStdString();
        EXPECT_EQ(name == "wordpress.xml" ? 2 : 1, VHTMLCache::instance()->rules().size()) << name.toStdString();
        EXPECT_FALSE(log().contains("WARNING]")) << name.toStdString() << "\n" << log().constData();
    }
}

// What the web server can test stays published; anything else is named at
// level 1 with why, and the rule goes on as a normal one.
struct PublishCase
{
    const char* body;
    bool published;
    const char* why;
};

class PublishCheck : public RulesFixture, public ::testing::WithParamInterface<PublishCase>
{
};

TEST_P(PublishCheck, OnlyWhatTheWebServerCanDecide)
{
    const PublishCase& c = GetParam();
    ParsedRules rules(rulesXml(QByteArray(R"(<url schema="http" host="h" path="p" lifetime="60" publish="true">)")
                               + "<name>R</name>" + c.body + "</url>"));
    const CacheRule rule = rules.rule("http://h/p");
    EXPECT_EQ(c.published, rule.d->publish);
    EXPECT_EQ(60u, rule.d->lifetime);
    if (c.published) {
        EXPECT_FALSE(log().contains("is not published"));
    } else {
        EXPECT_TRUE(log().contains("WARNING] Rule R ( http://h/p ) is not published, the web server can't decide "
                                   "its pages: " + QByteArray(c.why)))
            << log().toStdString();
    }
}

#define COND(global, type, value) "<conditions_OR_block><conditions_AND_block><condition global=\"" global \
    "\" type=\"" type "\" value=\"" value "\"/></conditions_AND_block></conditions_OR_block>"
#define SPLIT(global) "<split_by><split_condition global=\"" global "\"/></split_by>"

INSTANTIATE_TEST_SUITE_P(
    Rules, PublishCheck,
    ::testing::Values(
        PublishCase{"", true, ""},
        PublishCase{COND("_COOKIE[wp_logged_in-1]", "not_exists", ""), true, ""},
        PublishCase{COND("_COOKIE[lang]", "equals", "en_GB.utf-8"), true, ""},
        PublishCase{COND("_GET[s]", "not_exists", "") COND("_GET[p]", "equals", "a b"), true, ""},
        PublishCase{SPLIT("_SERVER[REQUEST_URI]") SPLIT("_SERVER[HTTP_HOST]") SPLIT("_SERVER[HTTPS]"), true, ""},
        PublishCase{COND("_COOKIE[a]", "not_equals", "x"), false,
                    "a condition other than exists, not_exists or equals"},
        PublishCase{COND("_COOKIE[a]", "regex_match", "x.*"), false,
                    "a condition other than exists, not_exists or equals"},
        PublishCase{COND("_SERVER[HTTP_USER_AGENT]", "exists", ""), false, "a condition on _SERVER"},
        PublishCase{COND("_SESSION[user]", "not_exists", ""), false, "a condition on _SESSION"},
        PublishCase{COND("_POST[a]", "not_exists", ""), false, "a condition on _POST"},
        PublishCase{COND("_COOKIE", "exists", ""), false, "a condition on a whole superglobal or a nested element"},
        PublishCase{COND("_COOKIE[a][b]", "exists", ""), false,
                    "a condition on a whole superglobal or a nested element"},
        PublishCase{COND("_COOKIE[a.b]", "exists", ""), false,
                    "a cookie name other than letters, digits, '_' and '-'"},
        PublishCase{COND("_COOKIE[a]", "equals", "x y"), false,
                    "a cookie value other than letters, digits, '_', '.' and '-'"},
        PublishCase{COND("_COOKIE[a]", "equals", ""), false,
                    "a cookie value other than letters, digits, '_', '.' and '-'"},
        PublishCase{SPLIT("_COOKIE[lang]"), false, "a split by something else than the scheme, the host or the URI"},
        PublishCase{SPLIT("_SERVER[HTTP_ACCEPT_LANGUAGE]"), false,
                    "a split by something else than the scheme, the host or the URI"}));

#undef COND
#undef SPLIT

TEST_F(LoadTest, MissingSchema)
{
    const QByteArray path = write(rulesXml(""), false);
    EXPECT_FALSE(load(path));
    EXPECT_EQ(QStringLiteral("Dependencies file error: Unable to find the schema file at ")
                  + QDir(dir.path()).absolutePath() + QStringLiteral("/pagecache_rules_schema.xsd"),
              VHTMLCache::instance()->lastError());
}

TEST_F(LoadTest, SchemaRefusesWhatTheReaderMustNeverSee)
{
    const char* refused[] = {
        R"(<url schema="http" host="h" path="p"><conditions_OR_block><conditions_AND_block>
           <condition global="_GET[a" type="exists"/></conditions_AND_block></conditions_OR_block></url>)",
        R"(<url schema="http" host="h" path="p"><conditions_OR_block><conditions_AND_block>
           <condition global="_GET[a]" type="like"/></conditions_AND_block></conditions_OR_block></url>)",
        R"(<response_rule app_id="-1" response_codes="200"><response_headers>
           <header name="Set-Cookie" match_type="present"/></response_headers></response_rule>)",
        R"(<url schema="http" host="h" path="p" match_type="glob"/>)",
    };
    for (const char* body : refused) {
        EXPECT_FALSE(load(write(rulesXml(body)))) << body;
        EXPECT_TRUE(VHTMLCache::instance()->lastError().startsWith(
            QStringLiteral("Dependencies file validation error on line ")))
            << VHTMLCache::instance()->lastError().toStdString();
        EXPECT_TRUE(VHTMLCache::instance()->lastError().contains(QStringLiteral(" during Vesk Page Cache startup. ")));
        EXPECT_TRUE(VHTMLCache::instance()->rules().isEmpty());
    }
}

TEST_F(LoadTest, DocumentTypesAreRefusedBeforeAnyEntity)
{
    // Were the entities expanded, the secret would become a rule's name, the
    // laughs would eat the worker's memory, and the URL would be fetched.
    QFile secret(dir.filePath(QStringLiteral("secret.txt")));
    ASSERT_TRUE(secret.open(QIODevice::WriteOnly));
    secret.write("secret-text");
    secret.close();
    const QByteArray attempts[] = {
        "<!DOCTYPE cache_settings [<!ENTITY s SYSTEM \"file://" + QFile::encodeName(secret.fileName())
            + "\">]>\n<cache_settings><dont_cache/><cache><url schema=\"http\" host=\"h\" path=\"p\">"
              "<name>&s;</name></url></cache></cache_settings>",
        "<!DOCTYPE cache_settings [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">"
        "<!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\"><!ENTITY d \"&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;\">]>\n"
        "<cache_settings><dont_cache/><cache><url schema=\"http\" host=\"h\" path=\"p\"><name>&d;</name>"
        "</url></cache></cache_settings>",
        "<!DOCTYPE cache_settings SYSTEM \"http://127.0.0.1:9/rules.dtd\">\n<cache_settings><dont_cache/>"
        "<cache/></cache_settings>",
    };
    for (const QByteArray& body : attempts) {
        EXPECT_FALSE(load(write("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + body))) << body.constData();
        const QString error = VHTMLCache::instance()->lastError();
        EXPECT_TRUE(error.startsWith(QStringLiteral("Dependencies file validation error on line 2 ")))
            << error.toStdString();
        EXPECT_TRUE(error.contains(QStringLiteral("DOCTYPE"), Qt::CaseInsensitive)) << error.toStdString();
        EXPECT_TRUE(VHTMLCache::instance()->rules().isEmpty());
        EXPECT_FALSE(log().contains("secret-text"));
    }
}

TEST_F(LoadTest, ReaderFailureAfterValidationLeavesNoRules)
{
    EXPECT_FALSE(load(write(rulesXml(R"(<url schema="http" host="h" path="p"/><url schema="http" host="h" path="p"/>)"))));
    EXPECT_EQ(QStringLiteral("Error while parsing cache configuration XML: Rule already exists for URL: http://h/p"),
              VHTMLCache::instance()->lastError());
    EXPECT_TRUE(VHTMLCache::instance()->rules().isEmpty());
    EXPECT_EQ(nullptr, VHTMLCache::instance()->getOrderedMatchingRuleForUrl("http://h/p"));
}

} // namespace
