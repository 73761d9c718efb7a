#include "VPHPGlobal.h"

#include "VException.h"
#include "VPHPGlobalsEvaluator.h"

#include <QString>

VPHPGlobal::VPHPGlobal(int type) : m_type(type), m_name(phpGlobalName(type))
{
}

VPHPGlobal::~VPHPGlobal() = default;

QByteArray VPHPGlobal::value() const
{
    return VPHPEvaluatorsManager::instance()->value(m_type);
}

bool VPHPGlobal::exists() const
{
    return VPHPEvaluatorsManager::instance()->exists(m_type);
}

QByteArray VPHPGlobal::name() const
{
    return m_name;
}

VPHPGlobalElement::VPHPGlobalElement(int type, const VPHPGlobalsKey& key)
    : VPHPGlobal(type), m_key(key)
{
}

QByteArray VPHPGlobalElement::value() const
{
    return VPHPEvaluatorsManager::instance()->value(type(), m_key);
}

bool VPHPGlobalElement::exists() const
{
    return VPHPEvaluatorsManager::instance()->exists(type(), m_key);
}

VPHPGlobal* makeGlobal(int type, const QByteArray& subscripts)
{
    if (subscripts.isEmpty())
        return new VPHPGlobal(type);
    return new VPHPGlobalElement(type, VPHPGlobalsKey(subscripts));
}

VPHPGlobal* parseGlobal(const QString& text)
{
    const QByteArray bytes = text.toLocal8Bit();
    const int bracket = bytes.indexOf('[');
    const QByteArray base = bracket >= 1 ? bytes.left(bracket) : bytes;
    const QByteArray subscripts = bracket >= 1 ? bytes.mid(bracket) : QByteArray();
    const int type = phpGlobalType(base);
    if (type < 0)
        throw VException(QStringLiteral("Unknown Global variable: %1").arg(QString::fromLocal8Bit(base)));
    return makeGlobal(type, subscripts);
}
