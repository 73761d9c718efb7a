#include "VFileDate.h"

#include <QFile>

#include <sys/stat.h>

QDateTime fileModified(const char* path)
{
    struct stat st;
    if (!path || !*path || stat(path, &st) != 0)
        return QDateTime();
    return QDateTime::fromMSecsSinceEpoch(qint64(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000, Qt::UTC);
}

QDateTime fileModified(const QByteArray& path)
{
    return fileModified(path.constData());
}

QDateTime fileModified(const QString& path)
{
    return fileModified(QFile::encodeName(path));
}
