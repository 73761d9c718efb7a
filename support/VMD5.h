#pragma once

#include <QByteArray>

class VMD5
{
public:
    // Lower-case hexadecimal MD5 of the bytes: 32 characters, safe as a
    // file name and the same in every worker process.
    static QByteArray hash(const QByteArray& data);
};

// The hash of the last bytes asked about, kept: a worker mostly serves the
// same few rules and pages, and a comparison costs less than a hash.
class VLastMD5
{
public:
    const QByteArray& of(const QByteArray& data)
    {
        if (m_hash.isEmpty() || data != m_data) {
            m_data = data;
            m_hash = VMD5::hash(data);
        }
        return m_hash;
    }

private:
    QByteArray m_data;
    QByteArray m_hash;
};
