#include "VPHPGlobalsEvaluator.h"

namespace {
VPHPEvaluatorsManager* s_manager = nullptr;
VPHPValueSource* s_source = nullptr;

// Without a source (no engine, nothing registered) there is nothing to read.
class EmptySource : public VPHPValueSource
{
public:
    QByteArray elementValue(const QByteArray&, const QList<QByteArray>&) override { return {}; }
    QByteArray wholeValue(const QByteArray&) override { return {}; }
    bool globalExists(const QByteArray&) override { return false; }
    bool elementExists(const QByteArray&, const QList<QByteArray>&) override { return false; }
};

VPHPValueSource* source()
{
    static EmptySource empty;
    return s_source ? s_source : &empty;
}
} // namespace

VPHPValueSource::~VPHPValueSource() = default;

VPHPGlobalsEvaluator::VPHPGlobalsEvaluator(const QByteArray& globalName)
    : m_globalName(globalName)
{
}

VPHPGlobalsEvaluator::~VPHPGlobalsEvaluator() = default;

QByteArray VPHPGlobalsEvaluator::value(const VPHPGlobalsKey& key)
{
    return source()->elementValue(m_globalName, key.keys);
}

bool VPHPGlobalsEvaluator::exists()
{
    return source()->globalExists(m_globalName);
}

QByteArray VPHPGlobalsEvaluator::value()
{
    return source()->wholeValue(m_globalName);
}

bool VPHPGlobalsEvaluator::exists(const VPHPGlobalsKey& key)
{
    return source()->elementExists(m_globalName, key.keys);
}

VPHPGlobalsEvaluator* createEvaluator(int type)
{
    switch (type) {
    case PHP_GET:
        return new VPHPGETEvaluator;
    case PHP_POST:
        return new VPHPPOSTEvaluator;
    case PHP_SESSION:
        return new VPHPSESSIONEvaluator;
    case PHP_COOKIE:
        return new VPHPCOOKIEEvaluator;
    case PHP_SERVER:
        return new VPHPSERVEREvaluator;
    default:
        return nullptr;
    }
}

VPHPEvaluatorsManager* VPHPEvaluatorsManager::instance()
{
    if (!s_manager)
        s_manager = new VPHPEvaluatorsManager;
    return s_manager;
}

void VPHPEvaluatorsManager::destroyInstance()
{
    delete s_manager;
    s_manager = nullptr;
}

VPHPEvaluatorsManager::~VPHPEvaluatorsManager()
{
    qDeleteAll(evaluators);
}

bool VPHPEvaluatorsManager::addEvaluator(int type, VPHPGlobalsEvaluator* evaluator)
{
    // Each load makes new ones; nothing keeps a pointer to an evaluator.
    VPHPGlobalsEvaluator* replaced = evaluators.value(type);
    evaluators.insert(type, evaluator);
    if (replaced != evaluator)
        delete replaced;
    return true;
}

void VPHPEvaluatorsManager::createEvaluators()
{
    for (int type = PHP_GET; type <= PHP_SERVER; ++type)
        addEvaluator(type, createEvaluator(type));
}

QByteArray VPHPEvaluatorsManager::value(int type)
{
    VPHPGlobalsEvaluator* e = evaluator(type);
    return e ? e->value() : QByteArray();
}

bool VPHPEvaluatorsManager::exists(int type)
{
    VPHPGlobalsEvaluator* e = evaluator(type);
    return e && e->exists();
}

QByteArray VPHPEvaluatorsManager::value(int type, const VPHPGlobalsKey& key)
{
    VPHPGlobalsEvaluator* e = evaluator(type);
    return e ? e->value(key) : QByteArray();
}

bool VPHPEvaluatorsManager::exists(int type, const VPHPGlobalsKey& key)
{
    VPHPGlobalsEvaluator* e = evaluator(type);
    return e && e->exists(key);
}

void VPHPEvaluatorsManager::setValueSource(VPHPValueSource* source)
{
    s_source = source;
}

VPHPValueSource* VPHPEvaluatorsManager::valueSource()
{
    return s_source;
}
