#include "VGlobals.h"
#include "VException.h"

#include <QFile>
#include <QSaveFile>
#include <unistd.h>

const char* const VGlobals::PID_PAGECACHE_CLEANER = "pagecache_cleaner";

namespace {
QByteArray& pidDir()
{
    static QByteArray dir;
    return dir;
}

QByteArray pidText()
{
    return QByteArray::number(qint64(getpid())) + '\n';
}
} // namespace

PidFileData::PidFileData(const QByteArray& path) : m_path(path), m_content(pidText())
{
}

void PidFileData::remove()
{
    if (m_path.isEmpty())
        return;
    // The successor of a process that is going may have written its own pid
    // meanwhile: that file stays.
    QFile file(QString::fromLocal8Bit(m_path));
    if (file.open(QIODevice::ReadOnly) && file.read(64) == m_content)
        ::unlink(m_path.constData());
    m_path.clear();
}

void VGlobals::setPidDirectory(const QByteArray& dir)
{
    pidDir() = dir;
}

QByteArray VGlobals::pidDirectory()
{
    return pidDir();
}

QSharedPointer<PidFileData> VGlobals::createPidFile(VDebug::StreamId logStream,
                                                     const VeskServerInfo& serverInfo,
                                                     const char* name)
{
    Q_UNUSED(serverInfo);
    if (pidDir().isEmpty())
        throw VException(QStringLiteral("No pid directory is configured for %1")
                             .arg(QString::fromLatin1(name)));
    const QByteArray path = pidDir() + '/' + name + ".pid";
    // Written aside and renamed, so a reader never sees half a number.
    QSaveFile file(QString::fromLocal8Bit(path));
    if (!file.open(QIODevice::WriteOnly)
        || file.write(pidText()) < 0 || !file.commit()) {
        throw VException(QStringLiteral("Failed to write the pid file %1: %2")
                             .arg(QString::fromLocal8Bit(path), file.errorString()));
    }
    VLOG(logStream, 5) << "Pid file written:" << path;
    return QSharedPointer<PidFileData>(new PidFileData(path));
}
