#include "EngineValueSource.h"

#include "host/vesk_host.h"

#include <string>
#include <vector>

namespace {
std::vector<VeskKey> hostKeys(const QList<QByteArray>& keys)
{
    std::vector<VeskKey> result;
    result.reserve(size_t(keys.size()));
    for (const QByteArray& key : keys)
        result.push_back(VeskKey{key.constData(), size_t(key.size())});
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
    const std::vector<VeskKey> path = hostKeys(keys);
    std::string text;
    vesk_global_element_text(globalName.constData(), size_t(globalName.size()), path.data(), path.size(), &text);
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
    const std::vector<VeskKey> path = hostKeys(keys);
    return vesk_global_element_exists(globalName.constData(), size_t(globalName.size()), path.data(), path.size());
}
