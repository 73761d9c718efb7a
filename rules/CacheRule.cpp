#include "CacheRule.h"

#include "PageCacheLogStream.h"

bool ConditionsBlock::holds() const
{
    for (const QSharedPointer<VCondition>& condition : conditions) {
        if (!condition->match())
            return false;
    }
    return true;
}

namespace {

// Joins the split values; `withNul` receives the name of the first value
// that holds a NUL byte. A value goes in as it is when nothing can mistake
// where it ends: it has no NUL byte, and the first place where the next
// name occurs behind its start is right after it. Any other value goes in
// behind a NUL byte, which no value put in as it is holds, with its length.
QByteArray joinSplitValues(const ConditionsBlock& block, QByteArray* withNul)
{
    QByteArray key;
    const int count = block.conditions.size();
    if (count > 0)
        key += block.conditions.first()->global->name();
    for (int i = 0; i < count; ++i) {
        const QByteArray value = block.conditions.at(i)->global->value();
        const QByteArray next = i + 1 < count ? block.conditions.at(i + 1)->global->name() : QByteArray();
        const bool hasNul = value.contains('\0');
        if (hasNul && withNul && withNul->isNull())
            *withNul = block.conditions.at(i)->global->name();
        const int start = key.size();
        key += value;
        key += next;
        if (hasNul || (!next.isEmpty() && key.indexOf(next, start) != start + value.size())) {
            key.truncate(start);
            key += '\0';
            key += QByteArray::number(value.size());
            key += ':';
            key += value;
            key += next;
        }
    }
    return key;
}

} // namespace

QByteArray splitKey(const ConditionsBlock& block)
{
    return joinSplitValues(block, nullptr);
}

bool faithfulSplitKey(const ConditionsBlock& block, const QByteArray& url, QByteArray& key)
{
    if (url.contains('\0')) {
        VLOG(PageCacheLogStream, 3) << "Not using the cache: the URL holds a NUL byte";
        key.clear();
        return false;
    }
    QByteArray withNul;
    key = joinSplitValues(block, &withNul);
    if (withNul.isNull())
        return true;
    VLOG(PageCacheLogStream, 3) << "Not using the cache: a split value of" << withNul << "holds a NUL byte";
    key.clear();
    return false;
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
