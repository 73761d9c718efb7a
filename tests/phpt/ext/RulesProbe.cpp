#include "RulesProbe.h"

#include "EngineValueSource.h"
#include "VPHPGlobal.h"
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
