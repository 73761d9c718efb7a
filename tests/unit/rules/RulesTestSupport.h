#pragma once

#include "../support/LogFileTestSupport.h"
#include "PageCacheLogStream.h"
#include "VPHPGlobalsEvaluator.h"
#include "VRuleMatcher.h"

#include <QMap>

// Superglobal values from a plain table, keyed by the full name:
// "_GET[a][b]" -> "1". A superglobal exists when it is in `present`.
class TableSource : public VPHPValueSource
{
public:
    QMap<QByteArray, QByteArray> values;
    QSet<QByteArray> present;

    static QByteArray fullName(const QByteArray& global, const QList<QByteArray>& keys)
    {
        QByteArray name = global;
        for (const QByteArray& key : keys)
            name += '[' + key + ']';
        return name;
    }
    QByteArray elementValue(const QByteArray& global, const QList<QByteArray>& keys) override
    {
        return values.value(fullName(global, keys));
    }
    QByteArray wholeValue(const QByteArray& global) override { return "whole " + global; }
    bool globalExists(const QByteArray& global) override { return present.contains(global); }
    bool elementExists(const QByteArray& global, const QList<QByteArray>& keys) override
    {
        return present.contains(global) && values.contains(fullName(global, keys));
    }
};

// Rules parsed from text, in force as after a load.
class ParsedRules : public VRuleMatcher
{
public:
    explicit ParsedRules(const QByteArray& xml)
    {
        addData(xml);
        parse();
        takeOverTables();
    }
    using RulesFileReader::readRules;
    CacheRule rule(const QByteArray& key) const { return ruleTable.value(key); }
    bool hasRule(const QByteArray& key) const { return ruleTable.contains(key); }
    int cachedRules() const { return ruleCache.size(); }
};

// Gives the tests a log stream at level 5 in a file of their own, and a
// table of superglobal values behind every evaluator.
// A rules document around `cacheBody`.
inline QByteArray rulesXml(const QByteArray& cacheBody, const QByteArray& dontCache = QByteArray())
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<cache_settings>\n<dont_cache>" + dontCache
           + "</dont_cache>\n<cache>\n" + cacheBody + "\n</cache>\n</cache_settings>\n";
}

class RulesFixture : public LogFileFixture
{
protected:
    void SetUp() override
    {
        LogFileFixture::SetUp();
        PageCacheLogStream = logStream;
        VPHPEvaluatorsManager::setValueSource(&source);
        VPHPEvaluatorsManager::instance()->createEvaluators();
    }
    void TearDown() override
    {
        VPHPEvaluatorsManager::setValueSource(nullptr);
        LogFileFixture::TearDown();
        PageCacheLogStream = 0;
    }
    QByteArray log() const { return logText(); }
    // A rules file around `cacheBody` in the fixture's directory, with the
    // schema beside it; answers its path.
    QString writeRulesFile(const QByteArray& cacheBody)
    {
        const QString rules = dir.filePath(QStringLiteral("pagecache_rules.xml"));
        QFile file(rules);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(rulesXml(cacheBody));
        file.close();
        QFile::copy(QStringLiteral(VESK_SOURCE_DIR "/conf/pagecache_rules_schema.xsd"),
                    dir.filePath(QStringLiteral("pagecache_rules_schema.xsd")));
        return rules;
    }
    void clearLog() const { QFile(QString::fromLocal8Bit(logPath)).resize(0); }

    TableSource source;
};

