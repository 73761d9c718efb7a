#include "VUrl.h"

#include <QString>

VUrl::~VUrl() = default;

QByteArray VUrl::toString() const
{
    if (!m_text.isEmpty())
        return m_text;
    // Each part counts up to its first NUL byte.
    m_text = QStringLiteral("%1://%2/%3")
                 .arg(QString::fromLatin1(m_schema.constData()),
                      QString::fromLatin1(m_host.constData()),
                      QString::fromLatin1(m_path.constData()))
                 .toLocal8Bit();
    return m_text;
}
