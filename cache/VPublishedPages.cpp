#include "VPublishedPages.h"

#include "VHeaderLines.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

const char FileSuffix[] = ".vesk.html";
const char GzipSuffix[] = ".gz";
const char IndexDir[] = ".index";
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

} // namespace

VPublishedPages::VPublishedPages(const QByteArray& root) : m_root(root)
{
    while (m_root.size() > 1 && m_root.endsWith('/'))
        m_root.chop(1);
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
    QByteArray host = url.mid(schemeEnd + 3, pathStart - schemeEnd - 3).toLower();
    const int colon = host.lastIndexOf(':');
    bool numericPort = true;
    if (colon >= 0)
        host.mid(colon + 1).toUShort(&numericPort);
    if (colon >= 0 && numericPort)
        host.truncate(colon);
    if (!plainHost(host)) {
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
    return ok && !file->isEmpty();
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
        const int fd = open(temp.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd < 0 && errno == ENOENT)
            continue;
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
    const QByteArray path = m_root + '/' + file;
    if (gzipBody.isNull())
        unlink((path + GzipSuffix).constData());
    else if (!writeFile(path + GzipSuffix, gzipBody, mtime))
        return false;
    return writeFile(path, clearBody, mtime);
}

void VPublishedPages::removeFiles(const QByteArray& file)
{
    const QByteArray path = m_root + '/' + file;
    unlink(path.constData());
    unlink((path + GzipSuffix).constData());
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
    const QStringList entries = QDir(QFile::decodeName(m_root)).entryList(QDir::AllEntries | QDir::NoDotAndDotDot
                                                                          | QDir::Hidden | QDir::System);
    for (const QString& entry : entries) {
        if (entry != QLatin1String(IndexDir) && !entry.startsWith(QLatin1String(".trash-")))
            removeTree(m_root + '/' + QFile::encodeName(entry));
    }
    removeTree(m_root + '/' + IndexDir);
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
        } else if (key.startsWith(".tmp-")) {
            continue;
        } else if (!read || (expiresAt > 0 && now >= expiresAt) || !live(ns, key)) {
            unpublish(ns, key);
        }
    }
}

void VPublishedPages::sweep(qint64 now, const std::function<bool(const QByteArray&, const QByteArray&)>& live)
{
    const QDir root(QFile::decodeName(m_root));
    for (const QString& trash : root.entryList({QStringLiteral(".trash-*")}, QDir::Dirs | QDir::Hidden))
        QDir(root.filePath(trash)).removeRecursively();
    const QStringList namespaces = QDir(root.filePath(QLatin1String(IndexDir))).entryList(QDir::Dirs
                                                                                          | QDir::NoDotAndDotDot);
    for (const QString& ns : namespaces)
        sweepNamespace(QFile::encodeName(ns), now, live);
}
