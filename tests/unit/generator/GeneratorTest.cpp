#include "../support/DatabaseTestSupport.h"

#include "TKDPageCacheRule.h"
#include "VHTMLCache.h"

#include <QDir>
#include <QRegularExpression>
#include <QXmlStreamReader>

namespace {

class GeneratorTest : public DatabaseFixture
{
protected:
    void SetUp() override
    {
        DatabaseFixture::SetUp();
        QDir().mkpath(dir.filePath(QStringLiteral("etc")));
        ASSERT_TRUE(QFile::copy(QStringLiteral(VESK_SOURCE_DIR "/conf/pagecache_rules_schema.xsd"),
                                dir.filePath(QStringLiteral("etc/pagecache_rules_schema.xsd"))));
        db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("tkd"));
        db.setDatabaseName(dir.filePath(QStringLiteral("tkd.db")));
        ASSERT_TRUE(db.open());
        TKDPageCacheRule::createTables(db);
    }
    void TearDown() override
    {
        db.close();
        db = QSqlDatabase();
        QSqlDatabase::removeDatabase(QStringLiteral("tkd"));
        DatabaseFixture::TearDown();
    }

    void run(const QString& statement)
    {
        QSqlQuery query(db);
        ASSERT_TRUE(query.exec(statement)) << statement.toStdString();
    }

    void rule(int id, const QString& name, const QString& attributes)
    {
        run(QStringLiteral("INSERT INTO TKD_PAGECACHE_RULES VALUES (%1, -1, 'n', '<url schema=\"http\" host=\"h\" "
                           "path=\"%2\" %3><name>%2</name></url>')")
                .arg(id)
                .arg(name, attributes));
    }

    // The rule names in the order the document gives them.
    static QStringList names(const QString& document)
    {
        QStringList found;
        QRegularExpressionMatchIterator it =
            QRegularExpression(QStringLiteral("<name>([^<]*)</name>")).globalMatch(document);
        while (it.hasNext())
            found << it.next().captured(1);
        return found;
    }

    QString build() { return TKDPageCacheRule::buildRulesDocument(db, dir.path(), log); }

    QSqlDatabase db;
};

TEST_F(GeneratorTest, NoRowsIsHeadAndTail)
{
    EXPECT_EQ(QStringLiteral("<?xml version=\"1.0\"?>\n<cache_settings>\n    <dont_cache/>\n    <cache/>\n"
                             "</cache_settings>\n"),
              build());
}

TEST_F(GeneratorTest, FirstRuleDecidesWhetherPrioritiesSort)
{
    rule(1, "a", "");
    rule(2, "b", "priority=\"9\"");
    rule(3, "c", "priority=\"1\"");
    EXPECT_EQ(QStringList({"a", "b", "c"}), names(build()));

    run(QStringLiteral("DELETE FROM TKD_PAGECACHE_RULES"));
    rule(1, "a", "priority=\"0\"");
    rule(2, "b", "");
    rule(3, "c", "priority=\"9\"");
    rule(4, "d", "priority=\"x\"");
    // No priority counts as -1, behind 0; a text that isn't a number is 0.
    const QStringList sorted = names(build());
    EXPECT_EQ(QStringLiteral("c"), sorted.first());
    EXPECT_EQ(QStringLiteral("b"), sorted.last());
    EXPECT_TRUE(build().contains(QStringLiteral("id=\"3\"")));
}

TEST_F(GeneratorTest, DeclarationAndCommentBeforeTheRuleGo)
{
    run(QStringLiteral("INSERT INTO TKD_PAGECACHE_RULES VALUES (7, -1, 'n', '<?xml version=\"1.0\"?>"
                       "<!-- made by hand, was <url schema=\"http\" host=\"x\" path=\".*\"/> --><url schema=\"http\" host=\"h\" path=\"p\"><name>p</name></url>')"));
    const QString document = build();
    EXPECT_EQ(1, document.count(QStringLiteral("<?xml")));
    EXPECT_FALSE(document.contains(QStringLiteral("made by hand")) || document.contains(QStringLiteral("host=\"x\"")));
    EXPECT_EQ(QStringList({"p"}), names(document));
}

TEST_F(GeneratorTest, ResponseRulesInApplicationOrder)
{
    run(QStringLiteral("INSERT INTO TKD_PAGECACHE_RESPONSE_CODES VALUES (7, '200, 30x')"));
    run(QStringLiteral("INSERT INTO TKD_PAGECACHE_RESPONSE_CODES VALUES (-1, '200')"));
    run(QStringLiteral("INSERT INTO TKD_PAGECACHE_RESPONSE_HEADERS VALUES (NULL, -1, 'Set-Cookie', 'exists', '', 0)"));
    run(QStringLiteral("INSERT INTO TKD_PAGECACHE_RESPONSE_HEADERS VALUES (NULL, -1, 'X-A', 'equals', 'b', 0)"));
    const QList<ResponseRule> rules = TKDPageCacheRule::loadResponseRules(db, log);
    ASSERT_EQ(2, rules.size());
    EXPECT_EQ(-1, rules[0].appId);
    EXPECT_FALSE(rules[0].inheritGlobals);
    EXPECT_EQ(2, rules[0].headerChecks.size());
    EXPECT_EQ(QStringLiteral("<response_rule app_id=\"7\" response_codes=\"200, 30x\"></response_rule>"),
              TKDPageCacheRule::responseRuleToXml(rules[1]));
    EXPECT_TRUE(build().contains(
        QStringLiteral("    <response_rule app_id=\"-1\" response_codes=\"200\">\n"
                       "            <response_headers>\n"
                       "                <header name=\"Set-Cookie\" match_type=\"exists\" value=\"\"/>\n"
                       "                <header name=\"X-A\" match_type=\"equals\" value=\"b\"/>\n"
                       "            </response_headers>\n"
                       "        </response_rule>\n"
                       "        <response_rule app_id=\"7\" response_codes=\"200, 30x\"/>\n")));
}

// The file the workers run on, before a run of the generator.
class GeneratorOverRules : public GeneratorTest
{
protected:
    void SetUp() override
    {
        GeneratorTest::SetUp();
        QFile file(current());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(inForce);
    }
    QString current() const { return dir.filePath(QStringLiteral("etc/pagecache_rules.xml")); }
    QByteArray read(const QString& path) const
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<none>");
    }

    const QByteArray inForce = "<?xml version=\"1.0\"?><cache_settings><dont_cache/><cache/></cache_settings>\n";
};

TEST_F(GeneratorOverRules, DatabaseFailureLeavesTheRulesInForce)
{
    run(QStringLiteral("DROP TABLE TKD_PAGECACHE_RULES"));
    EXPECT_TRUE(TKDPageCacheRule::writeRulesFile(db, dir.path(), log).isEmpty());
    EXPECT_EQ(inForce, read(current()));
    EXPECT_EQ(QByteArray(), read(current() + QStringLiteral(".new")));
    EXPECT_TRUE(logText().contains("ERROR] TKDTask::doUpdatePageCacheRules: Unable to load page cache rules. "
                                   "select RULE_ID, APP_ID, NAME, META_XML from TKD_PAGECACHE_RULES."));
    EXPECT_TRUE(logText().contains("ERROR] New page cache rules file " + QFile::encodeName(current()) + ".new is not "
                                   "valid, the rules in force stay: Dependencies file validation error on line "));
}

TEST_F(GeneratorOverRules, AnInvalidRuleLeavesTheRulesInForce)
{
    rule(3, "Home", "match_type=\"glob\"");
    EXPECT_TRUE(TKDPageCacheRule::writeRulesFile(db, dir.path(), log).isEmpty());
    EXPECT_EQ(inForce, read(current()));
    EXPECT_TRUE(read(current() + QStringLiteral(".new")).contains("glob"));
    EXPECT_TRUE(logText().contains("is not valid, the rules in force stay:"));

    // The next good run takes over, the ".new" file with it.
    run(QStringLiteral("DELETE FROM TKD_PAGECACHE_RULES"));
    rule(3, "Home", "priority=\"2\" lifetime=\"60\" match_type=\"regex_match\"");
    run(QStringLiteral("INSERT INTO TKD_PAGECACHE_RESPONSE_CODES VALUES (-1, '200')"));
    const QString document = TKDPageCacheRule::writeRulesFile(db, dir.path(), log);
    EXPECT_TRUE(document.contains("Home"));
    EXPECT_EQ(document.toUtf8(), read(current()));
    EXPECT_FALSE(QFile::exists(current() + QStringLiteral(".new")));
    EXPECT_TRUE(VHTMLCache::instance()->validateRulesFile(QFile::encodeName(current()).constData()));
    EXPECT_TRUE(logText().contains("New page cache rules file:"));
}

TEST_F(GeneratorOverRules, ValuesFromTheTablesStayValues)
{
    const QString tricky = QStringLiteral("a\"b' <c> &amp; &d \u00e9");
    QSqlQuery query(db);
    ASSERT_TRUE(query.prepare(QStringLiteral("INSERT INTO TKD_PAGECACHE_RESPONSE_CODES VALUES (-1, ?)")));
    query.addBindValue(QStringLiteral("200\"/><x y=\""));
    ASSERT_TRUE(query.exec());
    ASSERT_TRUE(query.prepare(QStringLiteral("INSERT INTO TKD_PAGECACHE_RESPONSE_HEADERS VALUES (NULL, -1, ?, 'equals', ?, 0)")));
    query.addBindValue(tricky);
    query.addBindValue(tricky);
    ASSERT_TRUE(query.exec());
    ASSERT_FALSE(TKDPageCacheRule::writeRulesFile(db, dir.path(), log).isEmpty())
        << logText().constData();

    QFile file(current());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    QXmlStreamReader reader(&file);
    QStringList seen;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement() && reader.name() == QLatin1String("response_rule"))
            seen << reader.attributes().value(QStringLiteral("response_codes")).toString();
        if (reader.isStartElement() && reader.name() == QLatin1String("header"))
            seen << reader.attributes().value(QStringLiteral("name")).toString()
                 << reader.attributes().value(QStringLiteral("value")).toString();
    }
    EXPECT_FALSE(reader.hasError());
    EXPECT_EQ(QStringList({QStringLiteral("200\"/><x y=\""), tricky, tricky}), seen);
}

} // namespace
