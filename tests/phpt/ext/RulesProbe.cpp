#include "RulesProbe.h"

#include "CacheRule.h"
#include "EngineValueSource.h"
#include "VException.h"

#include <memory>
#include <stdexcept>

namespace {
VPHPGlobal* global(const std::string& name)
{
    try {
        return parseGlobal(QString::fromStdString(name));
    } catch (const VException& e) {
        throw std::runtime_error(e.what());
    }
}

std::string bytes(const QByteArray& value)
{
    return std::string(value.constData(), size_t(value.size()));
}
} // namespace

void rulesProbeStartup()
{
    VPHPEvaluatorsManager::setValueSource(EngineValueSource::instance());
    VPHPEvaluatorsManager::instance()->createEvaluators();
}

std::string probeValue(const std::string& name)
{
    std::unique_ptr<VPHPGlobal> g(global(name));
    return bytes(g->value());
}

bool probeExists(const std::string& name)
{
    std::unique_ptr<VPHPGlobal> g(global(name));
    return g->exists();
}

bool probeCondition(const std::string& name, const std::string& type, const std::string& value)
{
    std::unique_ptr<VPHPGlobal> g(global(name));
    std::unique_ptr<VCondition> condition(ConditionFactory::instance()->create(
        QString::fromStdString(type), g.get(), QString::fromStdString(value)));
    if (!condition)
        throw std::runtime_error("Failed to create condition");
    return condition->match();
}

std::string probeSplitKey(const std::vector<std::string>& names)
{
    ConditionsBlock block;
    std::vector<std::unique_ptr<VPHPGlobal>> globals;
    for (const std::string& name : names) {
        globals.emplace_back(global(name));
        block.conditions.append(QSharedPointer<VCondition>(
            ConditionFactory::instance()->create(QStringLiteral("exists"), globals.back().get(), QString())));
    }
    return bytes(splitKey(block));
}
