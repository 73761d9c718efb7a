#include "VPHPGlobal.h"

#include "VException.h"
#include "VPHPGlobalsEvaluator.h"

#include <QString>

namespace {
const char* const globalNames[] = {"_GET", "_POST", "_SESSION", "_COOKIE", "_SERVER"};
}

QByteArray phpGlobalName(int type)
{
    return type >= 0 && type <= PHP_SERVER ? QByteArray(globalNames[type]) : QByteArray();
}

int phpGlobalType(const QByteArray& name)
{
    for (int type = PHP_GET; type <= PHP_SERVER; ++type) {
        if (name == globalNames[type])
            return type;
    }
    return -1;
}

VPHPGlobalsKey::VPHPGlobalsKey(const QByteArray& subscripts)
{
    int position = 0;
    for (;;) {
        const int open = subscripts.indexOf('[', position);
        if (open < 0)
            break;
        const int close = subscripts.indexOf(']', open);
        // The schema refuses a "[" without a later "]"; end here all the same.
        if (close < 0)
            break;
        keys.append(subscripts.mid(open + 1, close - open - 1));
        position = close + 1;
    }
}

VPHPGlobalsKey::~VPHPGlobalsKey() = default;

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
