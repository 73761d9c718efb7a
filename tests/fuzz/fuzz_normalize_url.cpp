// normalizeUrl on any text, as purge rules and the hit path give it.

#include "PageCachePurgeRules.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString url = QString::fromUtf8(reinterpret_cast<const char*>(data), int(size));
    const QString once = normalizeUrl(url);
    (void)normalizeUrl(once);
    return 0;
}
