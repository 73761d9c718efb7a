// decompress() on a body a script claimed was gzip: any bytes.

#include "QtIOCompressor.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray clear = decompress(reinterpret_cast<const char*>(data), qint64(size));
    // What decompresses must compress and come back the same.
    if (!clear.isEmpty()) {
        const QByteArray again = compress(clear.constData(), clear.size());
        if (!again.isEmpty() && decompress(again.constData(), again.size()) != clear)
            __builtin_trap();
    }
    return 0;
}
