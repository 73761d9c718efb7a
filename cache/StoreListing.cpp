#include "StoreListing.h"

#include "VDiskStorage.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>

namespace {

class StoreWalk
{
public:
    StoreWalk(VDiskStorage& store, const std::function<void(const StoredPage&)>& visit)
        : m_store(store), m_visit(visit)
    {
    }

    // Directories are read entry by entry and left before the next one is
    // opened, so the walk holds one path per level and one record.
    bool walk(const QByteArray& dir, bool isRoot)
    {
        DIR* handle = opendir(dir.constData());
        if (!handle)
            return (isRoot && errno == ENOENT) || failed(dir, errno);
        bool read = true;
        while (const struct dirent* entry = readdir(handle)) {
            // Writes in progress, locks and trees being deleted aren't records.
            if (entry->d_name[0] == '.')
                continue;
            const QByteArray path = dir + '/' + entry->d_name;
            read = (entry->d_type == DT_DIR ? walk(path, false) : visitRecord(path)) && read;
        }
        closedir(handle);
        return read;
    }

    QString error;

private:
    bool visitRecord(const QByteArray& path)
    {
        VDiskStorage::RecordInfo info;
        int problem = 0;
        if (!VDiskStorage::readRecordInfo(path, &info, &problem))
            return problem == EISDIR ? walk(path, false) : problem == 0 || failed(path, problem);
        StoredPage page;
        page.ns = info.ns;
        page.key = info.key;
        page.written = info.written;
        page.lifetime = info.lifetime;
        page.fileBytes = info.fileBytes;
        int length = 0;
        char* value = m_store.read(page.ns, page.key, &length);
        if (!value)
            return true;
        page.entry.takeRecord(value, length);
        if (page.entry.formatTag() == CacheEntry::FormatTag)
            m_visit(page);
        return true;
    }

    bool failed(const QByteArray& path, int problem)
    {
        if (error.isEmpty())
            error = QStringLiteral("cannot read %1: %2").arg(QString::fromLocal8Bit(path),
                                                             QString::fromLocal8Bit(strerror(problem)));
        return false;
    }

    VDiskStorage& m_store;
    const std::function<void(const StoredPage&)>& m_visit;
};

} // namespace

bool forEachStoredPage(VDiskStorage& store, const std::function<void(const StoredPage&)>& visit, QString* error)
{
    StoreWalk walk(store, visit);
    const bool read = walk.walk(store.root(), true);
    if (error)
        *error = walk.error;
    return read;
}
