#include "VTagIndex.h"

#include "VCrc32c.h"
#include "VFileMode.h"
#include "VMD5.h"

#include <QHash>
#include <QMap>
#include <QSet>
#include <QtEndian>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace {

const char RemovedMagic[4] = {'V', 'K', 'T', 'R'};
const int RemovedSize = 16;
// A line of a bucket's listing: "E <tag hash> <namespace> <key> <crc>\n",
// the hashes in hex and the CRC-32C of the 100 bytes before it in hex.
const int LineSize = 110;
const int CheckedBytes = 100;
// A listing is rewritten once it is this long and mostly dead.
const qint64 CompactFrom = 64 * 1024;
const char EntriesName[] = "entries";

typedef QPair<QByteArray, QByteArray> Page;
std::atomic<unsigned> tempCounter{0};

qint64 nowMs()
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool makeDirs(const QByteArray& path)
{
    if (mkdir(path.constData(), 0755) == 0 || errno == EEXIST)
        return true;
    const int slash = path.lastIndexOf('/');
    if (errno != ENOENT || slash <= 0 || !makeDirs(path.left(slash)))
        return false;
    return mkdir(path.constData(), 0755) == 0 || errno == EEXIST;
}

bool isHex(const char* at, int length)
{
    for (int i = 0; i < length; ++i) {
        if (!isxdigit(quint8(at[i])) || isupper(quint8(at[i])))
            return false;
    }
    return true;
}

// A page's entry is named by its namespace and key, both the MD5 in hex
// that the store addresses pages by: a name of any other form is damage.
bool pageOfName(const QByteArray& name, QPair<QByteArray, QByteArray>* page)
{
    if (name.size() != 65 || name.at(32) != '-' || !isHex(name.constData(), 32) || !isHex(name.constData() + 33, 32))
        return false;
    *page = qMakePair(name.left(32), name.mid(33));
    return true;
}

// `text` in place of `path`, whole or not at all.
bool replaceFile(const QByteArray& path, const QByteArray& text)
{
    const QByteArray temp = path.left(path.lastIndexOf('/') + 1) + ".tmp-" + QByteArray::number(qint64(getpid()))
                            + '-' + QByteArray::number(++tempCounter);
    const int fd = open(temp.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, VFileMode::files());
    if (fd < 0)
        return false;
    VFileMode::apply(fd);
    const bool written = write(fd, text.constData(), size_t(text.size())) == text.size();
    if (close(fd) != 0 || !written || rename(temp.constData(), path.constData()) != 0) {
        unlink(temp.constData());
        return false;
    }
    return true;
}

QByteArray readSmallFile(const QByteArray& path, int limit)
{
    const int fd = open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return QByteArray();
    QByteArray text(limit, Qt::Uninitialized);
    const ssize_t n = read(fd, text.data(), size_t(limit));
    close(fd);
    return n < 0 ? QByteArray() : text.left(int(n));
}

// The removal time in a tag's ".removed" file: -1 for none, -2 for a file
// that fails its checks.
qint64 readRemovedAt(const QByteArray& prefix)
{
    const QByteArray text = readSmallFile(prefix + ".removed", RemovedSize + 1);
    if (text.isNull() && errno == ENOENT)
        return -1;
    if (text.size() != RemovedSize || memcmp(text.constData(), RemovedMagic, 4) != 0
        || qFromLittleEndian<quint32>(text.constData() + 12) != crc32c(text.constData(), 12))
        return -2;
    return qint64(qFromLittleEndian<quint64>(text.constData() + 4));
}

// False when the file is there but can't be read whole.
bool readWholeFile(const QByteArray& path, QByteArray* text)
{
    const int fd = open(path.constData(), O_RDONLY | O_CLOEXEC);
    struct stat info;
    if (fd < 0 || fstat(fd, &info) != 0) {
        const bool absent = fd < 0 && errno == ENOENT;
        if (fd >= 0)
            close(fd);
        return absent;
    }
    text->resize(int(qMin<qint64>(info.st_size, 1 << 30)));
    int got = 0;
    ssize_t n = 0;
    while (got < text->size() && (n = read(fd, text->data() + got, size_t(text->size() - got))) > 0)
        got += int(n);
    close(fd);
    text->resize(got);
    return n >= 0;
}

QByteArray lineOf(char op, const QByteArray& tagHash, const Page& page)
{
    QByteArray text;
    text.reserve(LineSize);
    text.append(op).append(' ').append(tagHash).append(' ').append(page.first).append(' ').append(page.second);
    char crc[10];
    snprintf(crc, sizeof crc, " %08x", crc32c(text.constData(), CheckedBytes));
    return text.append(crc).append('\n');
}

// A line as lineOf() writes it; anything else is damage (a write torn by a
// crash, or the tail of one that shifted all lines after it).
bool wellFormed(const char* line)
{
    if ((line[0] != 'E' && line[0] != 'D') || line[1] != ' ' || line[34] != ' ' || line[67] != ' '
        || line[100] != ' ' || line[109] != '\n' || !isHex(line + 2, 32) || !isHex(line + 35, 32)
        || !isHex(line + 68, 32) || !isHex(line + 101, 8))
        return false;
    return QByteArray(line + 101, 8).toUInt(nullptr, 16) == crc32c(line, CheckedBytes);
}

} // namespace

// What a bucket lists: the pages of each tag (by its hash), from its
// entries file and from names of the earlier form (one empty file per
// page and tag).
struct VTagIndex::Listing
{
    QHash<QByteArray, QSet<Page>> live;
    QHash<QByteArray, QSet<Page>> oldNames;
    int lines = 0;
    qint64 bytes = 0;
    bool damaged = false;

    void readEntries(const QByteArray& text)
    {
        bytes = text.size();
        damaged = text.size() % LineSize != 0;
        for (int at = 0; at + LineSize <= text.size(); at += LineSize) {
            const char* line = text.constData() + at;
            ++lines;
            if (!wellFormed(line))
                damaged = true;
            else if (line[0] == 'E')
                live[QByteArray(line + 2, 32)].insert(Page(QByteArray(line + 35, 32), QByteArray(line + 68, 32)));
            else
                live.remove(QByteArray(line + 2, 32));
        }
    }
    // A name of no form at all may have been any tag's.
    void readNames(DIR* dir)
    {
        while (const dirent* item = readdir(dir)) {
            const QByteArray name(item->d_name);
            Page page;
            if (name.startsWith('.') || name == EntriesName || (name.size() == 40 && name.endsWith(".removed")))
                continue;
            if (name.size() > 33 && name.at(32) == '-' && isHex(name.constData(), 32) && pageOfName(name.mid(33), &page))
                oldNames[name.left(32)].insert(page);
            else
                damaged = true;
        }
    }
    QSet<Page> pagesOf(const QByteArray& hash) const { return live.value(hash) + oldNames.value(hash); }
    int liveLines() const
    {
        int count = 0;
        for (const QSet<Page>& pages : live)
            count += pages.size();
        return count;
    }
};

VTagIndex::VTagIndex(const QByteArray& storeRoot) : m_root(storeRoot + ".tags")
{
}

VTagIndex::Entry::~Entry()
{
    for (int fd : locks)
        close(fd);
}

QList<QByteArray> VTagIndex::split(const QByteArray& text)
{
    QByteArray spaced = text;
    spaced.replace(',', ' ');
    QList<QByteArray> tags;
    for (const QByteArray& word : spaced.simplified().split(' ')) {
        if (!word.isEmpty())
            tags << word;
    }
    return tags;
}

bool VTagIndex::addBounded(QList<QByteArray>& tags, const QList<QByteArray>& more, QByteArray* why)
{
    QList<QByteArray> all = tags;
    for (const QByteArray& tag : more) {
        if (tag.size() > MaxTagBytes) {
            *why = "a tag longer than " + QByteArray::number(MaxTagBytes) + " bytes: " + tag.left(MaxTagBytes) + "...";
            return false;
        }
        if (!tag.isEmpty() && !all.contains(tag))
            all << tag;
    }
    if (all.size() > MaxTags) {
        *why = "more than " + QByteArray::number(MaxTags) + " tags";
        return false;
    }
    tags = all;
    return true;
}

// Tags share 4,096 buckets, so that a tag held by a page or two costs a
// few names, not a directory.
QByteArray VTagIndex::tagPrefix(const QByteArray& tag) const
{
    const QByteArray hash = VMD5::hash(tag);
    return m_root + "/t/" + hash.left(1) + '/' + hash.mid(1, 2) + '/' + hash;
}

std::function<void(const char* step)> VTagIndex::reached;

void VTagIndex::step(const char* name)
{
    if (reached)
        reached(name);
}

// Opens and locks the bucket of a tag, made if need be; -1 on failure.
int VTagIndex::lockTag(const QByteArray& prefix, int how)
{
    const QByteArray dir = prefix.left(prefix.lastIndexOf('/'));
    int fd = open(dir.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 && (!makeDirs(dir) || (fd = open(dir.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) < 0)) {
        lastError = "cannot make " + dir + ": " + QByteArray(strerror(errno));
        return -1;
    }
    int locked = 0;
    while ((locked = flock(fd, how)) != 0 && errno == EINTR) {
    }
    if (locked != 0) {
        lastError = "cannot lock " + dir + ": " + QByteArray(strerror(errno));
        close(fd);
        return -1;
    }
    return fd;
}

bool VTagIndex::writeRemovedAt(const QByteArray& prefix, qint64 ms)
{
    char text[RemovedSize];
    memcpy(text, RemovedMagic, 4);
    qToLittleEndian(quint64(ms), text + 4);
    qToLittleEndian(crc32c(text, 12), text + 12);
    if (replaceFile(prefix + ".removed", QByteArray(text, RemovedSize)))
        return true;
    lastError = "cannot write " + prefix + ".removed: " + QByteArray(strerror(errno));
    return false;
}

// One write per bucket, with O_APPEND: lines of writers working at once
// (each under the shared lock) never mix, and a killed writer leaves its
// lines whole or absent.
bool VTagIndex::appendLines(const QByteArray& bucket, const QByteArray& lines)
{
    const QByteArray path = bucket + '/' + EntriesName;
    int fd = open(path.constData(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT && (fd = open(path.constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC,
                                              VFileMode::files())) >= 0)
        VFileMode::apply(fd);
    const bool written = fd >= 0 && write(fd, lines.constData(), size_t(lines.size())) == lines.size();
    if (!written)
        lastError = "cannot write " + path + ": " + QByteArray(strerror(errno));
    if (fd >= 0)
        close(fd);
    return written;
}

bool VTagIndex::enter(const QByteArray& ns, const QByteArray& key, const QList<QByteArray>& tags, qint64 sinceMs,
                      Entry& entry, QByteArray* why)
{
    if (ns.size() != 32 || key.size() != 32 || !isHex(ns.constData(), 32) || !isHex(key.constData(), 32)) {
        *why = "the page's name is not one the tag index can hold";
        return false;
    }
    // The lines of each bucket, so that one write enters the page under all
    // its tags there.
    QMap<QByteArray, QByteArray> lines;
    for (const QByteArray& tag : tags) {
        const QByteArray prefix = tagPrefix(tag);
        lines[prefix.left(prefix.lastIndexOf('/'))] += lineOf('E', prefix.mid(prefix.lastIndexOf('/') + 1), Page(ns, key));
    }
    for (auto it = lines.cbegin(); it != lines.cend(); ++it) {
        const int fd = lockTag(it.key() + '/', LOCK_SH);
        if (fd < 0) {
            *why = lastError;
            return false;
        }
        entry.locks << fd;
        step("locked");
        if (!appendLines(it.key(), it.value())) {
            *why = "cannot enter the page under its tags: " + lastError;
            return false;
        }
        step("entered");
    }
    for (const QByteArray& tag : tags) {
        const QByteArray prefix = tagPrefix(tag);
        qint64 removed = readRemovedAt(prefix);
        // A removal time that can't be read is taken as now: the pages being
        // built go, and the tag is usable again after.
        if (removed == -2 && writeRemovedAt(prefix, nowMs()))
            removed = nowMs();
        if (removed == -2 || removed >= sinceMs) {
            *why = "tag " + tag + " was removed while the page was built";
            return false;
        }
        step("checked");
    }
    return true;
}

VTagIndex::Listing VTagIndex::listing(const QByteArray& bucket) const
{
    Listing listing;
    QByteArray text;
    const bool read = readWholeFile(bucket + '/' + EntriesName, &text);
    listing.readEntries(text);
    DIR* dir = opendir(bucket.constData());
    if (dir) {
        listing.readNames(dir);
        closedir(dir);
    }
    // What can't be read may list anything.
    listing.damaged = listing.damaged || !read || (!dir && errno != ENOENT);
    return listing;
}

QList<QPair<QByteArray, QByteArray>> VTagIndex::pagesOf(const QByteArray& tag, bool* sound) const
{
    const QByteArray prefix = tagPrefix(tag);
    const Listing listed = listing(prefix.left(prefix.lastIndexOf('/')));
    if (sound)
        *sound = !listed.damaged;
    return listed.pagesOf(prefix.mid(prefix.lastIndexOf('/') + 1)).values();
}

qint64 VTagIndex::removedAt(const QByteArray& tag) const
{
    return qMax<qint64>(0, readRemovedAt(tagPrefix(tag)));
}

int VTagIndex::remove(const QByteArray& tag, const PageRemover& removePage, const RecordWalker& walk,
                      bool* complete)
{
    finishInterrupted(removePage, walk);
    const QByteArray pending = m_root + "/pending/" + VMD5::hash(tag);
    if (!makeDirs(m_root + "/pending") || !replaceFile(pending, tag)) {
        lastError = "cannot note the removal of tag " + tag + ": " + QByteArray(strerror(errno));
        *complete = false;
        return 0;
    }
    step("noted");
    const int removed = removeListed(tag, removePage, walk, complete);
    if (*complete)
        unlink(pending.constData());
    return removed;
}

// The bucket's entries as the records say, for a listing found damaged:
// under the exclusive lock, every page entered under a tag of the bucket
// has its records written, or its writer failed and it is no page.
bool VTagIndex::rebuild(const QByteArray& bucket, const RecordWalker& walk)
{
    Listing rebuilt;
    const bool walked = walk([&](const QByteArray& ns, const QByteArray& key, const QList<QByteArray>& tags) {
        if (ns.size() != 32 || key.size() != 32 || !isHex(ns.constData(), 32) || !isHex(key.constData(), 32))
            return;
        for (const QByteArray& tag : tags) {
            const QByteArray prefix = tagPrefix(tag);
            if (prefix.startsWith(bucket) && prefix.at(bucket.size()) == '/')
                rebuilt.live[prefix.mid(bucket.size() + 1)].insert(Page(ns, key));
        }
    });
    if (!walked) {
        lastError = "cannot read the whole store to rebuild the tag index in " + bucket;
        return false;
    }
    if (!rewrite(bucket, rebuilt))
        return false;
    // The records stand for the names of the earlier form, and for any
    // damaged name, from now on.
    DIR* dir = opendir(bucket.constData());
    while (const dirent* item = dir ? readdir(dir) : nullptr) {
        const QByteArray name(item->d_name);
        if (!name.startsWith('.') && name != EntriesName && !(name.size() == 40 && name.endsWith(".removed")))
            unlinkat(dirfd(dir), item->d_name, 0);
    }
    if (dir)
        closedir(dir);
    return true;
}

bool VTagIndex::rewrite(const QByteArray& bucket, const Listing& listing)
{
    QByteArray lines;
    lines.reserve(listing.liveLines() * LineSize);
    for (auto tag = listing.live.cbegin(); tag != listing.live.cend(); ++tag) {
        for (const Page& page : tag.value())
            lines += lineOf('E', tag.key(), page);
    }
    if (replaceFile(bucket + '/' + EntriesName, lines))
        return true;
    lastError = "cannot rewrite " + bucket + '/' + EntriesName + ": " + QByteArray(strerror(errno));
    return false;
}

// Under the tag's exclusive lock: no page of it is being entered meanwhile,
// and one entered later sees the new removal time.
int VTagIndex::removeListed(const QByteArray& tag, const PageRemover& removePage, const RecordWalker& walk,
                            bool* complete)
{
    const QByteArray prefix = tagPrefix(tag);
    const QByteArray bucket = prefix.left(prefix.lastIndexOf('/'));
    const QByteArray hash = prefix.mid(bucket.size() + 1);
    *complete = false;
    const int fd = lockTag(prefix, LOCK_EX);
    if (fd < 0)
        return 0;
    step("locked");
    if (!writeRemovedAt(prefix, nowMs())) {
        close(fd);
        return 0;
    }
    step("dated");
    Listing listed = listing(bucket);
    *complete = !listed.damaged || rebuild(bucket, walk);
    if (listed.damaged && *complete)
        listed = listing(bucket);
    const QSet<Page> pages = listed.pagesOf(hash);
    for (const Page& page : pages) {
        // An entry goes only with its page: a removal cut short leaves
        // them all for the one that finishes the work.
        if (!removePage(page.first, page.second))
            *complete = false;
        else if (listed.oldNames.value(hash).contains(page))
            unlink((prefix + '-' + page.first + '-' + page.second).constData());
        step("page");
    }
    if (*complete && !pages.isEmpty())
        *complete = closeListing(bucket, hash, listed);
    close(fd);
    return pages.size();
}

// The tag's entries end with its pages: a line that says so, or, once the
// listing is mostly dead, a listing without them.
bool VTagIndex::closeListing(const QByteArray& bucket, const QByteArray& hash, Listing& listed)
{
    listed.live.remove(hash);
    const bool compact = listed.bytes >= CompactFrom && listed.lines > 2 * listed.liveLines();
    const bool closed = compact ? rewrite(bucket, listed)
                                : appendLines(bucket, lineOf('D', hash, Page(QByteArray(32, '0'), QByteArray(32, '0'))));
    step("closed");
    return closed;
}

void VTagIndex::finishInterrupted(const PageRemover& removePage, const RecordWalker& walk)
{
    const QByteArray pendingDir = m_root + "/pending";
    DIR* dir = opendir(pendingDir.constData());
    if (!dir)
        return;
    QList<QByteArray> names;
    while (const dirent* item = readdir(dir)) {
        if (item->d_name[0] != '.')
            names << QByteArray(item->d_name);
    }
    closedir(dir);
    for (const QByteArray& name : names) {
        const QByteArray path = pendingDir + '/' + name;
        const QByteArray tag = readSmallFile(path, MaxTagBytes + 1);
        bool complete = false;
        // A note that names no tag of its own name is damage: its tag is
        // not known, and the note can only go.
        if (VMD5::hash(tag) == name)
            removeListed(tag, removePage, walk, &complete);
        if (complete || VMD5::hash(tag) != name)
            unlink(path.constData());
    }
}

void VTagIndex::compact()
{
    static const char Hex[] = "0123456789abcdef";
    struct stat info;
    if (stat((m_root + "/t").constData(), &info) != 0)
        return;
    for (int bucket = 0; bucket < 4096; ++bucket) {
        const QByteArray path = m_root + "/t/" + Hex[bucket >> 8] + '/' + Hex[(bucket >> 4) & 15] + Hex[bucket & 15];
        if (stat((path + '/' + EntriesName).constData(), &info) != 0 || info.st_size < CompactFrom)
            continue;
        const int fd = open(path.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0) {
            const Listing listed = listing(path);
            if (!listed.damaged && listed.lines > 2 * listed.liveLines())
                rewrite(path, listed);
        }
        if (fd >= 0)
            close(fd);
    }
}
