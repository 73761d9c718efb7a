#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QLinkedList>

// One stored page. Its record is what a QDataStream at Qt 5.12's version
// (18) makes of the fields, in this order; see STORE_FORMAT.md.
class CacheEntry
{
public:
    static const qint32 FormatTag = 2019;

    // Serialises the fields; a null creation time becomes now, on the entry too.
    QByteArray toRecord();
    // Reads the fields of a record. Nothing is checked: a short record
    // leaves the later fields as the stream gives them.
    void readRecord(const QByteArray& record);

    qint32 status() const { return m_status; }
    QLinkedList<QByteArray> headers() const { return m_headers; }
    QByteArray body() const { return m_body; }
    QByteArray url() const { return m_url; }
    QDateTime created() const { return m_created; }
    qint32 formatTag() const { return m_formatTag; }

    qint32 m_formatTag = 0;
    QDateTime m_created;
    QByteArray m_url;
    qint32 m_status = 0;
    QLinkedList<QByteArray> m_headers;
    QByteArray m_body;
};
