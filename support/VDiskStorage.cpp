#include "VDiskStorage.h"

#include "VCrc32c.h"
#include "VFileMode.h"

#include <QCryptographicHash>
#include <QDirIterator>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
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
      m_env(env)
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
    LockHolder holder;
    if (!readLockHolder(lockPath(ns, key), &holder))
        return LockState::Free;
    if (words)
        *words = holder.text;
    return holderGone(holder.pid) || holder.ageMs >= maxAgeMs ? LockState::Stale : LockState::Held;
}

bool VDiskStorage::tryLock(const QByteArray& ns, const QByteArray& key, qint64 maxAgeMs)
{
    unlock();
    const QByteArray path = lockPath(ns, key);
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

char* VDiskStorage::read(const QByteArray& ns, const QByteArray& key, int* length)
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
            return nullptr;
    }
    char* buffer = nullptr;
    if (!h.expiredAt(m_env->now())) {
        buffer = static_cast<char*>(malloc(qMax<size_t>(size_t(h.length), 1)));
        if (buffer && (!readAll(fd, buffer, size_t(h.length), off_t(h.valueOffset()))
                       || !(checkedBefore(st) || valueMatches(ns, key, buffer, h)))) {
            free(buffer);
            buffer = nullptr;
            dropDoubtful(path, st);
        } else if (buffer) {
            rememberChecked(st);
            if (length)
                *length = int(h.length);
        }
    }
    close(fd);
    return buffer;
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
    Header h;
    struct stat st;
    const QByteArray path = recordPath(ns, key);
    const int fd = openRecord(path, ns, key, &h, &st);
    if (fd < 0)
        return false;
    if (h.expiredAt(m_env->now())) {
        close(fd);
        return false;
    }
    m_held = new Held{ns, key, path, fd, h, st};
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
    const QByteArray path = recordPath(ns, key);
    // Gone already, by another worker's hand, is as good as removed.
    if (unlink(path.constData()) == 0 || errno == ENOENT)
        return true;
    return fail("Cannot remove", path, errno);
}

bool VDiskStorage::clearNamespace(const QByteArray& ns)
{
    release();
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
        ++left;
        const QByteArray path = dir + '/' + name;
        struct stat st;
        unsigned char type = entry->d_type;
        const bool temporary = strncmp(name, TempPrefix, strlen(TempPrefix)) == 0;
        const bool lock = strncmp(name, LockPrefix, strlen(LockPrefix)) == 0;
        if (type == DT_UNKNOWN || temporary) {
            if (lstat(path.constData(), &st) != 0)
                continue;
            type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : DT_UNKNOWN;
        }
        if (type == DT_DIR) {
            // Leftovers of namespace clears that were interrupted.
            if (isRoot && strncmp(name, TrashPrefix, strlen(TrashPrefix)) == 0) {
                removeTree(path);
                ++m_cleaning.trashRemoved;
                --left;
                continue;
            }
            left -= walk(path, false, state);
            continue;
        }
        if (type != DT_REG)
            continue;
        if (temporary) {
            // A write in progress, unless its writer is gone or it is old.
            const pid_t writer = pid_t(QByteArray(name + strlen(TempPrefix)).split('-').value(0).toLongLong());
            const bool writerGone = writer > 0 && kill(writer, 0) != 0 && errno == ESRCH;
            if ((writerGone || state.now - qint64(st.st_mtime) > StaleTempSeconds) && unlink(path.constData()) == 0)
                --left;
            continue;
        }
        if (lock) {
            // A page's lock is no record; one whose holder is gone, or that
            // no page took an hour to build under, goes.
            LockHolder holder;
            if (readLockHolder(path, &holder) && (holderGone(holder.pid) || holder.ageMs > StaleTempSeconds * 1000))
                left -= dropLock(path, holder);
            continue;
        }
        const int fd = open(path.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0)
            continue;
        // The header, and under a bound the record's own names, in one read.
        char bytes[HeaderSize + 256];
        const ssize_t got = pread(fd, bytes, state.eviction ? sizeof bytes : size_t(HeaderSize), 0);
        Header h;
        const bool valid = fstat(fd, &st) == 0 && got >= HeaderSize && parseHeader(bytes, quint64(st.st_size), &h);
        // Records arrive whole by rename, so one that doesn't check out was
        // damaged (a crash before the data reached the disk) and is no use.
        if (!valid || h.expiredAt(state.now)) {
            close(fd);
            ++m_cleaning.expired;
            // Only the file that was judged goes: if a writer renamed a fresh
            // record over it meanwhile, that one stays. (A rename in the instant
            // between this look and the unlink costs a miss, never a wrong page.)
            left -= dropDoubtful(path, st);
            continue;
        }
        const qint64 size = diskBytes(st);
        if (!state.eviction) {
            m_cleaning.bytesBefore += size;
            close(fd);
            continue;
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
    }
    closedir(handle);
    if (isRoot || left > 0)
        return false;
    if (!state.eviction)
        state.emptyDirectories.append(dir);
    return true;
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
