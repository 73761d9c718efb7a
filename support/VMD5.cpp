#include "VMD5.h"

#include <QCryptographicHash>

QByteArray VMD5::hash(const QByteArray& data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Md5).toHex();
}
