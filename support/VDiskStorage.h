#pragma once

#include "VTrashFolder.h"

#include <QByteArray>
#include <QtGlobal>

#include <functional>
#include <memory>
#include <sys/types.h>

struct stat;

// The file operations of the store that tests may want to fail or to see
// at another time. The default one is the operating system.
class VDiskStorageEnv
{
public:
    virtual ~VDiskStorageEnv();
    // Creates `path`, which must not exist, holding `header` then `value`.
    virtual bool writeNewFile(const QByteArray& path, const QByteArray& header, const QByteArray& value,
                              QByteArray* error);
    virtual bool renameFile(const QByteArray& from, const QByteArray& to, QByteArray* error);
    // Seconds since 1970.
    virtual qint64 now();

    // The moments of a write, for tests that stop a writer dead at each.
    enum WriteStep { TempOpened, HalfWritten, BeforeRename, AfterRename };
    virtual void reached(WriteStep step);

    static VDiskStorageEnv* system();
};

// A key-value store on disk, shared by every process that opens the same
// root: records by namespace and key, each with its own lifetime. See
// cache/STORE_FORMAT.md for the layout.
class VDiskStorage
{
public:
    class VDiskStorageInit
    {
    public:
        VDiskStorageInit(long dirDepth, const QByteArray& savePath, int unused, const QByteArray& name,
                         bool unusedFlag);

        long dirDepth;
        QByteArray savePath;
        QByteArray name;
    };

    explicit VDiskStorage(const VDiskStorageInit& init, VDiskStorageEnv* env = VDiskStorageEnv::system());
    virtual ~VDiskStorage();

    // The last write or clear failure, with the operating system's reason.
    QByteArray lastError;

    // A new malloc()ed copy of the live value, or null. The caller frees it.
    virtual char* read(const QByteArray& ns, const QByteArray& key, int* length);
    // The live value, shared and never changed: valid while `data` is held.
    // A record this process read before is answered from its memory after
    // one stat() of its file shows it still the same file (see
    // STORE_FORMAT.md); `made` then points to a slot kept with it, for what
    // the reader made of the value, and is null for a value not kept.
    struct Value
    {
        std::shared_ptr<const char> data;
        int length = 0;
        std::shared_ptr<void>* made = nullptr;
    };
    bool readValue(const QByteArray& ns, const QByteArray& key, Value* value);
    // What this store keeps of records in memory at most: bytes of values
    // (each taking no more than an eighth of it) and records.
    void setKeptBounds(qint64 bytes, int records);
    qint64 keptBytes() const;
    int keptRecords() const;
    virtual bool remove(const QByteArray& ns, const QByteArray& key);
    // While one lives, remove() takes records out of the store by renaming
    // them into a trash folder of its own (VTrashFolder), which the next
    // cleaning deletes: a removal of many pages at once ends them all as
    // fast as readers can notice.
    class TrashBatch
    {
    public:
        explicit TrashBatch(VDiskStorage& store);
        ~TrashBatch();
        TrashBatch(const TrashBatch&) = delete;
        TrashBatch& operator=(const TrashBatch&) = delete;

    private:
        VDiskStorage& m_store;
        bool m_outer;
    };
    // Drops every record of a namespace; the null array drops them all.
    virtual bool clearNamespace(const QByteArray& ns);
    virtual bool contains(const QByteArray& ns, const QByteArray& key, bool unused);
    // Replaces the record whole. A lifetime of 0 or less never expires.
    // The record is fresh for its first `freshFor` seconds (all of its
    // lifetime when negative) and stale, in its grace, for the rest.
    virtual bool write(const QByteArray& ns, const QByteArray& key, const QByteArray& value, char* outFlag,
                       int lifetime, int unused, int freshFor = -1);
    // Deletes expired records, what interrupted writers and clears left, and
    // empty directories; then, under a size bound, whole pages, those closest
    // to expiry first, then the oldest.
    virtual bool cleanExpired();
    // The bound cleanExpired() keeps the store under: the space its record
    // files take on disk, in bytes (0: no bound). Records whose keys
    // `pageOf` maps to the same name are one page and go together.
    void setSizeBound(qint64 maxBytes, std::function<QByteArray(const QByteArray& key)> pageOf = {});
    // The most pages one pass of a bounded cleaning gathers to remove, at
    // about half a kB of memory each; more passes follow while the store
    // is over its bound.
    void setEvictionBatch(size_t pages) { m_evictionBatch = qMax<size_t>(1, pages); }
    // What the last cleanExpired() did.
    struct Cleaning
    {
        int expired = 0;
        int evictedPages = 0;
        qint64 bytesBefore = 0; // of the live records it found
        qint64 bytesAfter = 0;
        int trashRemoved = 0;
        int directoriesRemoved = 0;
    };
    Cleaning lastCleaning() const { return m_cleaning; }
    // When the record expires: its write time plus its lifetime, or -1.
    long getLastModified(const QByteArray& ns, const QByteArray& key);
    // When the record turns stale: its write time plus the time it was
    // written fresh for; 0 when it is fresh as long as it lives, -1 for none.
    // The record's own word, whatever its rule says now.
    long getStaleFrom(const QByteArray& ns, const QByteArray& key);

    // One page's lock across processes, beside its record, so that one
    // process builds a missing page while the others wait for it. A lock
    // whose holder has died, or that is older than `maxAgeMs`, counts for
    // nothing and is taken over. A store holds one lock at a time.
    enum class LockState { Free, Held, Stale };
    // True when this store now holds the page's lock.
    bool tryLock(const QByteArray& ns, const QByteArray& key, qint64 maxAgeMs);
    // `holder`, when given, receives the words that tell one taking of the
    // lock from the next: a waiter sees by them that the lock it waited on
    // went and another took the page's lock since.
    LockState lockState(const QByteArray& ns, const QByteArray& key, qint64 maxAgeMs, QByteArray* holder = nullptr);
    // Gives up the lock this store holds, unless another process has taken
    // it over meanwhile.
    void unlock();
    // Whether the process named by a lock's words (see lockState) lives.
    static bool lockHolderAlive(const QByteArray& words);
    QByteArray lockPath(const QByteArray& ns, const QByteArray& key) const;

    // What the header of the record file at `path` says; false, with the
    // reason in `error` (errno's number) or 0 for a file that is no sound
    // record, otherwise. For walks over the store, which find files by name.
    struct RecordInfo
    {
        QByteArray ns;
        QByteArray key;
        qint64 written = 0;
        qint64 lifetime = 0;
        qint64 fileBytes = 0;
    };
    static bool readRecordInfo(const QByteArray& path, RecordInfo* info, int* error);

    QByteArray root() const { return m_root; }
    // Where a record lies; exposed for the tests of the format.
    QByteArray recordPath(const QByteArray& ns, const QByteArray& key) const;

    static const int HeaderSize = 56;

private:
    QByteArray namespaceDir(const QByteArray& ns) const;
    // "<save path>/.trash-<store name>-": a clear of everything renames the
    // store to that and a unique suffix.
    QByteArray wholeStoreTrashPrefix() const;
    // A record that contains() found live stays open for a read of the same
    // record right after it, as the hit path does: one open instead of two.
    struct Held;
    void release();
    class KeptRecords;
    // Whether the record, kept, is still the file on disk and live: 1 yes,
    // 0 gone or expired, -1 not known (not kept, or its file changed).
    int keptState(const QByteArray& ns, const QByteArray& key);
    // The value read from disk and checked; kept when it may be.
    bool readFromDisk(const QByteArray& ns, const QByteArray& key, Value* value);

    bool fail(const QByteArray& what, const QByteArray& path, int error);
    struct Walk;
    class Eviction;
    // Cleans `dir`; true when it was left empty and removed.
    bool walk(const QByteArray& dir, bool isRoot, Walk& state);
    // One entry of a directory the walk reads, and one record file: true
    // when it went.
    bool cleanEntry(const QByteArray& path, const char* name, unsigned char type, bool isRoot, Walk& state);
    bool cleanRecord(const QByteArray& path, Walk& state);
    void evict(Walk& state);
    // Whether this file, unchanged, already passed the value check here.
    class CheckedFiles;
    bool checkedBefore(const struct stat& st) const;
    void rememberChecked(const struct stat& st);

    QByteArray m_root;
    int m_depth;
    VDiskStorageEnv* m_env;
    Held* m_held = nullptr;
    // A kept record that contains() found live: a read right after it needs no stat.
    bool m_keptLive = false;
    QByteArray m_keptNs;
    QByteArray m_keptKey;
    std::unique_ptr<KeptRecords> m_kept;
    std::unique_ptr<CheckedFiles> m_checked;
    qint64 m_maxBytes = 0;
    std::function<QByteArray(const QByteArray&)> m_pageOf;
    size_t m_evictionBatch = 4096;
    Cleaning m_cleaning;
    // The open TrashBatch's folder.
    VTrashFolder m_trash;
    // The lock file this store created: its path and inode.
    QByteArray m_lockPath;
    QByteArray m_lockText;
    dev_t m_lockDevice = 0;
    ino_t m_lockInode = 0;
};
