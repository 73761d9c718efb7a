#include "VDebug.h"
#include "VException.h"
#include "VFileMode.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace {

// Log text never goes to standard output: under CGI that is the response.
// Stream 0 has no sink of its own, so it falls back to standard error.
VDebug::Sink* makeStderrSink()
{
    static VDebug::Sink sink;
    sink.fd = STDERR_FILENO;
    sink.level = 3;
    return &sink;
}

const char DefaultTimestampFormat[] = "yyyy-MM-dd hh:mm:ss.zzz";

// The default format, without the local-time machinery of QDateTime, which
// costs several microseconds a line.
void appendDefaultTimestamp(QByteArray& line)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm local;
    localtime_r(&now.tv_sec, &local);
    char text[32];
    const int length = snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03ld",
                                local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                                local.tm_hour, local.tm_min, local.tm_sec,
                                long(now.tv_nsec / 1000000));
    line.append(text, length);
}

// The log's directory is writable by the workers, and root processes open
// the log too: a link planted there is never followed, and a pipe never
// holds the opener up. A file made here gets the mode of the cache's files.
int openForAppend(const char* path)
{
    const int flags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    int fd = ::open(path, flags | O_CREAT | O_EXCL, VFileMode::files());
    if (fd >= 0)
        VFileMode::apply(fd);
    else if (errno == EEXIST)
        fd = ::open(path, flags);
    return fd;
}

// Control bytes of a logged value (a request's header, a split value) are
// written as \xHH: no value can end a line or forge one, nor reach an
// operator's terminal as an escape sequence. A string's final line feed is
// the statement's own line break and stays.
QByteArray escapedControlBytes(const QByteArray& text, bool keepFinalLineFeed)
{
    const int end = keepFinalLineFeed ? text.size() - 1 : text.size();
    int i = 0;
    while (i < end && uchar(text[i]) >= 0x20 && uchar(text[i]) != 0x7f)
        ++i;
    if (i == end)
        return text;
    QByteArray escaped = text.left(i);
    static const char hex[] = "0123456789abcdef";
    for (; i < end; ++i) {
        const uchar c = uchar(text[i]);
        if (c >= 0x20 && c != 0x7f) {
            escaped += char(c);
            continue;
        }
        const char code[] = {'\\', 'x', hex[c >> 4], hex[c & 15]};
        escaped.append(code, 4);
    }
    if (keepFinalLineFeed)
        escaped += '\n';
    return escaped;
}

} // namespace

const char* VDebug::_timestampFormat = DefaultTimestampFormat;
bool VDebug::_printProcessIdAndThreadId = true;
bool VDebug::_disableStderrOut = false;
const char* const VDebug::_debugLevelStrings[7] = {
    "ALWAYS", "ERROR", "WARNING", "NOTICE", "INFO", "DEBUG", "TRACE"};

VDebug::Sink* VDebug::_sinkList[VDebug::MaxStreams] = {nullptr, makeStderrSink()};
const VDebug VDebug::_inactive(nullptr, 0, false);

VDebug::VDebug(Sink* sink, int level, bool active) : sink(sink), level(level), active(active)
{
}

VDebug::~VDebug()
{
    try {
        if (!line.isEmpty() || !circularText.isEmpty())
            flush();
    } catch (...) {
    }
}

VDebug VDebug::cheap(StreamId id, int level)
{
    Sink* sink = sinkOf(id);
    if (id == DEVNULL || !sink || !sink->circularBuffer)
        return _inactive;
    return VDebug(sink, level, true);
}

VDebug VDebug::full(StreamId id, int level)
{
    if (id == DEVNULL)
        return _inactive;
    Sink* sink = sinkOf(id);
    if (!sink)
        return _inactive;
    if (sink->circularBuffer && sink->timedLevelActive
        && sink->timedLevelStart.secsTo(QDateTime::currentDateTime()) >= sink->timedLevelSeconds) {
        sink->timedLevelActive = false;
        sink->level = sink->timedLevelRestore;
    }
    if ((id == STDOUT || id == STDERR) && _disableStderrOut)
        return _inactive;
    if (sink->level >= level)
        return VDebug(sink, level, true);
    return _inactive;
}

VDebug& VDebug::operator<<(const char* text)
{
    if (!wantsText())
        return *this;
    const char* shown = text ? text : "(null)";
    const size_t length = strlen(shown);
    item(QByteArray::fromRawData(shown, int(length)), length > 0 && shown[length - 1] == '\n');
    return *this;
}

VDebug& VDebug::operator<<(const QString& text)
{
    if (!wantsText())
        return *this;
    item(text.toLatin1(), text.endsWith(QLatin1Char('\n')));
    return *this;
}

VDebug& VDebug::operator<<(const QByteArray& bytes)
{
    if (!wantsText())
        return *this;
    item(bytes, false);
    return *this;
}

VDebug& VDebug::number(qint64 n)
{
    if (!wantsText())
        return *this;
    item(hexNumbers ? "0x" + QByteArray::number(n, 16) : QByteArray::number(n), false);
    return *this;
}

VDebug& VDebug::operator<<(VHex n)
{
    if (!wantsText())
        return *this;
    item("0x" + QByteArray::number(n.value, 16), false);
    return *this;
}

VDebug& VDebug::unsignedNumber(quint64 n)
{
    if (!wantsText())
        return *this;
    item(hexNumbers ? "0x" + QByteArray::number(n, 16) : QByteArray::number(n), false);
    return *this;
}

void VDebug::item(const QByteArray& text, bool endsInLineFeed)
{
    doHandleCircularBuffer(text);
    if (!active)
        return;
    if (sink->circularBuffer) {
        if (sink->level < level || sink->writeSuppressed)
            return;
    } else if (sink->writeSuppressed) {
        return;
    }
    if (needHeader)
        writeHeader();
    if (needLineNumber && lineNumber != -1 && lineNumber != -2) {
        line += QByteArray::number(lineNumber).rightJustified(5, '0') + ": ";
        needLineNumber = false;
    }
    line += escapedControlBytes(text, endsInLineFeed);
    if (endsInLineFeed)
        needHeader = true;
    if (autoSpace)
        line += ' ';
}

void VDebug::doHandleCircularBuffer(const QByteArray& text)
{
    if (!sink || !sink->circularBuffer)
        return;
    circularText += text;
    circularText += ' ';
}

void VDebug::writeHeader()
{
    autoSpace = false;
    line += '[';
    if (!sink->name.isEmpty()) {
        line += sink->name;
        line += ' ';
    }
    if (_timestampFormat == DefaultTimestampFormat)
        appendDefaultTimestamp(line);
    else
        line += QDateTime::currentDateTime().toString(QLatin1String(_timestampFormat)).toLatin1();
    line += ' ';
    if (_printProcessIdAndThreadId) {
        char mark[48];
        line.append(mark, snprintf(mark, sizeof mark, "p%lld/t%llu ", static_cast<long long>(getpid()),
                                   static_cast<unsigned long long>(pthread_self())));
    }
    if (level >= -1 && level <= 5)
        line += _debugLevelStrings[level + 1];
    else
        line += QByteArray::number(level);
    line += ']';
    autoSpace = true;
    line += ' ';
    needHeader = false;
}

void VDebug::flush()
{
    if (!sink)
        return;
    if (!circularText.isEmpty() && sink->circularBuffer) {
        sink->ring += circularText;
        sink->ring += '\n';
        if (sink->ring.size() > CircularBufferBytes)
            sink->ring.remove(0, sink->ring.size() - CircularBufferBytes);
    }
    circularText.clear();
    if (line.isEmpty())
        return;
    line += '\n';
    sink->write(line);
    line.clear();
}

void VDebug::Sink::write(const QByteArray& text)
{
    if (fd < 0)
        return;
    rotateIfDue(text.size());
    // One write per line: appenders in other worker processes never split it.
    const char* data = text.constData();
    size_t left = size_t(text.size());
    while (left > 0) {
        const ssize_t n = ::write(fd, data, left);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return; // a sink that can't be written to drops the text
        }
        data += n;
        left -= size_t(n);
    }
}

// A root process (a server's master, a command-line run) writes into the
// workers' log through the descriptor it opened as their user, but never
// rotates it: the fresh file would be root's, and the workers shut out.
bool VDebug::Sink::mayRotate() const
{
    return rotationBytes > 0 && !path.isEmpty() && (geteuid() != 0 || owner == 0);
}

void VDebug::Sink::rotateIfDue(qint64 incoming)
{
    if (!mayRotate())
        return;
    struct stat own;
    if (fstat(fd, &own) != 0 || own.st_size + incoming <= rotationBytes)
        return;
    // Workers share the master's descriptor, and with it any lock taken on
    // it: the lock is a file of its own, opened afresh by each process.
    // Whoever holds it and still finds its descriptor on the live name does
    // the renaming, the others only follow to the fresh file.
    const int lock = openForAppend((path + ".lock").constData());
    if (lock < 0 || flock(lock, LOCK_EX) != 0) {
        if (lock >= 0)
            ::close(lock);
        return;
    }
    struct stat live;
    if (::lstat(path.constData(), &live) == 0 && live.st_ino == own.st_ino && live.st_dev == own.st_dev) {
        for (int i = RotatedFilesKept - 1; i >= 1; --i) {
            ::rename((path + '.' + QByteArray::number(i)).constData(),
                     (path + '.' + QByteArray::number(i + 1)).constData());
        }
        ::rename(path.constData(), (path + ".1").constData());
    }
    const int old = fd;
    reopen();
    ::close(lock);
    if (old != fd)
        ::close(old);
}

bool VDebug::Sink::reopen()
{
    const int fresh = openForAppend(path.constData());
    if (fresh < 0)
        return false;
    fd = fresh;
    return true;
}

VDebug::StreamId VDebug::registerStream(const QByteArray& name, const char* file)
{
    if (!file || !*file)
        throw VException(QStringLiteral("No log file given for the stream %1")
                             .arg(QString::fromLatin1(name)));
    StreamId id = 2;
    while (id < MaxStreams && _sinkList[id])
        ++id;
    if (id == MaxStreams)
        throw VException(QStringLiteral("Too many log streams; can't register %1")
                             .arg(QString::fromLatin1(name)));
    const int fd = openForAppend(file);
    if (fd < 0)
        throw VException(QStringLiteral("Failed to open the log file %1: %2")
                             .arg(QString::fromLocal8Bit(file),
                                  QString::fromLocal8Bit(strerror(errno))));
    Sink* sink = new Sink;
    sink->name = name;
    sink->fd = fd;
    sink->ownsFd = true;
    sink->path = file;
    sink->owner = geteuid();
    _sinkList[id] = sink;
    return id;
}

QVector<int> VDebug::openFiles()
{
    QVector<int> fds;
    for (const Sink* sink : _sinkList) {
        if (sink && sink->ownsFd && sink->fd >= 0)
            fds.append(sink->fd);
    }
    return fds;
}

void VDebug::unregisterStream(StreamId id)
{
    if (id < 0 || id >= MaxStreams || !_sinkList[id])
        return;
    Sink* sink = _sinkList[id];
    _sinkList[id] = nullptr;
    if (sink->ownsFd && sink->fd >= 0)
        ::close(sink->fd);
    if (sink->ownsFd)
        delete sink;
}

void VDebug::setDebugLevel(StreamId id, int level)
{
    if (Sink* sink = sinkOf(id))
        sink->level = level;
}

void VDebug::setRotationSize(StreamId id, int mebibytes)
{
    if (Sink* sink = sinkOf(id))
        sink->rotationBytes = qint64(mebibytes) * 1024 * 1024;
}

void VDebug::raiseLevelFor(StreamId id, int level, int seconds)
{
    Sink* sink = sinkOf(id);
    if (!sink)
        return;
    sink->timedLevelRestore = sink->level;
    sink->timedLevelSeconds = seconds;
    sink->timedLevelStart = QDateTime::currentDateTime();
    sink->timedLevelActive = true;
    sink->level = level;
}

void VDebug::setCircularBuffer(StreamId id, bool on)
{
    if (Sink* sink = sinkOf(id)) {
        sink->circularBuffer = on;
        if (!on)
            sink->ring.clear();
    }
}

QByteArray VDebug::circularBufferContents(StreamId id)
{
    const Sink* sink = sinkOf(id);
    return sink ? sink->ring : QByteArray();
}
