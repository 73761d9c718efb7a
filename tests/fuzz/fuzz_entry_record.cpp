// A stored page's record as read back from the store: any bytes.

#include "CacheEntry.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    CacheEntry entry;
    entry.readRecord(QByteArray(reinterpret_cast<const char*>(data), int(size)));
    // What the hit path does with a record it read.
    if (entry.formatTag() == CacheEntry::FormatTag) {
        for (const QByteArray& header : entry.headers())
            (void)header.startsWith("Content-Encoding:");
        (void)entry.body().size();
        (void)entry.created().toSecsSinceEpoch();
    }
    return 0;
}
