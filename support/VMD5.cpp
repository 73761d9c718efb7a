#include "VMD5.h"

#include <QCryptographicHash>

QByteArray VMD5::hash(const QByteArray& data)
{
    // One hasher per thread, used again: a hit hashes its key on every
    // request, and a new hasher costs an allocation of its own.
    thread_local QCryptographicHash md5(QCryptographicHash::Md5);
    md5.reset();
    md5.addData(data);
    const QByteArray digest = md5.result();
    static const char digits[] = "0123456789abcdef";
    QByteArray hex(2 * digest.size(), Qt::Uninitialized);
    char* at = hex.data();
    for (const char byte : digest) {
        *at++ = digits[quint8(byte) >> 4];
        *at++ = digits[quint8(byte) & 15];
    }
    return hex;
}
