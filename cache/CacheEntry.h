#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QLinkedList>
#include <QList>

#include "VReadyHeaders.h"

#include <memory>

// One stored page. Its record is what a QDataStream at Qt 5.12's version
// (18) makes of the fields, in this order; see STORE_FORMAT.md.
class CacheEntry
{
public:
    static const qint32 FormatTag = 2019;

    // Serialises the fields; a null creation time becomes now, on the entry too.
    QByteArray toRecord();
    // Reads the fields of a record. Nothing is checked: a short record
    // leaves the later fields as the stream gives them. The creation time
    // comes back in UTC, so that comparing it never consults the time zone.
    void readRecord(const QByteArray& record);
    // The same for a record in a malloc()ed buffer, which the entry takes
    // over and frees: the body is then read where it lies, not copied.
    void takeRecord(char* buffer, int length);
    // The same for a record that others share and nobody changes.
    void shareRecord(const std::shared_ptr<const char>& record, int length);

    qint32 status() const { return m_status; }
    // The header lines, made into a list at the first call after a read:
    // a hit sends readyHeaders() and never needs them.
    const QLinkedList<QByteArray>& headers() const;
    // The lines as a hit sends them: read from the record where it holds
    // them, prepared from the lines where it doesn't.
    const VReadyHeaders& readyHeaders() const { return m_ready; }
    // A copy of the body, for as long as the caller wants it.
    QByteArray body() const;
    // The body where it lies, valid while this entry (or a copy of it) lives.
    const char* bodyData() const { return m_body.constData(); }
    int bodySize() const { return m_body.size(); }
    QByteArray url() const { return m_url; }
    QDateTime created() const { return m_created; }
    qint32 formatTag() const { return m_formatTag; }
    // The page's tags, which follow the body in its record (see
    // STORE_FORMAT.md); read only when asked for, never by a hit.
    QList<QByteArray> tags() const;

    qint32 m_formatTag = 0;
    QDateTime m_created;
    QByteArray m_url;
    qint32 m_status = 0;
    // Filled in by headers() after a read.
    mutable QLinkedList<QByteArray> m_headers;
    QByteArray m_body;
    // Written after the body when not empty.
    QList<QByteArray> m_tags;
    // Written into the ready headers: the digest of the response rules the
    // page passed when stored (empty when it didn't), for that application.
    QByteArray m_passedRules;
    qint32 m_appId = -1;

private:
    bool readInPlace(const char* data, int size);
    void readThroughStream(const QByteArray& record);
    void readReadyHeaders();

    // Header lines not yet made into m_headers: where they lie in the
    // record, and how many.
    mutable const char* m_headersAt = nullptr;
    int m_headersSize = 0;
    quint32 m_headerCount = 0;
    VReadyHeaders m_ready;

    // The record a body read in place lies in.
    std::shared_ptr<const char> m_record;
    // What follows the body in the record read, where it lies.
    QByteArray m_tail;
};
