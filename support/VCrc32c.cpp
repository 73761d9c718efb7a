#include "VCrc32c.h"

#include <cstring>

namespace {

const quint32 Polynomial = 0x82F63B78; // reflected Castagnoli

struct Table
{
    quint32 entries[256];
    Table()
    {
        for (quint32 i = 0; i < 256; ++i) {
            quint32 c = i;
            for (int bit = 0; bit < 8; ++bit)
                c = c & 1 ? (c >> 1) ^ Polynomial : c >> 1;
            entries[i] = c;
        }
    }
};

quint32 software(const unsigned char* p, size_t size, quint32 crc)
{
    static const Table table;
    for (size_t i = 0; i < size; ++i)
        crc = table.entries[(crc ^ p[i]) & 0xFF] ^ (crc >> 8);
    return crc;
}

#if defined(__x86_64__)
__attribute__((target("sse4.2"))) quint32 hardware(const unsigned char* p, size_t size, quint32 crc)
{
    quint64 c = crc;
    while (size >= 8) {
        quint64 word;
        memcpy(&word, p, 8);
        c = __builtin_ia32_crc32di(c, word);
        p += 8;
        size -= 8;
    }
    quint32 c32 = quint32(c);
    while (size-- > 0)
        c32 = __builtin_ia32_crc32qi(c32, *p++);
    return c32;
}

bool hasHardware()
{
    static const bool has = __builtin_cpu_supports("sse4.2");
    return has;
}
#endif

} // namespace

quint32 crc32c(const void* data, size_t size, quint32 crc)
{
    const unsigned char* p = static_cast<const unsigned char*>(data);
    crc = ~crc;
#if defined(__x86_64__)
    if (hasHardware())
        return ~hardware(p, size, crc);
#endif
    return ~software(p, size, crc);
}
