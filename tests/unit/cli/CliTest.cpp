#include "CliDirectives.h"
#include "RequestValues.h"
#include "RuleReport.h"
#include "StatsTable.h"
#include "PublishConfig.h"
#include "VMD5.h"

#include "../rules/RulesTestSupport.h"
#include "VHTMLCache.h"
#include "VPageCacheStatsMessage.h"
#include "VSocket.h"

#include <QDataStream>
#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <cstdlib>

namespace {

void writeFile(const QString& path, const QByteArray& text)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(text);
}

QHash<QByteArray, QByteArray> parsed(const QByteArray& text)
{
    QHash<QByteArray, QByteArray> values;
    QString error;
    EXPECT_TRUE(parseIniText(text, values, &error)) << error.toStdString();
    return values;
}

} // namespace

TEST(CliIniText, ValuesAsTheEngineReadsThem)
{
    qputenv("VESK_CLI_TEST_DIR", "/srv");
    const auto values = parsed("[PHP]\n; a comment\nvesk.log_dir = /var/log/vesk ; trailing\n"
                               "vesk_pagecache.enable = On\nvesk_pagecache.enable_cli=off\n"
                               "vesk.conf_dir = \"/etc/with \\\"quote\\\"\"\nvesk.temp_dir = '${HOME}'\n"
                               "vesk.pid_dir = ${VESK_CLI_TEST_DIR}/run\n[PATH=/www/a]\nvesk.node_id = 4\n"
                               "[HOST=example.org]\nvesk.node_id = 5\n");
    EXPECT_EQ("/var/log/vesk", values.value("vesk.log_dir"));
    EXPECT_EQ("1", values.value("vesk_pagecache.enable"));
    EXPECT_EQ("", values.value("vesk_pagecache.enable_cli"));
    EXPECT_EQ("/etc/with \"quote\"", values.value("vesk.conf_dir"));
    EXPECT_EQ("${HOME}", values.value("vesk.temp_dir"));
    EXPECT_EQ("/srv/run", values.value("vesk.pid_dir"));
    // Per-directory and per-host sections don't apply to the whole server.
    EXPECT_FALSE(values.contains("vesk.node_id"));
    // A broken line is refused with its number.
    QHash<QByteArray, QByteArray> broken;
    QString error;
    EXPECT_FALSE(parseIniText("a = 1\nb = \"open\n", broken, &error));
    EXPECT_EQ("unterminated quote on line 2", error.toStdString());
}

TEST(CliIniSources, ScanDirectoryListAsTheEngineReadsIt)
{
    IniSources sources;
    sources.builtinScanDir = "/etc/php/8.2/fpm/conf.d";
    EXPECT_EQ(QStringList{"/etc/php/8.2/fpm/conf.d"}, scanDirectories(sources));
    sources.scanDirFromEnvironment = true;
    sources.scanDirEnvironment = ":/a::/b";
    EXPECT_EQ((QStringList{"/etc/php/8.2/fpm/conf.d", "/a", "/etc/php/8.2/fpm/conf.d", "/b"}),
              scanDirectories(sources));
    sources.scanDirEnvironment = "";
    EXPECT_TRUE(scanDirectories(sources).isEmpty());
}

class CliDirectivesTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        QDir(dir.path()).mkpath("conf.d");
        QDir(dir.path()).mkpath("conf");
        sources.phpIni = dir.filePath("php.ini");
        sources.builtinScanDir = dir.filePath("conf.d");
        unsetenv("PHP_INI_SCAN_DIR");
    }
    QTemporaryDir dir;
    IniSources sources;
};

TEST_F(CliDirectivesTest, ScanFilesInNameOrderThenTheProductsFilesWin)
{
    writeFile(dir.filePath("php.ini"), "vesk.conf_dir = " + dir.filePath("conf").toUtf8() +
                                           "\nvesk.temp_dir = /tmp/a\nvesk_pagecache.dir_depth = 1\n");
    writeFile(dir.filePath("conf.d/20-b.ini"), "vesk_pagecache.dir_depth = 3\nvesk.httpd_uid = 33\n");
    writeFile(dir.filePath("conf.d/10-a.ini"), "vesk_pagecache.dir_depth = 2\nvesk_pagecache.save_path = pc\n");
    writeFile(dir.filePath("conf/VeskGlobalDirectives.ini"), "vesk.temp_dir = /tmp/global\nother.key = 1\n");
    CliDirectives directives;
    ASSERT_TRUE(directives.load(sources)) << directives.lastError().toStdString();
    EXPECT_EQ(3, directives.dirDepth());
    EXPECT_EQ(33, directives.httpdUid());
    EXPECT_EQ(33, directives.httpdGid());
    EXPECT_EQ("/tmp/global/pc", directives.savePath());
    EXPECT_EQ(dir.filePath("conf/pagecache_rules.xml").toUtf8(), directives.rulesFile());
    EXPECT_TRUE(directives.value("other.key").isNull());
}

TEST_F(CliDirectivesTest, AMissingPhpIniIsAnError)
{
    CliDirectives directives;
    EXPECT_FALSE(directives.load(sources));
    EXPECT_TRUE(directives.lastError().startsWith("cannot read " + dir.filePath("php.ini")));
}

TEST(CliRuleReport, MatchingUrlIsWhatAWorkerMatches)
{
    EXPECT_EQ("http://example.org/a/b.php", matchingUrl("http://example.org//a///b.php?x=1#top"));
    EXPECT_EQ("https://example.org:8443/", matchingUrl("https://example.org:8443"));
    EXPECT_EQ("", matchingUrl("ftp://example.org/"));
    EXPECT_EQ("", matchingUrl("example.org/a"));
}

TEST(CliRequestValues, ARequestForTheUrlAsAWorkerSeesIt)
{
    RequestValues values("https://a.test:8443//p.php?x=1&y=%20#frag", {"sid=7"}, {"HTTP_HOST=b.test"});
    EXPECT_EQ("1", values.elementValue("_GET", {"x"}));
    EXPECT_EQ(" ", values.elementValue("_GET", {"y"}));
    EXPECT_EQ("7", values.elementValue("_COOKIE", {"sid"}));
    EXPECT_EQ("//p.php?x=1&y=%20", values.elementValue("_SERVER", {"REQUEST_URI"}));
    EXPECT_EQ("on", values.elementValue("_SERVER", {"HTTPS"}));
    EXPECT_EQ("8443", values.elementValue("_SERVER", {"SERVER_PORT"}));
    EXPECT_EQ("b.test", values.elementValue("_SERVER", {"HTTP_HOST"}));
    EXPECT_FALSE(values.elementExists("_COOKIE", {"other"}));
    EXPECT_FALSE(values.globalExists("_SESSION"));
    RequestValues plain("http://a.test", {}, {});
    EXPECT_EQ("/", plain.elementValue("_SERVER", {"REQUEST_URI"}));
    EXPECT_FALSE(plain.elementExists("_SERVER", {"HTTPS"}));
    EXPECT_EQ("a.test", plain.elementValue("_SERVER", {"HTTP_HOST"}));
}

class CliRulesTest : public RulesFixture
{
};

TEST_F(CliRulesTest, CoverageSaysWhyAndConditionsReadAsWritten)
{
    ParsedRules rules(
        "<cache_settings><dont_cache><url path=\"http://a.test/no.php\"/></dont_cache><cache>"
        "<url schema=\"http\" host=\"a.test\" path=\"(page)\\.php\" match_type=\"regex_match\" id=\"7\" "
        "lifetime=\"60\"><name>Pages</name><conditions_OR_block><conditions_AND_block>"
        "<condition global=\"_COOKIE[session]\" type=\"not_exists\" value=\"\"/>"
        "<condition global=\"_GET[lang]\" type=\"regex_match\" value=\"en|de\"/>"
        "</conditions_AND_block></conditions_OR_block>"
        "<split_by><split_condition global=\"_SERVER[REQUEST_URI]\"/></split_by></url></cache></cache_settings>");
    const Coverage covered = coverageOf(rules, "http://a.test/page.php");
    ASSERT_TRUE(covered.rule);
    EXPECT_EQ("Pages", covered.rule->name);
    const QString text = describeRule(*covered.rule, "");
    EXPECT_TRUE(text.contains("conditions: _COOKIE[session] does not exist and _GET[lang] matches /en|de/"))
        << text.toStdString();
    EXPECT_TRUE(text.contains("split by: _SERVER[REQUEST_URI]")) << text.toStdString();
    EXPECT_FALSE(coverageOf(rules, "http://a.test/other.php").rule);
    EXPECT_EQ("listed under <dont_cache>", coverageOf(rules, "http://a.test/no.php").reason);
}

TEST(CliStatsTable, SumsPerRuleAndServesPrometheusText)
{
    StatsTable table;
    auto frame = [](qint32 type, qint64 value) {
        VPageCacheStatsMessage message;
        message.ruleName = "Home \"page\"";
        message.ruleId = 1;
        message.counterType = type;
        message.counterValue = value;
        QByteArray payload;
        QDataStream stream(&payload, QIODevice::WriteOnly);
        stream.setVersion(VSocketBase::QDataStreamVersion);
        stream.setByteOrder(QDataStream::BigEndian);
        stream << qint32(VPageCacheStatsMessage::Kind);
        message.writeTo(stream);
        return payload;
    };
    for (const QByteArray& payload : {frame(0, 1), frame(2, 1), frame(3, 250), frame(0, 1), frame(1, 1),
                                      frame(0, 1), frame(1, 1), frame(4, 1), frame(5, 120), frame(5, 30)})
        EXPECT_TRUE(table.addFrame(payload));
    EXPECT_FALSE(table.addFrame(QByteArray("\0\0\0\x07", 4)));
    const StatsTable::Figures figures = table.rules().value(qMakePair(qint64(1), qint32(-1)));
    EXPECT_EQ(3, figures.possible);
    EXPECT_EQ(2, figures.hits);
    EXPECT_EQ(1, figures.misses);
    EXPECT_EQ(250, figures.timeSavedMs);
    EXPECT_EQ(1, figures.staleHits);
    EXPECT_EQ(2, figures.waits);
    EXPECT_EQ(150, figures.waitedMs);
    const QByteArray metrics = table.prometheus();
    EXPECT_TRUE(metrics.contains(
        "vesk_pagecache_hits_total{rule_id=\"1\",app_id=\"-1\",rule=\"Home \\\"page\\\"\"} 2\n"))
        << metrics.constData();
    EXPECT_TRUE(metrics.contains("# TYPE vesk_pagecache_hit_ratio gauge\n"));
    EXPECT_TRUE(metrics.contains("vesk_pagecache_time_saved_seconds_total{rule_id=\"1\",app_id=\"-1\",rule=\"Home "
                                 "\\\"page\\\"\"} 0.25\n"));
    EXPECT_TRUE(metrics.contains("vesk_pagecache_lock_wait_seconds_total{rule_id=\"1\",app_id=\"-1\",rule=\"Home "
                                 "\\\"page\\\"\"} 0.15\n"));
}

// The web server tests each published rule's cookie conditions as PHP does,
// answers query parameter tests for a request without a query (a block that
// can't hold then is left out), and knows nothing of rules that don't publish.
TEST_F(RulesFixture, PublishConfigFollowsThePublishedRules)
{
    ParsedRules rules(rulesXml(R"(
      <url schema="http" host="h" path="a" publish="true" priority="2"><name>A</name>
        <conditions_OR_block>
          <conditions_AND_block><condition global="_COOKIE[user]" type="not_exists" value=""/>
            <condition global="_GET[preview]" type="not_exists" value=""/></conditions_AND_block>
          <conditions_AND_block><condition global="_COOKIE[lang]" type="equals" value="en.gb"/>
            <condition global="_COOKIE[seen]" type="exists" value=""/></conditions_AND_block>
          <conditions_AND_block><condition global="_COOKIE[never]" type="exists" value=""/>
            <condition global="_GET[p]" type="exists" value=""/></conditions_AND_block>
        </conditions_OR_block></url>
      <url schema="http" host="h" path="b" publish="true" priority="1"><name>B
include /etc/passwd;</name></url>
      <url schema="http" host="h" path="c"><name>C</name></url>)"));
    const QString ns = QString::fromLatin1(VHTMLCache::ruleNamespace(rules.rule("http://h/a")));
    const QString maps = nginxPublishMaps(rules.rules(), "/srv/pub");
    const QString a = "vesk_" + QString::fromLatin1(VMD5::hash("/srv/pub/" + ns.toLatin1()).left(12));
    // No cookies: answered by the exact key, no regex.
    EXPECT_TRUE(maps.contains("map $http_cookie $" + a + "_0_0 { \"\" 1; \"~(^|;)\\s*user=\" \"\"; default 1; }\n"));
    EXPECT_TRUE(maps.contains(" { \"\" \"\"; \"~^(\\s*+(?!lang=)[^;]*;)*\\s*+lang=en\\.gb(;|$)\" 1; default \"\"; }\n"));
    EXPECT_TRUE(maps.contains("map \"${" + a + "_1_0}${" + a + "_1_1}\" $" + a + "_1 { 11 1; default \"\"; }\n"));
    EXPECT_TRUE(maps.contains("map \"${vesk_request}${vesk_cookies}${" + a + "_0_0}${" + a + "_1}\" $" + a + " { 111 \""
                              + ns + "/$scheme/$host:$server_port$request_uri\"; 1111 \"" + ns));
    EXPECT_TRUE(maps.contains("map \"${vesk_request}${vesk_cookies}1\" $")); // B, without conditions
    EXPECT_FALSE(maps.contains("never"));
    // In the workers' order of trial; the rule that doesn't publish is absent.
    EXPECT_LT(maps.indexOf("# Rule \"A\""), maps.indexOf("# Rule \"B include /etc/passwd;\""));
    // A name ends no comment line.
    EXPECT_FALSE(maps.contains("\ninclude"));
    EXPECT_FALSE(maps.contains("# Rule \"C\""));
    const QString nginx = nginxPublishConfig(rules.rules(), "/srv/pub");
    const QString b = "vesk_" + QString::fromLatin1(VMD5::hash("/srv/pub/" + VHTMLCache::ruleNamespace(
                                                            rules.rule("http://h/b"))).left(12));
    // The first rule's file opened untested, the next one's tested; each tried once a request.
    EXPECT_TRUE(nginx.contains("    if ($" + a + ") {\n        expires off;\n        set $vesk_served $" + a
                               + ";\n        set $" + a + " \"\";\n        set $vesk_back"));
    EXPECT_TRUE(nginx.contains("    if (-f \"/srv/pub/$" + b + ".vesk.html\") {\n        expires off;\n        set "
                               "$vesk_served $" + b + ";\n        set $" + a + " \"\";\n        set $" + b
                               + " \"\";\n"));
    EXPECT_EQ(2, nginx.count("rewrite ^ \"${uri}/./vesk-published/"));
    EXPECT_TRUE(nginx.contains("        alias /srv/pub/$vesk_served.vesk.html$1;\n"));
    EXPECT_TRUE(nginx.contains("        error_page 403 404 = $vesk_back;\n"));
    // Without a rule that publishes, no nested location, whose variables nothing would set.
    EXPECT_FALSE(nginxPublishConfig({rules.rule("http://h/c")}, "/srv/pub").contains("alias"));
    EXPECT_TRUE(nginx.contains("        default_type \"text/html; charset=UTF-8\";\n"));

    const QString apache = apacheRewriteConfig(rules.rules(), "/srv/pub");
    EXPECT_TRUE(apache.contains("RewriteCond %{HTTP_COOKIE} !(^|;)\\s*user=\n"));
    EXPECT_TRUE(apache.contains("RewriteCond %{HTTP_COOKIE} (?:^|;)\\s*lang=([^;]*)\nRewriteCond %1 ^en\\.gb$\n"));
    EXPECT_FALSE(apache.contains("never"));
    // Two blocks that can hold, a gzip and a clear rewrite each, and B's two.
    EXPECT_EQ(6, apache.count("RewriteRule ^ /vesk-published/"));
    // The request's own tests once, skipping the six when they fail.
    EXPECT_EQ(1, apache.count("RewriteCond %{REQUEST_METHOD} ^(GET|HEAD)$\n"));
    EXPECT_TRUE(apache.contains("RewriteCond %{REQUEST_URI}#%1 ^([^#]*)#\\1$\n"));
    EXPECT_TRUE(apache.contains("RewriteRule ^ - [S=1]\nRewriteRule ^ - [S=6]\n"));
    EXPECT_TRUE(apache.contains("-f\nRewriteRule ^ /vesk-published/" + ns
                                + "/%{REQUEST_SCHEME}/%{SERVER_NAME}:%{SERVER_PORT}%{REQUEST_URI}.vesk.html.gz [L]\n"));
    EXPECT_FALSE(apache.contains("# Rule \"C\""));
}
