#include "EngineValueSource.h"

#include "host/vesk_host.h"

#include <QVarLengthArray>

#include <string>

namespace {
// On the stack for the few keys a condition names: asked on every request.
using HostKeys = QVarLengthArray<VeskKey, 4>;

HostKeys hostKeys(const QList<QByteArray>& keys)
{
    HostKeys result;
    for (const QByteArray& key : keys)
        result.append(VeskKey{key.constData(), size_t(key.size())});
    return result;
}
} // namespace

EngineValueSource* EngineValueSource::instance()
{
    static EngineValueSource source;
    return &source;
}

QByteArray EngineValueSource::elementValue(const QByteArray& globalName, const QList<QByteArray>& keys)
{
    const HostKeys path = hostKeys(keys);
    std::string text;
    vesk_global_element_text(globalName.constData(), size_t(globalName.size()), path.constData(),
                             size_t(path.size()), &text);
    return QByteArray(text.data(), int(text.size()));
}

QByteArray EngineValueSource::wholeValue(const QByteArray& globalName)
{
    std::string text;
    vesk_global_serialized(globalName.constData(), size_t(globalName.size()), &text);
    return QByteArray(text.data(), int(text.size()));
}

bool EngineValueSource::globalExists(const QByteArray& globalName)
{
    return vesk_global_exists(globalName.constData(), size_t(globalName.size()));
}

bool EngineValueSource::elementExists(const QByteArray& globalName, const QList<QByteArray>& keys)
{
    const HostKeys path = hostKeys(keys);
    return vesk_global_element_exists(globalName.constData(), size_t(globalName.size()), path.constData(),
                                      size_t(path.size()));
}
