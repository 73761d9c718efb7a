#include "CacheEntry.h"

#include <QDataStream>

QByteArray CacheEntry::toRecord()
{
    if (m_created.isNull())
        m_created = QDateTime::currentDateTime();
    QByteArray record;
    QDataStream out(&record, QIODevice::ReadWrite);
    out.setVersion(QDataStream::Qt_5_12);
    out << m_formatTag << m_created << m_url << m_status << m_headers << m_body;
    return record;
}

void CacheEntry::readRecord(const QByteArray& record)
{
    QDataStream in(record);
    in.setVersion(QDataStream::Qt_5_12);
    in >> m_formatTag >> m_created >> m_url >> m_status >> m_headers >> m_body;
}
