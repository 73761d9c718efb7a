#pragma once

#include <QByteArray>

class VMD5
{
public:
    // Lower-case hexadecimal MD5 of the bytes: 32 characters, safe as a
    // file name and the same in every worker process.
    static QByteArray hash(const QByteArray& data);
};
