#include "VFileDate.h"

#include "VFileWatch.h"

#include <QFile>

#include <sys/stat.h>

QDateTime fileModified(const char* path)
{
    if (!path || !*path)
        return QDateTime();
    QDateTime date;
    if (VFileWatch::known(path, &date))
        return date;
    struct stat st;
    if (stat(path, &st) == 0)
        date = QDateTime::fromMSecsSinceEpoch(qint64(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000, Qt::UTC);
    // A missing file is remembered too: its creation is reported as well.
    VFileWatch::remember(path, date);
    return date;
}

QDateTime fileModified(const QByteArray& path)
{
    return fileModified(path.constData());
}

QDateTime fileModified(const QString& path)
{
    return fileModified(QFile::encodeName(path));
}
