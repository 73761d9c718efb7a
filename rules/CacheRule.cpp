#include "CacheRule.h"

bool ConditionsBlock::holds() const
{
    for (const QSharedPointer<VCondition>& condition : conditions) {
        if (!condition->match())
            return false;
    }
    return true;
}

QByteArray splitKey(const ConditionsBlock& block)
{
    QByteArray key;
    for (const QSharedPointer<VCondition>& condition : block.conditions) {
        key += condition->global->name();
        key += condition->global->value().constData();
    }
    return key;
}

CacheRule::CacheRule() : d(new CacheRuleData), regex(QString())
{
}

bool CacheRule::conditionsHold() const
{
    if (d->conditionBlocks.isEmpty())
        return true;
    for (const ConditionsBlock& block : d->conditionBlocks) {
        if (block.holds())
            return true;
    }
    return false;
}

bool CacheRule::conditionsHoldWithoutSession() const
{
    if (d->conditionBlocks.isEmpty())
        return true;
    for (const ConditionsBlock& block : d->conditionBlocks) {
        if (!block.hasSessionCondition && block.holds())
            return true;
    }
    return false;
}

CacheRule CacheRule::dontCacheRule()
{
    CacheRule rule;
    rule.d->dontCache = true;
    rule.d->initialised = true;
    return rule;
}
