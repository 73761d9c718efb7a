#include "VException.h"

VException::VException(const QString& message)
    : m_message(message), m_file(nullptr), m_line(0)
{
}

VException::VException(const QString& message, const char* file, int line)
    : m_message(message), m_file(file), m_line(line)
{
}

VException::~VException() noexcept = default;

const char* VException::what() const noexcept
{
    if (!m_whatCache.isEmpty())
        return m_whatCache.constData();
    if (m_line != 0) {
        // The message keeps the prefix for good; the cache below makes it once only.
        m_message.prepend(QStringLiteral("%1:%2 ")
                              .arg(m_file ? QString::fromLatin1(m_file) : QString())
                              .arg(m_line));
    }
    m_whatCache = m_message.toLatin1();
    return m_whatCache.constData();
}
