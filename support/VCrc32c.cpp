#include "VCrc32c.h"

#include <array>
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

// Multiplication modulo the polynomial, in its reflected form: the CRC of
// a run of n zero bytes over a register is the register times x^(8n).
quint32 multModP(quint32 a, quint32 b)
{
    quint32 m = 1u << 31;
    quint32 product = 0;
    for (;;) {
        if (a & m) {
            product ^= b;
            if ((a & (m - 1)) == 0)
                break;
        }
        m >>= 1;
        b = b & 1 ? (b >> 1) ^ Polynomial : b >> 1;
    }
    return product;
}

// x^(8n) modulo the polynomial, from the powers x^(2^k) by squaring.
quint32 zeroBytesFactor(size_t n)
{
    static const auto powers = [] {
        std::array<quint32, 32> table{};
        quint32 p = 1u << 30; // x^1
        for (quint32& power : table) {
            power = p;
            p = multModP(p, p);
        }
        return table;
    }();
    quint32 factor = 1u << 31; // x^0
    for (unsigned k = 3; n; n >>= 1, ++k) {
        if (n & 1)
            factor = multModP(powers[k & 31], factor);
    }
    return factor;
}

#if defined(__x86_64__)
__attribute__((target("sse4.2"))) quint32 hardware(const unsigned char* p, size_t size, quint32 crc)
{
    quint64 c = crc;
    // One instruction waits for the one before it; three lanes over thirds
    // of the data keep the unit busy, and their registers are joined after:
    // each lane's register is moved over the bytes that follow it.
    const size_t lane = (size / 3) & ~size_t(7);
    if (lane >= 512) {
        const unsigned char* second = p + lane;
        const unsigned char* third = p + 2 * lane;
        quint64 c2 = 0;
        quint64 c3 = 0;
        for (size_t i = 0; i < lane; i += 8) {
            quint64 w1, w2, w3;
            memcpy(&w1, p + i, 8);
            memcpy(&w2, second + i, 8);
            memcpy(&w3, third + i, 8);
            c = __builtin_ia32_crc32di(c, w1);
            c2 = __builtin_ia32_crc32di(c2, w2);
            c3 = __builtin_ia32_crc32di(c3, w3);
        }
        const quint32 shift = zeroBytesFactor(lane);
        c = multModP(shift, multModP(shift, quint32(c)) ^ quint32(c2)) ^ quint32(c3);
        p += 3 * lane;
        size -= 3 * lane;
    }
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
