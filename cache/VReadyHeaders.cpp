#include "VReadyHeaders.h"

#include "VCrc32c.h"

#include <QtEndian>

#include <cstring>
#include <strings.h>

namespace {

// Big-endian, as the rest of the page's record.
const quint32 Mark = 0x48445253; // "HDRS"
const quint8 Version = 1;
const quint8 Passed = 1;
const quint16 Replaces = 1;
const int DigestSize = 16;
// The mark and the size of the checked part, then in that part: version,
// flags, two spare bytes, the application, the digest and the line count.
const int HeadSize = 8;
const int FixedSize = 1 + 1 + 2 + 4 + DigestSize + 4;
const int LineHeadSize = 8;
const int CrcSize = 4;

template <typename T>
void put(QByteArray& out, T value)
{
    char bytes[sizeof(T)];
    qToBigEndian<T>(value, bytes);
    out.append(bytes, int(sizeof(T)));
}

template <typename T>
T get(const char* at)
{
    return qFromBigEndian<T>(at);
}

int nameLengthOf(const QByteArray& line)
{
    const int colon = line.indexOf(':');
    return colon < 0 ? line.size() : colon;
}

// Whether a line before `line` in `lines` has its name.
bool nameSeenBefore(const QLinkedList<QByteArray>& lines, QLinkedList<QByteArray>::const_iterator line)
{
    const int length = nameLengthOf(*line);
    for (auto earlier = lines.begin(); earlier != line; ++earlier) {
        if (nameLengthOf(*earlier) == length && strncasecmp(earlier->constData(), line->constData(), size_t(length)) == 0)
            return true;
    }
    return false;
}

} // namespace

QByteArray VReadyHeaders::section(const QLinkedList<QByteArray>& lines, const QByteArray& rulesDigest, qint32 appId)
{
    const bool passed = rulesDigest.size() == DigestSize;
    QByteArray part;
    put<quint8>(part, Version);
    put<quint8>(part, passed ? Passed : 0);
    put<quint16>(part, 0);
    put<qint32>(part, appId);
    part.append(passed ? rulesDigest : QByteArray(DigestSize, '\0'));
    put<quint32>(part, quint32(lines.size()));
    for (auto line = lines.begin(); line != lines.end(); ++line) {
        put<quint32>(part, quint32(line->size()));
        put<quint16>(part, quint16(qMin(nameLengthOf(*line), 0xFFFF)));
        put<quint16>(part, nameSeenBefore(lines, line) ? 0 : Replaces);
        part.append(*line);
    }
    QByteArray out;
    put<quint32>(out, Mark);
    put<quint32>(out, quint32(part.size()));
    out.append(part);
    put<quint32>(out, crc32c(part.constData(), size_t(part.size())));
    return out;
}

bool VReadyHeaders::view(const char* data, int size)
{
    if (size < HeadSize + FixedSize + CrcSize || get<quint32>(data) != Mark)
        return false;
    const quint32 partSize = get<quint32>(data + 4);
    if (partSize < quint32(FixedSize) || partSize > quint32(size - HeadSize - CrcSize))
        return false;
    const char* part = data + HeadSize;
    if (quint8(part[0]) != Version || crc32c(part, partSize) != get<quint32>(part + partSize))
        return false;
    // Every line lies inside the part, and the lines fill it.
    quint32 count = get<quint32>(part + FixedSize - 4);
    const char* at = part + FixedSize;
    const char* end = part + partSize;
    for (; count > 0 && end - at >= LineHeadSize; --count) {
        const quint32 length = get<quint32>(at);
        if (quint32(end - at - LineHeadSize) < length || get<quint16>(at + 4) > length)
            return false;
        at += LineHeadSize + length;
    }
    if (count != 0 || at != end)
        return false;
    m_section = QByteArray::fromRawData(data, int(HeadSize + partSize + CrcSize));
    return true;
}

void VReadyHeaders::prepare(const QLinkedList<QByteArray>& lines)
{
    m_section = section(lines, QByteArray(), -1);
}

bool VReadyHeaders::passed(const QByteArray& rulesDigest, qint32 appId) const
{
    if (m_section.isNull() || rulesDigest.size() != DigestSize)
        return false;
    const char* part = m_section.constData() + HeadSize;
    return (quint8(part[1]) & Passed) && get<qint32>(part + 4) == appId
           && memcmp(part + 8, rulesDigest.constData(), DigestSize) == 0;
}

bool VReadyHeaders::hasName(const char* name, int length) const
{
    int at = 0;
    Line line;
    while (next(at, line)) {
        if (line.nameLength == length && strncasecmp(line.text, name, size_t(length)) == 0)
            return true;
    }
    return false;
}

bool VReadyHeaders::next(int& at, Line& line) const
{
    if (m_section.isNull())
        return false;
    if (at == 0)
        at = HeadSize + FixedSize;
    if (at >= m_section.size() - CrcSize)
        return false;
    const char* head = m_section.constData() + at;
    line.length = int(get<quint32>(head));
    line.nameLength = get<quint16>(head + 4);
    line.replaces = get<quint16>(head + 6) & Replaces;
    line.text = head + LineHeadSize;
    at += LineHeadSize + line.length;
    return true;
}
