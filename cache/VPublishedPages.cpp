#include "VPublishedPages.h"

#include "VFileMode.h"
#include "VHeaderLines.h"
#include "VNormalizedUrl.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

const char FileSuffix[] = ".vesk.html";
const char GzipSuffix[] = ".gz";
const char IndexDir[] = ".index";
// Marks the folder as the cache's own; it says so to whoever looks.
const char MarkerName[] = ".vesk-published";
const char MarkerText[] = "The Vesk Page Cache's published pages: the cache removes what it wrote here.\n";
const char RuleName[] = ".rule";
// A file being written is renamed into place within this time; one older is
// what a writer that died left.
const qint64 LeftoverAge = 60;
const int MaxPath = 1024;
const int MaxSegment = 200;

// Unreserved URL characters: percent-decoding, which the web server does
// and PHP's REQUEST_URI doesn't, leaves them as they are.
bool unreserved(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.'
           || c == '_' || c == '~';
}

// Letters, digits and inner hyphens in dot-separated labels, as the web
// server's own host variable holds it: lower case, no port, no final dot.
bool plainHost(const QByteArray& host)
{
    if (host.isEmpty() || host.size() > 253)
        return false;
    for (const QByteArray& label : host.split('.')) {
        if (label.isEmpty() || label.size() > 63 || label.startsWith('-') || label.endsWith('-'))
            return false;
        for (const char c : label) {
            if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-'))
                return false;
        }
    }
    return true;
}

// Every segment reads the same to the web server as to PHP and names no
// file of ours: not empty ("//"), not begun by a dot (".", "..", and the
// names of temporary files and of the index), not ending as a published
// file's name does, so that no directory of one URL is the file of another.
QByteArray pathRefusal(const QByteArray& path)
{
    if (!path.startsWith('/') || path.size() > MaxPath)
        return "a path that doesn't start with '/' or is too long";
    for (const char c : path) {
        if (c != '/' && !unreserved(c))
            return "a path with a character other than letters, digits and '-._~/'";
    }
    const QList<QByteArray> segments = path.mid(1).split('/');
    for (int i = 0; i < segments.size(); ++i) {
        const QByteArray& segment = segments.at(i);
        if (segment.isEmpty() && i + 1 < segments.size())
            return "a path with an empty segment";
        if (segment.startsWith('.') || segment.size() > MaxSegment)
            return "a path with a segment that starts with '.' or is too long";
        if (segment.endsWith(FileSuffix) || segment.endsWith(QByteArray(FileSuffix) + GzipSuffix))
            return "a path with a segment named as a published file";
    }
    return QByteArray();
}

bool hexName(const QByteArray& name)
{
    if (name.isEmpty() || name.size() > 64)
        return false;
    for (const char c : name) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')))
            return false;
    }
    return true;
}

QByteArray uniqueName(const char* prefix)
{
    static int counter = 0;
    return prefix + QByteArray::number(qint64(getpid())) + '-' + QByteArray::number(++counter);
}

QByteArray directoryOf(const QByteArray& path)
{
    return path.left(path.lastIndexOf('/'));
}

// The names the cache writes at the top of the folder: namespaces, the
// index, and what interrupted endings and writes leave.
bool ownName(const QByteArray& name)
{
    return hexName(name) || name == IndexDir || name.startsWith(".trash-") || name.startsWith(".tmp-");
}

QByteArray readSmall(const QByteArray& path)
{
    QFile file(QFile::decodeName(path));
    return file.open(QIODevice::ReadOnly) ? file.read(4096) : QByteArray();
}

QStringList entriesOf(const QByteArray& path, QDir::Filters filters)
{
    return QDir(QFile::decodeName(path)).entryList(filters | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System);
}

// By the change time: a file being written is dated as its page already.
bool olderThan(const QByteArray& path, qint64 seconds, qint64 now)
{
    struct stat st;
    return lstat(path.constData(), &st) == 0 && now - qint64(st.st_ctime) >= seconds;
}

} // namespace

VPublishedPages::VPublishedPages(const QByteArray& root) : m_root(root)
{
    while (m_root.size() > 1 && m_root.endsWith('/'))
        m_root.chop(1);
}

bool VPublishedPages::claim()
{
    // A folder that isn't there yet is made and marked by the first worker
    // that publishes.
    if (m_marked || access(m_root.constData(), F_OK) != 0 || access((m_root + '/' + MarkerName).constData(), F_OK) == 0)
        return true;
    for (const QString& entry : entriesOf(m_root, QDir::AllEntries)) {
        if (!ownName(QFile::encodeName(entry))) {
            lastError = "it holds " + QFile::encodeName(entry) + ", which the cache did not write";
            return false;
        }
    }
    return true;
}

void VPublishedPages::noteRule(const QByteArray& ns, const QByteArray& description)
{
    const QByteArray marker = m_root + '/' + MarkerName;
    const qint64 now = qint64(time(nullptr));
    if (!m_marked)
        m_marked = access(marker.constData(), F_OK) == 0 || writeFile(marker, MarkerText, now);
    const QByteArray rule = m_root + '/' + IndexDir + '/' + ns + '/' + RuleName;
    if (!description.isEmpty() && access(rule.constData(), F_OK) != 0)
        writeFile(rule, description, now);
}

QByteArray VPublishedPages::fileFor(const QByteArray& ns, const QByteArray& url, QByteArray* why)
{
    const int schemeEnd = url.indexOf("://");
    const QByteArray scheme = url.left(schemeEnd);
    const int pathStart = url.indexOf('/', schemeEnd + 3);
    if (!hexName(ns) || schemeEnd < 0 || (scheme != "http" && scheme != "https") || pathStart < 0) {
        *why = "not an http or https URL with a path";
        return QByteArray();
    }
    if (url.contains('?') || url.contains('#')) {
        *why = "a query string";
        return QByteArray();
    }
    // The port stays: the store keeps the pages of each port apart, and so
    // does the web server's look-up ($host:$server_port, SERVER_NAME:SERVER_PORT).
    QByteArray host = url.mid(schemeEnd + 3, pathStart - schemeEnd - 3).toLower();
    if (!host.contains(':'))
        host += scheme == "https" ? ":443" : ":80";
    const int colon = host.lastIndexOf(':');
    bool numericPort = colon > 0;
    if (colon > 0)
        host.mid(colon + 1).toUShort(&numericPort);
    if (!numericPort || !plainHost(host.left(colon))) {
        *why = "a host that isn't a plain host name";
        return QByteArray();
    }
    const QByteArray path = url.mid(pathStart);
    *why = pathRefusal(path);
    if (!why->isEmpty())
        return QByteArray();
    return ns + '/' + scheme + '/' + host + path + FileSuffix;
}

bool VPublishedPages::sendsAsStored(int status, const QLinkedList<QByteArray>& headers, const QByteArray& type,
                                   QByteArray* why)
{
    if (status != 200) {
        *why = "status " + QByteArray::number(status);
        return false;
    }
    if (type != contentType()) {
        *why = "Content-Type " + type;
        return false;
    }
    for (const QByteArray& line : headers) {
        const int colon = line.indexOf(':');
        const QByteArray value = line.mid(colon + 1).trimmed();
        if (VHeaderLines::hasName(line, "Last-Modified"))
            continue;
        if (VHeaderLines::hasName(line, "Content-Type") && value == contentType())
            continue;
        if (VHeaderLines::hasName(line, "Vary") && value == "Accept-Encoding")
            continue;
        // The server configuration sends the same revalidation; the engine's
        // banner is left out, which adds nothing the page didn't have.
        if ((VHeaderLines::hasName(line, "Cache-Control") && value == "no-cache")
            || VHeaderLines::hasName(line, "X-Powered-By"))
            continue;
        *why = "the header " + line.left(colon);
        return false;
    }
    return true;
}

QByteArray VPublishedPages::indexPath(const QByteArray& ns, const QByteArray& key) const
{
    return m_root + '/' + IndexDir + '/' + ns + '/' + key;
}

bool VPublishedPages::readEntry(const QByteArray& path, qint64* expiresAt, QByteArray* file) const
{
    QFile entry(QFile::decodeName(path));
    if (!entry.open(QIODevice::ReadOnly))
        return false;
    const QList<QByteArray> lines = entry.read(4096).split('\n');
    bool ok = false;
    *expiresAt = lines.value(0).toLongLong(&ok);
    *file = lines.value(1);
    return ok;
}

bool VPublishedPages::stillNames(const QByteArray& ns, const QByteArray& key, const QByteArray& file) const
{
    qint64 expiresAt = 0;
    QByteArray named;
    return readEntry(indexPath(ns, key), &expiresAt, &named) && named == file;
}

bool VPublishedPages::writeFile(const QByteArray& path, const QByteArray& data, qint64 mtime)
{
    const QByteArray dir = directoryOf(path);
    // An ending may take the directory away meanwhile: made again, once.
    for (int attempt = 0; attempt < 2; ++attempt) {
        QDir().mkpath(QFile::decodeName(dir));
        const QByteArray temp = dir + '/' + uniqueName(".tmp-");
        const int fd = open(temp.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, VFileMode::files());
        if (fd < 0 && errno == ENOENT)
            continue;
        VFileMode::apply(fd);
        bool written = fd >= 0;
        for (qint64 done = 0; written && done < data.size();) {
            const ssize_t n = write(fd, data.constData() + done, size_t(data.size() - done));
            written = n > 0 || (n < 0 && errno == EINTR);
            done += n > 0 ? n : 0;
        }
        const struct timeval times[2] = {{time_t(mtime), 0}, {time_t(mtime), 0}};
        written = written && futimes(fd, times) == 0;
        if (fd >= 0 && close(fd) != 0)
            written = false;
        if (written && rename(temp.constData(), path.constData()) == 0)
            return true;
        lastError = "can't write " + path + ": " + QByteArray(strerror(errno));
        unlink(temp.constData());
        return false;
    }
    lastError = "can't make the directory of " + path;
    return false;
}

bool VPublishedPages::publish(const QByteArray& ns, const QByteArray& key, const QByteArray& file,
                              const QByteArray& clearBody, const QByteArray& gzipBody, qint64 mtime,
                              qint64 expiresAt)
{
    const QByteArray index = indexPath(ns, key);
    qint64 oldExpiry = 0;
    QByteArray oldFile;
    if (readEntry(index, &oldExpiry, &oldFile) && oldFile != file)
        removeFiles(oldFile);
    // The entry is there before any file it names.
    if (!writeFile(index, QByteArray::number(expiresAt) + '\n' + file + '\n', mtime))
        return false;
    if (file.isEmpty())
        return true;
    const QByteArray path = m_root + '/' + file;
    if (gzipBody.isNull())
        unlink((path + GzipSuffix).constData());
    else if (!writeFile(path + GzipSuffix, gzipBody, mtime))
        return false;
    return writeFile(path, clearBody, mtime);
}

void VPublishedPages::refuse(const QByteArray& ns, const QByteArray& key, qint64 expiresAt)
{
    publish(ns, key, QByteArray(), QByteArray(), QByteArray(), qint64(time(nullptr)), expiresAt);
}

bool VPublishedPages::hasEntry(const QByteArray& ns, const QByteArray& key) const
{
    return access(indexPath(ns, key).constData(), F_OK) == 0;
}

void VPublishedPages::removeFiles(const QByteArray& file)
{
    if (file.isEmpty())
        return;
    const QByteArray path = m_root + '/' + file;
    for (const QByteArray& copy : {path, path + GzipSuffix}) {
        if (!m_trash.take(copy))
            unlink(copy.constData());
    }
    removeEmptyFolders(file);
}

VPublishedPages::TrashBatch::TrashBatch(VPublishedPages* pages)
    : m_pages(pages), m_outer(pages && !pages->m_trash.isOpen())
{
    // The sweep deletes what lies under a ".trash-" name.
    if (m_outer)
        m_pages->m_trash.open(m_pages->m_root + '/' + uniqueName(".trash-"));
}

VPublishedPages::TrashBatch::~TrashBatch()
{
    if (m_outer)
        m_pages->m_trash.close();
}

void VPublishedPages::removeEmptyFolders(const QByteArray& file)
{
    // A writer that loses its folder to this makes it again (writeFile).
    for (QByteArray dir = directoryOf(m_root + '/' + file); dir.size() > m_root.size(); dir = directoryOf(dir)) {
        if (rmdir(dir.constData()) != 0)
            break;
    }
}

void VPublishedPages::unpublish(const QByteArray& ns, const QByteArray& key)
{
    // The entry is taken aside first: a writer that publishes the record
    // anew meanwhile makes an entry of its own, which this leaves alone.
    // An ending cut short leaves the taken entry for the next sweep.
    const QByteArray index = indexPath(ns, key);
    const QByteArray taken = directoryOf(index) + '/' + uniqueName(".gone-");
    if (rename(index.constData(), taken.constData()) != 0)
        return;
    qint64 expiresAt = 0;
    QByteArray file;
    if (readEntry(taken, &expiresAt, &file))
        removeFiles(file);
    if (!m_trash.take(taken))
        unlink(taken.constData());
}

void VPublishedPages::removeTree(const QByteArray& path)
{
    const QByteArray trash = m_root + '/' + uniqueName(".trash-");
    if (rename(path.constData(), trash.constData()) == 0)
        QDir(QFile::decodeName(trash)).removeRecursively();
}

void VPublishedPages::unpublishNamespace(const QByteArray& ns)
{
    if (!ns.isNull()) {
        // The files first: the web server stops sending them at once.
        removeTree(m_root + '/' + ns);
        removeTree(m_root + '/' + IndexDir + '/' + ns);
        return;
    }
    // Only what the cache writes: an operator's file stays where it is.
    for (const QString& entry : entriesOf(m_root, QDir::Dirs)) {
        if (hexName(QFile::encodeName(entry)))
            removeTree(m_root + '/' + QFile::encodeName(entry));
    }
    removeTree(m_root + '/' + IndexDir);
}

QByteArray VPublishedPages::urlOf(const QByteArray& file)
{
    // <namespace>/<scheme>/<host>:<port><path>.vesk.html
    const int scheme = file.indexOf('/') + 1;
    const int host = file.indexOf('/', scheme) + 1;
    return file.mid(scheme, host - scheme - 1) + "://" + file.mid(host, file.size() - host - int(strlen(FileSuffix)));
}

void VPublishedPages::endPurged(const QByteArray& url, const QRegExp& pattern)
{
    const QStringList namespaces = entriesOf(m_root, QDir::Dirs);
    for (const QString& name : namespaces) {
        const QByteArray ns = QFile::encodeName(name);
        QByteArray why;
        const QByteArray file = hexName(ns) && !url.isEmpty() ? fileFor(ns, url, &why) : QByteArray();
        if (!file.isEmpty())
            removeFiles(file);
    }
    if (pattern.isEmpty())
        return;
    // A pattern can name any page: the files are walked, one at a time.
    for (const QString& name : namespaces) {
        if (!hexName(QFile::encodeName(name)))
            continue;
        QDirIterator it(QFile::decodeName(m_root + '/' + QFile::encodeName(name)), {QStringLiteral("*.vesk.html")},
                        QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        // Removed after the walk, which their folders may go with.
        QList<QByteArray> purged;
        QRegExp matcher = pattern;
        while (it.hasNext()) {
            const QByteArray file = QFile::encodeName(it.next()).mid(m_root.size() + 1);
            if (matcher.exactMatch(normalizeUrl(QString::fromLatin1(urlOf(file)))))
                purged.append(file);
        }
        for (const QByteArray& file : purged)
            removeFiles(file);
    }
}

void VPublishedPages::keepRules(const QHash<QByteArray, QByteArray>& rules)
{
    const QByteArray index = m_root + '/' + IndexDir;
    QStringList namespaces = entriesOf(index, QDir::Dirs) + entriesOf(m_root, QDir::Dirs);
    namespaces.removeDuplicates();
    // A namespace whose description is missing is one of an older version,
    // or one being made: ended all the same, it is published again.
    for (const QString& name : namespaces) {
        const QByteArray ns = QFile::encodeName(name);
        if (hexName(ns) && (!rules.contains(ns) || rules.value(ns) != readSmall(index + '/' + ns + '/' + RuleName)))
            unpublishNamespace(ns);
    }
}

void VPublishedPages::sweepNamespace(const QByteArray& ns, qint64 now,
                                     const std::function<bool(const QByteArray&, const QByteArray&)>& live)
{
    const QByteArray dir = m_root + '/' + IndexDir + '/' + ns;
    const QStringList keys = QDir(QFile::decodeName(dir)).entryList(QDir::Files | QDir::Hidden);
    for (const QString& name : keys) {
        const QByteArray key = QFile::encodeName(name);
        qint64 expiresAt = 0;
        QByteArray file;
        const bool read = readEntry(dir + '/' + key, &expiresAt, &file);
        if (key.startsWith(".gone-")) {
            if (read)
                removeFiles(file);
            unlink((dir + '/' + key).constData());
        } else if (key.startsWith('.')) {
            if (key.startsWith(".tmp-") && olderThan(dir + '/' + key, LeftoverAge, now))
                unlink((dir + '/' + key).constData());
        } else if (!read || (expiresAt > 0 && now >= expiresAt) || !live(ns, key)) {
            unpublish(ns, key);
        }
    }
}

void VPublishedPages::sweep(qint64 now, const std::function<bool(const QByteArray&, const QByteArray&)>& live)
{
    for (const QString& entry : entriesOf(m_root, QDir::AllEntries)) {
        const QByteArray path = m_root + '/' + QFile::encodeName(entry);
        if (entry.startsWith(QLatin1String(".trash-")))
            QDir(QFile::decodeName(path)).removeRecursively();
        else if (entry.startsWith(QLatin1String(".tmp-")) && olderThan(path, LeftoverAge, now))
            unlink(path.constData());
    }
    for (const QString& ns : entriesOf(m_root + '/' + IndexDir, QDir::Dirs))
        sweepNamespace(QFile::encodeName(ns), now, live);
    sweepLeftovers(now);
}

void VPublishedPages::sweepLeftovers(qint64 now)
{
    m_bytes = 0;
    for (const QString& ns : entriesOf(m_root, QDir::Dirs)) {
        if (!hexName(QFile::encodeName(ns)))
            continue;
        QList<QByteArray> folders;
        QDirIterator it(QFile::decodeName(m_root + '/' + QFile::encodeName(ns)),
                        QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QByteArray path = QFile::encodeName(it.next());
            m_bytes += it.fileInfo().size();
            if (it.fileInfo().isDir() && !it.fileInfo().isSymLink())
                folders.prepend(path);
            else if (it.fileName().startsWith(QLatin1String(".tmp-")) && olderThan(path, LeftoverAge, now))
                unlink(path.constData());
        }
        // Deepest first: a folder emptied by the one below it goes too.
        std::sort(folders.begin(), folders.end(),
                  [](const QByteArray& a, const QByteArray& b) { return a.count('/') > b.count('/'); });
        for (const QByteArray& folder : folders)
            rmdir(folder.constData());
        rmdir((m_root + '/' + QFile::encodeName(ns)).constData());
    }
}
