#include "VDiskStorage.h"

#include "VCrc32c.h"
#include "VFileMode.h"
#include "VFileWatch.h"

#include <QCryptographicHash>
#include <QDirIterator>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <signal.h>
#include <QHash>
#include <QVarLengthArray>
#include <QtEndian>

#include <algorithm>
#include <set>
#include <tuple>
#include <unordered_map>
#include <vector>

namespace {

const char Magic[4] = {'V', 'K', 'D', 'S'};
const quint32 FormatVersion = 4;
const char TempPrefix[] = ".tmp-";
const char TrashPrefix[] = ".trash-";
// A page's lock lies beside its record as this and the record's name.
const char LockPrefix[] = ".lock-";
// A temporary file this old belongs to a writer that died.
const qint64 StaleTempSeconds = 3600;
// What a cleaning spends at most on removing empty directories.
const time_t DirectorySeconds = 2;
// Passes of a bounded cleaning over the store, each of which removes up to
// a batch of pages; what is left goes at the next cleaning.
const int MaxEvictionPasses = 16;

struct Header
{
    qint64 writeTime = 0;
    qint64 lifetime = 0;
    // How long of its lifetime the record is fresh; the rest is its grace.
    qint64 freshFor = 0;
    quint64 length = 0;
    quint32 nsLength = 0;
    quint32 keyLength = 0;
    // Over namespace, key and value together.
    quint32 bodyCrc = 0;

    quint64 identityLength() const { return quint64(nsLength) + keyLength; }
    quint64 valueOffset() const { return VDiskStorage::HeaderSize + identityLength(); }

    bool expiredAt(qint64 now) const { return lifetime > 0 && now >= writeTime + lifetime; }
    qint64 staleFrom() const { return lifetime > 0 && freshFor < lifetime ? writeTime + freshFor : 0; }
};

void put32(char* at, quint32 v)
{
    qToLittleEndian(v, at);
}

void put64(char* at, quint64 v)
{
    qToLittleEndian(v, at);
}

quint32 get32(const char* at)
{
    return qFromLittleEndian<quint32>(at);
}

quint64 get64(const char* at)
{
    return qFromLittleEndian<quint64>(at);
}

quint32 crc(const char* data, size_t size, quint32 start = 0)
{
    return crc32c(data, size, start);
}

QByteArray encodeHeader(const Header& h)
{
    char at[VDiskStorage::HeaderSize] = {};
    memcpy(at, Magic, 4);
    put32(at + 4, FormatVersion);
    put64(at + 8, quint64(h.writeTime));
    put64(at + 16, quint64(h.lifetime));
    put64(at + 24, quint64(h.freshFor));
    put64(at + 32, h.length);
    put32(at + 40, h.nsLength);
    put32(at + 44, h.keyLength);
    put32(at + 48, h.bodyCrc);
    put32(at + 52, crc(at, 52));
    return QByteArray(at, VDiskStorage::HeaderSize);
}

// Checks a header read from a file of `fileSize` bytes; false for anything doubtful.
bool parseHeader(const char* bytes, quint64 fileSize, Header* h)
{
    if (memcmp(bytes, Magic, 4) != 0 || get32(bytes + 4) != FormatVersion || get32(bytes + 52) != crc(bytes, 52))
        return false;
    h->writeTime = qint64(get64(bytes + 8));
    h->lifetime = qint64(get64(bytes + 16));
    h->freshFor = qint64(get64(bytes + 24));
    h->length = get64(bytes + 32);
    h->nsLength = get32(bytes + 40);
    h->keyLength = get32(bytes + 44);
    h->bodyCrc = get32(bytes + 48);
    return h->length <= quint64(INT_MAX) && h->identityLength() <= 1u << 20
           && fileSize == h->valueOffset() + h->length;
}

bool readAll(int fd, char* buffer, size_t size, off_t offset)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t n = pread(fd, buffer + done, size - done, offset + off_t(done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += size_t(n);
    }
    return true;
}

// Removes the record file that was judged, unless a writer has put a new
// one in its place meanwhile. True when the name is gone.
bool dropDoubtful(const QByteArray& path, const struct stat& judged)
{
    struct stat current;
    if (lstat(path.constData(), &current) != 0)
        return errno == ENOENT;
    return current.st_ino == judged.st_ino && current.st_dev == judged.st_dev && unlink(path.constData()) == 0;
}

// Opens a record and checks that its header is sound and that it is the
// record of that namespace and key; -1 otherwise. A file that was there but
// didn't check out is removed, so that the next write replaces it. Header
// and names come in one read. `st` receives the open file's status.
int openRecord(const QByteArray& path, const QByteArray& ns, const QByteArray& key, Header* h, struct stat* st)
{
    const int fd = open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    const size_t wanted = size_t(VDiskStorage::HeaderSize + ns.size() + key.size());
    QVarLengthArray<char, 512> bytes(static_cast<int>(wanted));
    if (pread(fd, bytes.data(), wanted, 0) == ssize_t(wanted) && fstat(fd, st) == 0
        && parseHeader(bytes.constData(), quint64(st->st_size), h)
        && h->nsLength == quint32(ns.size()) && h->keyLength == quint32(key.size())
        && memcmp(bytes.constData() + VDiskStorage::HeaderSize, ns.constData(), size_t(ns.size())) == 0
        && memcmp(bytes.constData() + VDiskStorage::HeaderSize + ns.size(), key.constData(), size_t(key.size())) == 0)
        return fd;
    if (fstat(fd, st) == 0)
        dropDoubtful(path, *st);
    close(fd);
    return -1;
}

// A record's header alone: the file is closed again at once.
bool readHeader(const QByteArray& path, const QByteArray& ns, const QByteArray& key, Header* h)
{
    struct stat st;
    const int fd = openRecord(path, ns, key, h, &st);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

bool valueMatches(const QByteArray& ns, const QByteArray& key, const char* value, const Header& h)
{
    const quint32 identityCrc = crc((ns + key).constData(), size_t(ns.size() + key.size()));
    return crc(value, size_t(h.length), identityCrc) == h.bodyCrc;
}

bool sameTime(const struct timespec& a, const struct timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

} // namespace

// Record files whose value this store has read and found sound. No record is
// ever changed in place: a writer renames a whole new file over it. So a file
// of the same device, inode, size and modification and change times holds
// the bytes that were checked, and a page read on every hit is checked once
// per process instead of once per hit. Direct-mapped and fixed in size: a
// collision only costs one more check.
class VDiskStorage::CheckedFiles
{
public:
    bool holds(const struct stat& st) const
    {
        const Slot& slot = m_slots[index(st)];
        return slot.ino == st.st_ino && slot.dev == st.st_dev && slot.size == st.st_size
               && sameTime(slot.mtime, st.st_mtim) && sameTime(slot.ctime, st.st_ctim);
    }

    void add(const struct stat& st)
    {
        m_slots[index(st)] = Slot{st.st_dev, st.st_ino, st.st_size, st.st_mtim, st.st_ctim};
    }

private:
    struct Slot
    {
        dev_t dev;
        ino_t ino;
        off_t size;
        struct timespec mtime;
        struct timespec ctime;
    };
    static const size_t Slots = 1024;

    static size_t index(const struct stat& st) { return size_t(st.st_ino ^ (st.st_dev << 7)) % Slots; }

    // Inode 0 is no file's, so an empty slot matches nothing.
    Slot m_slots[Slots] = {};
};


// Records this process read, kept in memory with the identity of their file,
// so that a page read on every hit costs one stat() instead of an open and
// two reads. No record is ever changed in place: a writer renames a whole
// new file over it, a removal or clear unlinks or renames it away. So a
// stat() that finds the same device, inode, size and times finds the bytes
// that were read, and anything else (no file, another file) drops the copy.
// An inode can come back for a new file at once, but not with the same
// change time: a file is kept only when that time lies two seconds behind
// the clock, so a file that replaces it later differs in it. Bounded in
// bytes and in records; the least recently used go first, a quarter at a time.
// Where the process watches its folders (a worker, see VFileWatch), a record
// checked by stat() is trusted without one while no report came of a change
// in its folder, or of its folders, and for at most a second.
class VDiskStorage::KeptRecords
{
public:
    struct Record
    {
        QByteArray path;
        struct stat status;
        Header header;
        std::shared_ptr<const char> value;
        std::shared_ptr<void> made;
        quint64 lastUse = 0;
        // The record's folder's watch first, then those above it; the epochs
        // of its last check, 0 for none that vouches for it.
        QVarLengthArray<int, 8> watches;
        quint64 fileEpoch = 0;
        quint64 folderEpoch = 0;
    };

    qint64 maxBytes = 8 << 20;
    int maxRecords = 4096;
    qint64 bytes = 0;

    Record* find(const QByteArray& ns, const QByteArray& key)
    {
        auto it = m_records.find(qMakePair(ns, key));
        if (it == m_records.end())
            return nullptr;
        it->lastUse = ++m_clock;
        return &*it;
    }

    static bool vouched(const Record& record)
    {
        return record.fileEpoch == VFileWatch::fileEpoch() && record.folderEpoch == VFileWatch::folderEpoch();
    }

    // Called before the stat() that checks the record: a change after its
    // watches stand is reported, one before them is seen by that stat().
    static void watch(Record& record, const QByteArray& root)
    {
        record.fileEpoch = 0;
        if (record.folderEpoch == VFileWatch::folderEpoch())
            return;
        unwatch(record);
        QByteArray dir = record.path;
        for (;;) {
            const int slash = dir.lastIndexOf('/');
            if (slash <= 0 || slash < root.size() || record.watches.size() > 20)
                return unwatch(record);
            dir.truncate(slash);
            const int watch = VFileWatch::watchFolder(dir.constData(), record.watches.isEmpty());
            if (watch < 0)
                return unwatch(record);
            record.watches.append(watch);
            if (dir.size() == root.size())
                break;
        }
        record.folderEpoch = VFileWatch::folderEpoch();
    }

    static void checked(Record& record)
    {
        if (record.folderEpoch == VFileWatch::folderEpoch())
            record.fileEpoch = VFileWatch::fileEpoch();
    }

    static bool sameFile(const struct stat& a, const struct stat& b)
    {
        return a.st_ino == b.st_ino && a.st_dev == b.st_dev && a.st_size == b.st_size
               && sameTime(a.st_mtim, b.st_mtim) && sameTime(a.st_ctim, b.st_ctim);
    }

    // Keeps the record (its header alone without `value`); the made slot
    // of the record kept, or null.
    std::shared_ptr<void>* keep(const QByteArray& ns, const QByteArray& key, const QByteArray& path,
                                const struct stat& st, const Header& h, std::shared_ptr<const char> value, qint64 now)
    {
        if (st.st_ctim.tv_sec > now - 2 || qint64(h.length) > maxBytes / 8)
            return nullptr;
        drop(ns, key);
        Record& record = m_records[qMakePair(ns, key)];
        record = Record{path, st, h, std::move(value), nullptr, ++m_clock, {}, 0, 0};
        bytes += cost(record);
        if (bytes > maxBytes || m_records.size() > maxRecords) {
            evict();
            Record* kept = find(ns, key);
            return kept ? &kept->made : nullptr;
        }
        return &record.made;
    }

    void drop(const QByteArray& ns, const QByteArray& key)
    {
        auto it = m_records.find(qMakePair(ns, key));
        if (it == m_records.end())
            return;
        bytes -= cost(*it);
        unwatch(*it);
        m_records.erase(it);
    }

    void clear()
    {
        for (Record& record : m_records)
            unwatch(record);
        m_records.clear();
        bytes = 0;
    }

    ~KeptRecords() { clear(); }

    int size() const { return m_records.size(); }

private:
    // A record's value, and what a header, its names and a parsed page take beside it.
    static qint64 cost(const Record& record)
    {
        return (record.value ? qint64(record.header.length) : 0) + 512;
    }

    static void unwatch(Record& record)
    {
        for (int i = 0; i < record.watches.size(); ++i)
            VFileWatch::unwatchFolder(record.watches[i], i == 0);
        record.watches.clear();
        record.fileEpoch = record.folderEpoch = 0;
    }

    // Down to three quarters of both bounds, the least recently used first.
    void evict()
    {
        std::vector<std::pair<quint64, qint64>> uses;
        uses.reserve(size_t(m_records.size()));
        for (const Record& record : qAsConst(m_records))
            uses.emplace_back(record.lastUse, cost(record));
        std::sort(uses.begin(), uses.end());
        qint64 left = bytes;
        size_t count = uses.size();
        quint64 limit = 0;
        for (const auto& use : uses) {
            if (left <= maxBytes * 3 / 4 && count <= size_t(maxRecords) * 3 / 4)
                break;
            limit = use.first;
            left -= use.second;
            --count;
        }
        for (auto it = m_records.begin(); it != m_records.end();) {
            if (it->lastUse <= limit) {
                bytes -= cost(*it);
                unwatch(*it);
                it = m_records.erase(it);
            } else {
                ++it;
            }
        }
    }

    QHash<QPair<QByteArray, QByteArray>, Record> m_records;
    quint64 m_clock = 0;
};

namespace {

// Names of namespaces and keys become file names: safe ones as they are,
// anything else in hexadecimal, so no name can leave its directory.
QByteArray fileName(const QByteArray& name)
{
    bool safe = !name.isEmpty() && name.size() <= 128 && isalnum(quint8(name.at(0)));
    for (int i = 0; safe && i < name.size(); ++i) {
        const char c = name.at(i);
        safe = isalnum(quint8(c)) || c == '.' || c == '_' || c == '-';
    }
    if (safe)
        return name;
    if (name.size() > 100)
        return "h-" + QCryptographicHash::hash(name, QCryptographicHash::Sha1).toHex();
    return "x-" + name.toHex();
}

std::atomic<unsigned> tempCounter{0};

QByteArray uniqueSuffix()
{
    return QByteArray::number(qint64(getpid())) + '-' + QByteArray::number(++tempCounter) + '-'
           + QByteArray::number(qint64(time(nullptr)));
}

bool makeDirs(const QByteArray& path)
{
    if (mkdir(path.constData(), 0755) == 0 || errno == EEXIST)
        return true;
    if (errno != ENOENT)
        return false;
    const int slash = path.lastIndexOf('/');
    if (slash <= 0 || !makeDirs(path.left(slash)))
        return false;
    return mkdir(path.constData(), 0755) == 0 || errno == EEXIST;
}

// Deletes a tree without following links; what can't go stays.
void removeTree(const QByteArray& path)
{
    DIR* dir = opendir(path.constData());
    if (dir) {
        while (const struct dirent* entry = readdir(dir)) {
            if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0)
                continue;
            const QByteArray child = path + '/' + entry->d_name;
            struct stat st;
            if (lstat(child.constData(), &st) != 0)
                continue;
            if (S_ISDIR(st.st_mode))
                removeTree(child);
            else
                unlink(child.constData());
        }
        closedir(dir);
    }
    rmdir(path.constData());
}

// Whether `name` is `prefix` followed by a unique suffix: pid, counter and time.
bool isTrashName(const QByteArray& name, const QByteArray& prefix)
{
    if (!name.startsWith(prefix))
        return false;
    const QList<QByteArray> parts = name.mid(prefix.size()).split('-');
    if (parts.size() != 3)
        return false;
    for (const QByteArray& part : parts) {
        if (part.isEmpty() || !std::all_of(part.begin(), part.end(), [](char c) { return c >= '0' && c <= '9'; }))
            return false;
    }
    return true;
}

// What a record file takes on disk: its blocks, as du counts them, and no
// less than its bytes (some file systems keep small files in their metadata).
qint64 diskBytes(const struct stat& st)
{
    return qMax<qint64>(qint64(st.st_size), qint64(st.st_blocks) * 512);
}

// What a lock file says of its holder, and its age in milliseconds.
struct LockHolder
{
    pid_t pid = 0;
    qint64 ageMs = 0;
    QByteArray text;
    struct stat status;
};

// False when there is no lock file (any more).
bool readLockHolder(const QByteArray& path, LockHolder* holder)
{
    const int fd = open(path.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return false;
    char text[64] = {};
    const ssize_t got = fstat(fd, &holder->status) == 0 ? pread(fd, text, sizeof text - 1, 0) : -1;
    close(fd);
    if (got < 0)
        return false;
    holder->text = QByteArray(text, int(got));
    // A taker that has just created the file may not have written its pid
    // yet: 0, taken for alive until the lock is old.
    holder->pid = pid_t(strtol(text, nullptr, 10));
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const struct timespec& made = holder->status.st_mtim;
    holder->ageMs = (qint64(now.tv_sec) - made.tv_sec) * 1000 + (now.tv_nsec - made.tv_nsec) / 1000000;
    return true;
}

// A pid of this machine that no process has any more. Pids are reused, but
// only after a while: the age limit covers a lock whose pid came back.
bool holderGone(pid_t pid)
{
    return pid > 0 && kill(pid, 0) != 0 && errno == ESRCH;
}

// Removes a lock judged dead; true when it is gone. Inodes come back at
// once, so the lock is moved aside in one step first and its words looked
// at there: a live lock that another taker put in its place meanwhile goes
// back, unless yet another has been made by then.
bool dropLock(const QByteArray& path, const LockHolder& judged)
{
    const QByteArray aside = path.left(path.lastIndexOf('/') + 1) + TempPrefix + uniqueSuffix();
    if (rename(path.constData(), aside.constData()) != 0)
        return errno == ENOENT;
    LockHolder moved;
    const bool wasJudged = readLockHolder(aside, &moved) && moved.text == judged.text;
    if (!wasJudged)
        (void)link(aside.constData(), path.constData());
    unlink(aside.constData());
    return wasJudged;
}

// Whoever creates, judges or removes a page's lock holds this on the lock's
// folder meanwhile. Without it, a taker moving a dead lock aside leaves a
// moment in which a third one creates its own lock, and the taker's putting
// back fails: two workers each believe they hold the page and both build
// it. Held for a few system calls, never during a build; the kernel lets go
// of it when its holder dies.
class LockFolderGuard
{
public:
    explicit LockFolderGuard(const QByteArray& lock) { take(lock); }
    ~LockFolderGuard()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    LockFolderGuard(const LockFolderGuard&) = delete;
    LockFolderGuard& operator=(const LockFolderGuard&) = delete;

    // Takes the guard unless it is held already; not while the folder
    // doesn't exist.
    void take(const QByteArray& lock)
    {
        if (m_fd >= 0)
            return;
        m_fd = open(lock.left(lock.lastIndexOf('/')).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        while (m_fd >= 0 && flock(m_fd, LOCK_EX) != 0 && errno == EINTR) {
        }
    }

private:
    int m_fd = -1;
};

} // namespace

VDiskStorageEnv::~VDiskStorageEnv() = default;

void VDiskStorageEnv::reached(WriteStep)
{
}

bool VDiskStorageEnv::writeNewFile(const QByteArray& path, const QByteArray& header, const QByteArray& value,
                                   QByteArray* error)
{
    const int fd = open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, VFileMode::files());
    if (fd < 0) {
        *error = strerror(errno);
        return false;
    }
    // A record holds a visitor's page: for the workers only, unless widened.
    VFileMode::apply(fd);
    reached(TempOpened);
    const int half = value.size() / 2;
    const QByteArray first = QByteArray::fromRawData(value.constData(), half);
    const QByteArray second = QByteArray::fromRawData(value.constData() + half, value.size() - half);
    for (const QByteArray* part : {&header, &first, &second}) {
        if (part == &second)
            reached(HalfWritten);
        const char* data = part->constData();
        size_t left = size_t(part->size());
        while (left > 0) {
            const ssize_t n = ::write(fd, data, left);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                *error = strerror(n < 0 ? errno : EIO);
                close(fd);
                unlink(path.constData());
                return false;
            }
            data += n;
            left -= size_t(n);
        }
    }
    if (close(fd) != 0) {
        *error = strerror(errno);
        unlink(path.constData());
        return false;
    }
    return true;
}

bool VDiskStorageEnv::renameFile(const QByteArray& from, const QByteArray& to, QByteArray* error)
{
    if (rename(from.constData(), to.constData()) == 0)
        return true;
    *error = strerror(errno);
    return false;
}

qint64 VDiskStorageEnv::now()
{
    return qint64(time(nullptr));
}

VDiskStorageEnv* VDiskStorageEnv::system()
{
    static VDiskStorageEnv env;
    return &env;
}

VDiskStorage::VDiskStorageInit::VDiskStorageInit(long dirDepth, const QByteArray& savePath, int,
                                                 const QByteArray& name, bool)
    : dirDepth(dirDepth), savePath(savePath), name(name)
{
}

VDiskStorage::VDiskStorage(const VDiskStorageInit& init, VDiskStorageEnv* env)
    : m_root(init.savePath + '/' + fileName(init.name)),
      m_depth(int(qBound<long>(0, init.dirDepth, 16))),
      m_env(env),
      m_kept(new KeptRecords)
{
}

struct VDiskStorage::Held
{
    QByteArray ns;
    QByteArray key;
    QByteArray path;
    int fd;
    Header header;
    struct stat status;
};

VDiskStorage::~VDiskStorage()
{
    release();
    unlock();
}

void VDiskStorage::release()
{
    m_keptLive = false;
    if (!m_held)
        return;
    close(m_held->fd);
    delete m_held;
    m_held = nullptr;
}

bool VDiskStorage::fail(const QByteArray& what, const QByteArray& path, int error)
{
    lastError = what + ' ' + path + ": " + QByteArray(strerror(error));
    return false;
}

QByteArray VDiskStorage::namespaceDir(const QByteArray& ns) const
{
    // Records of the null namespace lie in a directory of their own.
    return m_root + '/' + (ns.isNull() ? QByteArray("_") : fileName(ns));
}

QByteArray VDiskStorage::recordPath(const QByteArray& ns, const QByteArray& key) const
{
    const QByteArray dir = namespaceDir(ns);
    const QByteArray name = fileName(key);
    // Built in place: every hit asks for a path.
    QByteArray path(dir.size() + 3 * m_depth + 1 + name.size(), Qt::Uninitialized);
    char* at = path.data();
    memcpy(at, dir.constData(), size_t(dir.size()));
    at += dir.size();
    if (m_depth > 0) {
        // Level n is the n-th byte of the key's MD5, in two hex digits.
        static const char digits[] = "0123456789abcdef";
        const QByteArray spread = QCryptographicHash::hash(key, QCryptographicHash::Md5);
        for (int level = 0; level < m_depth; ++level) {
            const quint8 byte = quint8(spread.at(level));
            *at++ = '/';
            *at++ = digits[byte >> 4];
            *at++ = digits[byte & 15];
        }
    }
    *at++ = '/';
    memcpy(at, name.constData(), size_t(name.size()));
    return path;
}

QByteArray VDiskStorage::lockPath(const QByteArray& ns, const QByteArray& key) const
{
    const QByteArray record = recordPath(ns, key);
    const int slash = record.lastIndexOf('/');
    return record.left(slash + 1) + LockPrefix + record.mid(slash + 1);
}

VDiskStorage::LockState VDiskStorage::lockState(const QByteArray& ns, const QByteArray& key, qint64 maxAgeMs,
                                                QByteArray* words)
{
    // Under the takers' guard: a taker of a dead lock moves it aside before
    // it makes its own, and a look between the two would find the page's
    // lock free and send this worker to build the page beside the taker.
    const QByteArray path = lockPath(ns, key);
    LockFolderGuard guard(path);
    LockHolder holder;
    if (!readLockHolder(path, &holder))
        return LockState::Free;
    if (words)
        *words = holder.text;
    return holderGone(holder.pid) || holder.ageMs >= maxAgeMs ? LockState::Stale : LockState::Held;
}

bool VDiskStorage::tryLock(const QByteArray& ns, const QByteArray& key, qint64 maxAgeMs)
{
    unlock();
    const QByteArray path = lockPath(ns, key);
    // One guard for the whole taking: a dead lock moved aside and this
    // one made in its place are one change to everyone who looks.
    LockFolderGuard guard(path);
    for (int attempt = 0; attempt < 3; ++attempt) {
        const int fd = open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd >= 0) {
            // Pid, time and a count: a taker that finds these words in the
            // file knows the lock is still its own, whatever inode it has.
            const QByteArray text = uniqueSuffix().replace('-', ' ') + '\n';
            struct stat st;
            const bool written = ::write(fd, text.constData(), size_t(text.size())) == text.size() && fstat(fd, &st) == 0;
            close(fd);
            if (!written) {
                unlink(path.constData());
                return false;
            }
            m_lockPath = path;
            m_lockText = text;
            m_lockDevice = st.st_dev;
            m_lockInode = st.st_ino;
            return true;
        }
        if (errno == ENOENT) {
            if (!makeDirs(path.left(path.lastIndexOf('/'))))
                return false;
            guard.take(path);
            continue;
        }
        if (errno != EEXIST)
            return false;
        LockHolder holder;
        if (!readLockHolder(path, &holder))
            continue;
        if (!holderGone(holder.pid) && holder.ageMs < maxAgeMs)
            return false;
        // Only the dead lock that was judged goes: if another taker put its
        // own in place meanwhile, that one stands and this one waits.
        if (!dropLock(path, holder))
            return false;
    }
    return false;
}

bool VDiskStorage::lockHolderAlive(const QByteArray& words)
{
    return !holderGone(pid_t(strtol(words.constData(), nullptr, 10)));
}

void VDiskStorage::unlock()
{
    if (m_lockPath.isEmpty())
        return;
    // A lock taken over by another process, as too old, is that one's now.
    LockFolderGuard guard(m_lockPath);
    LockHolder holder;
    if (readLockHolder(m_lockPath, &holder) && holder.text == m_lockText && holder.status.st_dev == m_lockDevice
        && holder.status.st_ino == m_lockInode)
        unlink(m_lockPath.constData());
    m_lockPath.clear();
}

bool VDiskStorage::write(const QByteArray& ns, const QByteArray& key, const QByteArray& value, char* outFlag,
                         int lifetime, int, int freshFor)
{
    release();
    m_kept->drop(ns, key);
    if (outFlag)
        *outFlag = 0;
    const QByteArray path = recordPath(ns, key);
    const QByteArray dir = path.left(path.lastIndexOf('/'));
    Header h;
    h.writeTime = m_env->now();
    h.lifetime = qMax(0, lifetime);
    h.freshFor = freshFor < 0 || freshFor > lifetime ? h.lifetime : freshFor;
    h.length = quint64(value.size());
    h.nsLength = quint32(ns.size());
    h.keyLength = quint32(key.size());
    h.bodyCrc = crc(value.constData(), size_t(value.size()), crc((ns + key).constData(), size_t(ns.size() + key.size())));
    // The record names its own namespace and key, so a file that lands in
    // the wrong place can never answer for another page.
    const QByteArray header = encodeHeader(h) + ns + key;
    // Written aside and renamed over the record: a reader sees the old or the
    // new value whole. A clear may remove the directory meanwhile; then the
    // write starts once more.
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (!makeDirs(dir))
            return fail("Cannot create directory", dir, errno);
        const QByteArray temp = dir + '/' + TempPrefix + uniqueSuffix();
        QByteArray error;
        if (!m_env->writeNewFile(temp, header, value, &error)) {
            if (attempt < 2 && access(dir.constData(), F_OK) != 0)
                continue;
            lastError = "Cannot write " + temp + ": " + error;
            return false;
        }
        m_env->reached(VDiskStorageEnv::BeforeRename);
        if (m_env->renameFile(temp, path, &error)) {
            m_env->reached(VDiskStorageEnv::AfterRename);
            if (outFlag)
                *outFlag = 1;
            return true;
        }
        unlink(temp.constData());
        if (attempt < 2 && access(dir.constData(), F_OK) != 0)
            continue;
        lastError = "Cannot rename " + temp + " to " + path + ": " + error;
        return false;
    }
    lastError = "Cannot write " + path + ": the directory keeps disappearing";
    return false;
}

bool VDiskStorage::readFromDisk(const QByteArray& ns, const QByteArray& key, Value* value)
{
    QByteArray path;
    Header h;
    struct stat st;
    int fd = -1;
    if (m_held && m_held->ns == ns && m_held->key == key) {
        path = m_held->path;
        fd = m_held->fd;
        h = m_held->header;
        st = m_held->status;
        delete m_held;
        m_held = nullptr;
    } else {
        release();
        path = recordPath(ns, key);
        fd = openRecord(path, ns, key, &h, &st);
        if (fd < 0)
            return false;
    }
    bool found = false;
    const qint64 now = m_env->now();
    if (!h.expiredAt(now)) {
        char* buffer = static_cast<char*>(malloc(qMax<size_t>(size_t(h.length), 1)));
        if (buffer && (!readAll(fd, buffer, size_t(h.length), off_t(h.valueOffset()))
                       || !(checkedBefore(st) || valueMatches(ns, key, buffer, h)))) {
            free(buffer);
            dropDoubtful(path, st);
        } else if (buffer) {
            rememberChecked(st);
            const std::shared_ptr<const char> shared(buffer, free);
            *value = Value{shared, int(h.length), m_kept->keep(ns, key, path, st, h, shared, now)};
            found = true;
        }
    }
    close(fd);
    return found;
}

int VDiskStorage::keptState(const QByteArray& ns, const QByteArray& key)
{
    KeptRecords::Record* kept = m_kept->find(ns, key);
    if (!kept)
        return -1;
    if (!KeptRecords::vouched(*kept)) {
        KeptRecords::watch(*kept, m_root);
        struct stat st;
        const bool found = stat(kept->path.constData(), &st) == 0;
        if (!found || !KeptRecords::sameFile(st, kept->status)) {
            const bool gone = !found && errno == ENOENT;
            m_kept->drop(ns, key);
            return gone ? 0 : -1;
        }
        KeptRecords::checked(*kept);
    }
    return kept->header.expiredAt(m_env->now()) ? 0 : 1;
}

bool VDiskStorage::readValue(const QByteArray& ns, const QByteArray& key, Value* value)
{
    // contains() has just looked at this record's file.
    const bool looked = m_keptLive && m_keptNs == ns && m_keptKey == key;
    m_keptLive = false;
    const int state = looked ? 1 : m_held ? -1 : keptState(ns, key);
    if (state == 0)
        return false;
    KeptRecords::Record* kept = state == 1 ? m_kept->find(ns, key) : nullptr;
    if (kept && kept->value) {
        *value = Value{kept->value, int(kept->header.length), &kept->made};
        return true;
    }
    return readFromDisk(ns, key, value);
}

void VDiskStorage::setKeptBounds(qint64 bytes, int records)
{
    m_kept->clear();
    m_kept->maxBytes = qMax<qint64>(0, bytes);
    m_kept->maxRecords = qMax(0, records);
}

qint64 VDiskStorage::keptBytes() const
{
    return m_kept->bytes;
}

int VDiskStorage::keptRecords() const
{
    return m_kept->size();
}

char* VDiskStorage::read(const QByteArray& ns, const QByteArray& key, int* length)
{
    Value value;
    if (!readValue(ns, key, &value))
        return nullptr;
    char* copy = static_cast<char*>(malloc(qMax<size_t>(size_t(value.length), 1)));
    if (copy) {
        memcpy(copy, value.data.get(), size_t(value.length));
        if (length)
            *length = value.length;
    }
    return copy;
}

bool VDiskStorage::checkedBefore(const struct stat& st) const
{
    return m_checked && m_checked->holds(st);
}

void VDiskStorage::rememberChecked(const struct stat& st)
{
    if (!m_checked)
        m_checked.reset(new CheckedFiles);
    m_checked->add(st);
}

bool VDiskStorage::contains(const QByteArray& ns, const QByteArray& key, bool)
{
    release();
    const int state = keptState(ns, key);
    if (state >= 0) {
        m_keptLive = state == 1;
        m_keptNs = ns;
        m_keptKey = key;
        return m_keptLive;
    }
    Header h;
    struct stat st;
    const QByteArray path = recordPath(ns, key);
    const int fd = openRecord(path, ns, key, &h, &st);
    if (fd < 0)
        return false;
    const qint64 now = m_env->now();
    if (h.expiredAt(now)) {
        close(fd);
        return false;
    }
    m_held = new Held{ns, key, path, fd, h, st};
    m_kept->keep(ns, key, path, st, h, nullptr, now);
    return true;
}

long VDiskStorage::getLastModified(const QByteArray& ns, const QByteArray& key)
{
    release();
    Header h;
    return readHeader(recordPath(ns, key), ns, key, &h) ? long(h.writeTime + h.lifetime) : -1;
}

long VDiskStorage::getStaleFrom(const QByteArray& ns, const QByteArray& key)
{
    // The hit path asks right after contains(), whose header is still at hand.
    if (m_keptLive && m_keptNs == ns && m_keptKey == key)
        if (const KeptRecords::Record* kept = m_kept->find(ns, key))
            return long(kept->header.staleFrom());
    if (m_held && m_held->ns == ns && m_held->key == key)
        return long(m_held->header.staleFrom());
    release();
    Header h;
    return readHeader(recordPath(ns, key), ns, key, &h) ? long(h.staleFrom()) : -1;
}

bool VDiskStorage::readRecordInfo(const QByteArray& path, RecordInfo* info, int* error)
{
    *error = 0;
    const int fd = open(path.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        // Gone meanwhile, or a link, which the store never makes: no record.
        *error = errno == ENOENT || errno == ELOOP ? 0 : errno;
        return false;
    }
    char bytes[HeaderSize];
    struct stat st;
    Header h;
    const bool statted = fstat(fd, &st) == 0;
    if (!statted || S_ISDIR(st.st_mode)) {
        *error = statted ? EISDIR : errno;
        close(fd);
        return false;
    }
    bool sound = pread(fd, bytes, HeaderSize, 0) == HeaderSize && parseHeader(bytes, quint64(st.st_size), &h);
    QByteArray names;
    if (sound) {
        names.resize(int(h.identityLength()));
        sound = readAll(fd, names.data(), size_t(names.size()), HeaderSize);
    }
    close(fd);
    if (!sound)
        return false;
    info->ns = h.nsLength ? names.left(int(h.nsLength)) : QByteArray();
    info->key = names.mid(int(h.nsLength));
    info->written = h.writeTime;
    info->lifetime = h.lifetime;
    info->fileBytes = qint64(st.st_size);
    return true;
}

bool VDiskStorage::remove(const QByteArray& ns, const QByteArray& key)
{
    release();
    m_kept->drop(ns, key);
    const QByteArray path = recordPath(ns, key);
    if (m_trash.take(path))
        return true;
    // Gone already, by another worker's hand, is as good as removed.
    if (unlink(path.constData()) == 0 || errno == ENOENT)
        return true;
    return fail("Cannot remove", path, errno);
}

VDiskStorage::TrashBatch::TrashBatch(VDiskStorage& store) : m_store(store), m_outer(!store.m_trash.isOpen())
{
    // Named as a clear's trash is, so that the cleaning deletes it and walks
    // over the store pass it by.
    if (m_outer)
        m_store.m_trash.open(m_store.m_root + '/' + TrashPrefix + uniqueSuffix());
}

VDiskStorage::TrashBatch::~TrashBatch()
{
    if (m_outer)
        m_store.m_trash.close();
}

bool VDiskStorage::clearNamespace(const QByteArray& ns)
{
    release();
    m_kept->clear();
    // The tree is moved out of the way in one step, so readers and writers
    // see it either whole or gone, and then deleted at leisure.
    const QByteArray victim = ns.isNull() ? m_root : namespaceDir(ns);
    // The whole store's trash lies beside it, named after it, so that the
    // cleaning finds it there and leaves other stores' alone.
    const QByteArray trash = ns.isNull() ? wholeStoreTrashPrefix() + uniqueSuffix()
                                         : m_root + '/' + TrashPrefix + uniqueSuffix();
    if (rename(victim.constData(), trash.constData()) != 0) {
        if (errno == ENOENT)
            return true;
        return fail("Cannot clear", victim, errno);
    }
    removeTree(trash);
    return true;
}

void VDiskStorage::setSizeBound(qint64 maxBytes, std::function<QByteArray(const QByteArray& key)> pageOf)
{
    m_maxBytes = qMax<qint64>(0, maxBytes);
    m_pageOf = std::move(pageOf);
}

QByteArray VDiskStorage::wholeStoreTrashPrefix() const
{
    const int slash = m_root.lastIndexOf('/');
    return m_root.left(slash + 1) + TrashPrefix + m_root.mid(slash + 1) + '-';
}

// The pages a bounded cleaning removes first, gathered over one pass of
// the store: the fewest that free `excess` bytes, those closest to expiry
// first, then the oldest, and never more than MaxCandidates of them, so
// that the memory a pass takes doesn't grow with the store.
class VDiskStorage::Eviction
{
public:
    Eviction(qint64 excess, size_t maxCandidates) : m_excess(excess), m_maxCandidates(maxCandidates) {}

    void add(quint64 id, qint64 expiry, qint64 written, qint64 writtenPrecisely, const QByteArray& path,
             const struct stat& st, qint64 bytes)
    {
        auto found = m_pages.find(id);
        if (found == m_pages.end()) {
            const Order order{expiry, written, writtenPrecisely, id};
            // Enough bytes already, all of pages that go before this one.
            if (m_bytes >= m_excess && !m_order.empty() && !(order < *m_order.rbegin()))
                return;
            found = m_pages.emplace(id, Page{order, 0, {}}).first;
        } else {
            m_order.erase(found->second.order);
        }
        Page& page = found->second;
        page.order.expiry = qMin(page.order.expiry, expiry);
        page.order.written = qMin(page.order.written, written);
        page.order.writtenPrecisely = qMin(page.order.writtenPrecisely, writtenPrecisely);
        page.bytes += bytes;
        page.records.push_back({path, st});
        m_bytes += bytes;
        m_order.insert(page.order);
        // The last page isn't needed while the others free enough.
        while (m_order.size() > 1
               && (m_bytes - m_pages.at(m_order.rbegin()->id).bytes >= m_excess || m_pages.size() > m_maxCandidates))
            drop(m_order.rbegin()->id);
    }

    // Removes the pages in their order until `total` is within `maxBytes`;
    // answers the bytes freed.
    qint64 evict(qint64 total, qint64 maxBytes, int* evictedPages)
    {
        qint64 freed = 0;
        for (const Order& order : m_order) {
            if (total - freed <= maxBytes)
                break;
            const Page& page = m_pages.at(order.id);
            // Only unlinks: a reader that has the file open still reads it
            // whole, one that comes later misses.
            for (const auto& record : page.records)
                dropDoubtful(record.first, record.second);
            freed += page.bytes;
            ++*evictedPages;
        }
        return freed;
    }

private:
    struct Order
    {
        qint64 expiry;
        qint64 written;
        // Nanoseconds of the file's time, to order writes of one second.
        qint64 writtenPrecisely;
        quint64 id;
        bool operator<(const Order& o) const
        {
            return std::tie(expiry, written, writtenPrecisely, id)
                   < std::tie(o.expiry, o.written, o.writtenPrecisely, o.id);
        }
    };
    struct Page
    {
        Order order;
        qint64 bytes;
        std::vector<std::pair<QByteArray, struct stat>> records;
    };

    void drop(quint64 id)
    {
        auto found = m_pages.find(id);
        m_bytes -= found->second.bytes;
        m_order.erase(found->second.order);
        m_pages.erase(found);
    }

    qint64 m_excess;
    size_t m_maxCandidates;
    qint64 m_bytes = 0;
    std::unordered_map<quint64, Page> m_pages;
    std::set<Order> m_order;
};

struct VDiskStorage::Walk
{
    qint64 now = 0;
    bool bounded = false;
    // Set on the passes that look for pages to evict.
    Eviction* eviction = nullptr;
    // Found empty or left so, children before their parents.
    QList<QByteArray> emptyDirectories;
};

bool VDiskStorage::walk(const QByteArray& dir, bool isRoot, Walk& state)
{
    DIR* handle = opendir(dir.constData());
    if (!handle)
        return false;
    // What stays in this directory; none, and it goes.
    int left = 0;
    while (const struct dirent* entry = readdir(handle)) {
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
            continue;
        if (!cleanEntry(dir + '/' + name, name, entry->d_type, isRoot, state))
            ++left;
    }
    closedir(handle);
    if (isRoot || left > 0)
        return false;
    if (!state.eviction)
        state.emptyDirectories.append(dir);
    return true;
}

bool VDiskStorage::cleanEntry(const QByteArray& path, const char* name, unsigned char type, bool isRoot,
                              Walk& state)
{
    struct stat st;
    const bool temporary = strncmp(name, TempPrefix, strlen(TempPrefix)) == 0;
    if (type == DT_UNKNOWN || temporary) {
        if (lstat(path.constData(), &st) != 0)
            return false;
        type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : DT_UNKNOWN;
    }
    if (type == DT_DIR) {
        // Leftovers of namespace clears that were interrupted, and the
        // trash of removals of many pages.
        if (isRoot && strncmp(name, TrashPrefix, strlen(TrashPrefix)) == 0) {
            removeTree(path);
            ++m_cleaning.trashRemoved;
            return true;
        }
        return walk(path, false, state);
    }
    if (type != DT_REG)
        return false;
    if (temporary) {
        // A write in progress, unless its writer is gone or it is old.
        const pid_t writer = pid_t(QByteArray(name + strlen(TempPrefix)).split('-').value(0).toLongLong());
        const bool writerGone = writer > 0 && kill(writer, 0) != 0 && errno == ESRCH;
        return (writerGone || state.now - qint64(st.st_mtime) > StaleTempSeconds) && unlink(path.constData()) == 0;
    }
    if (strncmp(name, LockPrefix, strlen(LockPrefix)) == 0) {
        // A page's lock is no record; one whose holder is gone, or that
        // no page took an hour to build under, goes.
        LockFolderGuard guard(path);
        LockHolder holder;
        return readLockHolder(path, &holder) && (holderGone(holder.pid) || holder.ageMs > StaleTempSeconds * 1000)
               && dropLock(path, holder);
    }
    return cleanRecord(path, state);
}

bool VDiskStorage::cleanRecord(const QByteArray& path, Walk& state)
{
    const int fd = open(path.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return false;
    // The header, and under a bound the record's own names, in one read.
    char bytes[HeaderSize + 256];
    const ssize_t got = pread(fd, bytes, state.eviction ? sizeof bytes : size_t(HeaderSize), 0);
    Header h;
    struct stat st = {};
    const bool valid = fstat(fd, &st) == 0 && got >= HeaderSize && parseHeader(bytes, quint64(st.st_size), &h);
    // Records arrive whole by rename, so one that doesn't check out was
    // damaged (a crash before the data reached the disk) and is no use.
    if (!valid || h.expiredAt(state.now)) {
        close(fd);
        ++m_cleaning.expired;
        // Only the file that was judged goes: if a writer renamed a fresh
        // record over it meanwhile, that one stays. (A rename in the instant
        // between this look and the unlink costs a miss, never a wrong page.)
        return dropDoubtful(path, st);
    }
    const qint64 size = diskBytes(st);
    if (!state.eviction) {
        m_cleaning.bytesBefore += size;
        close(fd);
        return false;
    }
    QByteArray names(bytes + HeaderSize, int(qMin<qint64>(got - HeaderSize, qint64(h.identityLength()))));
    if (quint64(names.size()) < h.identityLength()) {
        names.resize(int(h.identityLength()));
        if (!readAll(fd, names.data() + (got - HeaderSize), size_t(names.size() - (got - HeaderSize)), off_t(got)))
            names.clear();
    }
    close(fd);
    const QByteArray ns = names.left(int(h.nsLength));
    const QByteArray key = names.mid(int(h.nsLength));
    const QByteArray page = QByteArray::number(ns.size()) + ':' + ns + (m_pageOf ? m_pageOf(key) : key);
    // 64 bits of the page's names: a collision would only take one more page.
    const quint64 id = quint64(qHash(page, 0x5bd1e995u)) << 32 | qHash(page, 0x9e3779b9u);
    state.eviction->add(id, h.lifetime > 0 ? h.writeTime + h.lifetime : LLONG_MAX, h.writeTime,
                        qint64(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec, path, st, size);
    return false;
}

void VDiskStorage::evict(Walk& state)
{
    // Each pass walks the store again and removes what it gathered; one
    // more follows only when a pass gathered too few pages to be enough.
    qint64 total = m_cleaning.bytesBefore;
    for (int pass = 0; total > m_maxBytes && pass < MaxEvictionPasses; ++pass) {
        Eviction eviction(total - m_maxBytes, m_evictionBatch);
        state.eviction = &eviction;
        walk(m_root, true, state);
        const qint64 freed = eviction.evict(total, m_maxBytes, &m_cleaning.evictedPages);
        total -= freed;
        if (freed == 0)
            break;
    }
    state.eviction = nullptr;
    m_cleaning.bytesAfter = total;
}

bool VDiskStorage::cleanExpired()
{
    release();
    // The pass removes records whose folders' reports this process reads
    // only at its next request.
    m_kept->clear();
    m_cleaning = Cleaning();
    Walk state;
    state.now = m_env->now();
    state.bounded = m_maxBytes > 0;

    // Leftovers of clears of the whole store that were interrupted lie beside it.
    const QByteArray trashPrefix = wholeStoreTrashPrefix();
    const QByteArray parent = trashPrefix.left(trashPrefix.lastIndexOf('/'));
    const QByteArray namePrefix = trashPrefix.mid(parent.size() + 1);
    if (DIR* handle = opendir(parent.constData())) {
        QList<QByteArray> trash;
        while (const struct dirent* entry = readdir(handle)) {
            const QByteArray name(entry->d_name);
            // Also the unnamed trash of earlier versions: ".trash-<pid>-<n>-<time>".
            if (isTrashName(name, namePrefix) || isTrashName(name, TrashPrefix))
                trash.append(parent + '/' + name);
        }
        closedir(handle);
        for (const QByteArray& path : trash) {
            removeTree(path);
            ++m_cleaning.trashRemoved;
        }
    }

    walk(m_root, true, state);
    m_cleaning.bytesAfter = m_cleaning.bytesBefore;
    if (state.bounded)
        evict(state);
    // Removing a directory can cost a file system milliseconds (ext4 with
    // online discard), and a flood of new pages empties thousands: they get
    // two seconds per cleaning, after the bound, and what is left goes at
    // the next one. A writer that loses its directory makes it again.
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (const QByteArray& dir : state.emptyDirectories) {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (now.tv_sec - start.tv_sec > DirectorySeconds)
            break;
        if (rmdir(dir.constData()) == 0)
            ++m_cleaning.directoriesRemoved;
    }
    return true;
}
