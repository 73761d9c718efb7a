#include "../support/DatabaseTestSupport.h"

#include "PageCachePurgeRules.h"
#include "VException.h"
#include "VeskDB.h"

#include <QCryptographicHash>
#include <QDir>

namespace {

class PurgeRulesTest : public DatabaseFixture
{
protected:
    QString database() const { return dataPath(QStringLiteral("pagecache.db")); }

    static PurgeRule urlRule(const QString& url, const QString& application = QString())
    {
        PurgeRule rule;
        rule.url = QUrl(url, QUrl::TolerantMode);
        rule.applicationName = application;
        return rule;
    }
};

TEST(NormalizeUrl, OnlyTheSchemesDefaultPortGoes)
{
    EXPECT_EQ(QStringLiteral("http://a.example/p?q=1"), normalizeUrl("http://a.example:80/p?q=1"));
    EXPECT_EQ(QStringLiteral("https://a.example/p"), normalizeUrl("https://a.example:443/p"));
    EXPECT_EQ(QStringLiteral("http://a.example:8080/p"), normalizeUrl("http://a.example:8080/p"));
    EXPECT_EQ(QStringLiteral("http://a.example:443/p"), normalizeUrl("http://a.example:443/p"));
    EXPECT_EQ(QStringLiteral("http://a.example/p#f"), normalizeUrl("http://a.example/p#f"));
    EXPECT_EQ(QString(), normalizeUrl(QString()));
}

TEST_F(PurgeRulesTest, UrlRulesByApplication)
{
    deploy({"5, 'x', '/x', 'shop', '1', ''"});
    PageCachePurgeRules purge(info, log);
    purge.addRule(urlRule("http://a.example:80/all"));
    purge.addRule(urlRule("http://a.example/shop-only", "shop"));

    // A rule for every application covers requests of any and of none.
    EXPECT_TRUE(purge.isUrlPurged("http://a.example/all", 0));
    EXPECT_TRUE(purge.isUrlPurged("http://a.example/all", 5));
    EXPECT_FALSE(purge.isUrlPurged("http://a.example:8080/all", 0));
    // A named application's rule needs that application's request.
    EXPECT_TRUE(purge.isUrlPurged("http://a.example:80/shop-only", 5));
    EXPECT_FALSE(purge.isUrlPurged("http://a.example/shop-only", 0));
    EXPECT_FALSE(purge.isUrlPurged("http://a.example/shop-only", -1));
    // An id the deployment doesn't know is no application.
    EXPECT_FALSE(purge.isUrlPurged("http://a.example/shop-only", 6));

    // A rule without a URL covers no request, but a pattern does.
    PurgeRule timeOnly;
    timeOnly.creationTime = QDateTime::currentDateTime().addSecs(-10);
    purge.addRule(timeOnly);
    EXPECT_FALSE(purge.isUrlPurged("http://a.example/other", 0));

    PurgeRule pattern;
    pattern.regex = QRegExp("http://a\\.example/news/.*", Qt::CaseSensitive, QRegExp::RegExp);
    purge.addRule(pattern);
    EXPECT_TRUE(purge.isUrlPurged("http://a.example:80/news/1", 0));
    EXPECT_FALSE(purge.isUrlPurged("http://a.example/sport/1", 0));
}

TEST_F(PurgeRulesTest, CreationTimeHasThePresentAsItsFloor)
{
    PageCachePurgeRules purge(info, log);
    PurgeRule rule;
    rule.creationTime = QDateTime::currentDateTime().addSecs(3600);
    purge.addRule(rule);
    EXPECT_FALSE(purge.isCreationTimePurged(QDateTime::currentDateTime().addDays(-1), 0));
    EXPECT_FALSE(purge.isCreationTimePurged(QDateTime::currentDateTime().addSecs(1800), 0));
    EXPECT_TRUE(purge.isCreationTimePurged(QDateTime::currentDateTime().addSecs(7200), 0));
}

TEST_F(PurgeRulesTest, EntryValidUntilARuleMadeAfterIt)
{
    PageCachePurgeRules purge(info, log);
    PurgeRule rule = urlRule("http://a.example/p", "shop");
    rule.ruleCreationTime = QDateTime::currentDateTime();
    purge.addRule(rule);
    EXPECT_FALSE(purge.isEntryValid(QDateTime::currentDateTime().addSecs(-60),
                                    "http://a.example:80/p", "shop"));
    EXPECT_TRUE(purge.isEntryValid(QDateTime::currentDateTime().addSecs(60), "http://a.example/p",
                                   "shop"));
    EXPECT_TRUE(purge.isEntryValid(QDateTime::currentDateTime().addSecs(-60), "http://a.example/p",
                                   QString()));
}

TEST_F(PurgeRulesTest, FlushWritesEveryRuleAgain)
{
    PageCachePurgeRules purge(info, log);
    // No rules still makes the database and its tables, with no rows.
    purge.flushToDb();
    EXPECT_EQ(QList<QVariantList>({{0}}),
              sql(database(), {QStringLiteral("SELECT count(*) FROM pagecache_purge_rules")}));

    purge.addRule(PurgeRule());
    EXPECT_EQ(QList<QVariantList>({{0, "", qint64(4294967295LL), ""}}),
              sql(database(), {QStringLiteral("SELECT * FROM pagecache_purge_rules")}));
    EXPECT_EQ(QList<QVariantList>({{0}}),
              sql(database(), {QStringLiteral("SELECT count(*) FROM pagecache_purge_urls")}));

    PurgeRule full = urlRule("http://a.example:80/p", "shop");
    full.creationTime = QDateTime::fromSecsSinceEpoch(1700000000);
    full.regex = QRegExp("x.*");
    full.responseHeaders << PurgeResponseHeader{"Content-Type", "eq", "text/html"}
                         << PurgeResponseHeader{"X-A", "", ""};
    purge.addRule(full);

    // Both rules bind id 0, so the second replaces the first's row.
    EXPECT_EQ(QList<QVariantList>({{0, "", qint64(4294967295LL), "shop"}}),
              sql(database(), {QStringLiteral("SELECT * FROM pagecache_purge_rules")}));
    EXPECT_EQ(QList<QVariantList>(
                  {{0, "http://a.example/p",
                    QCryptographicHash::hash("http://a.example/p", QCryptographicHash::Sha1)}}),
              sql(database(), {QStringLiteral("SELECT rule_id, url, url_hash FROM pagecache_purge_urls")}));
    EXPECT_EQ(QList<QVariantList>({{0, "x.*"}}),
              sql(database(), {QStringLiteral("SELECT rule_id, regex FROM pagecache_purge_urls_regexes")}));
    EXPECT_EQ(QList<QVariantList>({{0, 1700000000}}),
              sql(database(), {QStringLiteral(
                                  "SELECT rule_id, creation_time FROM pagecache_purge_creation_time")}));
    EXPECT_EQ(QList<QVariantList>({{"Content-Type", "eq", "text/html"}, {"X-A", "", ""}}),
              sql(database(), {QStringLiteral(
                                  "SELECT name, op, value FROM pagecache_purge_response_headers")}));

    // A further flush adds the child rows once more.
    purge.flushToDb();
    EXPECT_EQ(QList<QVariantList>({{2}}),
              sql(database(), {QStringLiteral("SELECT count(*) FROM pagecache_purge_urls")}));
}

TEST_F(PurgeRulesTest, ARepeatedRuleIsHeldOnceWithTheLaterTimes)
{
    PageCachePurgeRules purge(info, log);
    PurgeRule rule = urlRule("http://a.example/p");
    const QDateTime now = QDateTime::currentDateTimeUtc();
    rule.creationTime = now.addSecs(100);
    purge.addRule(rule);
    rule.creationTime = now.addSecs(50);
    purge.addRule(rule);
    // One rule written on each flush: 1 row, then 1 more.
    EXPECT_EQ(QList<QVariantList>({{2}}),
              sql(database(), {QStringLiteral("SELECT count(*) FROM pagecache_purge_urls")}));
    EXPECT_TRUE(purge.isCreationTimePurged(now.addSecs(101), -1));
    EXPECT_FALSE(purge.isCreationTimePurged(now.addSecs(99), -1));
    for (int i = 0; i < 20; ++i)
        purge.addRule(rule);
    EXPECT_EQ(QList<QVariantList>({{22}}),
              sql(database(), {QStringLiteral("SELECT count(*) FROM pagecache_purge_urls")}));

    // Another URL, or no creation time where the other has one, is a rule of its own.
    purge.addRule(urlRule("http://a.example/q"));
    rule.creationTime = QDateTime();
    purge.addRule(rule);
    EXPECT_EQ(QList<QVariantList>({{22 + 2 + 3}}),
              sql(database(), {QStringLiteral("SELECT count(*) FROM pagecache_purge_urls")}));
    EXPECT_TRUE(purge.isUrlPurged(QStringLiteral("http://a.example/q"), -1));
}

TEST_F(PurgeRulesTest, AFlushWhoseWritesAllFailLeavesTheDatabaseFree)
{
    PageCachePurgeRules purge(info, log);
    purge.flushToDb();
    purge.setFlushRetries(3, 0);
    bool holderCommitted = false;
    {
        // Another worker's write, held for longer than every attempt.
        QSqlDatabase holder = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("holder"));
        holder.setDatabaseName(database());
        holder.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=0"));
        ASSERT_TRUE(holder.open());
        QSqlQuery query(holder);
        ASSERT_TRUE(query.exec(QStringLiteral("BEGIN IMMEDIATE")));
        ASSERT_TRUE(query.exec(QStringLiteral("INSERT INTO pagecache_purge_rules VALUES (77, 'held', 0, '')")));
        EXPECT_THROW(purge.addRule(urlRule("http://a.example/1")), VException);
        EXPECT_EQ(3, logText().count("Commit error:"));
        holderCommitted = query.exec(QStringLiteral("COMMIT"));
        if (!holderCommitted)
            query.exec(QStringLiteral("ROLLBACK"));
    }
    QSqlDatabase::removeDatabase(QStringLiteral("holder"));
    EXPECT_TRUE(holderCommitted);

    // This worker's next purge is written, with the one that failed.
    purge.addRule(urlRule("http://a.example/2"));
    EXPECT_EQ(QList<QVariantList>({{"http://a.example/1"}, {"http://a.example/2"}}),
              sql(database(), {QStringLiteral("SELECT url FROM pagecache_purge_urls WHERE url LIKE "
                                              "'http://a.example/%' ORDER BY id")}));
    EXPECT_EQ(3, logText().count("Commit error:"));
    // And another's.
    sql(database(), {QStringLiteral("INSERT INTO pagecache_purge_rules VALUES (78, 'other', 0, '')")});
    EXPECT_EQ(QList<QVariantList>({{2}}),
              sql(database(), {QStringLiteral("SELECT count(*) FROM pagecache_purge_rules WHERE id >= 77")}));
}

TEST_F(PurgeRulesTest, OpenTransactionIsTheCallersToEnd)
{
    PageCachePurgeRules purge(info, log);
    purge.flushToDb();
    {
        QSqlDatabase db = VeskDB::get(DB_PAGECACHE, QStringLiteral("PageCachePurgeRules::flushToDb"), info);
        VDbConnection connection(db);
        connection.beginTransaction();
        purge.addRule(urlRule("http://a.example/"));
        // Not committed: another connection sees nothing yet.
        EXPECT_EQ(QList<QVariantList>({{0}}),
                  sql(database(), {QStringLiteral("SELECT count(*) FROM pagecache_purge_urls")}));
    }
}

TEST_F(PurgeRulesTest, RefreshReadsOnlyWhenTheFileDateMoves)
{
    PageCachePurgeRules purge(info, log);
    purge.flushToDb();
    setFileDate(database(), -100);
    purge.refresh();
    EXPECT_TRUE(purge.lastRefreshTime().isValid());
    EXPECT_FALSE(logText().contains("refreshRules"));

    // A broken table with the file's date unchanged: nothing is read.
    sql(database(), {QStringLiteral("DROP TABLE pagecache_purge_urls"),
                     QStringLiteral("CREATE VIEW pagecache_purge_urls AS SELECT * FROM gone"),
                     QStringLiteral("INSERT INTO pagecache_purge_creation_time VALUES (NULL, 99, 5)")});
    setFileDate(database(), -100);
    purge.refresh();
    EXPECT_FALSE(logText().contains("refreshRules"));

    setFileDate(database(), -50);
    purge.refresh();
    EXPECT_TRUE(logText().contains("ERROR] PageCachePurgeRules::refreshRules:"));

    // A child row without its parent makes no error.
    sql(database(), {QStringLiteral("DROP VIEW pagecache_purge_urls")});
    PageCachePurgeRules other(info, log);
    other.refresh();
    EXPECT_EQ(1, logText().count("refreshRules"));
}

} // namespace
