// Write and read throughput of the disk store for 4 KiB, 64 KiB and 1 MiB
// records, and one cleanExpired pass over 100,000 records.
#include "VDiskStorage.h"

#include <QDirIterator>
#include <QTemporaryDir>

#include <chrono>
#include <cstdio>

namespace {

double secondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Sees the records written a minute ago as expired.
class LaterEnv : public VDiskStorageEnv
{
public:
    qint64 offset = 0;
    qint64 now() override { return VDiskStorageEnv::now() + offset; }
};

} // namespace

int main()
{
    QTemporaryDir dir;
    const QByteArray root = QFile::encodeName(dir.path());
    LaterEnv env;
    VDiskStorage store(VDiskStorage::VDiskStorageInit(2, root, 1, "HTML-Cache", false), &env);
    char flag;

    for (int size : {4 * 1024, 64 * 1024, 1024 * 1024}) {
        const QByteArray value(size, 'v');
        const int count = size >= 1024 * 1024 ? 200 : size >= 64 * 1024 ? 2000 : 10000;
        auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < count; ++i)
            store.write("ns", "key" + QByteArray::number(i), value, &flag, 3600, 0);
        const double writeSeconds = secondsSince(start);
        start = std::chrono::steady_clock::now();
        qint64 bytes = 0;
        for (int i = 0; i < count; ++i) {
            int length = 0;
            char* data = store.read("ns", "key" + QByteArray::number(i), &length);
            bytes += length;
            free(data);
        }
        const double readSeconds = secondsSince(start);
        printf("%7d-byte records: write %8.0f/s (%6.0f MiB/s), read %8.0f/s (%6.0f MiB/s)\n", size,
               count / writeSeconds, count * double(size) / writeSeconds / 1048576, count / readSeconds,
               bytes / readSeconds / 1048576);
        store.clearNamespace(QByteArray());
    }

    const int records = 100000;
    const QByteArray small(512, 's');
    for (int i = 0; i < records; ++i)
        store.write("ns" + QByteArray::number(i % 100), "key" + QByteArray::number(i), small, &flag,
                    i % 2 ? 30 : 3600, 0);
    env.offset = 60;
    const auto start = std::chrono::steady_clock::now();
    store.cleanExpired();
    printf("cleanExpired over %d records (half expired): %.2f s\n", records, secondsSince(start));

    // The live half again, under a bound of half its size.
    qint64 live = 0;
    QDirIterator it(QString::fromLocal8Bit(store.root()), QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        live += qMax<qint64>(it.fileInfo().size(), 4096);
    }
    store.setSizeBound(live / 2);
    const auto bounded = std::chrono::steady_clock::now();
    store.cleanExpired();
    printf("cleanExpired over %d records under a bound of half their size: %.2f s (%d pages removed)\n",
           records / 2, secondsSince(bounded), store.lastCleaning().evictedPages);
    return 0;
}
