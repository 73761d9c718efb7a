#include "LearnedTags.h"
#include "SqlStatement.h"
#include "VException.h"
#include "../rules/RulesTestSupport.h"

#include <gtest/gtest.h>

#include <QStringList>

namespace {

// A statement's reading in short: "r:TABLE" or "r:TABLE=ROW,ROW" per read,
// "w:..." per write, "R*" / "W*" for reading or writing anything, and the
// transaction's control word.
std::string summary(const char* sql, bool backslashEscapes = true)
{
    const SqlStatement s = SqlStatement::read(sql, {{"wp_options", "option_name"}}, backslashEscapes);
    QStringList parts;
    const auto list = [&](const char* kind, const QList<SqlTableAccess>& accesses) {
        for (const SqlTableAccess& a : accesses) {
            QString part = QString::fromLatin1(kind) + QString::fromUtf8(a.table);
            if (!a.rows.isEmpty())
                part += QLatin1Char('=') + QString::fromUtf8(a.rows.toVector().toList().join(','));
            parts << part;
        }
    };
    list("r:", s.reads);
    list("w:", s.writes);
    if (s.readsAnything)
        parts << QStringLiteral("R*");
    if (s.writesAnything)
        parts << QStringLiteral("W*");
    const char* const controls[] = {"", "begin", "commit", "rollback", "autocommit off", "autocommit on"};
    if (s.control != SqlStatement::Plain)
        parts << QString::fromLatin1(controls[s.control]);
    return parts.join(QLatin1Char(' ')).toStdString();
}

struct Case
{
    const char* sql;
    const char* expected;
};

class SqlReading : public testing::TestWithParam<Case>
{
};

TEST_P(SqlReading, ReadsWhatTheStatementTouches)
{
    EXPECT_EQ(GetParam().expected, summary(GetParam().sql)) << GetParam().sql;
}

INSTANTIATE_TEST_SUITE_P(Statements, SqlReading, testing::Values(
    // Reads: tables, joins, subqueries, aliases, quoting, schemas, unions.
    Case{"SELECT * FROM wp_posts WHERE ID = 5", "r:wp_posts=5"},
    Case{"select * from `wp_posts` p where p.`ID` in (1, '2', 3) limit 1", "r:wp_posts=1,2,3"},
    Case{"SELECT * FROM blog.wp_posts AS p WHERE p.ID = 5 AND post_status = 'publish'", "r:wp_posts=5"},
    Case{"SELECT * FROM wp_posts WHERE ID = 5 OR 1 = 1", "r:wp_posts"},
    Case{"SELECT * FROM wp_posts WHERE ID BETWEEN 1 AND 9 AND ID = 2", "r:wp_posts"},
    Case{"SELECT * FROM wp_posts WHERE ID = '5abc'", "r:wp_posts"},
    Case{"SELECT * FROM wp_posts WHERE ID = ?", "r:wp_posts"},
    Case{"SELECT * FROM wp_posts WHERE other.ID = 5", "r:wp_posts"},
    Case{"SELECT option_value FROM wp_options WHERE option_name = 'BlogName' LIMIT 1", "r:wp_options=blogname"},
    Case{"SELECT option_value FROM wp_options WHERE option_name = 5", "r:wp_options"},
    Case{"SELECT option_value FROM wp_options WHERE option_id = 5", "r:wp_options"},
    Case{"SELECT p.* FROM wp_posts p INNER JOIN wp_term_relationships r ON (p.ID = r.object_id) WHERE p.ID = 3",
         "r:wp_posts r:wp_term_relationships"},
    Case{"SELECT a FROM t1, t2 AS b, `s`.`t3` WHERE t1.id = 1", "r:t1 r:t2 r:t3"},
    Case{"SELECT * FROM wp_posts WHERE ID IN (SELECT post_id FROM wp_postmeta WHERE meta_key = 'x')",
         "r:wp_postmeta r:wp_posts"},
    Case{"SELECT * FROM (SELECT id FROM inner_t WHERE id = 4) AS d", "r:inner_t=4"},
    Case{"SELECT id FROM a WHERE id = 1 UNION ALL SELECT id FROM b WHERE id = 2", "r:a=1 r:b=2"},
    Case{"SELECT \"page\".\"page_id\" FROM \"page\" WHERE \"page\".\"id\" = 7", "r:page=7"},
    Case{"SELECT FOUND_ROWS()", ""},
    Case{"SELECT * FROM t WHERE id = 1 -- ; DROP TABLE t\n", "r:t=1"},
    Case{"WITH c AS (SELECT * FROM t) SELECT * FROM c", "r:t r:c"},
    // Writes, by key where the statement names every row it touches.
    Case{"UPDATE wp_posts SET post_title = 'x' WHERE ID = 5", "w:wp_posts=5"},
    Case{"UPDATE wp_posts SET ID = 6 WHERE ID = 5", "w:wp_posts"},
    Case{"UPDATE wp_posts SET post_title = 'x' WHERE post_name = 'a'", "w:wp_posts"},
    Case{"UPDATE LOW_PRIORITY wp_posts p JOIN wp_users u ON p.post_author = u.ID SET p.x = 1",
         "r:wp_users w:wp_posts w:wp_users"},
    Case{"UPDATE `wp_options` SET `option_value` = 'B' WHERE `option_name` = 'blogname'", "w:wp_options=blogname"},
    Case{"UPDATE wp_posts SET comment_count = (SELECT COUNT(*) FROM wp_comments WHERE x = 1) WHERE ID = 2",
         "r:wp_comments w:wp_posts=2"},
    Case{"INSERT INTO wp_posts (ID, post_title) VALUES (7, 'a'), (8, 'b')", "w:wp_posts=7,8"},
    Case{"INSERT INTO wp_posts (post_title) VALUES ('a')", "w:wp_posts"},
    Case{"INSERT INTO wp_posts VALUES (7, 'a')", "w:wp_posts"},
    Case{"INSERT INTO wp_posts (ID) VALUES (7) ON DUPLICATE KEY UPDATE ID = 7", "w:wp_posts"},
    Case{"REPLACE INTO wp_posts (ID) VALUES (7)", "w:wp_posts"},
    Case{"INSERT OR REPLACE INTO page (id) VALUES (7)", "w:page"},
    Case{"INSERT IGNORE INTO wp_posts SET ID = 9, post_title = 'a'", "w:wp_posts=9"},
    Case{"INSERT INTO archive (id, t) SELECT id, t FROM wp_posts WHERE ID = 3", "r:wp_posts=3 w:archive"},
    Case{"DELETE FROM wp_posts WHERE ID = 5", "w:wp_posts=5"},
    Case{"DELETE FROM wp_posts", "w:wp_posts"},
    Case{"DELETE a, b FROM wp_options a, wp_options b WHERE a.option_name LIKE '\\_transient\\_%'",
         "r:wp_options r:wp_options w:wp_options w:wp_options"},
    Case{"TRUNCATE TABLE wp_posts", "w:wp_posts"},
    Case{"TRUNCATE wp_posts", "w:wp_posts"},
    Case{"ALTER TABLE wp_posts ADD COLUMN x INT", "w:wp_posts"},
    Case{"DROP TABLE IF EXISTS a, b", "w:a w:b"},
    Case{"CREATE TABLE IF NOT EXISTS c (id INT PRIMARY KEY)", "w:c"},
    Case{"CREATE UNIQUE INDEX i ON c (x)", "w:c"},
    Case{"RENAME TABLE a TO b, c TO d", "w:a w:b w:c w:d"},
    // Transactions.
    Case{"START TRANSACTION", "begin"},
    Case{"BEGIN IMMEDIATE", "begin"},
    Case{"SET autocommit = 0", "autocommit off"},
    Case{"SET @@session.autocommit=1", "autocommit on"},
    Case{"COMMIT", "commit"},
    Case{"ROLLBACK", "rollback"},
    Case{"ROLLBACK TO SAVEPOINT s1", ""},
    Case{"SAVEPOINT s1", ""},
    // Known to touch no data.
    Case{"SET NAMES utf8mb4", ""},
    Case{"SET SESSION sql_mode = 'NO_ZERO_DATE'", ""},
    Case{"SHOW VARIABLES LIKE 'max_allowed_packet'", ""},
    Case{"PRAGMA foreign_keys = ON", ""},
    // What can't be read well enough: never nothing.
    Case{"SET @x = (SELECT secret FROM s)", "r:s"},
    Case{"SHOW TABLES LIKE 'wp_posts'", "R*"},
    Case{"SHOW FULL COLUMNS FROM `wp_usermeta`", "r:wp_usermeta"},
    Case{"SHOW CREATE TABLE wp_posts", "r:wp_posts"},
    Case{"SHOW INDEX FROM t IN other_db", "R*"},
    Case{"SELECT name FROM sqlite_master WHERE name = 'posts'", "r:posts r:sqlite_master"},
    Case{"SELECT name FROM sqlite_master WHERE type = 'table'", "r:sqlite_master R*"},
    Case{"SELECT * FROM information_schema.tables", "r:information_schema R*"},
    Case{"PRAGMA table_info(page)", "R*"},
    Case{"CALL refresh_all()", "R* W*"},
    Case{"PREPARE s FROM @sql", "R* W*"},
    Case{"CREATE VIEW v AS SELECT * FROM t", "R* W*"},
    Case{"WITH c AS (SELECT 1) DELETE FROM t", "R* W*"},
    Case{"SELECT 'unterminated", "R* W*"},
    Case{"SELECT /*!40000 STRAIGHT_JOIN */ * FROM t WHERE id = 1", "r:t=1"},
    Case{"SELECT /*! * FROM t", "R* W*"},
    Case{"SELECT (1", "R* W*"},
    Case{"SELECT * FROM a WHERE id = 1; UPDATE b SET x = 1 WHERE id = 2", "r:a=1 w:b=2"},
    Case{"BEGIN; UPDATE b SET x = 1; COMMIT", "w:b R* W*"}));

TEST(SqlReading, QuotesFollowTheDialect)
{
    // MySQL escapes with a backslash; SQLite doesn't, and the statement
    // goes on after the quote.
    EXPECT_EQ("r:a=x", summary("SELECT * FROM a WHERE id = 'x' AND n = 'a\\' OR 1'", true).substr(0, 5));
    EXPECT_EQ("r:a", summary("SELECT * FROM a WHERE id = 'x' AND n = 'a\\' OR 1 = 1", false));
    // To SQLite, MySQL's executable comment is a comment.
    EXPECT_EQ("r:a", summary("SELECT /*! STRAIGHT_JOIN */ * FROM a, b", false).substr(0, 3));
}

// Whom a write removes: no page of the read, any, or only those of rules
// that don't ignore transients.
enum Removes { None, Any, Unlisted };
struct TagCase
{
    const char* read;
    const char* write;
    Removes removes;
};

class LearnedTagging : public testing::TestWithParam<TagCase>
{
};

// A write removes a page exactly when the page read what it wrote.
TEST_P(LearnedTagging, AWriteRemovesThePagesThatReadIt)
{
    const QHash<QByteArray, QByteArray> keys{{"wp_options", "option_name"}};
    LearnIgnoreList transients;
    ASSERT_TRUE(transients.parse(QStringLiteral("wp_options.option_name=_transient_* *_sessions"), nullptr));
    for (const LearnIgnoreList& list : {LearnIgnoreList(), transients}) {
        const QSet<QString> pageTags = LearnedTags::read(SqlStatement::read(GetParam().read, keys, true), list.mark());
        const QSet<QString> removed =
            LearnedTags::removed(SqlStatement::read(GetParam().write, keys, true), {LearnIgnoreList(), transients});
        const Removes removes = GetParam().removes;
        EXPECT_EQ(removes == Any || (removes == Unlisted && list.isEmpty()), pageTags.intersects(removed))
            << GetParam().read << " / " << GetParam().write << " mark " << list.mark().constData();
    }
}

INSTANTIATE_TEST_SUITE_P(Pairs, LearnedTagging, testing::Values(
    TagCase{"SELECT * FROM p WHERE id = 5", "UPDATE p SET t = 1 WHERE id = 5", Any},
    TagCase{"SELECT * FROM p WHERE id = 5", "UPDATE p SET t = 1 WHERE id = 6", None},
    TagCase{"SELECT * FROM p WHERE id = 5", "UPDATE p SET t = 1 WHERE name = 'a'", Any},
    TagCase{"SELECT * FROM p WHERE id = 5", "INSERT INTO p (t) VALUES (1)", Any},
    TagCase{"SELECT * FROM p", "UPDATE p SET t = 1 WHERE id = 6", Any},
    TagCase{"SELECT * FROM p", "UPDATE q SET t = 1", None},
    TagCase{"SHOW TABLES", "UPDATE q SET t = 1 WHERE id = 2", Any},
    TagCase{"SELECT * FROM p WHERE id = 5", "CALL anything()", Any},
    TagCase{"SELECT * FROM wp_options WHERE autoload = 'yes'",
            "UPDATE wp_options SET option_value = 'x' WHERE option_name = '_transient_doing_cron'", Unlisted},
    TagCase{"SELECT * FROM wp_options WHERE autoload = 'yes'",
            "INSERT INTO wp_options (option_name, option_value) VALUES ('_transient_a', 'x')"
            " ON DUPLICATE KEY UPDATE option_value = VALUES(option_value)", Unlisted},
    TagCase{"SELECT * FROM wp_options WHERE autoload = 'yes'",
            "UPDATE wp_options SET option_name = 'blogname' WHERE option_name = '_transient_x'", Any},
    TagCase{"SELECT * FROM wp_options WHERE autoload = 'yes'",
            "UPDATE wp_options SET option_value = 'B' WHERE option_name = 'blogname'", Any},
    TagCase{"SELECT * FROM wp_options WHERE option_name = 'siteurl'",
            "UPDATE wp_options SET option_value = 'B' WHERE option_name = 'blogname'", None}));

TEST(LearnIgnoreList, RefusesWhatItCantRead)
{
    LearnIgnoreList list;
    QString bad;
    EXPECT_FALSE(list.parse(QStringLiteral("wp_options option_name=x"), &bad));
    EXPECT_EQ(QStringLiteral("option_name=x"), bad);
    EXPECT_TRUE(LearnIgnoreList().mark().isEmpty());
}

class LearnRules : public RulesFixture
{
};

// Every writer needs the keys and the distinct lists of the rules that
// learn, whatever rule its own request matched.
TEST_F(LearnRules, RulesFileNamesKeysAndLists)
{
    ParsedRules rules(rulesXml(R"(
      <url schema="http" host="h" path="a" learn_keys="wp_options.option_name"
           learn_ignore="wp_options.option_name=cron"/>
      <url schema="http" host="h" path="b" learn_ignore="wp_options.option_name=cron"/>
      <url schema="http" host="h" path="c" learn="false" learn_ignore="other"/>
      <url schema="http" host="h" path="d"/>)"));
    EXPECT_EQ(QByteArray("option_name"), rules.learnKeys().value("wp_options"));
    ASSERT_EQ(2, rules.learnLists().size());
    EXPECT_FALSE(rules.rule("http://h/c").d->learn);
    EXPECT_EQ(rules.learnLists().first().mark(), rules.rule("http://h/b").d->learnIgnored.mark());
    EXPECT_THROW(ParsedRules(rulesXml(R"(<url schema="http" host="h" path="a" learn_ignore=".x=1"/>)")), VException);
    EXPECT_THROW(ParsedRules(rulesXml(R"(<url schema="http" host="h" path="a" learn_keys="nodot"/>)")), VException);
}

} // namespace
