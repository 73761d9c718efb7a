#pragma once

#include "VCondition.h"
#include "VUrl.h"

#include <QList>
#include <QRegExp>
#include <QSharedData>
#include <QSharedDataPointer>
#include <QSharedPointer>
#include <QString>

// Conditions that must all hold. The conditions are shared between copies
// of a block and die with the last of them.
class ConditionsBlock
{
public:
    // True when every condition holds; an empty block holds.
    bool holds() const;

    QList<QSharedPointer<VCondition>> conditions;
    bool hasSessionCondition = false;
};

// The variant key of a page: each split condition's superglobal name
// followed by its value up to the first NUL, with no separator.
QByteArray splitKey(const ConditionsBlock& block);

class CacheRuleData : public QSharedData
{
public:
    QList<ConditionsBlock> conditionBlocks;
    ConditionsBlock splitBlock;
    quint32 lifetime = 0;
    bool initialised = false;
    bool dontCache = false;
    bool conditionsNeedSession = false;
    bool splitNeedsSession = false;
    bool compress = true;
    bool enable = true;
    qint32 appId = -1;
};

// One rule of the rules file, as a value. Copies share their data until one
// of them writes.
class CacheRule
{
public:
    CacheRule();

    // Any block holds (or there are none).
    bool conditionsHold() const;
    // The same, passing over blocks that read the session, which doesn't
    // exist yet when this is asked.
    bool conditionsHoldWithoutSession() const;
    // A rule standing for a URL that must not be cached.
    static CacheRule dontCacheRule();

    QSharedDataPointer<CacheRuleData> d;
    VUrl url;
    qint64 id = 0;
    QString name;
    QRegExp regex;
    qint32 priority = 0;
};
