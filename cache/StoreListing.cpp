#include "StoreListing.h"

#include "VDiskStorage.h"

#include <QDirIterator>
#include <QFile>
#include <QtEndian>

#include <cstdlib>

namespace {

// The namespace and key a record file says it holds (see
// cache/STORE_FORMAT.md); false for anything that isn't a record.
bool readNames(const QString& path, StoredPage& page)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray header = file.read(VDiskStorage::HeaderSize);
    if (header.size() != VDiskStorage::HeaderSize || !header.startsWith("VKDS"))
        return false;
    const uchar* h = reinterpret_cast<const uchar*>(header.constData());
    page.written = qFromLittleEndian<qint64>(h + 8);
    page.lifetime = qFromLittleEndian<qint64>(h + 16);
    const quint32 nsLength = qFromLittleEndian<quint32>(h + 32);
    const quint32 keyLength = qFromLittleEndian<quint32>(h + 36);
    if (nsLength > 4096 || keyLength > 4096)
        return false;
    const QByteArray names = file.read(qint64(nsLength) + keyLength);
    if (names.size() != int(nsLength + keyLength))
        return false;
    page.ns = nsLength ? names.left(int(nsLength)) : QByteArray();
    page.key = names.mid(int(nsLength));
    page.fileBytes = file.size();
    return true;
}

} // namespace

QList<StoredPage> listStore(VDiskStorage& store)
{
    QList<StoredPage> pages;
    QDirIterator files(QString::fromLocal8Bit(store.root()), QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QString path = files.next();
        // Writes in progress and trees being deleted aren't records.
        if (files.fileName().startsWith(QLatin1Char('.')) || path.contains(QStringLiteral("/.trash-")))
            continue;
        StoredPage page;
        if (!readNames(path, page))
            continue;
        int length = 0;
        char* value = store.read(page.ns, page.key, &length);
        if (!value)
            continue;
        page.entry.takeRecord(value, length);
        if (page.entry.formatTag() != CacheEntry::FormatTag)
            continue;
        pages << page;
    }
    return pages;
}
