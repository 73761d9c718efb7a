#include "DatabaseTestSupport.h"

#include "TKDTaskInserter.h"
#include "VException.h"
#include "VeskDB.h"

#include <QFileInfo>
#include <QSqlRecord>

using DatabaseTest = DatabaseFixture;

TEST_F(DatabaseTest, FirstConnectionMakesDirectoryFileAndTables)
{
    EXPECT_EQ(QStringLiteral("pagecache.db"), VeskDB::getSqliteDbFileName(DB_PAGECACHE));
    EXPECT_EQ(dataPath(QStringLiteral("pagecache.db")),
              VeskDB::getSqliteDbFileName(DB_PAGECACHE, info));
    {
        QSqlDatabase db = VeskDB::get(DB_PAGECACHE, QStringLiteral("one"), info);
        EXPECT_TRUE(db.isOpen());
        QStringList tables = db.tables();
        tables.sort();
        EXPECT_EQ(QStringList({"pagecache_purge_creation_time", "pagecache_purge_response_headers",
                               "pagecache_purge_rules", "pagecache_purge_urls",
                               "pagecache_purge_urls_regexes"}),
                  tables);
    }
    QSqlDatabase::removeDatabase(QStringLiteral("one"));
    // The deployment tables read through one union must have matching widths.
    {
        QSqlDatabase db = VeskDB::get(DB_DEPLOYMENT, QStringLiteral("two"), info);
        EXPECT_EQ(6, db.record(QStringLiteral("deployment_apps_info")).count());
        EXPECT_EQ(5, db.record(QStringLiteral("deployment_libs_info")).count());
    }
    QSqlDatabase::removeDatabase(QStringLiteral("two"));
}

TEST_F(DatabaseTest, NoDataDirectoryIsAnException)
{
    EXPECT_TRUE(VeskDB::getSqliteDbFileName(DB_PAGECACHE, VeskServerInfo()).isEmpty());
    EXPECT_THROW(VeskDB::get(DB_PAGECACHE, QStringLiteral("none"), VeskServerInfo()), VException);
    QSqlDatabase::removeDatabase(QStringLiteral("none"));
}

TEST_F(DatabaseTest, SafeQueryThrowsAndConnectionKnowsItsTransaction)
{
    {
        QSqlDatabase db = VeskDB::get(DB_PAGECACHE, QStringLiteral("q"), info);
        VSafeSqlQuery query(db, true);
        EXPECT_THROW(query.prepare(QStringLiteral("SELEKT nothing")), VException);
        EXPECT_THROW(query.exec(QStringLiteral("SELECT * FROM no_such_table")), VException);
        VSafeSqlQuery quiet(db, false);
        EXPECT_FALSE(quiet.exec(QStringLiteral("SELECT * FROM no_such_table")));

        VDbConnection connection(db);
        EXPECT_FALSE(connection.isTransactionStarted());
        connection.beginTransaction();
        EXPECT_TRUE(connection.isTransactionStarted());
        query.exec(QStringLiteral("INSERT INTO pagecache_purge_rules (name) VALUES ('x')"));
        connection.rollback();
        EXPECT_FALSE(connection.isTransactionStarted());
        query.exec(QStringLiteral("SELECT count(*) FROM pagecache_purge_rules"));
        ASSERT_TRUE(query.next());
        EXPECT_EQ(0, query.value(0).toInt());
    }
    QSqlDatabase::removeDatabase(QStringLiteral("q"));
}

TEST_F(DatabaseTest, TaskIsOneRowOfTheQueue)
{
    info.setServerNumber(3);
    TKDTaskInserter::addTask(tkd::PAGECACHE_REMOVE_BY_RULE, true, info,
                             QStringLiteral("[\"page_cache_remove_cached_contents_by_rule\",\"r\"]"),
                             log);
    const QList<QVariantList> rows =
        sql(dataPath(QStringLiteral("tkd.db")),
            {QStringLiteral("SELECT type, payload, other_nodes_only, server, webserver, status, "
                            "abs(created - strftime('%s','now')) < 60 FROM tkd_tasks")});
    ASSERT_EQ(1, rows.size());
    EXPECT_EQ(QVariantList({79, "[\"page_cache_remove_cached_contents_by_rule\",\"r\"]", 1, 3,
                            "nginx", 0, 1}),
              rows[0]);

    EXPECT_THROW(TKDTaskInserter::addTask(tkd::PAGECACHE_REMOVE_ALL, true, VeskServerInfo(),
                                          QString(), log),
                 VException);
    EXPECT_TRUE(logText().contains("Task queue is busy, retrying:"));
}
