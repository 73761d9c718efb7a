#include "VCondition.h"

namespace {
// Values are compared as text up to their first NUL byte.
QString text(const VPHPGlobal* global)
{
    return QString::fromLatin1(global->value().constData());
}
} // namespace

VCondition::~VCondition() = default;
VConditionCreator::~VConditionCreator() = default;

bool VConditionExists::match()
{
    return global->exists();
}

bool VConditionNotExists::match()
{
    return !VConditionExists::match();
}

bool VConditionEquals::match()
{
    return value == text(global);
}

bool VConditionNotEquals::match()
{
    return !VConditionEquals::match();
}

bool VConditionRegexpMatch::match()
{
    return regex.exactMatch(text(global));
}

bool VConditionInsensitiveRegexpMatch::match()
{
    return regex.exactMatch(text(global));
}

bool VConditionRegexpNotMatch::match()
{
    return !VConditionRegexpMatch::match();
}

bool VConditionInsensitiveRegexpNotMatch::match()
{
    return !VConditionRegexpMatch::match();
}

ConditionFactory::ConditionFactory()
{
    registerCreator(QStringLiteral("equals"), new VConditionEqualsCreator);
    registerCreator(QStringLiteral("not_equals"), new VConditionNotEqualsCreator);
    registerCreator(QStringLiteral("regex_match"), new VConditionRegexpMatchCreator);
    registerCreator(QStringLiteral("regex_match_i"), new VConditionInsensitiveRegexpMatchCreator);
    registerCreator(QStringLiteral("regex_not_match"), new VConditionRegexpNotMatchCreator);
    registerCreator(QStringLiteral("regex_not_match_i"), new VConditionInsensitiveRegexpNotMatchCreator);
    registerCreator(QStringLiteral("exists"), new VConditionExistsCreator);
    registerCreator(QStringLiteral("not_exists"), new VConditionNotExistsCreator);
}

ConditionFactory* ConditionFactory::instance()
{
    static ConditionFactory* factory = new ConditionFactory;
    return factory;
}

VCondition* ConditionFactory::create(const QString& word, VPHPGlobal* global, const QString& value) const
{
    VConditionCreator* creator = creators.value(word);
    return creator ? creator->create(global, value) : nullptr;
}

void ConditionFactory::registerCreator(const QString& word, VConditionCreator* creator)
{
    delete creators.take(word);
    creators.insert(word, creator);
}
