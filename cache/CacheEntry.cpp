#include "CacheEntry.h"

#include <QDataStream>
#include <QtEndian>

#include <cstdlib>
#include <ctime>

namespace {

// The days the in-place reader takes on; anything else goes through the
// stream, which knows every corner of the format.
const qint64 FirstDay = 2415021; // 1900-01-01
const qint64 LastDay = 5373484;  // 9999-12-31
const qint64 UnixEpochDay = 2440588;
const qint64 MSecsPerDay = 86400000;
// Marks the tags after the body: a record without them ends with the body.
const qint32 TagsMark = 0x54414753; // "TAGS"

// The fields of a record as a version 18 stream lays them out, big-endian,
// read where they lie; every read fails once the record runs short.
class RecordReader
{
public:
    RecordReader(const char* data, int size) : at(data), end(data + size) {}

    template <typename T>
    bool number(T* value)
    {
        if (end - at < qint64(sizeof(T)))
            return false;
        *value = qFromBigEndian<T>(at);
        at += sizeof(T);
        return true;
    }

    // A byte array: its length (all ones for a null one), then its bytes,
    // given as a view into the record.
    bool bytes(QByteArray* view)
    {
        quint32 length = 0;
        if (!number(&length))
            return false;
        if (length == 0xFFFFFFFF) {
            *view = QByteArray();
            return true;
        }
        if (quint64(end - at) < length)
            return false;
        *view = QByteArray::fromRawData(at, int(length));
        at += length;
        return true;
    }

    // Steps over a byte array without looking at its bytes.
    bool skipBytes()
    {
        QByteArray view;
        return bytes(&view);
    }

    // Steps over the tags, when they come next.
    bool skipTags()
    {
        quint32 count = 0;
        if (end - at < 8 || qFromBigEndian<qint32>(at) != TagsMark)
            return true;
        at += 4;
        number(&count);
        for (; count > 0; --count) {
            if (!skipBytes())
                return false;
        }
        return true;
    }

    const char* position() const { return at; }
    bool atEnd() const { return at == end; }
    QByteArray rest() const { return QByteArray::fromRawData(at, int(end - at)); }

private:
    const char* at;
    const char* end;
};

QByteArray copyOf(const QByteArray& view)
{
    return view.isNull() ? QByteArray() : QByteArray(view.constData(), view.size());
}

qint64 utcOffsetAt(qint64 secs)
{
    const time_t t = time_t(secs);
    struct tm parts;
    return localtime_r(&t, &parts) ? qint64(parts.tm_gmtoff) : 0;
}

// Local wall-clock time to an instant, as mktime() finds it, but without
// mktime(): that reloads the time zone on every call, while localtime_r()
// does so only once. Two steps settle the offset of the instant itself.
qint64 localToUtcMSecs(qint64 localMSecs)
{
    const qint64 localSecs = localMSecs >= 0 ? localMSecs / 1000 : -((-localMSecs + 999) / 1000);
    qint64 utcSecs = localSecs - utcOffsetAt(localSecs);
    utcSecs = localSecs - utcOffsetAt(utcSecs);
    return utcSecs * 1000 + (localMSecs - localSecs * 1000);
}

} // namespace

QByteArray CacheEntry::toRecord()
{
    if (m_created.isNull())
        m_created = QDateTime::currentDateTime();
    QByteArray record;
    QDataStream out(&record, QIODevice::ReadWrite);
    out.setVersion(QDataStream::Qt_5_12);
    // Written in local time, as the format has always held it.
    out << m_formatTag << m_created.toLocalTime() << m_url << m_status << m_headers << m_body;
    if (!m_tags.isEmpty())
        out << TagsMark << m_tags;
    record += VReadyHeaders::section(m_headers, m_passedRules, m_appId);
    return record;
}

void CacheEntry::readRecord(const QByteArray& record)
{
    m_record.reset();
    if (readInPlace(record.constData(), record.size())) {
        headers();
        m_body = copyOf(m_body);
        m_tail = copyOf(m_tail);
        m_ready.detach();
    }
    else
        readThroughStream(record);
}

void CacheEntry::takeRecord(char* buffer, int length)
{
    m_record.reset(buffer, free);
    if (!readInPlace(buffer, length)) {
        readThroughStream(QByteArray::fromRawData(buffer, length));
        m_record.reset();
    }
}

void CacheEntry::shareRecord(const std::shared_ptr<const char>& record, int length)
{
    m_record = record;
    if (!readInPlace(record.get(), length)) {
        readThroughStream(QByteArray::fromRawData(record.get(), length));
        m_record.reset();
    }
}

QByteArray CacheEntry::body() const
{
    return copyOf(m_body);
}

// The usual record (a whole one, its time a valid local or UTC one) read
// without a stream, the body left where it lies. False for anything else.
bool CacheEntry::readInPlace(const char* data, int size)
{
    RecordReader in(data, size);
    qint32 tag = 0;
    qint64 day = 0;
    quint32 msecs = 0;
    qint8 spec = 0;
    if (!in.number(&tag) || !in.number(&day) || !in.number(&msecs) || !in.number(&spec))
        return false;
    if (day < FirstDay || day > LastDay || msecs >= MSecsPerDay || (spec != Qt::LocalTime && spec != Qt::UTC))
        return false;
    QByteArray url;
    qint32 status = 0;
    quint32 count = 0;
    if (!in.bytes(&url) || !in.number(&status) || !in.number(&count))
        return false;
    const char* headersAt = in.position();
    for (quint32 i = 0; i < count; ++i) {
        // The body follows the headers, so the record can't end among them.
        if (!in.skipBytes() || in.atEnd())
            return false;
    }
    const int headersSize = int(in.position() - headersAt);
    QByteArray body;
    if (!in.bytes(&body))
        return false;

    const qint64 wallClock = (day - UnixEpochDay) * MSecsPerDay + qint64(msecs);
    m_formatTag = tag;
    m_created = QDateTime::fromMSecsSinceEpoch(spec == Qt::UTC ? wallClock : localToUtcMSecs(wallClock), Qt::UTC);
    m_url = copyOf(url);
    m_status = status;
    m_headers.clear();
    m_headersAt = headersAt;
    m_headersSize = headersSize;
    m_headerCount = count;
    m_body = body;
    m_tail = in.rest();
    readReadyHeaders();
    return true;
}

// The ready headers follow the body and the tags; a record written
// without them (or with a form this reader doesn't know) has them
// prepared from its lines.
void CacheEntry::readReadyHeaders()
{
    RecordReader in(m_tail.constData(), m_tail.size());
    if (in.skipTags()) {
        const char* at = in.position();
        if (m_ready.view(at, int(m_tail.constData() + m_tail.size() - at)))
            return;
    }
    m_ready.prepare(headers());
}

const QLinkedList<QByteArray>& CacheEntry::headers() const
{
    if (!m_headersAt)
        return m_headers;
    RecordReader in(m_headersAt, m_headersSize);
    for (quint32 i = 0; i < m_headerCount; ++i) {
        QByteArray header;
        in.bytes(&header);
        m_headers.append(copyOf(header));
    }
    m_headersAt = nullptr;
    return m_headers;
}

void CacheEntry::readThroughStream(const QByteArray& record)
{
    QDataStream in(record);
    in.setVersion(QDataStream::Qt_5_12);
    m_headersAt = nullptr;
    in >> m_formatTag >> m_created >> m_url >> m_status >> m_headers >> m_body;
    m_ready.prepare(m_headers);
    m_tail = in.device() ? copyOf(record.mid(int(in.device()->pos()))) : QByteArray();
    if (m_created.isValid())
        m_created = m_created.toUTC();
}

QList<QByteArray> CacheEntry::tags() const
{
    QList<QByteArray> tags;
    if (m_tail.isEmpty())
        return tags;
    QDataStream in(m_tail);
    in.setVersion(QDataStream::Qt_5_12);
    qint32 mark = 0;
    in >> mark;
    if (mark != TagsMark)
        return tags;
    in >> tags;
    return in.status() == QDataStream::Ok ? tags : QList<QByteArray>();
}
