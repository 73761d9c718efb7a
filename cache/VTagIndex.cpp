#include "VTagIndex.h"

#include "VCrc32c.h"
#include "VFileMode.h"
#include "VMD5.h"

#include <QtEndian>

#include <atomic>
#include <cerrno>
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

bool createEmpty(const QByteArray& path)
{
    const int fd = open(path.constData(), O_WRONLY | O_CREAT | O_CLOEXEC, VFileMode::files());
    if (fd < 0)
        return false;
    VFileMode::apply(fd);
    return close(fd) == 0;
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

// The removal time in a tag's "removed" file: -1 for none, -2 for a file
// that fails its checks.
qint64 readRemovedAt(const QByteArray& dir)
{
    const QByteArray text = readSmallFile(dir + "/removed", RemovedSize + 1);
    if (text.isNull() && errno == ENOENT)
        return -1;
    if (text.size() != RemovedSize || memcmp(text.constData(), RemovedMagic, 4) != 0
        || qFromLittleEndian<quint32>(text.constData() + 12) != crc32c(text.constData(), 12))
        return -2;
    return qint64(qFromLittleEndian<quint64>(text.constData() + 4));
}

} // namespace

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

QByteArray VTagIndex::tagDir(const QByteArray& tag) const
{
    const QByteArray hash = VMD5::hash(tag);
    return m_root + "/t/" + hash.left(2) + '/' + hash;
}

void VTagIndex::step(const char* name) const
{
    if (reached)
        reached(name);
}

// Opens and locks a tag's directory, made if need be; -1 on failure.
int VTagIndex::lockTag(const QByteArray& dir, int how)
{
    if (!makeDirs(dir)) {
        lastError = "cannot make " + dir + ": " + QByteArray(strerror(errno));
        return -1;
    }
    const int fd = open(dir.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int locked = fd < 0 ? -1 : 0;
    while (fd >= 0 && (locked = flock(fd, how)) != 0 && errno == EINTR) {
    }
    if (locked != 0) {
        lastError = "cannot lock " + dir + ": " + QByteArray(strerror(errno));
        if (fd >= 0)
            close(fd);
        return -1;
    }
    return fd;
}

bool VTagIndex::writeRemovedAt(const QByteArray& dir, qint64 ms)
{
    char text[RemovedSize];
    memcpy(text, RemovedMagic, 4);
    qToLittleEndian(quint64(ms), text + 4);
    qToLittleEndian(crc32c(text, 12), text + 12);
    if (replaceFile(dir + "/removed", QByteArray(text, RemovedSize)))
        return true;
    lastError = "cannot write " + dir + "/removed: " + QByteArray(strerror(errno));
    return false;
}

bool VTagIndex::enter(const QByteArray& ns, const QByteArray& key, const QList<QByteArray>& tags, qint64 sinceMs,
                      Entry& entry, QByteArray* why)
{
    const QByteArray name = ns + '-' + key;
    for (const QByteArray& tag : tags) {
        const QByteArray dir = tagDir(tag);
        const int fd = lockTag(dir, LOCK_SH);
        if (fd < 0) {
            *why = lastError;
            return false;
        }
        entry.locks << fd;
        step("locked");
        if (!createEmpty(dir + '/' + name)) {
            *why = "cannot enter the page under tag " + tag + ": " + QByteArray(strerror(errno));
            return false;
        }
        step("entered");
        qint64 removed = readRemovedAt(dir);
        // A removal time that can't be read is taken as now: the pages being
        // built go, and the tag is usable again after.
        if (removed == -2 && writeRemovedAt(dir, nowMs()))
            removed = nowMs();
        if (removed == -2 || removed >= sinceMs) {
            *why = "tag " + tag + " was removed while the page was built";
            return false;
        }
    }
    return true;
}

QList<QPair<QByteArray, QByteArray>> VTagIndex::pagesOf(const QByteArray& tag, bool* sound) const
{
    QList<QPair<QByteArray, QByteArray>> pages;
    if (sound)
        *sound = true;
    DIR* dir = opendir(tagDir(tag).constData());
    if (!dir)
        return pages;
    while (const dirent* item = readdir(dir)) {
        const QByteArray name(item->d_name);
        QPair<QByteArray, QByteArray> page;
        if (name.startsWith('.') || name == "removed")
            continue;
        if (pageOfName(name, &page))
            pages << page;
        else if (sound)
            *sound = false;
    }
    closedir(dir);
    return pages;
}

qint64 VTagIndex::removedAt(const QByteArray& tag) const
{
    return qMax<qint64>(0, readRemovedAt(tagDir(tag)));
}

int VTagIndex::remove(const QByteArray& tag, const PageRemover& removePage,
                      const std::function<bool(const QByteArray& tag)>& unlisted, bool* complete)
{
    finishInterrupted(removePage, unlisted);
    const QByteArray pending = m_root + "/pending/" + VMD5::hash(tag);
    if (!makeDirs(m_root + "/pending") || !replaceFile(pending, tag)) {
        lastError = "cannot note the removal of tag " + tag + ": " + QByteArray(strerror(errno));
        *complete = false;
        return 0;
    }
    step("noted");
    const int removed = removeListed(tag, removePage, unlisted, complete);
    if (*complete)
        unlink(pending.constData());
    return removed;
}

// Under the tag's exclusive lock: no page of it is being entered meanwhile,
// and one entered later sees the new removal time.
int VTagIndex::removeListed(const QByteArray& tag, const PageRemover& removePage,
                            const std::function<bool(const QByteArray& tag)>& unlisted, bool* complete)
{
    const QByteArray dir = tagDir(tag);
    *complete = false;
    const int fd = lockTag(dir, LOCK_EX);
    if (fd < 0)
        return 0;
    step("locked");
    if (!writeRemovedAt(dir, nowMs())) {
        close(fd);
        return 0;
    }
    step("dated");
    bool sound = true;
    const QList<QPair<QByteArray, QByteArray>> pages = pagesOf(tag, &sound);
    *complete = sound || unlisted(tag);
    for (const QPair<QByteArray, QByteArray>& page : pages) {
        // The entry goes only with its page: a removal cut short leaves it
        // for the one that finishes the work.
        if (removePage(page.first, page.second))
            unlink((dir + '/' + page.first + '-' + page.second).constData());
        else
            *complete = false;
        step("page");
    }
    close(fd);
    return pages.size();
}

void VTagIndex::finishInterrupted(const PageRemover& removePage,
                                  const std::function<bool(const QByteArray& tag)>& unlisted)
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
            removeListed(tag, removePage, unlisted, &complete);
        if (complete || VMD5::hash(tag) != name)
            unlink(path.constData());
    }
}
