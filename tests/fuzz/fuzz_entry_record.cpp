// A stored page's record as read back from the store: any bytes. Read in
// place, it must give what the stream gives, with the creation time as
// the same instant.

#include "CacheEntry.h"

#include <QDataStream>

#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
    CacheEntry entry;
    char* buffer = static_cast<char*>(malloc(size ? size : 1));
    memcpy(buffer, data, size);
    entry.takeRecord(buffer, int(size));

    qint32 tag = 0, status = 0;
    QDateTime created;
    QByteArray url, body;
    QLinkedList<QByteArray> headers;
    QDataStream in(bytes);
    in.setVersion(18);
    in >> tag >> created >> url >> status >> headers >> body;

    const bool sameTime = created.isValid() ? created.toMSecsSinceEpoch() == entry.created().toMSecsSinceEpoch()
                                            : !entry.created().isValid();
    if (tag != entry.formatTag() || !sameTime || url != entry.url() || status != entry.status()
        || headers != entry.headers() || body != QByteArray(entry.bodyData(), entry.bodySize())
        || body.isNull() != entry.body().isNull())
        abort();
    return 0;
}
