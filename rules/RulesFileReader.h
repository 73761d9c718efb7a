#pragma once

#include "CacheRule.h"
#include "ResponseRule.h"

#include <QHash>
#include <QList>
#include <QRegExp>
#include <QSet>
#include <QXmlStreamReader>

// Reads the rules file into tables. A reader works once: a second parse on
// the same object finds its own rules and fails, so a reload takes a new one.
class RulesFileReader : public QXmlStreamReader
{
public:
    RulesFileReader() = default;

    // Reads from the device set with setDevice(). Throws VException; the
    // tables then hold what was read up to the failure.
    void parse();

    const QList<QRegExp>& readPatterns() const { return patternList; }
    const QHash<QByteArray, CacheRule>& readRules() const { return ruleTable; }
    const QHash<int, ResponseRule>& readResponseRules() const { return responseRuleTable; }
    const QSet<QByteArray>& readBlacklist() const { return blacklist; }
    // The key column of each table the rules name one for (learn_keys),
    // and the distinct ignore lists of the rules that learn: what every
    // writer needs, whichever rule its own request matched.
    const QHash<QByteArray, QByteArray>& learnKeys() const { return learnKeyTable; }
    const QList<LearnIgnoreList>& learnLists() const { return learnListTable; }

protected:
    QList<QRegExp> patternList;
    QHash<QByteArray, CacheRule> ruleTable;
    QHash<int, ResponseRule> responseRuleTable;
    QSet<QByteArray> blacklist;
    QHash<QByteArray, QByteArray> learnKeyTable;
    QList<LearnIgnoreList> learnListTable;

private:
    // Moves to the next start tag inside `element`; false at its end tag
    // or at the end of the stream.
    bool nextStartWithin(QLatin1String element);
    QString attribute(QLatin1String name) const;
    void parseDontCache();
    void parseCache();
    void parseUrl();
    CacheRule ruleFromAttributes();
    // A pattern rule's regular expression, over its key.
    void addPattern(const QByteArray& key, bool insensitive);
    void parseUrlChildren(const QByteArray& key);
    void parseLearning(CacheRuleData& data);
    // Turns publishing off, with the reason at level 1, for a rule whose
    // pages the web server couldn't decide by itself.
    void checkPublish(CacheRule& rule);
    void parseCondition(const QByteArray& key, bool split);
    // Which cookies a condition or split on `global` lets the page vary by.
    static void noteCookiesRead(CacheRuleData& data, const VPHPGlobal& global, bool split);
    void parseResponseRule();
};
