#include "../rules/RulesTestSupport.h"

#include "CacheEntry.h"
#include "QtIOCompressor.h"
#include "VDiskStorage.h"
#include "VHTMLCache.h"
#include "VHeaderLines.h"
#include "VMD5.h"

#include <QDataStream>
#include <QLocale>
#include <QTextCodec>
#include <QtEndian>

namespace {

using Headers = QLinkedList<QByteArray>;

QByteArray gzip(const QByteArray& data)
{
    return compress(data.constData(), data.size());
}

class CacheTest : public RulesFixture
{
protected:
    void SetUp() override
    {
        RulesFixture::SetUp();
        const QString rules = writeRulesFile(R"xml(
          <url schema="http" host="h" path="one" id="1" priority="2"><name>twice</name>
            <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by></url>
          <url schema="http" host="h" path="two" id="2" priority="1"><name>twice</name>
            <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by></url>
          <url schema="http" host="h" path="(a|b)" id="3" match_type="regex_match"><name>pattern</name>
            <split_by><split_condition global="_SERVER[HTTP_HOST]"/><split_condition global="_SERVER[REQUEST_URI]"/>
            </split_by></url>
          <url schema="http" host="h" path="café/(à|b)" id="4" match_type="regex_match">
            <name>Événements</name>
            <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by></url>)xml");
        savePath = QFile::encodeName(dir.filePath(QStringLiteral("store")));
        rulesPath = QFile::encodeName(rules);
        load();
    }
    void load()
    {
        VHTMLCache::destroyInstance();
        cache = VHTMLCache::instance();
        ASSERT_TRUE(cache->load(savePath.constData(), 1, rulesPath.constData(), 100))
            << cache->lastError().toStdString();
    }
    void TearDown() override
    {
        cache->shutdown();
        VHTMLCache::destroyInstance();
        RulesFixture::TearDown();
    }
    CacheEntry clear(const QByteArray& key)
    {
        CacheEntry entry;
        cache->readEntry("ns", key, entry);
        return entry;
    }
    CacheEntry gzipped(const QByteArray& key)
    {
        CacheEntry entry;
        cache->readCompressedEntry("ns", key, entry);
        return entry;
    }
    QByteArray ruleNs(const QByteArray& path) { return VMD5::hash("http://h/" + path); }

    QByteArray savePath;
    QByteArray rulesPath;
    VHTMLCache* cache = nullptr;
};

TEST_F(CacheTest, RecordIsTheStreamOfItsFieldsAtVersion18)
{
    const Headers headers{"Content-Type: text/html", "X-A: 1"};
    ASSERT_TRUE(cache->storeOutput("ns", "k", "http://h:80/one?x", "<p>body</p>", 11, 203, headers, 60, false, false));
    const CacheEntry entry = clear("k");
    EXPECT_EQ(2019, entry.formatTag());
    EXPECT_EQ(QByteArray("http://h:80/one?x"), entry.url());
    EXPECT_EQ(203, entry.status());
    EXPECT_EQ(headers, entry.headers());
    EXPECT_EQ(QByteArray("<p>body</p>"), entry.body());
    EXPECT_LE(qAbs(entry.created().secsTo(QDateTime::currentDateTimeUtc())), 5);
    EXPECT_EQ(0, gzipped("k").formatTag());

    // The same fields streamed by hand make the same bytes, the lines as
    // a hit sends them behind: the status fails the rules, so unstamped.
    QByteArray expected;
    QDataStream out(&expected, QIODevice::WriteOnly);
    out.setVersion(18);
    out << qint32(2019) << entry.created().toLocalTime() << QByteArray("http://h:80/one?x") << qint32(203) << quint32(2)
        << QByteArray("Content-Type: text/html") << QByteArray("X-A: 1") << QByteArray("<p>body</p>");
    expected += VReadyHeaders::section(headers, QByteArray(), -1);
    int length = 0;
    char* stored = cache->store()->read("ns", "k", &length);
    ASSERT_NE(nullptr, stored);
    EXPECT_EQ(expected, QByteArray(stored, length));
    free(stored);
    EXPECT_EQ(0x07E3, qFromBigEndian<qint32>(expected.constData()));
}

TEST_F(CacheTest, CompressedCopyBesideTheClearOne)
{
    const QByteArray body(1025, 'a');
    ASSERT_TRUE(cache->storeOutput("ns", "k", "u", body.constData(), body.size(), 200, Headers{"X: 1"}, 60, true, false));
    const CacheEntry copy = gzipped("k");
    EXPECT_EQ((Headers{"X: 1", "Content-Encoding: gzip", "Vary: Accept-Encoding"}), copy.headers());
    EXPECT_EQ(body, decompress(copy.body().constData(), copy.body().size()));
    EXPECT_EQ((Headers{"X: 1", "Vary: Accept-Encoding"}), clear("k").headers());
    EXPECT_EQ(body, clear("k").body());
    EXPECT_TRUE(log().contains("Output size before compression: 1025 "));
}

TEST(CompressionGate, SizeRequestAndTidy)
{
    EXPECT_FALSE(VHTMLCache::compressionWanted(1024, true, nullptr));
    EXPECT_TRUE(VHTMLCache::compressionWanted(1025, true, nullptr));
    EXPECT_FALSE(VHTMLCache::compressionWanted(1025, false, nullptr));
    EXPECT_TRUE(VHTMLCache::compressionWanted(1025, true, "0"));
    EXPECT_FALSE(VHTMLCache::compressionWanted(1025, true, "1"));
    EXPECT_FALSE(VHTMLCache::compressionWanted(1025, true, "on"));
}

TEST_F(CacheTest, AlreadyCompressedBodyIsStoredAsItCameAndClearedForTheClearCopy)
{
    const QByteArray page("<html>already</html>");
    const QByteArray body = gzip(page);
    const Headers headers{"Content-Encoding: gzip", "Vary: Accept-Encoding", "Vary: Accept - Encoding", "X: 1"};
    ASSERT_TRUE(cache->storeOutput("ns", "k", "u", body.constData(), body.size(), 200, headers, 60, true, true));
    EXPECT_EQ(body, gzipped("k").body());
    EXPECT_EQ(headers, gzipped("k").headers());
    EXPECT_EQ(page, clear("k").body());
    EXPECT_EQ((Headers{"Vary: Accept-Encoding", "Vary: Accept - Encoding", "X: 1"}), clear("k").headers());
    EXPECT_FALSE(log().contains("Output size before compression"));
}

// Regression: the clear page's length went out with the gzip body (clients
// hung), and the gzip copy's Vary took the place of the application's.
TEST_F(CacheTest, CopiesKeepTheApplicationsVaryAndNoLengthOfTheOtherBody)
{
    const QByteArray body(2000, 'a');
    const Headers headers{"Content-Length: 2000", "vary: Cookie", "X: 1"};
    ASSERT_TRUE(cache->storeOutput("ns", "k", "u", body.constData(), body.size(), 200, headers, 60, true, false));
    EXPECT_EQ((Headers{"vary: Cookie, Accept-Encoding", "X: 1", "Content-Encoding: gzip"}), gzipped("k").headers());
    EXPECT_EQ((Headers{"vary: Cookie, Accept-Encoding", "X: 1"}), clear("k").headers());

    const Headers alone{"content-length: 9", "Vary: accept-encoding"};
    ASSERT_TRUE(cache->storeOutput("ns", "s", "u", "small one", 9, 200, alone, 60, false, false));
    EXPECT_EQ((Headers{"Vary: accept-encoding"}), clear("s").headers());
    EXPECT_FALSE(cache->entryExists("ns", "s.z", false));

    const QByteArray page("<p>gzip of the script's own</p>");
    const QByteArray gz = gzip(page);
    const Headers own{"content-encoding: GZIP", "Content-Length: 3", "Vary: Cookie"};
    ASSERT_TRUE(cache->storeOutput("ns", "g", "u", gz.constData(), gz.size(), 200, own, 60, false, true));
    EXPECT_EQ((Headers{"content-encoding: GZIP", "Vary: Cookie, Accept-Encoding"}), gzipped("g").headers());
    EXPECT_EQ((Headers{"Vary: Cookie, Accept-Encoding"}), clear("g").headers());
}

TEST_F(CacheTest, UndecompressableGzipStandsAlone)
{
    const QByteArray body("not gzip at all");
    EXPECT_TRUE(cache->storeOutput("ns", "k", "u", body.constData(), body.size(), 200, Headers{}, 60, false, true));
    EXPECT_EQ(body, gzipped("k").body());
    EXPECT_FALSE(cache->entryExists("ns", "k", false));
    EXPECT_TRUE(log().contains("WARNING] Unable to decompress response."));
    clearLog();
    EXPECT_TRUE(decompress("", 0).isEmpty());
    EXPECT_TRUE(log().contains("WARNING] Unable to decompress response."));
}

TEST_F(CacheTest, FailedGzipWriteLeavesTheOlderClearRecord)
{
    ASSERT_TRUE(cache->storeOutput("ns", "k", "u", "old", 3, 200, Headers{}, 60, false, false));
    // The gzip copy's place is taken by a directory: its write fails.
    QDir().mkpath(QString::fromLocal8Bit(cache->store()->recordPath("ns", "k.z")));
    const QByteArray body(2000, 'n');
    EXPECT_FALSE(cache->storeOutput("ns", "k", "u", body.constData(), body.size(), 200, Headers{}, 60, true, false));
    EXPECT_TRUE(log().contains("failed to store compressed output for k.z"));
    EXPECT_EQ(QByteArray("old"), clear("k").body());
}

TEST_F(CacheTest, LastModifiedIsTheExpiryAndMissingIsZero)
{
    EXPECT_EQ(0, cache->entryLastModified("ns", "none"));
    const qint64 before = QDateTime::currentSecsSinceEpoch();
    ASSERT_TRUE(cache->storeOutput("ns", "k", "u", "b", 1, 200, Headers{}, 600, false, false));
    const qint64 modified = cache->entryLastModified("ns", "k");
    EXPECT_GE(modified, before + 600);
    EXPECT_LE(modified, QDateTime::currentSecsSinceEpoch() + 600);
}

TEST_F(CacheTest, RemovingAnEntryDropsItsGzipCopyToo)
{
    const QByteArray page(2000, 'p');
    ASSERT_TRUE(cache->storeOutput("ns", "k", "u", page.constData(), page.size(), 200, Headers{}, 600, true, false));
    ASSERT_NE(0, gzipped("k").formatTag());
    EXPECT_TRUE(cache->removeEntry("ns", "k"));
    EXPECT_EQ(0, clear("k").formatTag());
    EXPECT_EQ(0, gzipped("k").formatTag());
    // A gzip copy alone, as an application's own gzip body that couldn't be read leaves it.
    ASSERT_TRUE(cache->store()->write("ns", "k.z", "v", nullptr, 60, 0));
    EXPECT_TRUE(cache->removeEntry("ns", "k"));
    EXPECT_EQ(0, gzipped("k").formatTag());
}

TEST_F(CacheTest, ParseHttpDateInItsThreeForms)
{
    QLocale::setDefault(QLocale(QLocale::English));
    const QDateTime expected(QDate(1994, 11, 6), QTime(8, 49, 37));
    EXPECT_EQ(expected, VHTMLCache::parseHttpDate("Sun, 06 Nov 1994 08:49:37 GMT"));
    const QDateTime twoDigitYear = VHTMLCache::parseHttpDate("Sunday, 06-Nov-94 08:49:37 GMT");
    EXPECT_EQ(QTime(8, 49, 37), twoDigitYear.time());
    EXPECT_EQ(94, twoDigitYear.date().year() % 100);
    EXPECT_EQ(11, twoDigitYear.date().month());
    EXPECT_EQ(expected, VHTMLCache::parseHttpDate("Sun Nov 6 08:49:37 1994"));
    EXPECT_FALSE(VHTMLCache::parseHttpDate("yesterday").isValid());
}

TEST_F(CacheTest, RemovalByRuleIdNameUriAndPattern)
{
    // The split key of a rule split by _SERVER[REQUEST_URI] alone.
    const QByteArray uriKey = VMD5::hash("_SERVER/p?x=1");
    for (const char* path : {"one", "two", "(?:a|b)"}) {
        ASSERT_TRUE(cache->store()->write(ruleNs(path), uriKey, "v", nullptr, 60, 0));
        ASSERT_TRUE(cache->store()->write(ruleNs(path), "other", "v", nullptr, 60, 0));
    }
    auto has = [&](const char* path, const QByteArray& key) { return cache->entryExists(ruleNs(path), key, false); };

    EXPECT_TRUE(cache->removeByRuleId(99));
    EXPECT_TRUE(has("one", "other"));

    // Both rules named "twice" are looked into by URI, and lose both copies...
    ASSERT_TRUE(cache->store()->write(ruleNs("two"), uriKey + ".z", "v", nullptr, 60, 0));
    EXPECT_TRUE(cache->removeByUri("twice", "/p?x=1"));
    EXPECT_FALSE(has("one", uriKey));
    EXPECT_FALSE(has("two", uriKey));
    EXPECT_FALSE(has("two", uriKey + ".z"));
    EXPECT_TRUE(has("one", "other"));
    EXPECT_TRUE(has("(?:a|b)", uriKey));
    EXPECT_TRUE(cache->removeByUri("nobody", "/p?x=1"));

    // ...but by name only the first one's pages go.
    EXPECT_TRUE(cache->removeByRuleName("twice"));
    EXPECT_FALSE(has("one", "other"));
    EXPECT_TRUE(has("two", "other"));
    EXPECT_TRUE(log().contains("Remove cached contents for rule twice"));

    EXPECT_TRUE(cache->removeByRuleId(2));
    EXPECT_FALSE(has("two", "other"));

    // A pattern as a script writes it reaches the rule's namespace.
    EXPECT_EQ(ruleNs("(?:a|b)"), VHTMLCache::patternNamespace(QStringLiteral("http://h/(a|b)")));
    EXPECT_EQ(ruleNs("(?:a|b)"), VHTMLCache::patternNamespace(QStringLiteral("http://h/(?:a|b)")));
    EXPECT_TRUE(cache->clearNamespace(VHTMLCache::patternNamespace(QStringLiteral("http://h/(a|b)"))));
    EXPECT_FALSE(has("(?:a|b)", uriKey));

    ASSERT_TRUE(cache->store()->write(ruleNs("one"), "k", "v", nullptr, 60, 0));
    EXPECT_TRUE(cache->clearNamespace(QByteArray()));
    EXPECT_FALSE(has("one", "k"));
}

TEST_F(CacheTest, RemovalByUriOfARuleSplitByMoreThanTheUriTakesAllItsPages)
{
    const QByteArray uriKey = VMD5::hash("_SERVER/p?x=1");
    ASSERT_TRUE(cache->store()->write(ruleNs("(?:a|b)"), uriKey, "v", nullptr, 60, 0));
    ASSERT_TRUE(cache->store()->write(ruleNs("(?:a|b)"), "hostAndUri", "v", nullptr, 60, 0));
    ASSERT_TRUE(cache->store()->write(ruleNs("one"), "other", "v", nullptr, 60, 0));
    EXPECT_TRUE(cache->removeByUri("pattern", "/p?x=1"));
    EXPECT_FALSE(cache->entryExists(ruleNs("(?:a|b)"), "hostAndUri", false));
    EXPECT_FALSE(cache->entryExists(ruleNs("(?:a|b)"), uriKey, false));
    EXPECT_TRUE(cache->entryExists(ruleNs("one"), "other", false));
    EXPECT_TRUE(log().contains("INFO] Rule pattern is not split by the request URI alone: removing all its pages"));
}

TEST_F(CacheTest, RemovalNamesRulesAndUrlsInUtf8WhateverTheLocale)
{
    QTextCodec* previous = QTextCodec::codecForLocale();
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("ISO-8859-1"));
    load();
    const QByteArray name = "\xc3\x89v\xc3\xa9nements";
    const QByteArray ns = ruleNs("caf\xc3\xa9/(?:\xc3\xa0|b)");
    const QByteArray uriKey = VMD5::hash("_SERVER/caf%C3%A9/b");
    auto fill = [&] {
        ASSERT_TRUE(cache->store()->write(ns, uriKey, "v", nullptr, 60, 0));
        ASSERT_TRUE(cache->store()->write(ns, uriKey + ".z", "v", nullptr, 60, 0));
    };
    auto has = [&](const QByteArray& key) { return cache->entryExists(ns, key, false); };

    fill();
    EXPECT_TRUE(cache->removeByUri(name, "/caf%C3%A9/b"));
    EXPECT_FALSE(has(uriKey));
    EXPECT_FALSE(has(uriKey + ".z"));
    fill();
    EXPECT_TRUE(cache->removeByRuleName(name.constData()));
    EXPECT_FALSE(has(uriKey + ".z"));
    fill();
    EXPECT_TRUE(cache->removeByRuleId(4));
    EXPECT_FALSE(has(uriKey));
    fill();
    EXPECT_TRUE(cache->clearNamespace(VHTMLCache::patternNamespace(QString::fromUtf8("http://h/caf\xc3\xa9/(\xc3\xa0|b)"))));
    EXPECT_FALSE(has(uriKey));
    QTextCodec::setCodecForLocale(previous);
}

} // namespace

// The capture keeps its lines as the engine keeps the response's.
TEST(HeaderLines, FollowTheEnginesOperations)
{
    using VHeaderLines::Op;
    Headers lines;
    VHeaderLines::apply(lines, Op::Add, "Set-Cookie: a=1");
    VHeaderLines::apply(lines, Op::Add, "X-Gone: 1");
    VHeaderLines::apply(lines, Op::Add, "set-cookie: b=2");
    VHeaderLines::apply(lines, Op::Add, "X-Kept: 1");
    VHeaderLines::apply(lines, Op::Delete, "x-gone");
    EXPECT_EQ((Headers{"Set-Cookie: a=1", "set-cookie: b=2", "X-Kept: 1"}), lines);
    VHeaderLines::apply(lines, Op::Replace, "SET-COOKIE: c=3");
    EXPECT_EQ((Headers{"X-Kept: 1", "SET-COOKIE: c=3"}), lines);
    // A name is a whole name: X-Kept-Too isn't X-Kept.
    VHeaderLines::apply(lines, Op::Add, "X-Kept-Too: 1");
    VHeaderLines::apply(lines, Op::Delete, "X-Kept");
    EXPECT_EQ((Headers{"SET-COOKIE: c=3", "X-Kept-Too: 1"}), lines);
    EXPECT_EQ(QByteArray("c=3"), VHeaderLines::value(lines, "set-cookie"));
    EXPECT_TRUE(VHeaderLines::value(lines, "Location").isNull());
    VHeaderLines::apply(lines, Op::DeleteAll, QByteArray());
    EXPECT_TRUE(lines.isEmpty());
    EXPECT_TRUE(VHeaderLines::isGzipEncoding("content-encoding:  gzip "));
    EXPECT_FALSE(VHeaderLines::isGzipEncoding("Content-Encoding: br"));
}

// Regression: a page that shrank under the gzip limit left its older gzip
// copy answering gzip clients.
TEST_F(CacheTest, APageStoredWithoutAGzipCopyDropsTheOlderOne)
{
    const QByteArray big(2000, 'a');
    ASSERT_TRUE(cache->storeOutput("ns", "k", "u", big.constData(), big.size(), 200, Headers{}, 60, true, false));
    ASSERT_TRUE(cache->entryExists("ns", "k.z", false));
    ASSERT_TRUE(cache->storeOutput("ns", "k", "u", "small", 5, 200, Headers{}, 60, false, false));
    EXPECT_FALSE(cache->entryExists("ns", "k.z", false));
    EXPECT_EQ(QByteArray("small"), clear("k").body());
}
